// Writing one digest into its queue entry: the steps that the plain and the MIME digest share, each
// with its own line for the log when a write fails.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "lists/digest_folder.h"
#include "platform/clock/clock.h"
#include "requests/generated_message.h"

namespace dl
{

// Year, month and day on which it is sent, "(#2004-3-5)".
struct DigestNumber {
    int year = 0;
    int month = 0;
    int day = 0;
};
[[nodiscard]] DigestNumber NumberOf(std::time_t now);

// What goes into a digest.
struct DigestContent {
    DigestFolder folder;
    std::vector<std::string> postings = {};  // their names, in order
    bool whole = true;                       // all that the folder holds
    [[nodiscard]] std::vector<std::string> Paths() const;
};

class DigestWriter
{
 public:
    DigestWriter(GeneratedMessage& message, std::string list)
        : message_(message), list_(std::move(list)), number_(NumberOf(Now()))
    {
    }
    // All false when a write failed, which is logged then.
    [[nodiscard]] bool Headers();
    [[nodiscard]] bool Topics(const DigestContent& content);
    [[nodiscard]] bool Plain(const DigestContent& content);
    [[nodiscard]] bool MimeStart(const DigestContent& content);
    [[nodiscard]] bool Mime(const DigestContent& content);

 private:
    // Adds postings with `add` until the list's size limit is reached.
    template <typename Add>
    [[nodiscard]] bool EachPosting(const DigestContent& content, Add add);
    [[nodiscard]] bool AddPlain(const std::string& posting);
    [[nodiscard]] bool AddMime(const std::string& posting);

    GeneratedMessage& message_;
    std::string list_;
    DigestNumber number_;
    std::string outer_;  // boundaries
    std::string inner_;
};

}  // namespace dl
