#include "tools/dlctl/list_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "lists/directory_access.h"
#include "platform/address/address.h"
#include "platform/config/data_path.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr mode_t kFolderMode = 0750;
constexpr const char* kFolders[] = {"", "/digest", "/archive"};

// A folder that is open, or not.
class OpenFolder
{
 public:
    OpenFolder(int parent, const std::string& name, int flags)
        : fd_(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags))
    {
    }
    ~OpenFolder()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    OpenFolder(const OpenFolder&) = delete;
    OpenFolder& operator=(const OpenFolder&) = delete;
    [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }
    [[nodiscard]] int Fd() const { return fd_; }

 private:
    int fd_;
};

struct Findings {
    Json all = Json::array();
    void Add(const std::string& what, const std::string& mend)
    {
        all.push_back({{"finding", what}, {"mend", mend}});
    }
};

void CheckFolders(const std::string& list, Findings* findings)
{
    for (const char* folder : kFolders) {
        const std::string path = DataPath() + "/" + list + folder;
        struct stat status {
        };
        if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
            findings->Add("the folder " + path + " is missing", "dlctl list check --fix " + list);
        else if ((status.st_mode & 07) != 0)
            findings->Add("everybody may look into " + path, "dlctl list check --fix " + list);
    }
}

void CheckTexts(const SearchEntry& entry, Findings* findings)
{
    for (const SearchAttribute& attribute : entry.attributes)
        for (const char* name : {"subtxtpath", "unsubtxtpath", "welcometxtpath",
                                 "disclaimertxtpath", "disclaimerhtmlpath"})
            if (EqualNoCase(attribute.name, name) && access(attribute.value.c_str(), R_OK) != 0)
                findings->Add(
                    FormatText("the file of %s cannot be read: %s", name, attribute.value.c_str()),
                    "write the file, or take the value out of the list's entry");
}

// The service makes the name of the entry whose members it changes from the list's address.
void CheckEntryName(const SearchEntry& entry, const std::string& list, Findings* findings)
{
    const auto plain = [](std::string name) {
        for (std::size_t at; (at = name.find(", ")) != std::string::npos;)
            name.erase(at + 1, 1);
        return name;
    };
    if (!EqualNoCase(plain(entry.dn), ListEntryName(list)))
        findings->Add("the entry is named " + entry.dn + ": nobody can join or leave by mail",
                      "name it " + ListEntryName(list));
}

bool HasOwner(const SearchReq& aliases)
{
    for (const SearchEntry& entry : aliases.entries)
        for (const SearchAttribute& attribute : entry.attributes)
            if (EqualNoCase(attribute.name, "listowner") && !attribute.value.empty())
                return true;
    return false;
}

void CheckOwner(ldapClient& client, const std::string& list, Findings* findings)
{
    const std::string alias = OwnerAlias(list);
    const SearchReq owner = FindOwner(client, list);
    if (owner.failed)
        findings->Add("the directory could not be searched for the owner", "try again");
    else if (owner.Empty())
        findings->Add("there is no owner alias " + alias + ", the postmaster gets its mail",
                      "add an entry of class qvlistowner with mail and listowner");
    else if (!HasOwner(owner))
        findings->Add(
            "the owner alias " + alias + " names no owner: mail for the owner cannot be sent",
            "add the attribute listowner with the owner's address");
}

}  // namespace

int MakeListFolders(const std::string& list)
{
    struct stat root {
    };
    const OpenFolder data(AT_FDCWD, DataPath(), 0);
    if (!data.IsOpen() || fstat(data.Fd(), &root) != 0)
        return Complain(kExitFailed, "the data folder %s is missing (DbPath in section DlManager)",
                        DataPath().c_str());
    const auto make = [&](int parent, const std::string& name, const std::string& path) {
        const int made = mkdirat(parent, name.c_str(), kFolderMode) == 0 ? 0 : errno;
        auto folder = std::make_unique<OpenFolder>(parent, name, O_NOFOLLOW);
        const int open_error = folder->IsOpen() ? 0 : errno;
        if (!folder->IsOpen())
            Complain(kExitFailed, "the folder %s cannot be made: %s", path.c_str(),
                     std::generic_category()
                         .message(made && made != EEXIST ? made : open_error)
                         .c_str());
        else if ((geteuid() == 0 && fchown(folder->Fd(), root.st_uid, root.st_gid) != 0) ||
                 fchmod(folder->Fd(), kFolderMode) != 0)
            Complain(kExitFailed, "the folder %s cannot be given its mode and owner", path.c_str());
        else
            return folder;
        return std::unique_ptr<OpenFolder>();
    };
    const std::string path = DataPath() + "/" + list;
    const auto folder = make(data.Fd(), list, path);
    if (!folder)
        return kExitFailed;
    for (const char* name : {"digest", "archive"})
        if (!make(folder->Fd(), name, path + "/" + name))
            return kExitFailed;
    return kExitOk;
}

std::string OwnerAlias(const std::string& list)
{
    const std::size_t at = list.rfind('@');
    return FormatText("%s-owner@%s", list.substr(0, at).c_str(), list.substr(at + 1).c_str());
}

SearchReq FindOwner(ldapClient& client, const std::string& list)
{
    return client.ldapClientSearch(nullptr, 2, false,
                                   FormatText("(&(objectclass=qvlistowner)(mail=%s))",
                                              EscapeFilterValue(OwnerAlias(list)).c_str()));
}

Json ListFindings(ldapClient& client, const std::string& list, const SearchReq& found)
{
    Findings findings;
    if (found.entries.size() > 1)
        findings.Add("several entries have this address; the first is used",
                     "remove the others from the directory");
    CheckEntryName(found.entries.front(), list, &findings);
    CheckFolders(list, &findings);
    CheckTexts(found.entries.front(), &findings);
    CheckOwner(client, list, &findings);
    return findings.all;
}

}  // namespace dl
