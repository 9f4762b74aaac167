#include "platform/log/log_hold.h"

#include <algorithm>
#include <utility>

#include "platform/log/log.h"

namespace dl
{
namespace
{

thread_local LogHold* current_hold = nullptr;

}  // namespace

LogHold::LogHold() : parts_(1)
{
    current_hold = this;
}

LogHold::~LogHold()
{
    DropPart();
    current_hold = nullptr;
}

LogHold* LogHold::Current()
{
    return current_hold;
}

bool LogHold::Keep(int level, const char* module, const char* text)
{
    if (!keeping_ || writing_)
        return false;
    parts_.back().items.push_back({level, module, text, nullptr});
    return true;
}

void LogHold::Write(const Item& item)
{
    writing_ = true;
    if (item.lines)
        item.lines();
    else
        (void)LogMessage(item.level, item.module.c_str(), item.text.c_str());
    writing_ = false;
}

void LogHold::WriteAll(Part* part)
{
    for (const Item& item : part->items)
        Write(item);
    part->items.clear();
}

void LogHold::WriteUpToPromise(Part* part)
{
    const std::size_t count = part->promised ? part->before : part->items.size();
    for (std::size_t i = 0; i < count; ++i)
        Write(part->items[i]);
}

void LogHold::WriteErrorsBehind(const Part& part)
{
    for (std::size_t i = part.before; part.promised && i < part.items.size(); ++i)
        if (!part.items[i].lines && part.items[i].level <= 1)
            Write(part.items[i]);
}

void LogHold::EndPart()
{
    parts_.emplace_back();
}

void LogHold::Release(std::size_t parts)
{
    for (; parts > 0; --parts) {
        WriteAll(&parts_.front());
        parts_.pop_front();
    }
    if (parts_.size() > 1 || parts_.front().promised)
        return;
    keeping_ = false;
    WriteAll(&parts_.front());
}

void LogHold::Break()
{
    Part& part = parts_.front();
    WriteUpToPromise(&part);
    // What the commit itself has said of its failure.
    if (parts_.size() > 1)
        WriteAll(&parts_.back());
    if (part.instead)
        Write({1, "DL Manager", part.instead, nullptr});
    WriteErrorsBehind(part);
    parts_.clear();
    parts_.emplace_back();
    keeping_ = false;
}

void LogHold::DropPart()
{
    Part& part = parts_.back();
    if (part.promised)
        part.items.erase(
            std::remove_if(part.items.begin() + static_cast<std::ptrdiff_t>(part.before),
                           part.items.end(),
                           [](const Item& item) { return item.lines || item.level > 1; }),
            part.items.end());
    part.promised = false;
    part.instead = nullptr;
    keeping_ = parts_.size() > 1;
    if (!keeping_)
        WriteAll(&part);
}

void PromiseLines(const char* instead)
{
    LogHold* hold = LogHold::Current();
    if (!hold)
        return;
    LogHold::Part& part = hold->parts_.back();
    if (!part.promised)
        part.before = part.items.size();
    part.promised = true;
    if (!part.instead)
        part.instead = instead;
    hold->keeping_ = true;
}

void WriteWhenTrue(std::function<void()> lines)
{
    LogHold* hold = LogHold::Current();
    if (!hold || !hold->keeping_)
        lines();
    else
        hold->parts_.back().items.push_back({0, "", "", std::move(lines)});
}

}  // namespace dl
