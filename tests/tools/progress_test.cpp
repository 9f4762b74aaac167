// The progress line on a terminal: what a reader has on the screen while it is shown and
// afterwards.

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "tests/support/fixture.h"
#include "tools/dlctl/progress.h"

namespace dl::testing
{
namespace
{

// As much of a terminal as is needed: it wraps, and knows how to return, to wipe the rest of a row,
// and that the letters of the Far East are wide.
class Terminal
{
 public:
    explicit Terminal(std::size_t columns) : columns_(columns) {}
    void Take(const std::string& bytes)
    {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            const auto byte = static_cast<unsigned char>(bytes[i]);
            if (byte == '\r')
                column_ = 0;
            else if (byte == '\n')
                rows.emplace_back();
            else if (bytes.compare(i, 3, "\x1b[K") == 0)
                rows.back().resize(column_), i += 2;
            else if ((byte & 0xC0) != 0x80)
                Put(byte >= 0xE0 ? 2 : 1, byte < 0x80 ? bytes[i] : '?');
            most_rows = std::max(most_rows, rows.size());
            if (!rows.back().empty() && column_ > 0)
                seen = rows.back();
        }
    }
    std::vector<std::string> rows{""};
    std::size_t most_rows = 1;
    std::string seen;  // the last row that was not empty

 private:
    void Put(std::size_t width, char shown)
    {
        if (column_ + width > columns_) {
            rows.emplace_back();
            column_ = 0;
        }
        rows.back().resize(column_, ' ');
        rows.back().append(width, shown);
        column_ += width;
    }
    const std::size_t columns_;
    std::size_t column_ = 0;
};

// Shows progress in a child for a while, says a line in the middle, and hands on what came.
std::string Watch(unsigned short columns, const char* term, const std::string& what,
                  std::size_t total)
{
    winsize size{24, columns, 0, 0};
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    if (child == 0) {
        setenv("TERM", term, 1);
        {
            Progress progress(what, total, std::chrono::milliseconds(20));
            progress.Update(total / 2);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            PrintErrorLine("dlctl: note");
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        _exit(0);
    }
    std::string bytes;
    char block[4096];
    for (ssize_t got; (got = read(terminal, block, sizeof block)) > 0;)
        bytes.append(block, static_cast<std::size_t>(got));
    close(terminal);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return bytes;
}

class ProgressLine : public Fixture
{
};

TEST_F(ProgressLine, IsRewrittenInPlaceAndWiped)
{
    const std::string wide = "日本語日本語日本語日本語日本語";
    const struct {
        const char* name;
        unsigned short columns;
        std::string what;
        std::size_t total;
        std::string seen;
    } rows[] = {
        {"room for all", 80, "members", 200, "members: 100 of 200 (50 %), 0 s"},
        {"a narrow terminal", 20, "making the archive of garden", 0, "making the ...: 0 s"},
        {"too narrow for a name", 20, "members", 200, "100 of 200 (50 %), "},
        {"hardly a terminal", 4, "members", 0, "0 s"},
        {"wide letters", 20, wide, 0, "??????????...: 0 s"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Terminal screen(row.columns);
        const std::string bytes = Watch(row.columns, "xterm", row.what, row.total);
        screen.Take(bytes);
        EXPECT_EQ(screen.seen.substr(0, row.seen.size()), row.seen.substr(0, row.columns - 1U));
        if (row.columns >= 20) {
            EXPECT_EQ(screen.rows, (std::vector<std::string>{"dlctl: note", ""}));
            EXPECT_EQ(screen.most_rows, 2U) << "a line was wrapped";
        }
    }
    EXPECT_EQ(Watch(80, "dumb", "members", 200), "dlctl: note\r\n");
}

TEST_F(ProgressLine, IsNotWrittenIntoAPipe)
{
    ::testing::internal::CaptureStderr();
    {
        const Progress progress("members", 2, std::chrono::milliseconds(5));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace dl::testing
