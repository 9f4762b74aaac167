// Faults of the machine, of a posting, and whom they concern.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>

#include "platform/files/machine_fault.h"
#include "tests/platform/archive/archive_fixture.h"
#include "tests/support/child.h"
#include "tests/support/failing_files.h"
#include "tests/support/failing_reads.h"
#include "tests/support/no_descriptors.h"

namespace dl::testing
{
namespace
{

// Files cannot grow beyond what they are, as on a full disk.
class NoRoom
{
 public:
    NoRoom() : signal_(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit small = before_;
        small.rlim_cur = 1024;
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~NoRoom()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, signal_);
    }
    NoRoom(const NoRoom&) = delete;
    NoRoom& operator=(const NoRoom&) = delete;

 private:
    void (*signal_)(int);
    rlimit before_{};
};

// Somebody who may only read, when the test itself runs as root.
class Reader
{
 public:
    Reader() : before_(geteuid()) { EXPECT_TRUE(before_ != 0 || seteuid(65534) == 0); }
    ~Reader() { EXPECT_EQ(seteuid(before_), 0); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

 private:
    uid_t before_;
};

class ArchiveFault : public ArchiveFixture
{
 protected:
    ArchiveFault() { ForgetMachineFault(); }
    ~ArchiveFault() override { ForgetMachineFault(); }

    void Sql(const std::string& command) const
    {
        std::string output;
        EXPECT_EQ(RunProgram({"/usr/bin/sqlite3", ArchivePath() + "/index.db", command}, &output),
                  0)
            << output;
    }
    // "<id> <cause>" of each posting that is left out or shown in part.
    [[nodiscard]] std::string Failed() const
    {
        std::string all;
        for (const LeftOutPosting& one : CDlArchive::LeftOut(list))
            all +=
                std::to_string(one.id) + " " + one.cause + (one.in_part ? " (in part)" : "") + ", ";
        return all;
    }
};

TEST_F(ArchiveFault, OfTheMachineIsToldFromThoseOfTheIndex)
{
    const struct {
        const char* name;
        std::function<void(const std::function<void()>&)> with;
        int error;
        const char* says;
    } rows[] = {
        {"no descriptors",
         [](const auto& deed) {
             const NoDescriptors none;
             deed();
         },
         EMFILE, "index.db cannot be opened: Too many open files"},
        {"no room",
         [](const auto& deed) {
             const NoRoom none;
             deed();
         },
         EFBIG, "index.db cannot be read or written: File too large"},
        {"a disk that fails",
         [](const auto& deed) {
             const FailingReads disk(0, EIO);
             deed();
         },
         EIO, "index.db cannot be read or written: Input/output error"},
        {"read-only",
         [this](const auto& deed) {
             for (std::filesystem::path path = ArchivePath(); path != Path("").substr(0, 4);
                  path = path.parent_path())
                 if (::chmod(path.c_str(), 0777) != 0)
                     break;  // above the test's own folder
             for (const char* name : {"/index.db", "/index.db-wal", "/index.db-shm"})
                 (void)::chmod((ArchivePath() + name).c_str(), 0444);  // not each is there
             const Reader reader;
             deed();
         },
         EROFS, "index.db may not be written: Read-only file system"},
    };
    Post(1, {});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ForgetMachineFault();
        std::string message = "nothing thrown";
        auto fault = dl::ArchiveFault::kOther;
        row.with([&] {
            try {
                CDlArchive::AddArchive(ArchivePath(), 1);
            } catch (const CDlArchiveException& problem) {
                message = problem.message;
                fault = problem.fault;
            }
        });
        EXPECT_NE(message.find(row.says), std::string::npos) << message;
        EXPECT_EQ(fault, dl::ArchiveFault::kMachine);
        EXPECT_EQ(NotedMachineFault(), row.error);
    }
    ForgetMachineFault();
    std::filesystem::remove(ArchivePath() + "/index.db-wal");
    Write("data/" + list + "/archive/index.db", std::string(5000, 'x'));
    EXPECT_THROW(CDlArchive::AddArchive(ArchivePath(), 1), CDlArchiveException);
    EXPECT_EQ(NotedMachineFault(), 0);
}

// What cannot be read is not taken for empty.
TEST_F(ArchiveFault, ThePasswordFileIsNotWrittenOverUnread)
{
    CDlArchive archive;
    archive.SetList(list);
    archive.GetArchivePath();
    archive.UpdateRemoteFile("anna:1");
    {
        FailingFiles files;
        files.FailNext(FileCall::kOpen);
        EXPECT_THROW(archive.UpdateRemoteFile("bert:2"), CDlArchiveException);
    }
    archive.UpdateRemoteFile("carl:3");
    EXPECT_EQ(ReadFile(ArchivePath() + "/htpasswd"), "anna:1\ncarl:3\n");
}

// An ordinary forward, and one whose part breaks off in its header.
constexpr const char* kForward =
    "Subject: Forward\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
    "--b\r\n\r\nSee below.\r\n--b\r\nContent-Type: message/rfc822\r\n\r\n"
    "Subject: inner\r\n\r\ninner text\r\n--b--\r\n";
constexpr const char* kBroken =
    "Subject: Broken\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
    "--b\r\n\r\nA text.\r\n--b\r\nContent-Type: image/png; name=rose.png\r\n\r\npng\r\n"
    "--b\r\nContent-Type: message/rfc822\r\n";

TEST_F(ArchiveFault, OfOnePostingConcernsNoOther)
{
    PostRaw(1, kBroken);
    PostRaw(2, kForward);
    Post(3, {.subject = "Empty"});
    Write("data/" + list + "/archive/00000003.msg", "");
    Post(4, {.subject = "Refused"});
    Post(5, {.subject = "Fine"});
    // Nothing of a posting should be such that the index refuses it; should it be all the same:
    CDlArchive::DescribeArchive(list, {});
    Sql("CREATE TRIGGER refuse BEFORE INSERT ON posting WHEN new.subject='Refused'"
        " BEGIN SELECT RAISE(ABORT, 'no'); END");
    log.ExpectError("leaves out 00000003.msg, which cannot be read as a message: it is empty");
    log.ExpectError(
        "leaves out 00000004.msg, which cannot be read as a message: the archive index");
    log.ExpectError(
        "The archive of garden@lists.example.org shows 00000001.msg in part only: attachment "
        "2-message.txt cannot be read");
    Generate();
    CheckPages();
    EXPECT_EQ(PostingPages("Fine").size(), 1U);
    const std::string forward = PostingPage("Forward");
    EXPECT_NE(forward.find("1-message.txt"), std::string::npos);
    const std::string broken = PostingPage("Broken");
    for (const char* part : {"A text.", "1-rose.png\" download", "message/rfc822, cannot be read"})
        EXPECT_NE(broken.find(part), std::string::npos) << part;
    EXPECT_EQ(Failed(),
              "1 attachment 2-message.txt cannot be read (in part), 3 it is empty, "
              "4 the archive index " +
                  ArchivePath() + "/index.db takes no such posting, ");

    // Another version of the program tries again by itself, this one only when it is told to.
    const auto before = Inodes();
    Generate();
    EXPECT_EQ(Written(before), std::vector<std::string>{});
    Sql("DROP TRIGGER refuse; UPDATE incoming SET maker=0");
    Write("data/" + list + "/archive/00000003.msg", MessageOf(3, {.subject = "Not empty"}));
    Generate();
    EXPECT_EQ(Failed(), "1 attachment 2-message.txt cannot be read (in part), ");
    EXPECT_EQ(PostingPages("Refused").size(), 1U);
    EXPECT_EQ(PostingPages("Not empty").size(), 1U);
    Write("data/" + list + "/archive/00000001.msg",
          std::string(kBroken) + "\r\nwhole\r\n--b--\r\n");
    CDlArchive::RetryLeftOut(list);
    Generate();
    EXPECT_EQ(Failed(), "");
    EXPECT_NE(PostingPage("Broken").find("2-message.txt\" download"), std::string::npos);
    CheckPages();
}

// A file that has gone, or has become something else, since it was read.
TEST_F(ArchiveFault, AMessageThatHasGoneIsSaidOnItsPage)
{
    Post(1, {.subject = "Gone"});
    Post(2, {.subject = "Emptied"});
    Post(3, {.subject = "Fine"});
    Generate();
    std::filesystem::remove(ArchivePath() + "/00000001.msg");
    Write("data/" + list + "/archive/00000002.msg", "");
    CDlArchive::DescribeArchive(list, {"Another title", "", ""});  // all pages are due
    log.ExpectError("00000001.msg in part only: it cannot be opened: No such file");
    log.ExpectError("00000002.msg in part only: it is empty");
    Generate();
    EXPECT_NE(PostingPage("Gone").find("not in the archive any more"), std::string::npos);
    EXPECT_NE(PostingPage("Emptied").find("cannot be read"), std::string::npos);
    CDlArchive::RemoveArchive(list, 1);
    EXPECT_EQ(Failed(), "2 it is empty (in part), ");
    CheckPages();
}

// Whenever the machine fails, the run ends, no posting is blamed, and the next run goes on.
TEST_F(ArchiveFault, OfTheMachineIsHeldAgainstNoPosting)
{
    PostRaw(1, kForward);
    Generate();
    const std::string want = Everything();
    for (const bool reads : {true, false}) {
        bool failed = true;
        for (int good = 0; failed; ++good) {
            SCOPED_TRACE((reads ? "reads " : "files ") + std::to_string(good));
            ASSERT_LT(good, 2000);
            CDlArchive::RebuildArchive(list);
            CDlArchive::AddArchive(ArchivePath(), 1);
            CDlArchive::DescribeArchive(list, {});
            ForgetMachineFault();
            try {
                if (reads) {
                    const FailingReads disk(good, EIO);
                    Generate();
                } else {
                    FailingFiles files;
                    files.FailNth(FileCall::kCreate, good + 1);
                    Generate();
                }
                failed = false;
            } catch (const CDlArchiveException& problem) {
                EXPECT_EQ(problem.fault, dl::ArchiveFault::kMachine) << problem.message;
                EXPECT_EQ(NotedMachineFault(), reads ? EIO : ENOSPC);
            }
            EXPECT_EQ(Failed(), "");
            Generate();
            EXPECT_EQ(Everything(), want);
            if (HasFailure())
                return;
        }
    }
}

}  // namespace
}  // namespace dl::testing
