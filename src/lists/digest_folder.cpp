#include "lists/digest_folder.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>

#include "platform/address/address.h"
#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr mode_t kTopicsMode = 0640;
constexpr std::size_t kNameDigits = 8;

// The text of the last Subject header's first line; none when there is none.
std::optional<std::string> SubjectOf(const std::string& path)
{
    constexpr std::string_view kSubject = "Subject:";
    std::optional<std::string> subject;
    LineReader in(path);
    while (const auto line = in.Next()) {
        if (*line == "\r\n")
            break;
        if (StartsWithNoCase(*line, kSubject))
            subject = std::string(line->substr(kSubject.size()));
    }
    return subject;
}

}  // namespace

DigestFolder::DigestFolder(const std::string& folder)
{
    const std::string base = DataPath();
    path_ = (base.empty() ? std::string(".") : base) + "/" + folder + "/digest";
}

std::vector<std::string> DigestFolder::Postings() const
{
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator entry(path_, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        std::string name = entry->path().filename().string();
        if (name.find(".msg") != std::string::npos)
            names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string PostingName(unsigned long id)
{
    return FormatText("%08X.msg", static_cast<unsigned>(id));
}

std::optional<unsigned long> PostingId(const std::string& name)
{
    unsigned long id = 0;
    const char* end = name.data() + std::min(name.size(), kNameDigits);
    const auto read = std::from_chars(name.data(), end, id, 16);
    if (read.ec != std::errc() || read.ptr != end || name != PostingName(id))
        return std::nullopt;
    return id;
}

// One line in any case: of a subject with a NUL byte what stands before it, and a line end for one
// that the message's end has cut off.
std::string TopicLine(int number, const std::optional<std::string>& subject)
{
    std::string topic = subject ? subject->c_str() : " No subject\r\n";
    if (topic.empty() || topic.back() != '\n')
        topic += "\r\n";
    return FormatText("%4d. %s", number, topic.c_str());
}

int CountTopics(const DigestFolder& folder)
{
    LineReader in(folder.Topics());
    if (!in.IsOpen())
        return errno == ENOENT ? 0 : -1;
    int lines = 0;
    while (const auto line = in.Next())
        lines += line->back() == '\n' ? 1 : 0;
    return in.Failed() ? -1 : lines;
}

bool AddTopics(const DigestFolder& folder, const std::vector<std::optional<std::string>>& subjects)
{
    int lines = CountTopics(folder);
    if (lines < 0)
        return false;
    FileWriter out(folder.Topics(), "ab");
    for (const std::optional<std::string>& subject : subjects)
        (void)out.Write(TopicLine(++lines, subject));  // Close says what failed
    return out.IsOpen() && out.Close() && SyncPath(folder.Topics());
}

std::string TopicsOf(const DigestFolder& folder, const std::vector<std::string>& names)
{
    std::string topics;
    int number = 0;
    for (const std::string& name : names)
        topics += TopicLine(++number, SubjectOf(folder.PathOf(name)));
    return topics;
}

bool RebuildTopics(const DigestFolder& folder)
{
    const std::vector<std::string> names = folder.Postings();
    if (names.empty())
        return Files().Remove(folder.Topics().c_str()) || errno == ENOENT;
    return ReplaceFile(folder.Topics(), TopicsOf(folder, names), kTopicsMode);
}

}  // namespace dl
