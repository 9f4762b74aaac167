#include "tests/lists/lists_fixture.h"

namespace dl::testing
{

std::string List(const std::string& address, const std::string& attributes, const std::string& dn)
{
    return "dn: cn=" + (dn.empty() ? address : dn) + "\nobjectClass: qvlist\nmail: " + address +
           "\n" + attributes + "\n";
}

ListsFixture::ListsFixture()
{
    Configure("[Ldap]\nFile = directory.ldif\n[DlManager]\nDbPath = " + Path("data") +
              "/\n[Connection]\nGatewayHostName = mx1\nGatewayDomain = example.org\n");
    Directory("");
}

void ListsFixture::Directory(const std::string& ldif)
{
    Write("conf/directory.ldif", ldif);
}

std::string ListsFixture::Logged()
{
    std::string text;
    for (const CapturedLog::Line& line : log.Lines())
        if (line.module == "DL Manager")
            text += std::to_string(line.level) + " " + line.text + "\n";
    log.Clear();
    return text;
}

std::string ListsFixture::Names(dllist* lists)
{
    std::string text;
    for (const char* list = lists->GetFirstList(); list; list = lists->GetNextList())
        text += std::string(list) + " ";
    return text;
}

std::string ListsFixture::Members(dllist* lists, const std::string& list, const std::string& mode)
{
    std::string text;
    for (const char* member = lists->GetFirstMember(list, mode); member;
         member = lists->GetNextMember(list, mode))
        text += std::string(member) + " ";
    return text;
}

}  // namespace dl::testing
