#include "requests/body_text.h"

#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/mime/mime.h"
#include "platform/queue/queue.h"

namespace dl
{
namespace
{

constexpr unsigned long kCopyBlock = 4096;

bool IsType(const MimePart* part, const char* type, const char* subtype)
{
    const char* its_type = MimeGetContentType(part);
    const char* its_subtype = MimeGetContentSubtype(part);
    return its_type && its_subtype && EqualNoCase(its_type, type) &&
           EqualNoCase(its_subtype, subtype);
}

// The first text/plain part, else the part looked at last.
const MimePart* WalkMixed(const MimePart* whole)
{
    const MimePart* part = whole;
    for (std::uint16_t i = 0; i < MimeGetPartCount(whole); ++i) {
        part = MimeGetPart(whole, i);
        if (IsType(part, "text", "plain"))
            return part;
    }
    return part;
}

// Goes on behind a part only while the next index is below that part's own number of sub-parts.
const MimePart* WalkAlternative(const MimePart* whole)
{
    const MimePart* part = whole;
    std::uint16_t next = 0;
    do {
        part = MimeGetPart(whole, next++);
        if (IsType(part, "text", "plain"))
            return part;
    } while (next < MimeGetPartCount(part) && next < MimeGetPartCount(whole));
    return part;
}

// The part whose body is the text.
const MimePart* ChoosePart(const MimePart* top)
{
    if (MimeGetVersion(top) != 1.0)
        return top;
    if (IsType(top, "multipart", "mixed") && MimeGetPartCount(top) > 0)
        return WalkMixed(top);
    if (IsType(top, "multipart", "alternative") && MimeGetPartCount(top) >= 2)
        return WalkAlternative(top);
    return top;
}

std::string CopyToTemp(const std::string& body)
{
    std::string name = KVTGetTempFileName(nullptr, "dl");
    if (name.empty())
        return name;
    try {
        CFileUtil("DL Manager").Copy(body, name, kCopyBlock);
    } catch (const CFileUtilException&) {
        MimeFreeFile(&name);  // the caller answers for a body that cannot be read
        name.clear();
    }
    return name;
}

}  // namespace

std::string ExtractBodyText(unsigned long id)
{
    const std::string path = GetMQPathName(id, ".msg");
    MimeMessagePtr message;
    if (path.empty() || MimeParseMessage(path, 1, &message) < 0)
        return "";
    const MimePart* top = MimeGetMsg(message.get(), 0);
    if (!top)
        return "";
    std::string body = MimeGetBody(ChoosePart(top), 0, -1);
    if (body.empty())
        return "";
    std::string name = CopyToTemp(body);
    MimeFreeFile(&body);
    return name;
}

}  // namespace dl
