#include "platform/address/utf8.h"
#include "platform/log/log.h"
#include "platform/mime/disclaimer_private.h"

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
    const RawFile file(path);
    if (file.IsOpen() && file.Size() > kMaxDisclaimer)
        fault = "is larger than 1 MB";
    else if (!file.IsOpen() || !file.ReadAt(0, file.Size(), &text))
        fault = "cannot be read";
    else if (!IsUtf8(text) || text.find('\0') != std::string::npos)
        fault = "is not UTF-8 text";
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

bool CannotRead(const std::string& path)
{
    DlLog(1, "Cannot read %s to insert the disclaimers", path.c_str());
    return false;
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
    if (parsed == kMimeCannotRead)
        return CannotRead(path);
    if (parsed < 0) {
        DlLog(6, "No disclaimer in %s: it cannot be parsed", path.c_str());
        return true;
    }
    const EditPlan plan = FindEdits(*message, disclaimers);
    if (message->file.Failed())
        return CannotRead(path);
    if (plan.unchanged > 0)
        DlLog(6, "No disclaimer in %zu part(s) of %s, of the first: %s", plan.unchanged,
              path.c_str(), plan.reason);
    else if (plan.splices.empty())
        DlLog(6, "No disclaimer in %s: it has no body text that takes one", path.c_str());
    if (plan.splices.empty())
        return true;
    if (ApplySplices(message->file, plan.splices, path))
        return true;
    DlLog(1, "Cannot write the disclaimers into %s, it goes out without them", path.c_str());
    return false;
}

}  // namespace dl
