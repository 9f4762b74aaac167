// A message of any bytes: it is parsed, every body is read, disclaimers are put in. The result must
// have the same parts: an insertion that makes, ends or hides a part would be a way to smuggle one
// past the list.
//
//     build/fuzz/bin/mime_fuzz CORPUS tests/data/mime
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/log/log.h"
#include "platform/mime/mime.h"

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
        for (const char* name : {"d.txt", "d.html", "a.txt", "m.msg", ""})
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Folder folder;
    const std::string file = folder.path + "m.msg";
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
