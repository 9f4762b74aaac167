#include "platform/archive/safe_name.h"

#include <algorithm>
#include <iterator>

#include "platform/address/address.h"

namespace dl::archive
{
namespace
{

constexpr std::size_t kMaxName = 60;

// No markup, no vector graphics, no scripts, nothing that a web server runs.
constexpr std::string_view kKept[] = {
    "txt",  "log", "csv", "diff", "patch", "png",  "jpg", "jpeg", "gif", "webp", "bmp", "tif",
    "tiff", "pdf", "doc", "docx", "xls",   "xlsx", "ppt", "pptx", "odt", "ods",  "odp", "rtf",
    "zip",  "gz",  "bz2", "xz",   "zst",   "7z",   "tar", "tgz",  "mp3", "ogg",  "oga", "wav",
    "flac", "m4a", "mp4", "webm", "mov",   "avi",  "mkv", "ics",  "vcf", "asc",  "sig", "p7s"};

struct TypeName {
    std::string_view type;
    std::string_view extension;
};
// For attachments without a name that says it.
constexpr TypeName kTypes[] = {
    {"image/png", "png"},     {"image/jpeg", "jpg"},      {"image/gif", "gif"},
    {"image/webp", "webp"},   {"application/pdf", "pdf"}, {"application/zip", "zip"},
    {"text/calendar", "ics"}, {"text/x-vcard", "vcf"},    {"audio/mpeg", "mp3"},
    {"video/mp4", "mp4"},     {"text/csv", "csv"},        {"text/x-patch", "diff"},
    {"text/x-diff", "diff"}};

std::string ExtensionFor(const std::string& own, const std::string& type)
{
    if (std::find(std::begin(kKept), std::end(kKept), own) != std::end(kKept))
        return own;
    if (own.empty())
        for (const TypeName& known : kTypes)
            if (type == known.type)
                return std::string(known.extension);
    return type.starts_with("text/") || type.starts_with("message/") ? "txt" : "bin";
}

// Every other byte is '_', runs of them one.
std::string Cleaned(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        const bool kept =
            (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
        if (kept)
            out += c;
        else if (!out.empty() && out.back() != '_')
            out += '_';
    }
    while (!out.empty() && out.back() == '_')
        out.pop_back();
    return out;
}

}  // namespace

std::string SafeFileName(std::size_t number, const std::string& name, const std::string& type)
{
    std::string_view last = name;
    last.remove_prefix(
        last.find_last_of("/\\") == std::string_view::npos ? 0 : last.find_last_of("/\\") + 1);
    const std::size_t dot = last.rfind('.');
    const std::string own =
        dot == std::string_view::npos ? "" : LowerCase(last.substr(dot + 1, 10));
    const std::string extension = ExtensionFor(own, type);
    // An extension that is not kept stays part of the name: "page_html.txt".
    std::string stem = Cleaned(own == extension ? last.substr(0, dot) : last);
    if (stem.size() > kMaxName)
        stem.resize(kMaxName);
    if (stem.empty())
        stem = type.starts_with("message/") ? "message" : "attachment";
    return std::to_string(number) + "-" + stem + "." + extension;
}

}  // namespace dl::archive
