// What the server does by default with messages from an address that a real-time blacklist lists,
// from the directory.
//
// Owned by the spam checker, which asks it to reload before each check; it does when
// "Kestrune"/"ReloadInterval" minutes of "qvmta.ini" (default 15) have passed since the last
// successful load. A load that fails leaves no defaults: every blacklist counts as unknown, which
// discards, until one succeeds; LoadFailed tells that from a blacklist that is unknown indeed. Logs
// with the tag "Kestrune".
#pragma once

#include <ctime>
#include <list>
#include <optional>
#include <string>

namespace dl
{

struct RblHost {
    std::string name;
    int action = 0;  // 0 ignore, 1 discard, 2 file, 3 bounce
    int mode = 0;    // 0 for "P", else 1
};

// One value of the directory: "host,mode,action[,name:letter]...". An override for `local_name`
// decides the action; an empty field ends the value. None when the host itself is empty.
[[nodiscard]] std::optional<RblHost> ParseRblHost(const std::string& value,
                                                  const std::string& local_name);

class RblDefaults
{
 public:
    void ReloadWhenDue(const std::string& local_name);
    // The last load failed.
    [[nodiscard]] bool LoadFailed() const { return failed_; }

    [[nodiscard]] int Action(const std::string& host) const;  // 1 (discard) for an unknown one
    [[nodiscard]] int Mode(const std::string& host) const;    // 0 for an unknown one
    [[nodiscard]] bool IsKnown(const std::string& host) const { return Find(host) != nullptr; }
    [[nodiscard]] bool AnyWithMode0() const;
    // Names, the one loaded last first; null past the end.
    [[nodiscard]] const char* FirstHost();
    [[nodiscard]] const char* NextHost();

 private:
    [[nodiscard]] const RblHost* Find(const std::string& host) const;

    std::list<RblHost> hosts_;
    std::list<RblHost>::const_iterator cursor_ = hosts_.end();
    std::time_t loaded_ = -1;
    bool failed_ = false;
};

}  // namespace dl
