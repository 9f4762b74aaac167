// Waits until some process has put an entry into the queue.
//
// Who publishes sets the time of one file after its commit (EntryFiles::TellNews); this watches
// that file. It spares a reader the pause between two looks, no more: news may be missed where a
// file system cannot be watched, and may come for a channel that is not the reader's, so a reader
// still looks by itself now and then. One thread at a time.
#pragma once

#include <chrono>
#include <string>

namespace dl
{

class NewsWatch
{
 public:
    NewsWatch() = default;
    ~NewsWatch();
    NewsWatch(const NewsWatch&) = delete;
    NewsWatch& operator=(const NewsWatch&) = delete;

    // True when there was news since the last call (the first call begins to watch), false after
    // `longest`, and then also when the file cannot be watched.
    [[nodiscard]] bool Wait(const std::string& path, std::chrono::milliseconds longest);

 private:
    int fd_ = -1;
    bool tried_ = false;
};

}  // namespace dl
