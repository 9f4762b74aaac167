#include "tests/platform/archive/archive_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/log/format.h"

namespace dl::testing
{

namespace fs = std::filesystem;

namespace
{

// The pages of these tests are synced to the disk thousands of times; in memory that costs nothing.
const bool kInMemory = ::access("/dev/shm", W_OK) == 0 && ::setenv("TMPDIR", "/dev/shm", 0) == 0;

}  // namespace

std::string MessageOf(unsigned long id, const Mail& mail)
{
    const int minute = mail.minute >= 0 ? mail.minute : static_cast<int>(id) * 10;
    const int day = 1 + minute / (24 * 60);
    const std::string date = FormatText("%d %s 2004 %02d:%02d:00 +0000", day > 30 ? day - 30 : day,
                                        day > 30 ? "Dec" : "Nov", minute / 60 % 24, minute % 60);
    const std::string own = mail.id.empty() ? FormatText("m%lu@example.com", id) : mail.id;
    return "Message-ID: <" + own + ">\r\nDate: " + date + "\r\nFrom: " + mail.from +
           "\r\nTo: garden@lists.example.org\r\nSubject: " + mail.subject + "\r\n" + mail.more +
           "\r\n" + mail.body;
}

ArchiveFixture::ArchiveFixture()
{
    (void)kInMemory;
    Configure("[DlManager]\nDbPath=" + Path("data") + "\n");
    fs::create_directories(ArchivePath());
    clock.now = 1'103'000'000;  // 2004-12-14
}

void ArchiveFixture::Post(unsigned long id, const Mail& mail)
{
    PostRaw(id, MessageOf(id, mail));
}

void ArchiveFixture::PostRaw(unsigned long id, const std::string& message)
{
    Write("data/" + list + "/archive/" + FormatText("%08lX.msg", id), message);
    CDlArchive::AddArchive(ArchivePath(), id);
}

void ArchiveFixture::Generate()
{
    CDlArchive::GenerateIndexPages(list);
}

void ArchiveFixture::CheckPages() const
{
    const std::string command = "python3 " DL_SOURCE "/tests/platform/archive/check_pages.py '" +
                                PagePath("") + "' > '" + Path("check.txt") + "' 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << ReadFile(Path("check.txt"));
}

std::string ArchiveFixture::ArchivePath() const
{
    return Path("data/" + list + "/archive");
}

std::string ArchiveFixture::PagePath(const std::string& name) const
{
    return ArchivePath() + "/html/" + name;
}

std::string ArchiveFixture::Page(const std::string& name) const
{
    return ReadFile(PagePath(name));
}

std::vector<std::string> ArchiveFixture::PostingPages(const std::string& title) const
{
    std::vector<std::string> pages;
    for (const auto& [path, inode] : Inodes())
        if (path.starts_with("p/") && path.ends_with(".html") &&
            Page(path).find("<h1><bdi>" + title + "</bdi></h1>") != std::string::npos)
            pages.push_back(path);
    return pages;
}

std::string ArchiveFixture::PostingPage(const std::string& title) const
{
    const auto pages = PostingPages(title);
    return pages.size() == 1 ? Page(pages.front()) : "";
}

std::map<std::string, unsigned long> ArchiveFixture::Inodes() const
{
    std::map<std::string, unsigned long> inodes;
    const fs::path top = PagePath("");
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
        struct stat status = {};
        if (entry.is_regular_file() && ::stat(entry.path().c_str(), &status) == 0)
            inodes[fs::relative(entry.path(), top).string()] = status.st_ino;
    }
    return inodes;
}

std::vector<std::string> ArchiveFixture::Written(
    const std::map<std::string, unsigned long>& before) const
{
    std::vector<std::string> paths;
    for (const auto& [path, inode] : Inodes()) {
        const auto old = before.find(path);
        if (old == before.end() || old->second != inode)
            paths.push_back(path);
    }
    return paths;
}

std::string ArchiveFixture::Everything() const
{
    std::string all;
    for (const auto& [path, inode] : Inodes())
        all += "== " + path + "\n" + Page(path);
    return all;
}

}  // namespace dl::testing
