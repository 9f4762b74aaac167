// A message of any bytes: it is parsed from file and memory, every body is read, disclaimers are
// put in. The result must have the same parts: an insertion that makes, ends or hides a part would
// be a way to smuggle one past the list. What the parser is shown must have the message's length
// and lines, however the message comes in pieces.
//
//     build/fuzz/bin/mime_fuzz CORPUS tests/data/mime
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/files/files.h"
#include "platform/log/log.h"
#include "platform/mime/bounded_view.h"
#include "platform/mime/mime.h"
#include "platform/mime/read_posting.h"
#include "platform/mime/rfc822.h"

namespace
{

struct Silence : dl::LogSink {
    void Write(int, const char*, const std::string&) override {}
};

void Save(const std::string& path, const void* bytes, std::size_t size)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file || std::fwrite(bytes, 1, size, file) != size || std::fclose(file) != 0)
        std::abort();
}

struct Folder {
    Folder()
    {
        static Silence silence;
        dl::SetLogSink(&silence);
        std::string name =
            access("/dev/shm", W_OK) == 0 ? "/dev/shm/mime_fuzz.XXXXXX" : "/tmp/mime_fuzz.XXXXXX";
        if (!mkdtemp(name.data()))
            std::abort();
        path = name + "/";
        setenv("TMPDIR", name.c_str(), 1);
        const std::string text = "-- \nF\xC3\xBCr 5 \xE2\x82\xAC\n";
        const std::string html = "<p>F\xC3\xBCr 5 \xE2\x82\xAC</p>\n";
        Save(path + "d.txt", text.data(), text.size());
        Save(path + "d.html", html.data(), html.size());
        Save(path + "a.txt", "ascii\n", 6);
    }
    ~Folder()
    {
        for (const char* name : {"d.txt", "d.html", "a.txt", "m.msg", "p.bin", ""})
            (void)std::remove((path + name).c_str());
    }
    std::string path;
};

// The shape of the message: types and numbers of parts, depth first.
std::string Shape(const dl::MimePart* part, bool bodies)
{
    if (bodies) {
        std::string file = dl::MimeGetBody(part, 0, -1);
        dl::MimeFreeFile(&file);
    }
    const char* type = dl::MimeGetContentType(part);
    const char* subtype = dl::MimeGetContentSubtype(part);
    std::string shape =
        std::string(type ? type : "text") + "/" + (subtype ? subtype : "plain") + "(";
    for (std::uint16_t i = 0; i < dl::MimeGetPartCount(part); ++i)
        shape += Shape(dl::MimeGetPart(part, i), bodies);
    return shape + ")";
}

std::string ShapeOf(const std::string& file, bool bodies)
{
    dl::MimeMessagePtr message;
    if (dl::MimeParseMessage(file, 1, &message) != 0)
        return "";
    return Shape(dl::MimeGetMsg(message.get(), 0), bodies);
}

std::string Bounded(std::string bytes, std::size_t piece)
{
    dl::BoundedView view(static_cast<std::int64_t>(bytes.size()));
    for (std::size_t at = 0, end = 0; at < bytes.size();) {
        end = std::min(end + piece, bytes.size());
        at += view.Bound(bytes.data() + at, end - at, end == bytes.size());
    }
    return bytes;
}

void CheckView(const std::string& message)
{
    const std::string seen = Bounded(message, message.size() + 1);
    if (seen != Bounded(message, 7))
        std::abort();
    for (std::size_t i = 0; i < message.size(); ++i)
        if ((seen[i] == '\n') != (message[i] == '\n'))
            std::abort();
}

void ReadPosting(const std::string& file, const std::string& out)
{
    const auto posting = dl::PostingFile::Read(file);
    for (std::size_t i = 0; posting && i < posting->Get().attachments.size(); ++i) {
        dl::FileWriter writer(out, "wb");
        (void)posting->WriteAttachment(i, &writer);  // a part may have no body
    }
}

void ReadForStore(std::string_view message)
{
    const std::size_t end = std::min(message.find("\r\n\r\n"), message.size());
    dl::mail_envelope envelope;
    dl::mail_body body;
    (void)dl::rfc822_parse_msg_full(&envelope, &body, message.substr(0, end), {message.substr(end)},
                                    "host");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Folder folder;
    const std::string file = folder.path + "m.msg";
    const std::string message(reinterpret_cast<const char*>(data), size);
    CheckView(message);
    ReadForStore(message);
    Save(file, data, size);
    ReadPosting(file, folder.path + "p.bin");
    for (const char* text : {"d.txt", "a.txt"}) {
        Save(file, data, size);
        const std::string before = ShapeOf(file, text[0] == 'd');
        if (!dl::InsertDisclaimers(file, folder.path + text, folder.path + "d.html"))
            std::abort();
        if (ShapeOf(file, false) != before)
            std::abort();
    }
    return 0;
}
