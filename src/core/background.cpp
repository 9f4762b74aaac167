#include "core/background.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace dl
{
namespace
{

constexpr char kRuns = '+';
constexpr char kNoWord[] = "it ended before it could say why; see the log";

int told = -1;  // the child's end of the line to its parent

// What the child says until it closes the line or ends.
std::string Hear(int from)
{
    std::string said;
    char block[512];
    for (;;) {
        const ssize_t got = read(from, block, sizeof block);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return said;
        said.append(block, static_cast<std::size_t>(got));
    }
}

}  // namespace

int RunInBackground()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return -1;
    const pid_t child = fork();
    if (child != 0)
        close(ends[1]);
    if (child > 0) {
        const std::string said = Hear(ends[0]);
        if (said == std::string(1, kRuns))
            std::exit(0);
        std::fprintf(stderr, "dlmanager: %s\n", said.empty() ? kNoWord : said.c_str());
        std::exit(1);
    }
    close(ends[0]);
    if (child < 0)
        return -1;
    told = ends[1];
    (void)setsid();  // fails for the leader of a group only, which a child of fork never is
    return 0;
}

void TellStarted(const std::string& reason)
{
    const int to = std::exchange(told, -1);
    if (to < 0)
        return;
    const std::string text = reason.empty() ? std::string(1, kRuns) : reason;
    (void)send(to, text.data(), text.size(), MSG_NOSIGNAL);  // a parent that was killed needs none
    close(to);
}

void LeaveStandardStreams(bool keep_stderr)
{
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0)
        return;  // they stay as they are
    for (int stream = 0; stream <= (keep_stderr ? 1 : 2); ++stream)
        (void)dup2(null, stream);  // both are open: it cannot fail
    if (null > 2)
        close(null);
}

}  // namespace dl
