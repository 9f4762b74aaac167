// How far long work has come, on a terminal: one line on standard error that is rewritten as it
// goes on and wiped at the end. Into a file or a pipe nothing is written, and of work that is over
// within a second nothing is seen.
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
    explicit Progress(std::string what, std::size_t total = 0);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Update(std::size_t done);

 private:
    void Show();

    const std::string what_;
    const std::size_t total_;
    std::mutex mutex_;
    std::condition_variable change_;
    std::size_t done_ = 0;
    bool ended_ = false;
    bool shown_ = false;
    std::thread thread_;  // only with a terminal
};

}  // namespace dl
