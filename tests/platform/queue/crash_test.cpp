// Writers and readers are killed at random moments, and what is left is compared with what they had
// been told.
//
// Each process writes a line to one journal before and after each deed; the journal's lines stand
// in the order in which they were written, and a killed process keeps what it wrote. DL_CRASH_SEED
// repeats a run's moments.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "tests/platform/queue/queue_fixture.h"

namespace dl::testing
{

namespace
{

class Journal : public LogSink
{
 public:
    explicit Journal(const std::string& path)
        : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600))
    {
    }
    ~Journal() override { close(fd_); }
    void Note(const std::string& deed, const std::string& text) const
    {
        const std::string line = deed + " " + text + "\n";
        if (write(fd_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            _exit(9);
    }
    void Write(int, const char*, const std::string& escaped) override { Note("log", escaped); }

 private:
    int fd_;
};

// A message says how long it is and ends with its name, so a half-written one shows.
std::string Message(const std::string& name, unsigned long size)
{
    return name + " " + std::to_string(size) + "\n" + std::string(size, 'x') + "\n" + name;
}

// The name of a whole message; empty for any other text.
std::string NameOf(const std::string& text)
{
    std::istringstream in(text);
    std::string name;
    unsigned long size = 0;
    in >> name >> size;
    return !name.empty() && text == Message(name, size) ? name : "";
}

using Random = std::mt19937;

}  // namespace

class QueueCrash : public QueueFixture
{
 protected:
    void SetUp() override {}

    [[noreturn]] void Writer(const Journal& journal, const std::string& prefix, Random random) const
    {
        if (!MQInitAt(folder))
            _exit(1);
        for (int i = 0;; ++i) {
            const std::string name = prefix + "-" + std::to_string(i);
            NewMQEntry entry;
            if (!entry || !FillEntry(entry.get(), Message(name, random() % 20000)))
                _exit(2);
            if (random() % 10 == 0) {
                journal.Note("unfinished", name);
                random() % 2 == 0 ? entry.Leave() : entry.Discard();
                continue;
            }
            stEnvelope envelope = Envelope(name + "@example.org");
            journal.Note("closing", name);
            if (Submit(std::move(entry), "dl", 255, &envelope) != Submission::kDone)
                _exit(3);
            journal.Note("closed", name);
        }
    }

    [[noreturn]] void Reader(const Journal& journal, Random random) const
    {
        MQContext* channel = MQInitAt(folder) ? OpenMQChannel("dl") : nullptr;
        if (!channel)
            _exit(4);
        for (;;) {
            long id = GetFirstMessage(channel, false);
            for (; id >= 0; id = GetNextMessage(channel, false)) {
                const std::string name = NameOf(Text(id));
                const EnvelopeResult result = GetMQEnvelope(static_cast<unsigned long>(id));
                const bool whole =
                    result.envelope && result.envelope->recipients.head &&
                    result.envelope->recipients.head->value->address == name + "@example.org";
                journal.Note(!name.empty() && whole ? "taken" : "broken", name);
                if (random() % 8 == 0)
                    continue;  // stays for the next pass
                journal.Note("removing", name);
                if (!RemoveMQChannel(channel))
                    _exit(5);
                journal.Note("removed", name);
            }
            if (id == kQueueFailed)
                _exit(6);
            usleep(300);
        }
    }

    // What the journal says of each message, and what must not stand in it.
    struct Record {
        bool closing = false, closed = false, removing = false, removed = false;
    };
    static std::map<std::string, Record> Read(const std::string& path)
    {
        std::map<std::string, Record> records;
        std::istringstream lines(ReadFile(path));
        std::string line;
        while (std::getline(lines, line)) {
            const std::string deed = line.substr(0, line.find(' '));
            const std::string name = line.substr(deed.size() + 1);
            Record& record = records[name];
            if (deed == "broken" || deed == "log" ||
                (deed == "taken" && (!record.closing || record.removed)))
                ADD_FAILURE() << line;
            record.closing |= deed == "closing";
            record.closed |= deed == "closed";
            record.removing |= deed == "removing";
            record.removed |= deed == "removed";
        }
        return records;
    }
};

TEST_F(QueueCrash, KilledProcessesLoseNothingAndBringNothingBack)
{
    const char* given = std::getenv("DL_CRASH_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::atoi(given)) : std::random_device()();
    std::printf("DL_CRASH_SEED=%u\n", seed);
    Random random(seed);
    Configure("[Queue]\nMaxAttempts = 1000000\n");  // the readers leave much undone here
    const std::string path = Path("journal");
    Journal journal(path);
    int kills = 0;
    std::size_t most_files = 0;
    pid_t children[4] = {};
    const auto start = [&](pid_t& child, int number) {
        child = fork();
        ASSERT_GE(child, 0);
        if (child != 0)
            return;
        SetLogSink(&journal);
        const Random own(seed + static_cast<unsigned>(number));
        if (number % 3 == 0)
            Reader(journal, own);
        Writer(journal, std::to_string(number), own);
    };
    const auto end = [&](pid_t child) {
        ASSERT_EQ(kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "ended by itself with " << WEXITSTATUS(status);
        ++kills;
        most_files = std::max(most_files, Files());
    };
    std::filesystem::create_directories(folder + "/msg");
    int number = 0;
    for (pid_t& child : children)
        start(child, number++);
    // More on a machine that is so busy that next to nothing would have been done.
    while ((kills < 220 || std::filesystem::file_size(path) < 20'000) && kills < 2000 &&
           !HasFailure()) {
        usleep(static_cast<useconds_t>(random() % 50000));
        pid_t& child = children[random() % 4];
        end(child);
        start(child, number++);
    }
    for (const pid_t child : children)
        end(child);

    const std::map<std::string, Record> records = Read(path);
    std::size_t closed = 0;
    std::size_t removed = 0;
    ASSERT_TRUE(MQInitAt(folder));
    EXPECT_EQ(Files(), QueueItems().size())
        << "what was left behind must be swept, and nothing else";
    std::set<std::string> rest;
    for (const std::string& text : Drain("dl")) {
        const std::string name = NameOf(text);
        EXPECT_TRUE(records.count(name)) << "half-written: " << text.substr(0, 40);
        EXPECT_TRUE(rest.insert(name).second) << "twice: " << name;
    }
    for (const auto& [name, record] : records) {
        closed += record.closed ? 1 : 0;
        removed += record.removed ? 1 : 0;
        const bool waits = rest.count(name) != 0;
        EXPECT_TRUE(waits || !record.closed || record.removing) << "lost: " << name;
        EXPECT_FALSE(waits && (record.removed || !record.closing))
            << "came back, or was never closed: " << name;
    }
    EXPECT_EQ(Files(), 0U);
    std::printf("%d kills: %zu closed, %zu removed, %zu waiting at the end, at most %zu files\n",
                kills, closed, removed, rest.size(), most_files);
    EXPECT_GT(closed, 100U);
    EXPECT_GT(removed, 20U);
}

}  // namespace dl::testing
