#include "antispam/training.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <vector>

#include "antispam/file_message.h"
#include "antispam/spam_log.h"

namespace dl
{
namespace
{

constexpr char kTrained[] = "trained";
constexpr int kCounters = mbxstat::kMessages | mbxstat::kRecent | mbxstat::kUnseen;

class Pass
{
 public:
    Pass(const BayesianFilter& filter, const std::string& mailbox_directory,
         const std::string& folder, TrainingFolder kind)
        : filter_(filter),
          mailbox_(mailbox_directory),
          folder_(folder),
          directory_(mailbox_directory + "/" + folder),
          kind_(kind),
          relation_(session_, mailbox_directory),
          stats_(session_, directory_),
          envelopes_(session_, directory_),
          bodies_(session_, directory_)
    {
    }

    [[nodiscard]] bool Run()
    {
        if (relation_.lock() != kStoreDone || !ReadUids()) {
            BayesLog(1, "The folder %s cannot be read", directory_.c_str());
            return false;
        }
        for (const std::int64_t uid : uids_)
            LearnMessage(uid);
        for (const std::int64_t uid : uids_)
            if (kept_.count(uid) == 0)
                Remove(uid);
        const bool reset = ResetCounters();
        relation_.unlock();
        return reset && kept_.empty();
    }

 private:
    [[nodiscard]] std::string MessagePath(std::int64_t uid) const
    {
        return StoredMessagePath(directory_, static_cast<long>(uid));
    }

    bool ReadUids()
    {
        std::int64_t uid = 0;
        int found = stats_.GetFirstUid(&uid);
        for (; found == kStoreDone; found = stats_.GetNextUid(uid, &uid))
            uids_.push_back(uid);
        return found == kStoreNotThere;
    }

    void LearnMessage(std::int64_t uid)
    {
        const std::string path = MessagePath(uid);
        const BayesianFilterSettings& settings = filter_.Settings();
        const bool spam = kind_ == TrainingFolder::kSpam;
        BayesLog(6, spam ? "Removing %s from non spam db" : "Removing %s from spam db",
                 path.c_str());
        (void)filter_.Learn(spam ? settings.remove_ham : settings.remove_spam, mailbox_, path);
        BayesLog(6, spam ? "Adding %s to spam db" : "Adding %s to non spam db", path.c_str());
        (void)filter_.Learn(spam ? settings.add_spam : settings.add_ham, mailbox_, path);
        if ((spam ? settings.trained_spam : settings.trained_ham) == TrainedAction::kMove)
            CopyToTrained(uid, path);
    }

    void CopyToTrained(std::int64_t uid, const std::string& path)
    {
        BayesLog(6, "Copying message %s to the %s%c%s folder", path.c_str(), folder_.c_str(), '/',
                 kTrained);
        const auto message = ReadStored(path);
        const std::string trained = folder_ + "/" + kTrained;
        if (message && CreateFolder(&relation_, mailbox_, trained) &&
            StoreMessage(&session_, &relation_, mailbox_, trained, *message) == kFilingDone)
            return;
        BayesLog(1, "The message %s could not be copied and stays where it is", path.c_str());
        kept_.insert(uid);
    }

    // The text of a stored message.
    static std::optional<std::string> ReadStored(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        if (!in)
            return std::nullopt;
        std::string text{std::istreambuf_iterator<char>(in), {}};
        if (in.bad())
            return std::nullopt;
        if (text.compare(0, kStoredLeadIn.size(), kStoredLeadIn) == 0)
            text.erase(0, kStoredLeadIn.size());
        return text;
    }

    void Remove(std::int64_t uid)
    {
        const std::string path = MessagePath(uid);
        if (envelopes_.RemoveMsgEnv({uid, 0}) != kStoreDone ||
            bodies_.RemoveMsgBody(&envelopes_, {uid, 0}) != kStoreDone ||
            stats_.RemoveMsgStat(uid) != kStoreDone ||
            (unlink(path.c_str()) != 0 && errno != ENOENT)) {
            BayesLog(1, "The message %s could not be deleted", path.c_str());
            kept_.insert(uid);
            return;
        }
        BayesLog(6, "Deleted message: %s", path.c_str());
    }

    // The counters go to the number of messages that stay, which is 0.
    bool ResetCounters()
    {
        mbxstat stat;
        if (relation_.GetMbxStat(folder_, &stat) != kStoreDone)
            return false;
        stat.messages = stat.recent = stat.unseen = static_cast<std::int64_t>(kept_.size());
        return relation_.UpdateMbxStat(folder_, stat, kCounters) == kStoreDone;
    }

    const BayesianFilter& filter_;
    std::string mailbox_;
    std::string folder_;
    std::string directory_;
    TrainingFolder kind_;
    diamondBase session_;
    mailbox relation_;
    msgstat stats_;
    msgenv envelopes_;
    msgbody bodies_;
    std::vector<std::int64_t> uids_;
    std::set<std::int64_t> kept_;
};

}  // namespace

bool Train(const BayesianFilter& filter, const AntiSpamConfig* settings, const std::string& mailbox,
           TrainingFolder folder)
{
    using Text = AntiSpamConfig::Text;
    if (!settings)
        return false;
    const std::string& name =
        settings->Get(folder == TrainingFolder::kSpam ? Text::kSpamFolder : Text::kHamFolder);
    if (!IsFolderName(name)) {
        BayesLog(1, "%s is no name of a folder", name.c_str());
        return false;
    }
    std::error_code error;
    if (!std::filesystem::is_directory(mailbox + "/" + name, error))
        return true;
    return Pass(filter, mailbox, name, folder).Run();
}

}  // namespace dl
