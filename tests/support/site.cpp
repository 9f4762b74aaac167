#include "tests/support/site.h"

#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "dispatch/dispatcher.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "tests/support/queued.h"

namespace dl::testing
{
namespace
{

// The queue's many syncs cost nothing in memory.
const bool kInMemory = access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 0) == 0;

constexpr char kDomain[] = "@lists.example.org";
constexpr char kDomainEntry[] = ",dc=lists,dc=example,dc=org\n";

std::string Entry(const std::string& address, const std::string& lines)
{
    return "dn: mail=" + address + kDomainEntry + "mail: " + address + "\n" + lines + "\n";
}

std::string ListEntries(const std::string& name, const std::string& attributes)
{
    const char* archive = attributes.find("archive:") == std::string::npos ? "archive: 0\n" : "";
    return Entry(name + kDomain, "objectClass: qvlist\n" + attributes + archive) +
           Entry(name + "-owner" + kDomain,
                 "objectClass: qvlistowner\nlistowner: " + name + "-boss@example.org\n");
}

}  // namespace

std::string Queued::Header(const std::string& name) const
{
    const std::string start = "\r\n" + name + ": ";
    const std::string head = "\r\n" + text.substr(0, text.find("\r\n\r\n")) + "\r\n";
    const std::size_t at = head.find(start);
    if (at == std::string::npos)
        return "";
    const std::size_t from = at + start.size();
    return head.substr(from, head.find("\r\n", from) - from);
}

std::string Queued::Brief() const
{
    std::string all;
    for (const std::string& recipient : recipients)
        all += (all.empty() ? "" : ", ") + recipient;
    return sender + " -> " + all + ": " + Header("Subject") + "\n";
}

Site::Site()
{
    if (const char* folder = std::getenv("TMPDIR"))
        temp_before_ = folder;
    (void)kInMemory;
    std::filesystem::create_directories(Path("tmp"));
    setenv("TMPDIR", Path("tmp").c_str(), 1);
    Configure("[Connection]\nGatewayHostName = mail\nGatewayDomain = example.org\n[Ldap]\nFile = " +
              Path("site.ldif") + "\n[DlManager]\nDbPath = " + Path("data") +
              "/\nInstallationId = test-installation\n");
    // The checker outlives a site: it reads the directory at each use, not only at the first.
    Write("conf/qvmta.ini", "[Kestrune]\nReloadInterval = 0\n");
}

Site::~Site()
{
    CloseChannel();
    queue.reset();
    ListCache().DeleteCache();
    temp_before_ ? setenv("TMPDIR", temp_before_->c_str(), 1) : unsetenv("TMPDIR");
}

void Site::CloseChannel()
{
    if (channel_) {
        EXPECT_TRUE(CloseMQChannel(channel_));
    }
    channel_ = nullptr;
    taken_.reset();
}

void Site::AddList(const std::string& name, const std::string& attributes)
{
    lists_.emplace_back(name, attributes);
}

void Site::AddUsualLists()
{
    AddList("garden",
            "mode: 0\nAutoSubscription: YES\nInvalidPosting: both\nRemoveReturnReceiptTo: NO\n"
            "welcometxtpath: " +
                Path("welcome.txt") + "\nsubtxtpath: " + Path("subscribe.txt") +
                "\nunsubtxtpath: " + Path("unsubscribe.txt") +
                "\nlistmember: Immediate;anna@example.com\n"
                "listmember: Immediate;bert@example.net\n"
                "listmember: Digest;dora@example.com\n"
                "listmember: Immediate;Blocked;trader@example.net\n");
    AddList("board",
            "mode: 1\nAutoSubscription: YES\nInvalidPosting: both\n"
            "listmember: Immediate;anna@example.com\n");
    AddList("club", "mode: 0\nAutoSubscription: NO\nlistmember: Immediate;anna@example.com\n");
}

void Site::Start()
{
    CloseChannel();
    queue.reset();
    ListCache().DeleteCache();
    files.ForgetFaults();
    submitted_.clear();
    for (const char* folder : {"queue", "data", "tmp"})
        std::filesystem::remove_all(Path(folder));
    std::filesystem::create_directories(Path("tmp"));
    Write("welcome.txt", "Welcome to the garden.\r\n");
    Write("subscribe.txt", "Garden rules apply.\r\n");
    Write("unsubscribe.txt", "A pity.\r\n");
    std::string ldif =
        "dn: dc=lists,dc=example,dc=org\nobjectClass: dcObject\nobjectClass: organization\n"
        "dc: lists\no: Lists\n\n";
    for (const auto& [name, attributes] : lists_) {
        ldif += ListEntries(name, attributes);
        for (const char* folder : {"/digest", "/archive"})
            std::filesystem::create_directories(Path("data/") + name + kDomain + folder);
    }
    Write("site.ldif", ldif);
    queue.emplace(Path("queue"));
    ASSERT_TRUE(ListCache().InitCache());
    channel_ = OpenMQChannel("dl");
    ASSERT_NE(channel_, nullptr);
    log.Clear();
    queue->ClearCalls();
}

unsigned long Site::Submit(const std::string& sender, const std::vector<std::string>& recipients,
                           const std::string& text)
{
    const unsigned long id = PutEntry(text.find("\r\n") == std::string::npos ? Crlf(text) : text,
                                      "dl", sender, recipients);
    submitted_.insert(id);
    queue->ClearCalls();
    return id;
}

int Site::Run()
{
    const int result = ProcessQueue(channel_, "dl", "dlout", &processed_);
    freeStringChain(&processed_);
    return result;
}

Incoming Site::Take()
{
    const long id = GetFirstMessage(channel_, false);
    EXPECT_GE(id, 0);
    taken_ = GetMQEnvelope(static_cast<unsigned long>(id)).envelope;
    EXPECT_TRUE(taken_);
    return {channel_, static_cast<unsigned long>(id), taken_.get()};
}

std::vector<Queued> Site::On(const std::string& channel)
{
    std::vector<Queued> all;
    for (const QueueItem& item : QueueItems(channel)) {
        Queued& message = all.emplace_back();
        message.id = item.id;
        message.text = ReadFile(GetMQPathName(item.id, ".msg"));
        const std::unique_ptr<stEnvelope> envelope = GetMQEnvelope(item.id).envelope;
        if (!envelope)
            continue;
        if (const _envFrom* from = envelope->senders.Next()) {
            message.sender = std::string(from->address);
            message.flags = from->flags;
            message.channel = std::string(from->channel);
        }
        while (const _envRecip* to = envelope->recipients.Next()) {
            message.recipients.emplace_back(to->address);
            message.recipient_channel = std::string(to->channel);
        }
    }
    return all;
}

std::string Site::Brief(const std::string& channel)
{
    std::string all;
    for (const Queued& message : On(channel))
        all += message.Brief();
    return all;
}

int Site::Unfinished() const
{
    std::set<unsigned long> known = submitted_;
    for (const QueueItem& item : QueueItems())
        known.insert(item.id);
    int count = 0;
    for (const std::string& name : FileNames(Path("queue/msg")))
        if (name.ends_with(".msg"))
            count += known.count(std::stoul(name, nullptr, 16)) ? 0 : 1;
    return count;
}

std::vector<std::string> Site::Members(const std::string& list)
{
    ldapClient client;
    EXPECT_EQ(client.ldapClientConnect("", 389), 0);
    EXPECT_EQ(client.ldapClientBind("", ""), 0);
    const SearchReq found = client.ldapClientSearch(
        nullptr, 2, false, "(&(objectclass=qvlist)(mail=" + EscapeFilterValue(list) + "))");
    EXPECT_EQ(found.entries.size(), 1U);
    std::vector<std::string> members;
    for (const SearchEntry& entry : found.entries)
        for (const SearchAttribute& attribute : entry.attributes)
            if (attribute.name == "listmember")
                members.push_back(attribute.value);
    return members;
}

std::vector<std::string> Site::Pending(const std::string& list) const
{
    std::vector<std::string> all;
    for (const std::string& name : FileNames(Path("data/" + list)))
        if (name.ends_with(".cnf"))
            all.push_back(name + ": " + ReadFile(Path("data/" + list + "/" + name)));
    return all;
}

void Site::WritePending(const std::string& id, const std::string& line, const std::string& list)
{
    Write("data/" + list + "/" + id + ".cnf", line);
}

int Site::TempFiles() const
{
    return static_cast<int>(FileNames(Path("tmp")).size());
}

std::string Site::Log(int level) const
{
    const std::string folder = Path("");
    std::string all;
    bool loading = false;
    bool scanning = false;
    for (const CapturedLog::Line& line : log.Lines()) {
        const std::string_view text = line.text;
        if (line.level > level || (line.level > 1 && line.module != "DL Manager"))
            continue;
        if (text.starts_with("Found mailing list ") && !loading) {
            loading = true;
            all += "(lists loaded)\n";
        } else if (text.starts_with("Processing ") || text.starts_with("Recipient ") ||
                   line.level == 1) {
            loading = false;
        }
        if (text == "Running Kestrune..." || (scanning && text == "Done...")) {
            scanning = !scanning;
            continue;
        }
        if (loading)
            continue;
        std::string shown(text);
        for (std::size_t at = 0; (at = shown.find(folder, at)) != std::string::npos;)
            shown.replace(at, folder.size(), "~/");
        all += std::to_string(line.level) + " " + shown + "\n";
    }
    return all;
}

std::string WithoutSizes(std::string text)
{
    const std::string mark = "size: ";
    for (std::size_t at = text.find(mark); at != text.npos; at = text.find(mark, at)) {
        at += mark.size();
        text.replace(at, text.find_first_not_of("0123456789", at) - at, "?");
    }
    return text;
}

std::string Lines(std::initializer_list<std::string> lines)
{
    std::string all;
    for (const std::string& line : lines)
        all += line + "\n";
    return all;
}

}  // namespace dl::testing
