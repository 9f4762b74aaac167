// How quickly dlsend hands entries over: queue, dlsend's own code, smtp-sink on loopback.
//
//     relay_bench [--lmtp] [--log]     (needs /usr/sbin/smtp-sink, package postfix)
//
// Each case runs in a process of its own, so that its memory can be told; the entries are in the
// queue before the clock starts. --log writes the log to a file as the service would; without it
// lines are formatted and dropped.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/config/config.h"
#include "platform/log/log.h"
#include "platform/queue/queue.h"
#include "tools/dlsend/handover.h"

namespace
{

using Seconds = std::chrono::duration<double>;

struct Case {
    int entries;
    int recipients;
    int per_transaction;
};

struct Silence : dl::LogSink {
    void Write(int, const char*, const std::string&) override {}
};

int FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        std::abort();
    close(fd);
    return ntohs(address.sin_port);
}

bool Answers(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool yes = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return yes;
}

pid_t StartSink(int port, bool lmtp)
{
    const std::string where = "127.0.0.1:" + std::to_string(port);
    std::vector<const char*> words = {"/usr/sbin/smtp-sink"};
    if (geteuid() == 0)
        words.insert(words.end(), {"-u", "nobody"});
    if (lmtp)
        words.push_back("-L");
    words.insert(words.end(), {where.c_str(), "100", nullptr});
    const pid_t child = fork();
    if (child == 0) {
        execv(words[0], const_cast<char**>(words.data()));
        std::perror(words[0]);
        _exit(127);
    }
    for (int i = 0; i < 200 && !Answers(port); ++i)
        usleep(10'000);
    return child;
}

void Fill(const Case& what)
{
    std::string text = "From: a@example.org\r\nTo: list@example.org\r\nSubject: bench\r\n\r\n";
    while (text.size() < 4096)
        text += "A line of an ordinary length, as people write them in their mail.\r\n";
    for (int i = 0; i < what.entries; ++i) {
        dl::NewMQEntry entry;
        dl::stEnvelope envelope;
        std::FILE* file = std::fopen(dl::GetMQPathName(entry.get(), ".msg").c_str(), "wb");
        if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size() ||
            std::fclose(file) != 0)
            std::abort();
        if (!envelope.AddSender({.address = "list-owner@lists.example.org", .channel = "dlout"}))
            std::abort();
        for (int k = 0; k < what.recipients; ++k)
            if (!envelope.AddRecipient(
                    {.address = envelope.Text("member" + std::to_string(k) + "@host" +
                                              std::to_string(k % 97) + ".example.org")}))
                std::abort();
        if (dl::Submit(std::move(entry), "dlout", 255, &envelope) != dl::Submission::kDone)
            std::abort();
    }
}

double CpuSeconds()
{
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

[[noreturn]] void Measure(const Case& what, int port, bool lmtp, bool log)
{
    static Silence silence;
    if (log) {
        std::string error;
        dl::LogSettings settings = dl::ReadLogSettings();
        if (!dl::OpenLog(settings, "relay_bench", &error))
            std::abort();
    } else {
        dl::SetLogSink(&silence);
    }
    dl::RelaySettings settings = dl::ReadRelaySettings();
    settings.relay.port = port;
    settings.relay.lmtp = lmtp;
    settings.max_recipients = static_cast<std::size_t>(what.per_transaction);
    if (!dl::MQInit("", "bench"))
        _exit(1);
    const auto channel = dl::DeliveryChannel::Open("dlout");
    const std::atomic<bool> stop{false};
    const double cpu_before = CpuSeconds();
    const auto begin = std::chrono::steady_clock::now();
    dl::Handover(settings, channel.get(), &stop).Run(true);
    const double time = Seconds(std::chrono::steady_clock::now() - begin).count();
    std::int64_t due = 0;
    if (channel->Waiting(&due) != dl::QueueAnswer::kNo)
        _exit(2);
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    std::printf(
        "%7d x %6d  %5d  %9.1f ms  %8.0f entries/s  %8.0f rcpts/s  cpu %7.1f ms  %5.1f MiB\n",
        what.entries, what.recipients, what.per_transaction, time * 1000, what.entries / time,
        what.entries * what.recipients / time, (CpuSeconds() - cpu_before) * 1000,
        static_cast<double>(used.ru_maxrss) / 1024);
    std::fflush(stdout);
    _exit(0);
}

int Status(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv)
{
    bool lmtp = false;
    bool log = false;
    for (int i = 1; i < argc; ++i) {
        lmtp = lmtp || std::strcmp(argv[i], "--lmtp") == 0;
        log = log || std::strcmp(argv[i], "--log") == 0;
    }
    std::string folder = (std::filesystem::temp_directory_path() / "relay_bench.XXXXXX").string();
    if (access("/usr/sbin/smtp-sink", X_OK) != 0 || !mkdtemp(folder.data())) {
        std::fprintf(stderr, "relay_bench: /usr/sbin/smtp-sink or a folder is missing\n");
        return 1;
    }
    const int port = FreePort();
    const pid_t sink = StartSink(port, lmtp);
    dl::SetConfigFolder(folder);
    const Case cases[] = {{1, 100, 100},     {1, 1'000, 100},   {1, 10'000, 100},
                          {1, 10'000, 1000}, {1, 100'000, 100}, {1, 100'000, 1000},
                          {200, 50, 100},    {2'000, 50, 100}};
    std::puts("entries x rcpts  per transaction");
    std::fflush(stdout);
    int failed = 0;
    for (const Case& what : cases) {
        const std::string queue = folder + "/queue";
        std::FILE* conf = std::fopen((folder + "/qvms.conf").c_str(), "wb");
        std::fprintf(conf, "[Queue]\nPath = %s\n[Log]\nTarget = file\nFile = %s/log\n",
                     queue.c_str(), folder.c_str());
        std::fclose(conf);
        const pid_t filler = fork();
        if (filler == 0) {
            if (!dl::MQInit("", "bench"))
                _exit(1);
            Fill(what);
            dl::MQEnd();
            _exit(0);
        }
        if (Status(filler) != 0)
            return 1;
        const pid_t child = fork();
        if (child == 0)
            Measure(what, port, lmtp, log);
        failed += Status(child) == 0 ? 0 : 1;
        std::filesystem::remove_all(queue);
    }
    kill(sink, SIGTERM);
    Status(sink);
    std::filesystem::remove_all(folder);
    return failed == 0 ? 0 : 1;
}
