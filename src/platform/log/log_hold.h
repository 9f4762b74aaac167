// Log lines that wait for a commit.
//
// Whoever handles messages whose results become visible together makes a LogHold, and one part of
// it for each message. Lines of its thread are written as they come up to the first promise: a step
// that has succeeded but is true only after the commit. From there on lines are kept, in their
// order, until their part is committed or dropped: no line says that a message was delivered before
// it is so on disk. Without a LogHold everything is written at once. One at a time in a thread.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace dl
{

class LogHold
{
 public:
    LogHold();
    ~LogHold();  // drops what is kept, as DropPart; parts that have ended are dropped unsaid
    LogHold(const LogHold&) = delete;
    LogHold& operator=(const LogHold&) = delete;

    // Ends the part that was begun by the end of the one before.
    void EndPart();
    // The first `parts` parts are committed: writes their lines.
    void Release(std::size_t parts);
    // The first part cannot be committed: writes its lines up to its first promise, what has been
    // said since the last part ended, the promise's line in place of the rest, and what follows it
    // at level 1. Parts behind it are dropped unsaid: their messages are handled again.
    void Break();
    // The part that has not ended promises nothing any more: what is left of it are its lines up to
    // its first promise, and those of level 1.
    void DropPart();

    // For the log: the hold of this thread, null when there is none; whether it takes the line.
    [[nodiscard]] static LogHold* Current();
    [[nodiscard]] bool Keep(int level, const char* module, const char* text);

 private:
    friend void PromiseLines(const char* instead);
    friend void WriteWhenTrue(std::function<void()> lines);
    struct Item {
        int level = 0;
        std::string module;
        std::string text;
        std::function<void()> lines;  // in place of the text
    };
    struct Part {
        std::vector<Item> items;
        bool promised = false;
        std::size_t before = 0;  // items before the first promise
        const char* instead = nullptr;
    };
    void Write(const Item& item);
    void WriteAll(Part* part);
    void WriteUpToPromise(Part* part);
    void WriteErrorsBehind(const Part& part);

    std::deque<Part> parts_;
    bool keeping_ = false;
    bool writing_ = false;
};

// A step has succeeded that becomes true with the commit; `instead`, which may be null and lives as
// long as the program, is the level 1 line when it does not. Without a LogHold it is true already.
void PromiseLines(const char* instead);
// Calls `lines`, which logs, when what was promised is true: at once when nothing is kept. For many
// lines that need not lie in memory.
void WriteWhenTrue(std::function<void()> lines);

}  // namespace dl
