// dlsubmit: what a mail transfer agent's pipe transport calls to put a message into the queue, and
// the server to which its LMTP transport connects.

#include <getopt.h>
#include <sysexits.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/process/process.h"
#include "tools/dlsubmit/lmtp_intake.h"
#include "tools/dlsubmit/submit_message.h"

namespace
{

constexpr char kUsage[] =
    "usage: dlsubmit -f SENDER [--channel NAME] RECIPIENT... < message\n"
    "       dlsubmit --lmtp WHERE [--lmtp WHERE]... [--channel NAME]\n"
    "\n"
    "Stores the message from standard input in the queue, durably, for the recipients.\n"
    "  -f SENDER       envelope sender; \"\" or \"<>\" for the null reverse-path\n"
    "  --channel NAME  queue channel (default dl)\n"
    "  --lmtp WHERE    serve LMTP until SIGTERM; ADDRESS:PORT or the path of a local socket\n"
    "Exit status: 0 stored, 64 wrong usage, 65 an address cannot be used, 75 try again.\n";

int WrongUsage()
{
    std::fputs(kUsage, stderr);
    return EX_USAGE;
}

}  // namespace

int main(int argc, char** argv)
{
    static const option kOptions[] = {{"channel", required_argument, nullptr, 'c'},
                                      {"lmtp", required_argument, nullptr, 'l'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"version", no_argument, nullptr, 'v'},
                                      {nullptr, 0, nullptr, 0}};
    dl::HoldStandardStreams();
    // A limit on the size of files, as mail servers set for the commands that they call, is a write
    // error and so "try again", not the end by a signal, which they take for a refusal.
    (void)std::signal(SIGXFSZ, SIG_IGN);
    dl::SubmitJob job;
    bool has_sender = false;
    std::vector<std::string> listen;
    for (int c = 0; (c = getopt_long(argc, argv, "f:h", kOptions, nullptr)) != -1;) {
        switch (c) {
            case 'f':
                job.sender = optarg;
                has_sender = true;
                break;
            case 'c':
                job.channel = optarg;
                break;
            case 'l':
                listen.emplace_back(optarg);
                break;
            case 'h':
                std::fputs(kUsage, stdout);
                return EX_OK;
            case 'v':
                std::puts("dlsubmit " DL_VERSION);
                return EX_OK;
            default:
                return WrongUsage();
        }
    }
    job.recipients.assign(argv + optind, argv + argc);
    if (!listen.empty()) {
        if (has_sender || !job.recipients.empty() || job.channel.empty())
            return WrongUsage();
        return dl::RunLmtpIntake(listen, job.channel);
    }
    if (!has_sender || job.recipients.empty() || job.channel.empty())
        return WrongUsage();
    return dl::SubmitMessage(job, stdin);
}
