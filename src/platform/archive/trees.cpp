#include "platform/archive/trees.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "platform/archive/failure_private.h"
#include "platform/archive/index_private.h"
#include "platform/archive/page_files.h"
#include "platform/clock/clock.h"
#include "platform/log/format.h"

namespace dl::archive
{
namespace
{

constexpr const char* kNewFolder = "html.new";
constexpr const char* kOldFolder = "html.old";
constexpr const char* kToken = "/.rebuild";

std::string In(const std::string& archive_path, const char* folder)
{
    return archive_path + "/" + folder;
}

bool IsThere(const std::string& path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

void RenameTo(const std::string& from, const std::string& to)
{
    if (!Files().Rename(from.c_str(), to.c_str()))
        Fail("rename " + from, errno);
}

}  // namespace

std::string PagesFolder(Database& index)
{
    return Meta(index, "rebuild").empty() ? kPagesFolder : kNewFolder;
}

std::string BeginNewTree(const std::string& archive_path)
{
    const std::string folder = In(archive_path, kNewFolder);
    RemoveTree(folder);
    if (!IsThere(In(archive_path, kPagesFolder)))
        return "";
    std::string token = std::to_string(NowMicroseconds());
    std::error_code error;
    std::filesystem::create_directory(folder, error);
    if (error)
        Fail("make the folder " + folder, error.value());
    if (!ReplaceFile(folder + kToken, token, 0640))
        Fail("write " + folder + kToken, errno);
    return token;
}

void ExchangeTrees(const std::string& archive_path, Database& index)
{
    if (Meta(index, "rebuild").empty())
        return;
    const std::string now = In(archive_path, kPagesFolder);
    const std::string next = In(archive_path, kNewFolder);
    if (!IsThere(now)) {
        RenameTo(next, now);
    } else if (::renameat2(AT_FDCWD, next.c_str(), AT_FDCWD, now.c_str(), RENAME_EXCHANGE) != 0) {
        // Not every file system exchanges.
        RemoveTree(In(archive_path, kOldFolder));
        RenameTo(now, In(archive_path, kOldFolder));
        RenameTo(next, now);
    }
    if (!SyncPath(archive_path))
        Fail("sync " + archive_path, errno);
    FinishExchange(archive_path, index);
}

void FinishExchange(const std::string& archive_path, Database& index)
{
    const std::string token = In(archive_path, kPagesFolder) + kToken;
    const std::string own = Meta(index, "rebuild");
    if (own.empty() || !IsThere(token))
        return;
    LineReader in(token);
    const auto line = in.IsOpen() ? in.Next() : std::nullopt;
    if (!in.IsOpen() || in.Failed())
        Fail("read " + token, errno);
    if (!line || *line != own)
        return;
    RemoveTree(In(archive_path, kNewFolder));
    RemoveTree(In(archive_path, kOldFolder));
    SetMeta(index, "rebuild", "");
    RemoveTree(token);
}

void RemoveEverywhere(const std::string& archive_path, const std::string& path)
{
    RemoveTree(archive_path + "/" + path);
    const std::string pages = std::string(kPagesFolder) + "/";
    if (path.starts_with(pages) && IsThere(In(archive_path, kNewFolder)))
        RemoveTree(In(archive_path, kNewFolder) + "/" + path.substr(pages.size()));
}

void SyncTree(const std::string& archive_path)
{
    const int fd = ::open(archive_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        Fail("open " + archive_path, errno);
    const int result = ::syncfs(fd);
    const int error = errno;
    ::close(fd);
    if (result != 0)
        Fail("sync " + archive_path, error);
}

void SetIndexAside(const std::string& archive_path)
{
    const std::string name = archive_path + "/index.db";
    RenameTo(name, name + ".damaged");
    RemoveTree(name + "-wal");
    RemoveTree(name + "-shm");
}

std::string PostingFileName(std::int64_t id)
{
    return FormatText("%08llX.msg", static_cast<unsigned long long>(id));
}

std::optional<std::int64_t> IdOfFile(const std::string& name)
{
    if (name.size() != 12 || !name.ends_with(".msg") ||
        name.find_first_not_of("0123456789ABCDEF") != 8)
        return std::nullopt;
    return std::stoll(name.substr(0, 8), nullptr, 16);
}

}  // namespace dl::archive
