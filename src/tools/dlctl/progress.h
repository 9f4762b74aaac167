// How far long work has come, on a terminal: one line on standard error that is rewritten as it
// goes on and wiped at the end. Into a file or a pipe, and on a terminal that cannot wipe a line
// (TERM is "dumb" or empty), nothing is written, and of work that is over within a second nothing
// is seen. The line is cut to the terminal's width: what is wrapped cannot be wiped. What else is
// said on standard error meanwhile goes through PrintErrorLine. One at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace dl
{

class Progress
{
 public:
    // `total` 0: only the time is shown.
    explicit Progress(const std::string& what, std::size_t total = 0,
                      std::chrono::milliseconds step = std::chrono::seconds(1));
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Update(std::size_t done);

 private:
    void Show();
    [[nodiscard]] std::string Measure(std::chrono::seconds time) const;

    const std::string what_;
    const std::size_t total_;
    const std::chrono::milliseconds step_;
    std::mutex mutex_;
    std::condition_variable change_;
    std::size_t done_ = 0;
    bool ended_ = false;
    std::thread thread_;  // only with a terminal
};

// `line` and a line end on standard error; a progress line that stands there is wiped before and
// comes back below. From any thread.
void PrintErrorLine(const std::string& line);

}  // namespace dl
