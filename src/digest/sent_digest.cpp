#include "digest/sent_digest.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>

#include "lists/digest_folder.h"
#include "platform/files/files.h"
#include "platform/log/log.h"
#include "platform/queue/work.h"
#include "schedule/due_file.h"

namespace dl
{
namespace
{

constexpr char kMark[] = "digest ";  // and the list

bool Remove(const std::string& path)
{
    if (Files().Remove(path.c_str()) || errno == ENOENT)
        return true;
    DlLog(1, "Unable to remove file: %s", path.c_str());
    return false;
}

// A moment that lies behind `next` was not moved before the crash.
bool MoveMoment(const std::string& list, std::time_t next)
{
    DueFile file(DigestDuePath(list));
    if (!file.IsOpen() || file.Read() >= next || file.Overwrite(next))
        return true;
    DlLog(1, "Unable to write file: %s", DigestDuePath(list).c_str());
    return false;
}

}  // namespace

bool SentDigest::Mark() const
{
    std::string value = std::to_string(next);
    for (const std::string& name : postings)
        value += "\n" + name;
    return SetMQMark(kMark + list, value);
}

bool SentDigest::Finish() const
{
    const DigestFolder folder(list);
    bool done = true;
    for (const std::string& name : postings)
        done = Remove(folder.PathOf(name)) && done;
    if (done && !RebuildTopics(folder)) {
        DlLog(1, "Unable to write file: %s", folder.Topics().c_str());
        done = false;
    }
    done = MoveMoment(list, next) && done;
    // Before the mark goes: a power loss must not bring postings back that nothing tells of.
    if (done)
        (void)SyncPath(folder.Path());
    return done && SetMQMark(kMark + list, std::nullopt);
}

bool ReadSentDigests(std::vector<SentDigest>* digests)
{
    std::map<std::string, std::string> marks;
    if (!ReadMQMarks(kMark, &marks))
        return false;
    for (const auto& [name, value] : marks) {
        SentDigest digest;
        digest.list = name.substr(sizeof kMark - 1);
        std::istringstream lines(value);
        std::string line;
        if (std::getline(lines, line))
            digest.next = std::strtol(line.c_str(), nullptr, 10);
        while (std::getline(lines, line))
            digest.postings.push_back(line);
        digests->push_back(std::move(digest));
    }
    return true;
}

}  // namespace dl
