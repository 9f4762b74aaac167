#include "tools/dlctl/site_state.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/config/data_path.h"
#include "platform/process/process.h"
#include "schedule/due_file.h"

namespace dl
{
namespace
{

ProgramState ReadProgram(const std::string& name, const char* process)
{
    ProgramState state;
    state.name = name;
    state.pid = RunningProcess(process);
    state.counted = ReadMetrics(QueuePath(), name, &state.metrics);
    return state;
}

std::vector<DigestDue> ReadDigests()
{
    std::vector<DigestDue> digests;
    std::error_code error;
    for (auto folder = std::filesystem::directory_iterator(DataPath(), error);
         !error && folder != std::filesystem::directory_iterator(); folder.increment(error)) {
        const std::string list = folder->path().filename();
        if (!IsSafeFolderName(list))
            continue;
        // Not as a DueFile, which is opened for writing: whoever looks may only read.
        std::FILE* file = std::fopen(DigestDuePath(list).c_str(), "rb");
        if (!file)
            continue;
        long due = 0;
        if (std::fscanf(file, "%ld", &due) != 1)
            due = 0;
        std::fclose(file);
        digests.push_back({list, due});
    }
    std::sort(digests.begin(), digests.end(), [](const DigestDue& a, const DigestDue& b) {
        return a.due != b.due ? a.due < b.due : a.list < b.list;
    });
    return digests;
}

}  // namespace

SiteState ReadSiteState()
{
    SiteState state;
    state.now = Now();
    state.manager = ReadProgram("dlmanager", "dl");
    state.sender = ReadProgram("dlsend", "dlsend");
    state.intake = ReadProgram("dlsubmit", "dlsubmit");
    state.queue = ReadQueueOverview(QueuePath());
    state.digests = ReadDigests();
    return state;
}

std::string UtcText(std::int64_t seconds)
{
    const std::time_t when = seconds;
    std::tm date{};
    char text[32];
    if (seconds == 0 || !gmtime_r(&when, &date))
        return "";
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &date);
    return text;
}

std::string SpanText(std::int64_t seconds)
{
    if (seconds < 120)
        return std::to_string(seconds) + " s";
    if (seconds < 7'200)
        return std::to_string(seconds / 60) + " min";
    if (seconds < 172'800)
        return std::to_string(seconds / 3600) + " h";
    return std::to_string(seconds / 86400) + " days";
}

}  // namespace dl
