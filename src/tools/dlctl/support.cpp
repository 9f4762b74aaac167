#include "tools/dlctl/support.h"

#include <cstdarg>
#include <cstdio>

#include "platform/address/address.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "tools/dlctl/progress.h"

namespace dl
{

int Complain(int status, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = FormatTextList(format, args);
    va_end(args);
    PrintErrorLine("dlctl: " + EscapeForLog(text.c_str()));
    return status;
}

std::string Dump(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

void PrintJson(const Json& json)
{
    std::puts(Dump(json).c_str());
}

bool IsListName(const std::string& list)
{
    if (IsSafeFolderName(list))
        return true;
    Complain(kExitFailed,
             "%s cannot be a list: it must be an address that can be the name of a folder",
             list.c_str());
    return false;
}

ListFound FindListEntry(ldapClient& client, const std::string& list, SearchReq* found)
{
    constexpr int kSubtree = 2;
    *found = client.ldapClientSearch(
        nullptr, kSubtree, false,
        FormatText("(&(objectclass=qvlist)(mail=%s))", EscapeFilterValue(list).c_str()));
    if (found->failed) {
        Complain(kExitFailed, "the directory could not be searched");
        return ListFound::kFailed;
    }
    if (!found->Empty())
        return ListFound::kYes;
    Complain(kExitNotFound, "there is no list %s", list.c_str());
    return ListFound::kNo;
}

int ExplainChange(ModifyResult result, const std::string& what)
{
    switch (result) {
        case ModifyResult::kDone:
            return kExitOk;
        case ModifyResult::kUnreachable:
            return Complain(kExitFailed, "%s: the directory did not answer", what.c_str());
        case ModifyResult::kAlready:
            return Complain(kExitFailed, "%s: it is there already", what.c_str());
        case ModifyResult::kNotThere:
            return Complain(kExitNotFound, "%s: it is not there", what.c_str());
        case ModifyResult::kRefused:
            break;
    }
    return Complain(kExitFailed,
                    "%s: the directory refused it (no rights, no such entry above, or a value that "
                    "it does not allow)",
                    what.c_str());
}

}  // namespace dl
