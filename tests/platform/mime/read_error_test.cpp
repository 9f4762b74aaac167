// The end of a body and a read error are different things, wherever the disk fails.
#include <cerrno>

#include "platform/files/files.h"
#include "platform/files/machine_fault.h"
#include "platform/mime/mime.h"
#include "platform/mime/read_posting.h"
#include "tests/support/failing_reads.h"
#include "tests/support/fixture.h"
#include "tests/support/no_descriptors.h"

namespace dl
{
namespace
{

using testing::Crlf;
using testing::FailingReads;

// An ordinary forward with a text of some blocks.
std::string Forward()
{
    std::string text;
    for (int i = 0; i < 4000; ++i)
        text += "line " + std::to_string(i) + " of the text\n";
    return Crlf(
        "Subject: s\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n--b\n\n" +
        text + "\n--b\nContent-Type: message/rfc822\n\nSubject: inner\n\n" + text + "--b--\n");
}

class ReadError : public testing::Fixture
{
 protected:
    ~ReadError() override { ForgetMachineFault(); }

    // What `read` gives of the message: undisturbed, and then with the disk failing from each read
    // on. Either it is the same, or it fails and the fault was noted.
    template <typename Deed>
    void ExpectAllOrNothing(const Deed& read)
    {
        const std::string file = Write("m.msg", Forward());
        const std::string whole = read(file);
        ASSERT_NE(whole, "");
        int failures = 0;
        for (int good = 0;; ++good) {
            SCOPED_TRACE(good);
            ASSERT_LT(good, 10'000);
            ForgetMachineFault();
            std::string got;
            {
                const FailingReads disk(good, EIO);
                got = read(file);
                if (!disk.Happened()) {
                    EXPECT_EQ(got, whole);
                    break;
                }
            }
            EXPECT_EQ(got, "");
            EXPECT_EQ(NotedMachineFault(), EIO);
            ++failures;
            if (HasFailure())
                return;
        }
        EXPECT_GT(failures, 5);
    }
};

std::string Taken(std::string name)
{
    std::string bytes = name.empty() ? "" : testing::ReadFile(name);
    MimeFreeFile(&name);
    return bytes;
}

TEST_F(ReadError, OfABody)
{
    for (const int part : {-1, 0, 1}) {
        SCOPED_TRACE(part);
        ExpectAllOrNothing([&](const std::string& file) -> std::string {
            MimeMessagePtr message;
            if (MimeParseMessage(file, 1, &message) != 0)
                return "";
            const MimePart* top = MimeGetMsg(message.get(), 0);
            return Taken(MimeGetBody(
                part < 0 ? top : MimeGetPart(top, static_cast<std::uint16_t>(part)), 0, -1));
        });
    }
}

TEST_F(ReadError, OfAPosting)
{
    ExpectAllOrNothing([&](const std::string& file) -> std::string {
        const auto posting = PostingFile::Read(file);
        if (!posting)
            return "";
        EXPECT_EQ(posting->Get().texts.size(), 1U);
        EXPECT_EQ(posting->Get().attachments.size(), 1U);
        FileWriter out(Path("a"), "wb");
        return posting->WriteAttachment(0, &out) && out.Close()
                   ? posting->Get().texts[0].text + testing::ReadFile(Path("a"))
                   : "";
    });
}

TEST_F(ReadError, WhileDisclaimersAreInserted)
{
    const std::string text = Write("d.txt", "d\n");
    bool failed = true;
    for (int good = 1; failed; ++good) {  // the first read is the disclaimer's
        SCOPED_TRACE(good);
        const std::string file = Write("queue/m.msg", Forward());
        bool done = false;
        {
            const FailingReads disk(good, EIO);
            done = InsertDisclaimers(file, text, "");
            failed = disk.Happened();
        }
        EXPECT_EQ(done, !failed);
        EXPECT_EQ(testing::ReadFile(file) == Forward(), failed);
        EXPECT_EQ(testing::FileNames(Path("queue")).size(), 1U);
        EXPECT_EQ(NotedMachineFault(), failed ? EIO : 0);
        ForgetMachineFault();
        ASSERT_LT(good, 10'000);
        if (HasFailure())
            return;
    }
    log.ExpectError("Cannot read");
    log.ExpectError("Cannot write the disclaimers");
}

TEST_F(ReadError, WhatCannotBeOpenedForLackOfDescriptorsIsNoted)
{
    const std::string file = Write("m.msg", Forward());
    MimeMessagePtr message;
    EXPECT_LT(MimeParseMessage(Path("missing"), 1, &message), 0);
    EXPECT_EQ(NotedMachineFault(), 0) << "a file that is missing is not the machine's fault";
    const testing::NoDescriptors none;
    EXPECT_LT(MimeParseMessage(file, 1, &message), 0);
    EXPECT_EQ(NotedMachineFault(), EMFILE);
}

}  // namespace
}  // namespace dl
