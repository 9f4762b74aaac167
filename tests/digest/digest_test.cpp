// Both digests, byte for byte, and what becomes of the folder when a digest cannot be made.

#include "digest/digest.h"

#include "digest/digest_schedule.h"
#include "lists/dllist.h"
#include "tests/support/fault_table.h"

namespace dl::testing
{
namespace
{

constexpr char kTopics[] = "   1.  Frost\r\n   2.  No subject\r\n";
constexpr char kFirst[] =
    "Received: from DL manager by mail.example.org\r\nSubject: Frost\r\nMIME-Version: 1.0\r\n"
    "Content-Type: text/plain;\r\n\tcharset=utf-8\r\nFrom: anna@example.com\r\n\r\n"
    "Cover the roses.\r\nContent-Type: stays in the body";
constexpr char kSecond[] = "From: bert@example.net\r\n\r\n.\r\nFrom here on, no end";

class Digest : public FaultSite
{
 protected:
    void SetUp() override
    {
        AddList("garden", "disclaimertxtpath: " + Path("note.txt") +
                              "\nlistmember: Digest;dora@example.com\n"
                              "listmember: Immediate;anna@example.com\n"
                              "listmember: Digest;Blocked;emil@example.org\n");
        AddList("silent", "listmember: Immediate;anna@example.com\n");
        AddList("small", "maxdigestsize: 1\nlistmember: Digest;dora@example.com\n");
        Start();
        Write("note.txt", "Garden list.\n");
    }
    void Put(const std::string& list, const std::string& name, const std::string& text)
    {
        Write("data/" + list + "/digest/" + name, text);
    }
    void PutPostings(const std::string& list = kGarden)
    {
        Put(list, "00000002.msg", kSecond);
        Put(list, "00000001.msg", kFirst);
        Put(list, "subject.txt", kTopics);
        Put(list, "digest.dt", "1");
    }
    // Names in the digest folder.
    [[nodiscard]] std::string Folder(const std::string& list = kGarden) const
    {
        std::string all;
        for (const std::string& name : FileNames(Path("data/" + list + "/digest")))
            all += name + " ";
        return all;
    }

    static constexpr char kSilent[] = "silent@lists.example.org";
    static constexpr char kSmall[] = "small@lists.example.org";
    static constexpr char kAll[] = "00000001.msg 00000002.msg digest.dt subject.txt ";
};

TEST_F(Digest, HasTheFormOfItsKind)
{
    const struct {
        const char* name;
        bool (*send)(const std::string&, const std::string&, std::time_t);
        const char* want;
    } kForms[] = {{"plain", SendPlainDigest, "digest/plain.want.eml"},
                  {"MIME", SendMimeDigest, "digest/mime.want.eml"}};
    for (const auto& form : kForms) {
        SCOPED_TRACE(form.name);
        Start();
        Write("note.txt", "Garden list.\n");
        PutPostings();
        EXPECT_TRUE(form.send(kGarden, "dlout", 0));
        const std::vector<Queued> out = On();
        ASSERT_EQ(out.size(), 1U);
        EXPECT_EQ(out[0].Brief(),
                  "garden-owner@lists.example.org -> dora@example.com, emil@example.org: "
                  "garden@lists.example.org Digest (#2004-11-9)\n");
        EXPECT_EQ(out[0].text, ReadFile(DataPath(form.want)));
        EXPECT_EQ(
            WithoutSizes(Log()),
            Lines(
                {"3 Delivered 4190AB00 size: ? bytes from: <garden-owner@lists.example.org> to "
                 "<dora@example.com>",
                 "3 Delivered 4190AB00 size: ? bytes from: <garden-owner@lists.example.org> to "
                 "<emil@example.org>",
                 "6 Message digest of garden@lists.example.org has been sent to 2 recipient(s)"}));
        EXPECT_EQ(Folder(), "digest.dt ");
    }
}

// What an independent parser makes of the MIME digest: one topics part, then one message per
// posting, unchanged.
TEST_F(Digest, OpensInOtherReaders)
{
    PutPostings();
    ASSERT_TRUE(SendMimeDigest(kGarden, "dlout"));
    const std::string path = Write("digest.eml", On().at(0).text);
    Write("first.eml", kFirst);
    Write("second.eml", kSecond);
    const std::string script =
        "import email, sys\n"
        "m = email.message_from_binary_file(open(sys.argv[1], 'rb'))\n"
        "topics, digest = m.get_payload()\n"
        "assert topics.get_content_type() == 'text/plain', topics.get_content_type()\n"
        "assert digest.get_content_type() == 'multipart/digest', digest.get_content_type()\n"
        "assert '1.  Frost' in topics.get_payload()\n"
        "parts = [p.get_payload(0) for p in digest.get_payload()]\n"
        "whole = [open(f, 'rb').read() for f in sys.argv[2:]]\n"
        "assert len(parts) == 2, len(parts)\n"
        "for part, want in zip(parts, whole):\n"
        "    got = part.as_bytes().replace(b'\\r\\n', b'\\n').rstrip(b'\\n')\n"
        "    assert got == want.replace(b'\\r\\n', b'\\n').rstrip(b'\\n'), (got, want)\n";
    const std::string command = "python3 " + Write("read.py", script) + " " + path + " " +
                                Path("first.eml") + " " + Path("second.eml");
    EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST_F(Digest, IsNotSentWhenThereIsNothingOrNobody)
{
    EXPECT_TRUE(SendPlainDigest(kGarden, "dlout"));
    EXPECT_TRUE(SendMimeDigest("unknown@lists.example.org", "dlout"));
    EXPECT_EQ(Log(), "");
    PutPostings(kSilent);
    EXPECT_TRUE(SendMimeDigest(kSilent, "dlout"));
    EXPECT_EQ(Log(), Lines({"5 The mailing list silent@lists.example.org does not have digest mode "
                            "list member, no message digest is sent"}));
    EXPECT_EQ(Folder(kSilent), "digest.dt ");
    EXPECT_EQ(Brief(), "");
}

// One Kbyte counts as 100: the first posting and the header reach it, the second is left out, and
// removed all the same.
TEST_F(Digest, LeavesOutWhatIsBeyondTheSizeLimit)
{
    PutPostings(kSmall);
    EXPECT_TRUE(SendMimeDigest(kSmall, "dlout"));
    const std::string text = On().at(0).text;
    EXPECT_NE(text.find("Cover the roses"), std::string::npos);
    EXPECT_EQ(text.find("From here on"), std::string::npos);
    EXPECT_NE(text.find("   2.  No subject"), std::string::npos) << "the topics name it";
    EXPECT_EQ(Folder(kSmall), "digest.dt ");
}

TEST_F(Digest, AnyFaultKeepsThePostings)
{
    ExpectFaults(
        "digest",
        [this] {
            Start();
            Write("note.txt", "Garden list.\n");
            PutPostings();
        },
        [this] {
            const bool sent = SendMimeDigest(kGarden, "dlout");
            EXPECT_TRUE(sent || Folder() == kAll);
            return (sent ? "sent; " : "failed; ") + Folder();
        });
}

// How often each of the postings stands in a digest that has gone out, as "Frost 1 second 1 ...".
std::string Sent(const std::vector<Queued>& digests)
{
    std::string text;
    for (const Queued& digest : digests)
        text += digest.text;
    std::string counts;
    for (const std::string posting : {"Cover the roses.", "From here on, no end", "came later"}) {
        int count = 0;
        for (std::size_t at = 0; (at = text.find(posting, at)) != std::string::npos; ++at)
            ++count;
        counts += posting + " " + std::to_string(count) + "; ";
    }
    return counts;
}

// Whatever is broken off, by a fault or by the end of the process, is brought to its end later.
TEST_F(Digest, EachPostingIsInOneDigest)
{
    const auto run_whole = [&](const std::function<void()>& arm) {
        clock = {};
        Start();
        PutPostings();
        files.Watch({Path("data/")});
        log.ExpectError("");
        arm();
        RunDigestSchedule("dlout");
        const bool died = files.Died();
        files.Revive();
        files.ForgetFaults();
        queue->ForgetFaults();
        Put(kGarden, "00000003.msg", "Subject: third\r\n\r\ncame later\r\n");
        clock.now += 60;
        RunDigestSchedule("dlout");
        EXPECT_EQ(ReadFile(Path("data/garden@lists.example.org/digest/digest.dt")), "1100044800");
        clock.now = 1'100'044'800;
        RunDigestSchedule("dlout");
        EXPECT_EQ(Sent(On()), "Cover the roses. 1; From here on, no end 1; came later 1; ");
        EXPECT_EQ(Folder(), "digest.dt ");
        return died;
    };
    for (int calls = 0; run_whole([&] { files.DieAfter(calls); }); ++calls)
        ASSERT_LT(calls, 100);
    for (const QueueCall call : {QueueCall::kPrepare, QueueCall::kCommit})
        for (int n = 1; n <= 2; ++n)
            run_whole([&] { queue->FailNth(call, n); });
}

// A message that is still to be handled, as after a crash, files its posting again: the digest
// waits for that.
TEST_F(Digest, LeavesPostingsOfWaitingMessages)
{
    PutPostings();
    const unsigned long id = Submit("paul@example.org", {kGarden}, "Subject: x\n\nx\n");
    char name[16];
    std::snprintf(name, sizeof name, "%08lX.msg", id);
    Put(kGarden, name, "Subject: waits\r\n\r\ncame later\r\n");
    EXPECT_TRUE(SendMimeDigest(kGarden, "dlout"));
    EXPECT_EQ(Sent(On()), "Cover the roses. 1; From here on, no end 1; came later 0; ");
    EXPECT_EQ(Folder(), std::string(name) + " digest.dt subject.txt ");
    EXPECT_EQ(ReadFile(Path("data/garden@lists.example.org/digest/subject.txt")),
              "   1.  waits\r\n");
}

// What looks like a boundary in a posting neither ends the digest nor hides the others.
TEST_F(Digest, HasBoundariesThatNoPostingHolds)
{
    for (const char* prefix : {"KVT.boundary.", "KVT.Boundary.digest."}) {
        SCOPED_TRACE(prefix);
        Start();
        PutPostings();
        const std::string taken = prefix + std::string("4190AB00");
        Put(kGarden, "00000003.msg", "Subject: x\r\n\r\n--" + taken + "--\r\ncame later\r\n");
        EXPECT_TRUE(SendMimeDigest(kGarden, "dlout"));
        const std::string text = On().at(0).text;
        EXPECT_EQ(text.find("boundary=\"" + taken), std::string::npos);
        EXPECT_NE(text.find(std::string("boundary=\"") + prefix + "4190AB01"), std::string::npos);
        EXPECT_EQ(clock.now, 1'100'000'000) << "nobody waits for the second";
    }
}

}  // namespace
}  // namespace dl::testing
