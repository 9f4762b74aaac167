// Faults of the machine, of a posting, and whom they concern.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>

#include "platform/files/machine_fault.h"
#include "tests/platform/archive/archive_fixture.h"
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

}  // namespace
}  // namespace dl::testing
