#include "tests/support/failing_queue.h"

#include "tests/support/fixture.h"
#include "tests/support/queued.h"

namespace dl::testing
{

class SubmitEntry : public Fixture
{
 protected:
    Submission Try()
    {
        stEnvelope envelope;
        return Submit(NewMQEntry(), "dlout", 255, &envelope);
    }
    FailingQueue queue{Path("queue")};
};

TEST_F(SubmitEntry, EachStepCanFailAndOnlyTheFirstTwoDiscard)
{
    const struct {
        const char* name;
        QueueCall call;
        Submission want;
        const char* calls;
    } rows[] = {
        {"create", QueueCall::kCreate, Submission::kInsertFailed, "create"},
        {"insert", QueueCall::kInsert, Submission::kInsertFailed,
         "create insert(dlout,255) discard"},
        {"envelope", QueueCall::kEnvelope, Submission::kPutFailed,
         "create insert(dlout,255) envelope discard"},
        {"close", QueueCall::kClose, Submission::kCloseFailed,
         "create insert(dlout,255) envelope close"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        queue.ClearCalls();
        queue.FailNext(row.call);
        EXPECT_EQ(Try(), row.want);
        EXPECT_EQ(queue.Calls(), row.calls);
        EXPECT_TRUE(QueueItems().empty());
        EXPECT_TRUE(std::filesystem::is_empty(Path("queue/msg")));
    }
    queue.FailNth(QueueCall::kClose, 2);
    EXPECT_EQ(Try(), Submission::kDone);
    EXPECT_EQ(Try(), Submission::kCloseFailed);
    EXPECT_EQ(Try(), Submission::kDone);
}

}  // namespace dl::testing
