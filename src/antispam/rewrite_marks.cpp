#include "antispam/rewrite_marks.h"

#include <algorithm>
#include <functional>

#include "antispam/spam_log.h"
#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr int kDone = 0;
constexpr int kSourceNotOpened = -1;
constexpr int kDestinationNotMade = -2;
constexpr int kNotWritten = -3;
constexpr int kNotRead = -4;

constexpr std::string_view kEmptyLine = "\r\n";

// Copies the lines that `edit` makes of each line of `source`.
int CopyLines(const std::string& source, const std::string& destination,
              const std::function<std::string(std::string_view)>& edit)
{
    const FileHandle in = FileOpen(source, 1, 1);
    if (!in)
        return kSourceNotOpened;
    const std::unique_ptr<FileWriter> out = FileCreate(destination, 2, 1);
    if (!out)
        return kDestinationNotMade;
    std::string_view line;
    while (GetLine(in.get(), &line) == 1)
        if (!PutLine(out.get(), edit(line)))
            return kNotWritten;
    if (in->Failed())
        return kNotRead;
    return out->Close() ? kDone : kNotWritten;
}

}  // namespace

bool ChangeSubject(const std::string& source, const std::string& destination,
                   const std::string& subject)
{
    std::string text = subject;  // a setting, which must not end the header
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; }, ' ');
    const std::string header = FormatText("Subject: %s\r\n", text.c_str());
    enum { kSearching, kInSubject, kWritten } state = kSearching;
    const int result = CopyLines(source, destination, [&](std::string_view line) -> std::string {
        if (state == kInSubject) {
            if (line[0] == ' ' || line[0] == '\t')
                return "";
            state = kWritten;
        }
        if (state == kWritten)
            return std::string(line);
        if (StartsWithNoCase(line, "subject:")) {
            state = kInSubject;
            return std::string(header);
        }
        if (line != kEmptyLine)
            return std::string(line);
        state = kWritten;
        return header + std::string(line);
    });
    if (result != kDone)
        BayesLog(1, "ChangeSubject - Catch error: %d\n", result);
    return result == kDone;
}

bool AddXHeader(const std::string& source, const std::string& destination)
{
    bool written = false;
    const int result = CopyLines(source, destination, [&](std::string_view line) -> std::string {
        if (written || line != kEmptyLine)
            return std::string(line);
        written = true;
        return "X-Spam-Status: YES\r\n" + std::string(line);
    });
    if (result != kDone)
        BayesLog(1, "AddXHeader - Catch error: %d\n", result);
    return result == kDone;
}

}  // namespace dl
