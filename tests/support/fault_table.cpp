#include "tests/support/fault_table.h"

#include <algorithm>
#include <fstream>
#include <map>

#include "lists/dllist.h"

namespace dl::testing
{
namespace
{

// "write 3-9, write 11" from the numbers of a kind.
std::string Ranges(const std::string& kind, const std::vector<int>& numbers)
{
    std::string all;
    for (std::size_t i = 0; i < numbers.size();) {
        std::size_t end = i + 1;
        while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1)
            ++end;
        all += (all.empty() ? "" : ", ") + kind + " " + std::to_string(numbers[i]);
        if (end > i + 1)
            all += "-" + std::to_string(numbers[end - 1]);
        i = end;
    }
    return all;
}

using LineList = std::vector<std::string>;

LineList Split(const std::string& text)
{
    LineList lines;
    for (std::size_t at = 0, end = 0; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
    }
    return lines;
}

// What went and what came between two states.
LineList Changes(const LineList& before, const LineList& after)
{
    LineList changes;
    const auto lacks = [](const LineList& lines, const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) == lines.end();
    };
    for (const std::string& line : before)
        if (lacks(after, line))
            changes.push_back("- " + line.substr(0, line.find('\r')));
    for (const std::string& line : after)
        if (lacks(before, line))
            changes.push_back("+ " + line.substr(0, line.find('\r')));
    return changes;
}

std::string Block(const std::string& section, const LineList& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += section + " " + line + "\n";
    return text;
}

// The lines of a section; of those that the usual section begins and ends with, only the number.
std::string Difference(const std::string& section, const LineList& usual, const LineList& lines)
{
    if (lines == usual)
        return "";
    if (lines.empty())
        return section + " nothing\n";
    const std::size_t common = std::min(lines.size(), usual.size());
    std::size_t head = 0;
    while (head < common && lines[head] == usual[head])
        ++head;
    std::size_t tail = 0;
    while (tail < common - head && lines.rbegin()[static_cast<std::ptrdiff_t>(tail)] ==
                                       usual.rbegin()[static_cast<std::ptrdiff_t>(tail)])
        ++tail;
    std::string text;
    if (head > 0)
        text += section + " the first " + std::to_string(head) + " as usual\n";
    for (std::size_t i = head; i < lines.size() - tail; ++i)
        text += section + " " + lines[i] + "\n";
    if (tail > 0)
        text += section + " the last " + std::to_string(tail) + " as usual\n";
    return text;
}

}  // namespace

std::vector<FaultSite::Kind> FaultSite::Kinds()
{
    std::vector<Kind> kinds;
    const auto queued = [&](const char* name, QueueCall call) {
        kinds.push_back({name, [=, this] { return queue->Made(call); },
                         [=, this](int n) { queue->FailNth(call, n); }});
    };
    queued("take", QueueCall::kTake);
    queued("read-envelope", QueueCall::kReadEnvelope);
    queued("create-entry", QueueCall::kCreate);
    queued("insert", QueueCall::kInsert);
    queued("put-envelope", QueueCall::kEnvelope);
    queued("close-entry", QueueCall::kClose);
    queued("prepare", QueueCall::kPrepare);
    queued("commit", QueueCall::kCommit);
    const auto asked = [&](const char* name, DirectoryCall call, ModifyResult result) {
        kinds.push_back({name, [=, this] { return directory.Made(call); },
                         [=, this](int n) {
                             directory.result = result;
                             directory.FailNth(call, n);
                         }});
    };
    asked("connect", DirectoryCall::kConnect, ModifyResult::kUnreachable);
    asked("bind", DirectoryCall::kBind, ModifyResult::kUnreachable);
    asked("search", DirectoryCall::kSearch, ModifyResult::kUnreachable);
    asked("modify-lost", DirectoryCall::kModify, ModifyResult::kUnreachable);
    asked("modify-refused", DirectoryCall::kModify, ModifyResult::kRefused);
    const auto filed = [&](const char* name, FileCall call) {
        kinds.push_back({name, [=, this] { return files.Made(call); },
                         [=, this](int n) { files.FailNth(call, n); }});
    };
    filed("open", FileCall::kOpen);
    filed("read", FileCall::kRead);
    filed("create", FileCall::kCreate);
    filed("write", FileCall::kWrite);
    filed("close", FileCall::kClose);
    filed("remove", FileCall::kRemove);
    filed("rename", FileCall::kRename);
    filed("link", FileCall::kLink);
    return kinds;
}

FaultSite::Outcome FaultSite::Seen(const std::string& result, const LineList& members,
                                   const LineList& pending)
{
    Outcome seen;
    seen.push_back({"result", {result}});
    seen.push_back({"log", Split(Log())});
    seen.push_back({"queue", queue->Calls().empty() ? LineList{} : LineList{queue->Calls()}});
    seen.push_back({"out", Split(Brief())});
    LineList left;
    const auto add = [&](const char* what, std::size_t count) {
        if (count > 0)
            left.push_back(std::to_string(count) + what);
    };
    add(" on dl", On("dl").size());
    add(" on dlhold", On("dlhold").size());
    add(" unfinished entry", static_cast<std::size_t>(Unfinished()));
    add(" temporary file", static_cast<std::size_t>(TempFiles()));
    seen.push_back({"left", left});
    seen.push_back({"member", Changes(members, Members(list_))});
    seen.push_back({"pending", Changes(pending, Pending(list_))});
    return seen;
}

FaultSite::Outcome FaultSite::Do(const std::function<void()>& prepare, const Deed& deed,
                                 const std::function<void()>& arm)
{
    clock = {};
    clock.runs = true;  // a second pass draws an identifier of its own
    prepare();
    const LineList members = Members(list_);
    const LineList pending = Pending(list_);
    log.Clear();
    files.Watch({Path("")});
    queue->ClearCalls();
    arm();
    const std::string result = deed();
    Outcome seen = Seen(result, members, pending);
    if (!passes_ || result != "1")
        return seen;
    const std::size_t sent = On().size();
    EXPECT_TRUE(ListCache().InitCache());  // as after a restart
    LineList then = {"result " + std::to_string(Run())};
    const std::vector<Queued> out = On();
    for (std::size_t i = sent; i < out.size(); ++i)
        then.push_back("out " + Split(out[i].Brief())[0]);
    if (!On("dl").empty())
        then.push_back("left " + std::to_string(On("dl").size()) + " on dl");
    seen.push_back({"then", then});
    return seen;
}

std::string FaultSite::Table(const std::function<void()>& prepare, const Deed& deed)
{
    log.ExpectError("");  // the table holds every line
    const std::vector<Kind> kinds = Kinds();
    std::vector<int> counts;
    const auto counting = [&] {
        std::vector<int> before;
        for (const Kind& kind : kinds)
            before.push_back(kind.made());
        std::string result = deed();
        for (std::size_t i = 0; i < kinds.size(); ++i)
            counts.push_back(kinds[i].made() - before[i]);
        return result;
    };
    const Outcome usual = Do(prepare, counting, [] {});
    std::vector<std::pair<std::string, std::string>> blocks = {{"", "no fault"}};
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        std::map<std::size_t, std::vector<int>> met;
        for (int n = 1; n <= counts[i]; ++n) {
            const Outcome outcome = Do(prepare, deed, [&] { kinds[i].fail(n); });
            std::string text;
            for (std::size_t section = 0; section < outcome.size(); ++section)
                text += Difference(outcome[section].first,
                                   section < usual.size() ? usual[section].second : LineList{},
                                   outcome[section].second);
            const auto block = std::find_if(blocks.begin(), blocks.end(),
                                            [&](const auto& it) { return it.first == text; });
            met[static_cast<std::size_t>(block - blocks.begin())].push_back(n);
            if (block == blocks.end())
                blocks.emplace_back(text, "");
        }
        for (const auto& [block, numbers] : met) {
            std::string& calls = blocks[block].second;
            calls += (calls.empty() ? "" : ", ") + Ranges(kinds[i].name, numbers);
        }
    }
    for (const auto& [section, lines] : usual)
        blocks[0].first += Block(section, lines);
    std::string table;
    for (const auto& [text, calls] : blocks)
        table += (table.empty() ? "== " : "\n== ") + calls + "\n" + text;
    return table;
}

void FaultSite::ExpectFaults(const std::string& name, const std::function<void()>& prepare,
                             const Deed& deed)
{
    ExpectText("faults/" + name + ".txt", Table(prepare, deed));
}

void FaultSite::ExpectText(const std::string& file, const std::string& text)
{
    if (text == ReadFile(DataPath(file)))
        return;
    const std::filesystem::path now = std::string(DL_BINARY) + "/data/" + file;
    std::filesystem::create_directories(now.parent_path());
    std::ofstream(now, std::ios::binary) << text;
    ADD_FAILURE() << "another outcome than in " << DataPath(file) << ": " << now;
}

std::string FaultSite::Account(const std::string& title, const std::string& list,
                               const std::function<void()>& prepare)
{
    list_ = list;
    std::string text = "== " + title + "\n";
    for (const auto& [section, lines] : Do(
             prepare, [this] { return std::to_string(Run()); }, [] {}))
        text += Block(section, lines);
    return text;
}

void FaultSite::ExpectPassFaults(const std::string& name, const std::function<void()>& prepare)
{
    passes_ = true;
    ExpectFaults(name, prepare, [this] { return std::to_string(Run()); });
}

}  // namespace dl::testing
