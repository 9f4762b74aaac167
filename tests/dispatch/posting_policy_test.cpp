#include "dispatch/posting_policy.h"

#include <gtest/gtest.h>

namespace dl::testing
{

TEST(PostingPolicy, RefusalFollowsTheHandling)
{
    struct Row {
        int handling;
        bool bounce;
        bool forward;
    };
    for (const Row& row :
         {Row{0, false, false}, {1, true, false}, {2, false, true}, {3, true, true}}) {
        const Refusal refusal = RefusalByHandling(row.handling);
        EXPECT_EQ(refusal.bounce, row.bounce) << row.handling;
        EXPECT_EQ(refusal.forward, row.forward) << row.handling;
        EXPECT_EQ(refusal.IsDiscard(), row.handling == 0) << row.handling;
    }
}

TEST(PostingPolicy, AdmissionFollowsTheMode)
{
    struct Row {
        int mode;
        bool member;
        Admission want;
    };
    for (const Row& row : {Row{0, false, Admission::kDeliver},
                           {0, true, Admission::kDeliver},
                           {1, false, Admission::kRefuse},
                           {1, true, Admission::kDeliver},
                           {-1, false, Admission::kForOwner},
                           {-1, true, Admission::kForOwner},
                           {2, true, Admission::kForOwner}})
        EXPECT_EQ(AdmitByMode(row.mode, row.member), row.want) << row.mode << row.member;
}

}  // namespace dl::testing
