#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/address/utf8.h"
#include "platform/log/log.h"
#include "platform/mime/disclaimer_private.h"
#include "platform/mime/raw_bytes.h"

namespace dl
{

namespace
{

constexpr std::int64_t kMaxDisclaimer = 1 << 20;

// The text of a disclaimer file with "\n" line ends; empty, after a level 1 line, when it is
// unusable.
std::string LoadText(const std::string& path)
{
    if (path.empty())
        return "";
    std::string text;
    const char* fault = nullptr;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {
    };
    const bool usable = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    if (usable && status.st_size > kMaxDisclaimer)
        fault = "is larger than 1 MB";
    else if (!usable || !ReadAt(fd, 0, status.st_size, &text))
        fault = "cannot be read";
    else if (!IsUtf8(text) || text.find('\0') != std::string::npos)
        fault = "is not UTF-8 text";
    if (fd >= 0)
        close(fd);
    if (fault) {
        DlLog(1, "Disclaimer file %s %s, messages go out without it", path.c_str(), fault);
        return "";
    }
    if (text.starts_with("\xEF\xBB\xBF"))
        text.erase(0, 3);
    text = WithLineEnds(text, "\n");
    if (!text.empty() && !text.ends_with('\n'))
        text += '\n';
    return text;
}

}  // namespace

bool InsertDisclaimers(const std::string& path, const std::string& text_file,
                       const std::string& html_file)
{
    const Disclaimers disclaimers{LoadText(text_file), HtmlReferences(LoadText(html_file))};
    if (disclaimers.text.empty() && disclaimers.html.empty())
        return true;
    MimeMessagePtr message;
    const int parsed = MimeParseMessage(path, 1, &message);
    if (parsed == kMimeCannotRead) {
        DlLog(1, "Cannot read %s to insert the disclaimers", path.c_str());
        return false;
    }
    if (parsed < 0) {
        DlLog(6, "No disclaimer in %s: it cannot be parsed", path.c_str());
        return true;
    }
    const EditPlan plan = FindEdits(*message, disclaimers);
    if (plan.unchanged > 0)
        DlLog(6, "No disclaimer in %zu part(s) of %s, of the first: %s", plan.unchanged,
              path.c_str(), plan.reason);
    else if (plan.splices.empty())
        DlLog(6, "No disclaimer in %s: it has no body text that takes one", path.c_str());
    if (plan.splices.empty())
        return true;
    if (ApplySplices(message->fd, message->size, plan.splices, path))
        return true;
    DlLog(1, "Cannot write the disclaimers into %s, it goes out without them", path.c_str());
    return false;
}

}  // namespace dl
