// What one pass of the dispatcher leaves when a call of the queue, the directory or the files fails
// under it, and what the next pass makes of that.
//
// The tables lie in tests/data/faults. A stop leaves the message on its channel and logs its place;
// what concerns one message only is answered and does not stop.

#include "tests/support/fault_table.h"

namespace dl::testing
{

using Row = std::vector<std::string>;

class DialogueFaults : public FaultSite, public ::testing::WithParamInterface<Row>
{
 protected:
    DialogueFaults()
    {
        AddUsualLists();
        AddList("legal", "listmember: Immediate;anna@example.com\ndisclaimertxtpath: " +
                             Write("disclaimer.txt", "The small print.\n") + "\n");
    }
};

TEST_P(DialogueFaults, HaveTheirOutcomes)
{
    const Row& row = GetParam();
    const std::string to = row.at(2) + "@lists.example.org";
    ExpectPassFaults(row.at(0), [&, this] {
        Start();
        if (!row.at(4).empty())
            WritePending("0000ABCD", row.at(4) + "\r\n",
                         to.starts_with("board") ? kBoard : kGarden);
        Submit(row.at(1), {to}, "Subject: " + row.at(3) + "\n");
    });
}

INSTANTIATE_TEST_SUITE_P(Of, DialogueFaults,
                         ::testing::ValuesIn(ReadTable("tables/requests.txt",
                                                       "dialogues with faults")),
                         [](const auto& row) { return row.param.at(0); });

}  // namespace dl::testing
