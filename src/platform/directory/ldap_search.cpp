// Searching an LDAP server.
#include <algorithm>

#include "platform/directory/ldap_session_private.h"
#include "platform/directory/matching.h"

namespace dl
{

bool LdapSession::Search(const SearchQuery& query, NamePool* names, const EntrySink& take)
{
    const NoPipeSignal quiet;
    if (!handle_)
        return false;
    Reading reading{query, query.base ? query.base : settings_.base, names, take, 0, ""};
    do {
        const int code = SearchPage(&reading);
        if (code != LDAP_SUCCESS) {
            LogDirectory(1, "search of %s below \"%s\" failed after %zu entries: %s",
                         query.filter.c_str(), reading.base.c_str(), reading.taken,
                         LdapReason(handle_, code).c_str());
            return false;
        }
    } while (!reading.cookie.empty() && (query.limit == 0 || reading.taken < query.limit));
    return true;
}

int LdapSession::SearchPage(Reading* reading)
{
    const SearchQuery& query = reading->query;
    berval cookie = AsBerval(reading->cookie);
    LDAPControl* made = nullptr;
    const int size =
        query.limit == 0
            ? settings_.page_size
            : static_cast<int>(std::min(query.limit - reading->taken,
                                        static_cast<std::size_t>(settings_.page_size)));
    // Critical: a server that cannot do pages must say so rather than answer with its first few.
    int code = ldap_create_page_control(handle_, size, &cookie, 1, &made);
    if (code != LDAP_SUCCESS)
        return code;
    const Owned<LDAPControl> page(made);
    LDAPControl* controls[] = {page.get(), nullptr};
    std::vector<char*> names;  // the library does not write there
    for (const std::string& name : query.attributes)
        names.push_back(const_cast<char*>(name.c_str()));
    names.push_back(nullptr);
    int id = 0;
    code = ldap_search_ext(handle_, reading->base.c_str(), query.scope, query.filter.c_str(),
                           query.attributes.empty() ? nullptr : names.data(),
                           query.attributes_only ? 1 : 0, controls, nullptr, nullptr, LDAP_NO_LIMIT,
                           &id);
    if (code != LDAP_SUCCESS)
        return code;
    code = ReadPage(id, reading);
    if (code != LDAP_SUCCESS)
        (void)ldap_abandon_ext(handle_, id, nullptr, nullptr);  // the search has failed anyway
    return code;
}

// Takes the messages of one page one by one, so that no second copy of the page stands in memory.
int LdapSession::ReadPage(int id, Reading* reading)
{
    for (;;) {
        timeval wait{};
        wait.tv_sec = settings_.timeout_seconds;
        LDAPMessage* got = nullptr;
        const int type = ldap_result(handle_, id, LDAP_MSG_ONE, &wait, &got);
        const Owned<LDAPMessage> message(got);
        int code = LDAP_SUCCESS;
        switch (type) {
            case LDAP_RES_SEARCH_ENTRY:
                code = TakeEntry(got, reading);
                break;
            case LDAP_RES_SEARCH_RESULT:
                return EndPage(got, &reading->cookie);
            case LDAP_RES_SEARCH_REFERENCE:
                // A part of the tree lies on another server: what came would be a short list.
                return LDAP_REFERRAL;
            case LDAP_RES_INTERMEDIATE:
                break;
            case 0:
                return LDAP_TIMEOUT;
            default:
                (void)ldap_get_option(handle_, LDAP_OPT_RESULT_CODE, &code);
                return code == LDAP_SUCCESS ? LDAP_SERVER_DOWN : code;
        }
        if (code != LDAP_SUCCESS)
            return code;
    }
}

int LdapSession::TakeEntry(LDAPMessage* entry, Reading* reading)
{
    BerElement* cursor = nullptr;
    berval dn{};
    int code = ldap_get_dn_ber(handle_, entry, &cursor, &dn);
    const Owned<BerElement> owner(cursor);
    if (code != LDAP_SUCCESS)
        return code;
    SearchEntry taken;
    taken.dn.assign(dn.bv_val, dn.bv_len);
    berval name{};
    berval* values = nullptr;
    while ((code = ldap_get_attribute_ber(handle_, entry, cursor, &name, &values)) ==
               LDAP_SUCCESS &&
           name.bv_val) {
        const Owned<berval> array(values);  // the values lie in the message
        const std::string_view kept =
            reading->names->Keep(SchemaName(std::string_view(name.bv_val, name.bv_len)));
        if (reading->query.attributes_only)
            taken.attributes.push_back({kept, {}});
        for (std::size_t i = 0; values && values[i].bv_val; i++)
            taken.attributes.push_back({kept, {values[i].bv_val, values[i].bv_len}});
        values = nullptr;
    }
    if (code == LDAP_SUCCESS) {
        reading->taken++;
        reading->take(std::move(taken));
    }
    return code;
}

int LdapSession::EndPage(LDAPMessage* message, std::string* cookie)
{
    cookie->clear();
    int answer = LDAP_SUCCESS;
    LDAPControl** made = nullptr;
    int code = ldap_parse_result(handle_, message, &answer, nullptr, nullptr, nullptr, &made, 0);
    const Owned<LDAPControl*> controls(made);
    if (code != LDAP_SUCCESS || answer != LDAP_SUCCESS)
        return code != LDAP_SUCCESS ? code : answer;
    LDAPControl* page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, made, nullptr);
    if (!page)
        return LDAP_SUCCESS;
    ber_int_t estimate = 0;
    berval next{};
    code = ldap_parse_pageresponse_control(handle_, page, &estimate, &next);
    const Owned<char> cookie_owner(next.bv_val);
    if (code == LDAP_SUCCESS && next.bv_val)
        cookie->assign(next.bv_val, next.bv_len);
    return code;
}

}  // namespace dl
