// What stays of a posting for the digest and the archive, and what is said when it cannot.

#include "dispatch/folder_copies.h"

#include <unistd.h>

#include "lists/dllist.h"
#include "platform/archive/archive.h"
#include "tests/support/fault_table.h"
#include "tests/support/queued.h"

namespace dl::testing
{
namespace
{

namespace fs = std::filesystem;

class FolderCopies : public FaultSite
{
 protected:
    FolderCopies()
    {
        AddUsualLists();
        AddList("notes", "mode: 0\narchive: 1\n");
        Start();
        rewritten_ = Write("queue/msg/00AB0001.msg", kPosting);
    }
    void Keep(const std::string& list, const std::optional<std::string>& subject = " hi\r\n",
              unsigned long id = 0x1A2B)
    {
        FolderFiling filing;
        MakeFolderCopies(list, id, rewritten_, subject, &filing);
        filing.EndPart();
        carried_out_ = filing.CarryOut(1);
        if (carried_out_)
            filing.Forget(1);
    }
    [[nodiscard]] std::string Of(const std::string& list, const std::string& name) const
    {
        return Path("data/" + list + "/" + name);
    }
    // Names in the list's two folders, "digest: <names> archive: <names>", of postings and topics.
    [[nodiscard]] std::string Names(const std::string& list) const
    {
        std::string text;
        for (const char* folder : {"digest", "archive"}) {
            text += std::string(text.empty() ? "" : " ") + folder + ":";
            for (const std::string& name : FileNames(Of(list, folder)))
                if (name.ends_with(".msg") || name.ends_with(".new") || name.ends_with(".txt"))
                    text += " " + name;
        }
        return text;
    }

    static constexpr char kNotes[] = "notes@lists.example.org";
    static constexpr char kPosting[] = "Subject: hi\r\n\r\nbody \xff\r\n";
    std::string rewritten_;
    bool carried_out_ = false;
};

TEST_F(FolderCopies, PostingsAreKeptByteForByteAndCounted)
{
    Write("data/garden@lists.example.org/digest/00001A2B.msg",
          "left over, and longer than the new");
    Keep(kGarden);
    Keep(kGarden, std::nullopt, 0x1A2C);
    Keep(kGarden, " =?utf-8?q?third?=\r\n", 0xFFFFFFFF);
    EXPECT_EQ(Names(kGarden),
              "digest: 00001A2B.msg 00001A2C.msg FFFFFFFF.msg subject.txt archive:");
    EXPECT_EQ(ReadFile(Of(kGarden, "digest/00001A2B.msg")), kPosting);
    EXPECT_EQ(ReadFile(Of(kGarden, "digest/subject.txt")),
              "   1.  hi\r\n   2.  No subject\r\n   3.  =?utf-8?q?third?=\r\n");
}

TEST_F(FolderCopies, EachPostingHasALineOfTopics)
{
    const struct {
        const char* name;
        std::string subject;
        const char* line;
    } rows[] = {
        {"usual", " hi\r\n", "   1.  hi\r\n"},
        {"line feed alone", " hi\n", "   2.  hi\n"},
        {"cut off by the end of the message", " hi", "   3.  hi\r\n"},
        {"nothing before the end of the message", "", "   4. \r\n"},
        {"NUL in it", std::string(" a\0b\r\n", 6), "   5.  a\r\n"},
    };
    std::string all;
    unsigned long id = 0;
    for (const auto& row : rows) {
        Keep(kGarden, row.subject, ++id);
        all += row.line;
        EXPECT_EQ(ReadFile(Of(kGarden, "digest/subject.txt")), all) << row.name;
    }
}

TEST_F(FolderCopies, AnArchivedListFilesUnderTheNewEntrysName)
{
    Keep(kNotes);
    EXPECT_EQ(Names(kNotes), "digest: 00001A2B.msg subject.txt archive: 00AB0001.msg");
    EXPECT_EQ(ReadFile(Of(kNotes, "archive/00AB0001.msg")), kPosting);
    CDlArchive::GenerateIndexPages(kNotes);
    EXPECT_NE(ReadFile(Of(kNotes, "archive/html/index.html")).find(">hi<"), std::string::npos);
    CDlArchive::RemoveArchive(kNotes, 0x00AB0001);  // throws when the archive does not know it
}

TEST_F(FolderCopies, AMessageThatIsHandledAgainIsFiledOnce)
{
    const unsigned long id = PutEntry(kPosting, "dl", "a@example.com", {kNotes});
    const unsigned long next = PutEntry(kPosting, "dl", "a@example.com", {kNotes});
    Keep(kNotes, " hi\r\n", id);
    // What was made of it is gone with a crash; now it gets another name.
    rewritten_ = Write("queue/msg/00AB0002.msg", kPosting);
    Keep(kNotes, " hi\r\n", id);
    const std::string once = "digest: " + PostingName(id) + " subject.txt archive: 00AB0001.msg";
    EXPECT_EQ(Names(kNotes), once);
    CDlArchive::GenerateIndexPages(kNotes);
    rewritten_ = Write("queue/msg/00AB0003.msg", kPosting);
    Keep(kNotes, " hi\r\n", id);
    EXPECT_EQ(Names(kNotes), once) << "also when its page has been made";
    rewritten_ = Write("queue/msg/00AB0004.msg", kPosting);
    Keep(kNotes, " hi\r\n", next);
    EXPECT_TRUE(Names(kNotes).ends_with("archive: 00AB0001.msg 00AB0004.msg")) << Names(kNotes);
    EXPECT_EQ(ReadFile(Of(kNotes, "digest/subject.txt")), "   1.  hi\r\n   2.  hi\r\n");
}

TEST_F(FolderCopies, AListIsOneListHoweverItIsWritten)
{
    Keep("Notes@Lists.Example.ORG");
    EXPECT_EQ(Names(kNotes), "digest: 00001A2B.msg subject.txt archive: 00AB0001.msg");
    fs::create_directories(Of("NOTES@lists.example.org", "digest"));  // of its own, if there is one
    log.ExpectError("archive folder of NOTES@lists.example.org mailing list");
    log.ExpectError("there is no message");
    Keep("NOTES@lists.example.org");
    EXPECT_EQ(Names("NOTES@lists.example.org"), "digest: 00001A2B.msg subject.txt archive:");
}

// The first mail to a new list gives it the name that the cache has for it until the next refresh.
TEST_F(FolderCopies, ANewListsFoldersAreThoseOfTheDirectory)
{
    Write("site.ldif", ReadFile(Path("site.ldif")) +
                           "dn: mail=late@lists.example.org,dc=lists,dc=example,dc=org\n"
                           "mail: late@lists.example.org\nobjectClass: qvlist\n\n");
    for (const char* folder : {"digest", "archive"})
        fs::create_directories(Of("late@lists.example.org", folder));
    ASSERT_TRUE(ListCache().IsCached("LATE@lists.example.org"));
    Keep("Late@lists.example.org");
    EXPECT_EQ(Names("late@lists.example.org"),
              "digest: 00001A2B.msg subject.txt archive: 00AB0001.msg");
}

TEST_F(FolderCopies, AFailureIsSaidAndTheRestGoesOn)
{
    for (const char* missing : {"", "digest", "archive"})
        ExpectFaults(
            "folder_copies" + std::string(*missing ? "_without_" : "") + missing,
            [&, this] {
                Start();
                rewritten_ = Write("queue/msg/00AB0001.msg", kPosting);
                if (*missing)
                    fs::remove_all(Of(kNotes, missing));
            },
            [this] {
                Keep(kNotes);
                return Names(kNotes);
            });
}

TEST_F(FolderCopies, WithoutDataPathTheDigestIsBelowTheWorkingFolder)
{
    const std::string before = fs::current_path();
    fs::create_directories(Path("here/garden@lists.example.org/digest"));
    fs::current_path(Path("here"));
    std::string configuration = ReadFile(Path("conf/qvms.conf"));
    const std::size_t key = configuration.find("DbPath");
    ASSERT_NE(key, std::string::npos);
    configuration.insert(key, ";");
    Write("conf/qvms.conf", configuration);
    Keep(kGarden);
    fs::current_path(before);
    EXPECT_EQ(ReadFile(Path("here/garden@lists.example.org/digest/00001A2B.msg")), kPosting);
    EXPECT_EQ(Names(kGarden), "digest: archive:");
}

}  // namespace
}  // namespace dl::testing
