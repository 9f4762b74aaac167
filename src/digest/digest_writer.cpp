#include "digest/digest_writer.h"

#include "lists/cache_shortcuts.h"
#include "platform/address/address.h"
#include "platform/log/log.h"
#include "requests/boundary.h"

namespace dl
{
namespace
{

constexpr std::size_t kBuffer = 1024;
constexpr char kOuterBoundary[] = "KVT.boundary.%08X";
constexpr char kInnerBoundary[] = "KVT.Boundary.digest.%08X";

bool Check(bool written, const char* problem)
{
    if (!written)
        DlLog(1, "%s", problem);
    return written;
}

// What a plain digest leaves out of a posting's header block, continuation lines included.
class HeaderFilter
{
 public:
    bool Keeps(std::string_view line)
    {
        if (!in_header_)
            return true;
        if (line == "\r\n") {
            in_header_ = false;
            return true;
        }
        const bool continuation = !line.empty() && (line[0] == ' ' || line[0] == '\t');
        if (!continuation)
            dropping_ =
                StartsWithNoCase(line, "Mime-version:") || StartsWithNoCase(line, "Content-");
        return !dropping_;
    }

 private:
    bool in_header_ = true;
    bool dropping_ = false;
};

}  // namespace

DigestNumber NumberOf(std::time_t now)
{
    std::tm date{};
    localtime_r(&now, &date);
    return {date.tm_year + 1900, date.tm_mon + 1, date.tm_mday};
}

bool DigestWriter::Headers()
{
    const char* list = list_.c_str();
    return Check(message_.Received(), "Error writing <Received> to message digest") &&
           Check(message_.MessageId(), "Error writing <Message-ID> to message digest") &&
           Check(message_.Date(), "Error writing <Date> to message digest") &&
           Check(message_.Print("Reply-To: %s\r\n", list),
                 "Error writing <Reply-To> to message digest") &&
           Check(message_.Print("Sender: %s\r\n", list),
                 "Error writing <Sender> to message digest") &&
           Check(message_.Print("From: %s\r\n", list), "Error writing <From> to message digest") &&
           Check(message_.Print("Subject: %s Digest (#%d-%d-%d)\r\n", list, number_.year,
                                number_.month, number_.day),
                 "Error writing <Subject> to message digest") &&
           Check(message_.Print("To: %s\r\n", list), "Error writing <To> to message digest");
}

std::vector<std::string> DigestContent::Paths() const
{
    std::vector<std::string> paths;
    for (const std::string& name : postings)
        paths.push_back(folder.PathOf(name));
    return paths;
}

bool DigestWriter::MimeStart(const DigestContent& content)
{
    if (!Check(message_.Print("Mime-version: 1.0\r\n"),
               "Error writing <Mime-version> to message digest"))
        return false;
    outer_ = FreeBoundary(kOuterBoundary, content.Paths());
    return Check(message_.Print("Content-type: Multipart/mixed; boundary=\"%s\"\r\n\r\n",
                                outer_.c_str()),
                 "Error writing <Content-type> to message digest") &&
           Check(message_.Print("--%s\r\n", outer_.c_str()),
                 "Error writing boundary to message digest") &&
           Check(message_.Print("Content-type: text/plain\r\n\r\n"),
                 "Error writing <Content-type> to message digest");
}

bool DigestWriter::Topics(const DigestContent& content)
{
    const auto copy = [&] {
        const DigestFolder& folder = content.folder;
        if (!content.whole)
            return message_.Write(TopicsOf(folder, content.postings));
        return message_.CopyFile(folder.Topics(), kBuffer) != GeneratedMessage::Copied::kFailed;
    };
    return Check(
        message_.Print("\r\nTopics of the day:\r\n\r\n") && copy() && message_.Print("\r\n"),
        "Error writing <Topics> to message digest");
}

template <typename Add>
bool DigestWriter::EachPosting(const DigestContent& content, Add add)
{
    const long limit = GetDigestSize(list_);
    for (const std::string& posting : content.Paths()) {
        const std::int64_t size = FileSize(posting);
        if (!Check(size >= 0 && add(posting), "Error writing a posting to message digest"))
            return false;
        if (limit != 0 && message_.Written() + size >= limit)
            break;
    }
    return true;
}

bool DigestWriter::AddPlain(const std::string& posting)
{
    FileHandle in = FileOpen(posting, 1, 1);
    HeaderFilter filter;
    std::string_view line;
    if (!in)
        return false;
    while (GetLine(in.get(), &line) == 1)
        if (filter.Keeps(line) && !message_.Write(line))
            return false;
    return !in->Failed() && message_.Print("\r\n------------------------------\r\n\r\n");
}

bool DigestWriter::Plain(const DigestContent& content)
{
    const std::string rule(70, '-');
    const bool done =
        Check(message_.Print("%s\r\n\r\n", rule.c_str()),
              "Error writing a posting to message digest") &&
        EachPosting(content, [this](const std::string& posting) { return AddPlain(posting); });
    return done && Check(message_.Print("End of %s Digest (#%d-%d-%d)\r\n", list_.c_str(),
                                        number_.year, number_.month, number_.day),
                         "Error writing the end of message digest");
}

bool DigestWriter::AddMime(const std::string& posting)
{
    return message_.Print("\r\n--%s\r\n", inner_.c_str()) &&
           message_.Print("Content-type: message/rfc822\r\n\r\n") &&
           message_.CopyFile(posting, kBuffer) == GeneratedMessage::Copied::kDone;
}

bool DigestWriter::Mime(const DigestContent& content)
{
    if (!Check(message_.Print("--%s\r\n", outer_.c_str()),
               "Error writing boundary to message digest"))
        return false;
    inner_ = FreeBoundary(kInnerBoundary, content.Paths());
    if (!Check(message_.Print("Content-type: Multipart/digest; boundary=\"%s\"\r\n\r\n",
                              inner_.c_str()),
               "Error writing <Content-type> to message digest"))
        return false;
    return EachPosting(content, [this](const std::string& posting) { return AddMime(posting); }) &&
           Check((message_.EndsLine() || message_.Print("\r\n")) &&  // a boundary begins its line
                     message_.Print("--%s--\r\n", inner_.c_str()) &&
                     message_.Print("--%s--\r\n", outer_.c_str()),
                 "Error writing boundary to message digest");
}

}  // namespace dl
