#include "antispam/file_message.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <new>
#include <stdexcept>

#include "antispam/spam_log.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/files/files.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

namespace fs = std::filesystem;

constexpr std::size_t kHomeDirSize = 4096;
constexpr char kMissingHost[] = ".MISSING-HOST-NAME.";
constexpr std::int64_t kFolderFlags = 7;  // the bits of the flags that stay
constexpr std::int64_t kNewMessages = 4;  // the bit that a filed message sets
constexpr char kUnfinished[] = "/.new";   // no folder's name: it begins with a dot

bool IsDirectory(const std::string& path)
{
    std::error_code error;
    return fs::is_directory(path, error);
}

// The end of the header: bytes up to and with the line end of its last line; where the search
// stopped when there is no empty line.
struct HeaderEnd {
    std::size_t length = 0;
    bool found = false;
};
HeaderEnd FindHeaderEnd(std::string_view message)
{
    std::size_t at = 0;
    for (; message.size() - at >= 4 && message[at] != '\0'; ++at)
        if (message.compare(at, 4, "\r\n\r\n") == 0)
            return {at + 2, true};
    return {at, false};
}

msgstat_record Statistics(std::size_t size, std::size_t header)
{
    const std::time_t now = Now();
    std::tm local{};
    localtime_r(&now, &local);
    const long minutes = local.tm_gmtoff / 60;
    msgstat_record record;
    record.day = local.tm_mday;
    record.month = local.tm_mon + 1;
    record.year = local.tm_year - 70;
    record.hour = local.tm_hour;
    record.minute = local.tm_min;
    record.second = local.tm_sec;
    record.zone_negative = minutes < 0;
    record.zone_hours = static_cast<int>(std::labs(minutes) / 60);
    record.zone_minutes = static_cast<int>(std::labs(minutes) % 60);
    record.size = static_cast<std::int64_t>(size);
    record.header = static_cast<std::int64_t>(header);
    return record;
}

// The records of one message, taken back in reverse order unless it was kept.
class Records
{
 public:
    Records(diamondBase* session, const std::string& folder, std::int64_t uid)
        : stat_(*session, folder), env_(*session, folder), body_(*session, folder), uid_(uid)
    {
    }
    ~Records()
    {
        // A record that stays does no harm: no counter tells of it, and the next message replaces
        // it.
        if (added_ > 2)
            (void)body_.RemoveMsgBody(&env_, {uid_, 0});
        if (added_ > 1)
            (void)env_.RemoveMsgEnv({uid_, 0});
        if (added_ > 0)
            (void)stat_.RemoveMsgStat(uid_);
    }
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    [[nodiscard]] bool Add(const msgstat_record& record, const mail_envelope& envelope,
                           const mail_body& body)
    {
        if (stat_.AddMsgStat(uid_, record) != kStoreDone)
            return false;
        ++added_;
        if (env_.AddMsgEnv({uid_, 0}, envelope) != kStoreDone)
            return false;
        ++added_;
        if (body_.AddMsgBody(&env_, {uid_, 0}, {uid_, 0}, body) != kStoreDone)
            return false;
        ++added_;
        return true;
    }
    void Keep() { added_ = 0; }

 private:
    msgstat stat_;
    msgenv env_;
    msgbody body_;
    std::int64_t uid_;
    int added_ = 0;
};

bool WriteStored(const std::string& path, std::string_view message)
{
    FileWriter out(path, "wb");
    if (out.IsOpen() && out.Write(kStoredLeadIn) && out.Write(message) && out.Close() &&
        SyncPath(path) && SyncPath(path.substr(0, path.rfind('/'))))
        return true;
    (void)unlink(path.c_str());  // what was not stored is of no use to anybody
    return false;
}

int ReadWhole(const std::string& path, std::string* message)
{
    struct stat status {
    };
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return kNoStatus;
    try {
        message->resize(static_cast<std::size_t>(status.st_size));
    } catch (const std::bad_alloc&) {
        return kNoMemoryForMessage;
    } catch (const std::length_error&) {
        return kNoMemoryForMessage;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return kCannotOpen;
    std::size_t have = 0;
    while (have < message->size()) {
        const ssize_t got = read(fd, message->data() + have, message->size() - have);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        have += static_cast<std::size_t>(got);
    }
    close(fd);
    return have == message->size() ? kFilingDone : kShortRead;
}

// Makes the directory of one level beside its place, whole, and moves it there.
bool MakeLevel(mailbox* relation, const std::string& level, const std::string& directory)
{
    const std::string home =
        GetPrivateProfileString("MsgStore", "HomeDir", "", kHomeDirSize, kGatewayConfig);
    const std::string parent = directory.substr(0, directory.rfind('/'));
    const std::string unfinished = parent + kUnfinished;
    std::error_code error;
    fs::remove_all(unfinished, error);  // what a crash left
    if (mkdir(unfinished.c_str(), 0777) != 0)
        return false;
    bool made = true;
    for (const char* name : kStoreFiles) {
        const std::string copy = unfinished + "/" + name;
        made = made && fs::copy_file(home + "/" + name, copy, error) && SyncPath(copy);
    }
    made = made && SyncPath(unfinished);
    mbxstat fresh;
    fresh.flags = 1;
    fresh.created = Now();
    // The record comes first: one without a directory is replaced when the folder is made at last,
    // a directory without its record would never be of use again.
    if (made && relation->AddMbx(level, fresh) == kStoreDone) {
        if (rename(unfinished.c_str(), directory.c_str()) == 0)
            return SyncPath(parent);
        (void)relation->RemoveMbx(level);
    }
    fs::remove_all(unfinished, error);
    return false;
}

int TryFile(const std::string& mailbox_directory, const std::string& path,
            const std::string& folder)
{
    std::string directory;
    try {
        directory = mailbox_directory + "/" + folder;
    } catch (const std::bad_alloc&) {
        return kNoMemoryForDirectory;
    }
    diamondBase session;
    mailbox relation(session, mailbox_directory);
    if (!IsFolderName(folder) || relation.lock() != kStoreDone ||
        (!IsDirectory(directory) && !CreateFolder(&relation, mailbox_directory, folder)))
        return kFolderNotMade;
    std::string message;
    if (const int failed = ReadWhole(path, &message))
        return failed;
    const int result = StoreMessage(&session, &relation, mailbox_directory, folder, message);
    relation.unlock();
    return result;
}

}  // namespace

bool IsFolderName(const std::string& folder)
{
    std::size_t from = 0;
    for (int level = 1;; ++level) {
        const std::size_t slash = folder.find('/', from);
        const std::string name =
            folder.substr(from, slash == std::string::npos ? slash : slash - from);
        const bool control = std::any_of(name.begin(), name.end(), [](char c) {
            return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        });
        const bool number = name.find_first_not_of("0123456789") == std::string::npos;
        if (name.empty() || name[0] == '.' || control || (level > 1 && number))
            return false;
        if (slash == std::string::npos)
            return true;
        from = slash + 1;
    }
}

bool CreateFolder(mailbox* relation, const std::string& mailbox_directory,
                  const std::string& folder)
{
    for (std::size_t slash = folder.find('/');; slash = folder.find('/', slash + 1)) {
        const std::string level = folder.substr(0, slash);
        std::string directory = mailbox_directory;
        directory.append("/").append(level);
        if (!IsDirectory(directory) && !MakeLevel(relation, level, directory))
            return false;
        if (slash == std::string::npos)
            return true;
    }
}

std::string StoredMessagePath(const std::string& folder_directory, long uid)
{
    return FormatText("%s%c%ld", folder_directory.c_str(), '/', uid);
}

int StoreMessage(diamondBase* session, mailbox* relation, const std::string& mailbox_directory,
                 const std::string& folder, std::string_view message)
{
    const std::string directory = mailbox_directory + "/" + folder;
    const HeaderEnd header = FindHeaderEnd(message);
    mail_envelope envelope;
    mail_body body;
    // A message that cannot be taken apart is filed all the same, with empty records.
    (void)rfc822_parse_msg_full(
        &envelope, &body, message.substr(0, header.length),
        mail_string{header.found ? message.substr(header.length) : std::string_view()},
        kMissingHost);
    mbxstat before;
    if (relation->GetMbxStat(folder, &before) != kStoreDone)
        return kNoFolderStatistics;
    Records records(session, directory, before.next_uid);
    if (!records.Add(Statistics(message.size(), header.length), envelope, body))
        return kNotStored;
    mbxstat after = before;
    after.flags = (before.flags & kFolderFlags) | kNewMessages;
    ++after.messages;
    ++after.recent;
    ++after.unseen;
    ++after.next_uid;
    if (relation->UpdateMbxStat(folder, after, mbxstat::kAll) != kStoreDone)
        return kNotStored;
    if (!WriteStored(StoredMessagePath(directory, before.next_uid), message)) {
        // When this fails too, the folder counts one message that is not there.
        (void)relation->UpdateMbxStat(folder, before, mbxstat::kAll);
        return kNotStored;
    }
    records.Keep();
    mail_free_envelope(&envelope);
    mail_free_body(&body);
    return kFilingDone;
}

bool FileMessage(const std::string& mailbox_directory, const std::string& path,
                 const std::string& folder)
{
    int result = kFilingDone;
    try {
        result = TryFile(mailbox_directory, path, folder);
    } catch (const std::bad_alloc&) {
        result = kNoMemoryForFolder;
    }
    if (result != kFilingDone)
        BayesLog(1, "FileMessage - Catch error: %d\n", result);
    return result == kFilingDone;
}

}  // namespace dl
