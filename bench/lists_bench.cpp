// Prints what the list cache costs: loading all lists, looking up an unknown address, refreshing
// with nothing, one list or every list changed; time, and the peak of memory in each step. Beside
// each stands the floor: the same question put to the server with bare libldap, or the bare file
// read.
//
//   lists_bench ldif|slapd|plain LISTS MEMBERS     plain: a slapd that shows no entryCSN and no
//                                                  modifyTimestamp

#include <ldap.h>
#include <malloc.h>

#include <cstring>
#include <memory>
#include <vector>

#include "bench/bench_site.h"
#include "lists/directory_access.h"
#include "lists/dllist.h"
#include "tests/support/slapd.h"

namespace
{

using dl::bench::ForgetPeak;
using dl::bench::MillisecondsSince;
using dl::bench::Need;
using dl::bench::PeakMemory;
using dl::bench::SteadyClock;
using dl::testing::Slapd;

constexpr int kLookUps = 20;

template <typename Deed>
double Timed(const Deed& deed)
{
    const SteadyClock::time_point begin = SteadyClock::now();
    deed();
    return MillisecondsSince(begin);
}

void Print(const char* what, double time, double floor)
{
    std::printf("  %-34s %9.2f ms   floor %9.2f ms   peak memory %7.1f MiB\n", what, time, floor,
                PeakMemory());
    std::fflush(stdout);
    malloc_trim(0);
    ForgetPeak();
}

// One session: connect, bind, search in pages, every message read and thrown away.
void AskServer(int port, const char* filter, std::vector<const char*> names)
{
    LDAP* handle = nullptr;
    const std::string uri = "ldap://127.0.0.1:" + std::to_string(port) + "/";
    const int version = LDAP_VERSION3;
    berval secret{std::strlen(Slapd::kServicePassword), const_cast<char*>(Slapd::kServicePassword)};
    Need(ldap_initialize(&handle, uri.c_str()) == LDAP_SUCCESS &&
             ldap_set_option(handle, LDAP_OPT_PROTOCOL_VERSION, &version) == LDAP_SUCCESS &&
             ldap_sasl_bind_s(handle, Slapd::kServiceDn, LDAP_SASL_SIMPLE, &secret, nullptr,
                              nullptr, nullptr) == LDAP_SUCCESS,
         "the floor's bind");
    names.push_back(nullptr);
    berval cookie{};
    do {
        LDAPControl* page = nullptr;
        int id = 0;
        Need(ldap_create_page_control(handle, 500, &cookie, 1, &page) == LDAP_SUCCESS, "a control");
        LDAPControl* controls[] = {page, nullptr};
        Need(ldap_search_ext(handle, "", LDAP_SCOPE_SUBTREE, filter,
                             const_cast<char**>(names.data()), 0, controls, nullptr, nullptr, 0,
                             &id) == LDAP_SUCCESS,
             "the floor's search");
        ldap_control_free(page);
        ber_memfree(cookie.bv_val);
        cookie = {};
        LDAPMessage* message = nullptr;
        while (ldap_result(handle, id, LDAP_MSG_ONE, nullptr, &message) == LDAP_RES_SEARCH_ENTRY)
            ldap_msgfree(message);
        LDAPControl** answer = nullptr;
        ber_int_t estimate = 0;
        Need(ldap_parse_result(handle, message, nullptr, nullptr, nullptr, nullptr, &answer, 1) ==
                     LDAP_SUCCESS &&
                 ldap_parse_pageresponse_control(
                     handle, ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, answer, nullptr),
                     &estimate, &cookie) == LDAP_SUCCESS,
             "the floor's answer");
        ldap_controls_free(answer);
    } while (cookie.bv_len > 0);
    ber_memfree(cookie.bv_val);
    (void)ldap_unbind_ext_s(handle, nullptr, nullptr);
}

void ReadBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<char> buffer(1U << 20U);
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
    }
}

// The directory under test.
struct Source {
    std::unique_ptr<Slapd> slapd;  // null: the file
    std::string file;

    // The floor of a question that answers with all lists, whole or with what tells changes; null
    // floors of the file: looking at its state takes microseconds.
    [[nodiscard]] double FloorOfAll() const
    {
        return Timed([this] {
            slapd ? AskServer(slapd->Port(), "(objectclass=qvlist)", {"*", "entryCSN"})
                  : ReadBytes(file);
        });
    }
    [[nodiscard]] double FloorOfNames() const
    {
        return Timed([this] {
            if (slapd)
                AskServer(slapd->Port(), "(objectclass=qvlist)", {"mail", "entryCSN"});
        });
    }
    [[nodiscard]] double FloorOfLookUp() const
    {
        return Timed([this] {
                   for (int i = 0; slapd && i < kLookUps; ++i)
                       AskServer(slapd->Port(), "(&(objectclass=qvlist)(mail=nobody@example.org))",
                                 {"*"});
               }) /
               kLookUps;
    }
};

void ChangeLists(int count, const char* member)
{
    dl::ldapClient client;
    Need(dl::OpenDirectory(&client), "opening the directory");
    for (int i = 0; i < count; ++i)
        Need(client.ldapClientModify(dl::ListEntryName("list" + std::to_string(i) + "@example.org"),
                                     {{dl::AttributeChange::Operation::kAdd, "listmember",
                                       member}}) == dl::ModifyResult::kDone,
             "changing a list");
}

Source Begin(const std::string& kind, dl::bench::Site* site, const std::string& entries)
{
    Source source;
    source.file = site->Folder() + "/lists.ldif";
    if (kind == "ldif") {
        site->Write("lists.ldif", entries);
        return source;
    }
    source.slapd =
        std::make_unique<Slapd>(site->Folder() + "/slapd", entries,
                                Slapd::Options{.config = kind == "plain" ? Slapd::kNoStamps : ""});
    Need(source.slapd->Up(), source.slapd->Reason().c_str());
    const std::string settings = source.slapd->Settings();
    site->Configure(settings.substr(settings.find('\n') + 1));
    return source;
}

void Run(const char* kind, int lists, int members)
{
    dl::bench::Site site("File=lists.ldif\n");
    Source source = Begin(kind, &site, dl::bench::ListEntries(lists, members));
    for (int i = 0; i < lists; ++i) {
        const std::string digest = "data/list" + std::to_string(i) + "@example.org/digest";
        std::filesystem::create_directories(site.Folder() + "/" + digest);
        site.Write(digest + "/digest.dt", "4000000000");
    }
    std::printf("%d lists x %d members from %s\n", lists, members, kind);
    dl::dllist& cache = dl::ListCache();
    const double all = source.FloorOfAll();
    const double names = source.FloorOfNames();
    const double look_up = source.FloorOfLookUp();
    malloc_trim(0);
    ForgetPeak();
    Print("load", Timed([&] { Need(cache.InitCache(), "loading the lists"); }), all);
    Print("look-up of an unknown address",
          Timed([&] {
              for (int i = 0; i < kLookUps; ++i)
                  Need(!cache.IsCached("nobody@example.org"), "the look-up");
          }) / kLookUps,
          look_up);
    const auto refresh = [&] { Need(cache.RefreshCache(), "refreshing the lists"); };
    Print("refresh, nothing changed", Timed(refresh), names);
    Print("refresh, nothing changed, again", Timed(refresh), names);
    ChangeLists(1, "Immediate;one@example.com");
    ForgetPeak();
    Print("refresh, one list changed", Timed(refresh), source.slapd ? names : all);
    if (source.slapd) {  // a file is written as a whole for each change
        ChangeLists(lists, "Immediate;all@example.com");
        ForgetPeak();
        Print("refresh, every list changed", Timed(refresh), all);
    }
    Need(cache.Count() == lists, "counting the lists");
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return 64;
    Run(argv[1], std::atoi(argv[2]), std::atoi(argv[3]));
    return 0;
}
