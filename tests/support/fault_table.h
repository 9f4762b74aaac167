// Fails each call of the queue, the directory and the files in turn while a deed is done, and says
// what came of it.
//
// The table is a text: one block per outcome, headed by the calls whose failure leads to it
// ("write 3-9" are the third to the ninth write of a file). The first block is that of no fault,
// the others hold what is different from it: the deed's result, log lines, the calls that changed
// the queue, what went out, what is left behind.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/site.h"

namespace dl::testing
{

class FaultSite : public Site
{
 protected:
    // Compares the table of a deed with tests/data/faults/<name>.txt. `prepare` makes the site anew
    // (Start) and what the deed works on; `deed` gives its result.
    using Deed = std::function<std::string()>;
    void ExpectFaults(const std::string& name, const std::function<void()>& prepare,
                      const Deed& deed);
    // The same for one pass of the dispatcher, "0" or "1". When it stops, a further pass without
    // fault is made, as after a restart; "then" says what that one adds.
    void ExpectPassFaults(const std::string& name, const std::function<void()>& prepare);
    // What one pass makes of what `prepare` has put there, as the block of a table. Members and
    // pending files are those of `list`.
    std::string Account(const std::string& title, const std::string& list,
                        const std::function<void()>& prepare);
    // Compares with a text file of tests/data; what is different is written below the build folder.
    static void ExpectText(const std::string& file, const std::string& text);

 private:
    using LineList = std::vector<std::string>;
    using Outcome = std::vector<std::pair<std::string, LineList>>;  // named sections
    struct Kind {
        const char* name;
        std::function<int()> made;
        std::function<void(int)> fail;
    };
    [[nodiscard]] std::vector<Kind> Kinds();
    Outcome Do(const std::function<void()>& prepare, const Deed& deed,
               const std::function<void()>& arm);
    [[nodiscard]] Outcome Seen(const std::string& result, const LineList& members,
                               const LineList& pending);
    std::string Table(const std::function<void()>& prepare, const Deed& deed);

    bool passes_ = false;
    std::string list_ = kGarden;
};

}  // namespace dl::testing
