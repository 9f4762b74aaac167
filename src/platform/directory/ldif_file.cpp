#include "platform/directory/ldif_file.h"

// ldif.h uses FILE without including this.
#include <cstdio>
// After it:
#include <ldap.h>
#include <ldif.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace dl
{
namespace
{

// `rest` is what stands behind the first colon. False when it says that it is base64 and has other
// characters.
bool IsBase64OrText(std::string_view rest)
{
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    if (!rest.starts_with(':'))
        return true;
    const std::size_t begin = rest.find_first_not_of(' ', 1);
    return begin == std::string_view::npos ||
           ((rest.size() - begin) % 4 == 0 &&
            rest.find_first_not_of(kAlphabet, begin) == std::string_view::npos);
}

}  // namespace

LdifReader::LdifReader(std::FILE* file, const LdifPlace& place)
    : file_(file), offset_(place.begin), line_(place.line - 1)
{
}

LdifReader::~LdifReader()
{
    std::free(buffer_);
}

LdifReader::Result LdifReader::Broken(unsigned long line, const char* what)
{
    if (error_.empty())
        error_ = "line " + std::to_string(line) + ": " + what;
    return Result::kBroken;
}

// False at the end of the file and when it is broken; Error() tells.
bool LdifReader::ReadPhysical()
{
    errno = 0;
    const ssize_t got = getdelim(&buffer_, &capacity_, '\n', file_);
    if (got < 0) {
        if (std::ferror(file_) || !std::feof(file_))
            (void)Broken(line_ + 1, std::strerror(errno));
        return false;
    }
    line_++;
    offset_ += static_cast<std::uint64_t>(got);
    physical_ = std::string_view(buffer_, static_cast<std::size_t>(got));
    if (physical_.find('\0') != std::string_view::npos) {
        (void)Broken(line_, "NUL byte");
        return false;
    }
    line_ended_ = physical_.back() == '\n';
    if (line_ended_)
        physical_.remove_suffix(1);
    crlf_ = line_ended_ && !physical_.empty() && physical_.back() == '\r';
    if (crlf_)
        physical_.remove_suffix(1);
    if (line_ == 1) {
        first_crlf_ = crlf_;
        if (physical_.substr(0, 3) == "\xEF\xBB\xBF")
            physical_.remove_prefix(3);
    }
    empty_ = physical_.empty();
    return true;
}

bool LdifReader::NextIsFolded()
{
    const int next = std::getc(file_);
    if (next != EOF)
        std::ungetc(next, file_);
    return next == ' ';
}

// One line with all its folded ones.
LdifReader::Kind LdifReader::ReadLogical()
{
    logical_begin_ = offset_;
    if (!ReadPhysical())
        return error_.empty() ? Kind::kEnd : Kind::kBroken;
    if (line_ == 1)
        logical_begin_ = offset_ - physical_.size() - (crlf_ ? 2 : line_ended_ ? 1 : 0);
    logical_line_ = line_;
    if (physical_.empty())
        return Kind::kEmpty;
    if (physical_[0] == ' ') {
        (void)Broken(line_, "a folded line without a line before it");
        return Kind::kBroken;
    }
    const bool crlf = crlf_;
    logical_.assign(physical_);
    while (NextIsFolded()) {
        if (!ReadPhysical())
            return Kind::kBroken;
        logical_.append(physical_.substr(1));
    }
    crlf_ = crlf;
    return logical_[0] == '#' ? Kind::kComment : Kind::kText;
}

// Takes the logical line apart.
bool LdifReader::Split(LdifLine* line)
{
    const std::size_t colon = logical_.find(':');
    if (colon == std::string::npos) {
        (void)Broken(logical_line_, "no colon");
        return false;
    }
    // The library would open the URL and put the file's bytes in its place.
    if (logical_.compare(colon + 1, 1, "<") == 0) {
        (void)Broken(logical_line_, "a value by URL (\":<\") is not allowed");
        return false;
    }
    if (!IsAttributeName(std::string_view(logical_).substr(0, colon))) {
        (void)Broken(logical_line_, "not an attribute name before the colon");
        return false;
    }
    berval name{};
    berval value{};
    int allocated = 0;
    // Checked here too, because the library complains on standard error, with the file's bytes in
    // it.
    if (!IsBase64OrText(std::string_view(logical_).substr(colon + 1)) ||
        ldif_parse_line2(logical_.data(), &name, &value, &allocated) != 0) {
        (void)Broken(logical_line_, "broken base64");
        return false;
    }
    line->name.assign(name.bv_val, name.bv_len);
    line->value.assign(value.bv_val ? value.bv_val : "", value.bv_val ? value.bv_len : 0);
    if (allocated)
        ber_memfree(value.bv_val);
    line->begin = logical_begin_;
    line->end = offset_;
    return true;
}

// Puts one line into the record: the dn first, then the attributes.
bool LdifReader::Take(LdifRecord* record, LdifLine* line)
{
    if (in_record_) {
        if (SameName(line->name, "changetype")) {
            (void)Broken(logical_line_, "a change record, not an entry");
            return false;
        }
        record->lines.push_back(std::move(*line));
        return true;
    }
    if (first_record_ && SameName(line->name, "version")) {
        first_record_ = false;
        return true;
    }
    if (!SameName(line->name, "dn") || line->value.empty()) {
        (void)Broken(logical_line_, "a record without a dn");
        return false;
    }
    std::optional<EntryName> name = ParseEntryName(line->value);
    if (!name) {
        (void)Broken(logical_line_, "the dn is not a name");
        return false;
    }
    record->dn = std::move(line->value);
    record->name = std::move(*name);
    record->line = logical_line_;
    record->begin = line->begin;
    record->dn_end = line->end;
    record->crlf = crlf_;
    first_record_ = false;
    in_record_ = true;
    return true;
}

LdifReader::Result LdifReader::Next(LdifRecord* record)
{
    *record = LdifRecord();
    in_record_ = false;
    for (;;) {
        const Kind kind = error_.empty() ? ReadLogical() : Kind::kBroken;
        LdifLine line;
        switch (kind) {
            case Kind::kEnd:
                return in_record_ ? Result::kRecord : Result::kEnd;
            case Kind::kBroken:
                return Result::kBroken;
            case Kind::kEmpty:
                if (in_record_ && logical_begin_ == record->End())
                    record->blank_end = offset_;
                if (in_record_)
                    return Result::kRecord;
                record->comment_before = false;
                break;
            case Kind::kComment:
                record->comment_before = record->comment_before || !in_record_;
                break;
            case Kind::kText:
                if (!Split(&line) || !Take(record, &line))
                    return Result::kBroken;
                break;
        }
    }
}

std::string LdifText(const std::string& name, const std::string& value, bool crlf)
{
    char* made = ldif_put(LDIF_PUT_VALUE, name.c_str(), value.data(), value.size());
    if (!made)
        throw std::bad_alloc();
    const std::unique_ptr<char, decltype(&ber_memfree)> owner(made, ber_memfree);
    if (!crlf)
        return made;
    std::string text;
    for (const char* c = made; *c; c++) {
        if (*c == '\n')
            text += '\r';
        text += *c;
    }
    return text;
}

}  // namespace dl
