#include "platform/process/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <utility>

#include "platform/process/user.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

volatile std::sig_atomic_t caught = 0;

int Handle(int signal)
{
    caught = signal;
    return signal == SIGUSR1 ? WriteProcessStatus("dl", "Running") : 0;
}

// A child that runs `before`, says so, waits for a byte or its end of life, and runs `after`.
// Bounded by alarm().
class Held
{
 public:
    template <typename Before, typename After>
    Held(Before before, After after)
    {
        int up[2];
        int down[2];
        EXPECT_EQ(pipe(up), 0);
        EXPECT_EQ(pipe(down), 0);
        pid = InBackground([&] {
            alarm(30);
            close(up[0]);
            close(down[1]);
            const char result = static_cast<char>(before());
            (void)!write(up[1], &result, 1);
            char go = 0;
            // poll, which ends at a signal: the thread sanitizer runs no handler within a read.
            pollfd wait{down[0], POLLIN, 0};
            while (poll(&wait, 1, -1) < 0 && errno == EINTR) {
            }
            (void)!read(down[0], &go, 1);
            return after();
        });
        close(up[1]);
        close(down[0]);
        out_ = up[0];
        in_ = down[1];
        char result = 0;
        EXPECT_EQ(read(out_, &result, 1), 1);
        first = result;
    }
    ~Held()
    {
        if (pid > 0)
            (void)Kill();
        close(out_);
        close(in_);
    }
    int Finish()
    {
        (void)!write(in_, "g", 1);
        return Wait();
    }
    int Kill()
    {
        kill(pid, SIGKILL);
        return Wait();
    }
    int Wait() { return StatusOf(std::exchange(pid, 0)); }

    pid_t pid = 0;
    int first = 0;

 private:
    int in_ = -1;
    int out_ = -1;
};

int Init()
{
    return static_cast<int>(InitProcessInfo("dl", Handle).result);
}
int Remove()
{
    RemoveProcessInfo("dl");
    return 0;
}
constexpr int kDone = static_cast<int>(Registration::kDone);

class Process : public Fixture
{
 protected:
    Process() { Configure("[Process]\nRunDir = " + Path("run") + "\n"); }
    ~Process() override { RemoveProcessInfo("dl"); }

    const std::string pid_file = Path("run/dl.pid");
    const std::string status_file = Path("run/dl.status");
};

TEST_F(Process, RegistersAndGoes)
{
    EXPECT_EQ(RunningProcess("dl"), 0);
    ASSERT_EQ(Init(), kDone);  // makes the folder
    EXPECT_EQ(ReadFile(pid_file), std::to_string(getpid()) + "\n");
    EXPECT_EQ(RunningProcess("dl"), getpid());
    EXPECT_EQ(ProcessStatus("dl"), "");
    EXPECT_EQ(WriteProcessStatus("dl", "A rather long status"), 0);
    EXPECT_EQ(WriteProcessStatus("dl", "Short\nsecond"), 0);
    EXPECT_EQ(ReadFile(status_file), "Short\n");
    EXPECT_EQ(ProcessStatus("dl"), "Short");
    EXPECT_EQ(WriteProcessStatus("dl", std::string(5000, 'x').c_str()), 0);
    EXPECT_EQ(ProcessStatus("dl"), std::string(255, 'x'));
    EXPECT_EQ(WriteProcessStatus("other", "x"), -1);
    Configure("[Process]\nRunDir = /nowhere\n");
    RemoveProcessInfo("dl");  // what it made, wherever the folder is said to be now
    EXPECT_FALSE(std::filesystem::exists(pid_file));
    EXPECT_FALSE(std::filesystem::exists(status_file));
    EXPECT_EQ(WriteProcessStatus("dl", "x"), -1);
    EXPECT_EQ(RunningProcess("dl"), 0);
}

TEST_F(Process, SignalsReachTheHandlerAndDoNotEndTheEnd)
{
    ASSERT_EQ(Init(), kDone);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1}) {
        caught = 0;
        ASSERT_EQ(raise(signal), 0);
        EXPECT_EQ(caught, signal);
    }
    EXPECT_EQ(ProcessStatus("dl"), "Running");
    RemoveProcessInfo("dl");
    Held child([] { return Init() == kDone && Remove() == 0; }, [] { return raise(SIGTERM); });
    EXPECT_EQ(child.first, 1);
    EXPECT_EQ(child.Finish(), 0);
}

TEST_F(Process, ASecondStartIsRefusedWhileTheFirstLives)
{
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &before), 0);
    Held first(Init, Remove);
    ASSERT_EQ(first.first, kDone);
    const ProcessInfo second = InitProcessInfo("dl", Handle);
    EXPECT_EQ(second.result, Registration::kAlreadyRunning);
    EXPECT_EQ(second.reason,
              "process " + std::to_string(first.pid) + " runs under the name \"dl\" already");
    struct sigaction action = {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, before.sa_handler);
    RemoveProcessInfo("dl");  // by the refused one: not its files
    EXPECT_EQ(RunningProcess("dl"), first.pid);
    EXPECT_EQ(ReadFile(pid_file), std::to_string(first.pid) + "\n");
    EXPECT_EQ(kill(first.pid, SIGUSR1), 0);
    for (int i = 0; i < 500 && ProcessStatus("dl").empty(); ++i)
        usleep(10'000);
    EXPECT_EQ(ProcessStatus("dl"), "Running");
    EXPECT_EQ(first.Finish(), 0);
    EXPECT_EQ(Init(), kDone);
    EXPECT_EQ(InitProcessInfo("dl", Handle).result, Registration::kAlreadyRunning);
}

TEST_F(Process, TakesOverFromTheDead)
{
    {
        Held first([] { return Init() + WriteProcessStatus("dl", "Running"); }, Remove);
        ASSERT_EQ(first.first, kDone);
        first.Kill();
    }
    ASSERT_TRUE(std::filesystem::exists(pid_file));
    EXPECT_EQ(RunningProcess("dl"), 0);
    EXPECT_EQ(ProcessStatus("dl"), "");
    // A number in the file means nothing without the lock, also when a process of that number
    // lives.
    Write("run/dl.pid", std::to_string(getppid()) + "\nand rubbish that is longer");
    EXPECT_EQ(RunningProcess("dl"), 0);
    EXPECT_EQ(Init(), kDone);
    EXPECT_EQ(ReadFile(pid_file), std::to_string(getpid()) + "\n");
    EXPECT_EQ(ProcessStatus("dl"), "");
}

TEST_F(Process, AChildHasNoPartInItsParentsClaim)
{
    ASSERT_EQ(Init(), kDone);
    const long parent = getpid();
    Held child([&] { return RunningProcess("dl") == parent; }, Remove);
    EXPECT_EQ(child.first, 1);
    EXPECT_EQ(child.Finish(), 0);
    EXPECT_TRUE(std::filesystem::exists(pid_file));
    Held second(Init, Remove);
    EXPECT_EQ(second.first, static_cast<int>(Registration::kAlreadyRunning));
}

TEST_F(Process, OneOfManyStartsWins)
{
    for (int round = 0; round < 5; ++round) {
        std::vector<std::unique_ptr<Held>> children;
        for (int i = 0; i < 8; ++i)
            children.push_back(std::make_unique<Held>(Init, Remove));
        int done = 0;
        for (const auto& child : children)
            done += child->first == kDone ? 1 : 0;
        EXPECT_EQ(done, 1);
        for (const auto& child : children)
            (void)child->Finish();
    }
    // And with ends among the starts, nobody ever shares the name.
    Write("owners", "");
    const std::string owners = Path("owners");
    const auto come_and_go = [one = owners + ".one"] {
        alarm(30);
        for (int n = 0; n < 200; ++n) {
            if (Init() != kDone)
                continue;
            const int file = open(one.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
            if (file < 0)
                return 1;
            close(file);
            unlink(one.c_str());
            (void)Remove();
        }
        return 0;
    };
    std::vector<pid_t> pids;
    for (int i = 0; i < 6; ++i)
        pids.push_back(InBackground(come_and_go));
    for (const pid_t pid : pids)
        EXPECT_EQ(StatusOf(pid), 0);
}

TEST_F(Process, SaysWhyItCannotRegister)
{
    for (const char* name : {"", ".", "..", "a/b", "a b", "a\nb"}) {
        const ProcessInfo info = InitProcessInfo(name, Handle);
        EXPECT_EQ(info.result, Registration::kFailed) << name;
        EXPECT_EQ(RunningProcess(name), 0);
    }
    Write("run", "no folder");
    const ProcessInfo info = InitProcessInfo("dl", Handle);
    EXPECT_EQ(info.result, Registration::kFailed);
    EXPECT_NE(info.reason.find(pid_file + ": Not a directory"), std::string::npos) << info.reason;
    std::filesystem::remove(Path("run"));
    std::filesystem::create_directories(Path("run/dl.status"));
    EXPECT_EQ(InitProcessInfo("dl", Handle).result, Registration::kFailed);
    EXPECT_FALSE(std::filesystem::exists(pid_file));
    // A link laid in the way is not followed.
    std::filesystem::remove(Path("run/dl.status"));
    const std::string victim = Write("victim", "precious");
    std::filesystem::create_symlink(victim, pid_file);
    EXPECT_EQ(InitProcessInfo("dl", Handle).result, Registration::kFailed);
    EXPECT_EQ(ReadFile(victim), "precious");
}

TEST_F(Process, TellsTheServiceManager)
{
    for (const bool abstract : {false, true}) {
        const std::string name =
            abstract ? "@dltest" + std::to_string(getpid()) : Path("notify.sock");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        ASSERT_LT(name.size(), sizeof address.sun_path);
        std::memcpy(address.sun_path, name.data(), name.size());
        if (abstract)
            address.sun_path[0] = '\0';
        const int file = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(file, reinterpret_cast<sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
                  0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        NotifyServiceManager("READY=1");
        pollfd wait{file, POLLIN, 0};
        ASSERT_EQ(poll(&wait, 1, 5000), 1);
        char text[64] = {};
        EXPECT_EQ(recv(file, text, sizeof text, 0), 7);
        EXPECT_STREQ(text, "READY=1");
        close(file);
    }
    // Nobody there, or no such address: nothing happens.
    for (const std::string& name : {Path("none"), std::string("relative"), std::string(200, '/')}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        NotifyServiceManager("READY=1");
    }
    unsetenv("NOTIFY_SOCKET");
    NotifyServiceManager("READY=1");
}

TEST_F(Process, BecomesTheOwnerOfAFolderForGood)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    constexpr uid_t kNobody = 65534;
    std::filesystem::create_directories(Path("theirs"));
    std::filesystem::create_directories(Path("ours"));
    ASSERT_EQ(chown(Path("theirs").c_str(), kNobody, kNobody), 0);
    const auto become = [&] {
        std::string error;
        int failed = 0;
        failed |= BecomeOwnerOf(Path("none"), &error) && geteuid() == 0 ? 0 : 1;
        failed |= BecomeOwnerOf(Path("ours"), &error) && geteuid() == 0 ? 0 : 2;
        failed |= BecomeOwnerOf(Path("theirs"), &error) && geteuid() == kNobody ? 0 : 4;
        gid_t groups[8];
        const int count = getgroups(8, groups);
        failed |= count == 1 && groups[0] == kNobody && getegid() == kNobody ? 0 : 8;
        failed |= setuid(0) != 0 && open("/etc/shadow", O_RDONLY | O_CLOEXEC) < 0 ? 0 : 16;
        return failed;
    };
    EXPECT_EQ(InChild(become), 0) << "bits of what failed";
}

}  // namespace
}  // namespace dl::testing
