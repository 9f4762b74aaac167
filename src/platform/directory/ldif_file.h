// Reading an LDIF file (RFC 2849) record by record, with the place of every line in the file.
//
// Content records only: comments, folded lines, base64, CRLF, a BOM and "version: 1" are
// understood; what a server's tools would not load, or what could make this system read another
// file (":<"), is a broken file. Nothing here logs: the caller does, with Error(). Holds one record
// at a time; a record has no size limit but the file's.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/directory/matching.h"

namespace dl
{

// One attribute value. [begin, end) are its bytes in the file: all folded lines and the last one's
// line end.
struct LdifLine {
    std::string name;
    std::string value;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

struct LdifRecord {
    std::string dn;
    EntryName name;
    std::vector<LdifLine> lines;  // without the dn
    unsigned long line = 0;       // of the dn, from 1
    std::uint64_t begin = 0;      // of the dn
    std::uint64_t dn_end = 0;
    std::uint64_t blank_end = 0;  // after the empty line right behind it; 0 when none is there
    bool comment_before = false;  // a comment stands right before the dn
    bool crlf = false;

    [[nodiscard]] std::uint64_t End() const { return lines.empty() ? dn_end : lines.back().end; }
    [[nodiscard]] const char* LineEnd() const { return crlf ? "\r\n" : "\n"; }
};

// Where a record begins.
struct LdifPlace {
    std::uint64_t begin = 0;
    unsigned long line = 1;
};

class LdifReader
{
 public:
    // Reads from where `file` stands, which is `place`; the caller closes it.
    explicit LdifReader(std::FILE* file, const LdifPlace& place = {});
    ~LdifReader();
    LdifReader(const LdifReader&) = delete;
    LdifReader& operator=(const LdifReader&) = delete;

    enum class Result { kRecord, kEnd, kBroken };
    // Fills `record` with the next one. After kBroken and kEnd there is no next.
    [[nodiscard]] Result Next(LdifRecord* record);

    // After kBroken: "line 12: no colon". Never holds a value of the file.
    [[nodiscard]] const std::string& Error() const { return error_; }
    // After kEnd, how the file ends.
    [[nodiscard]] std::uint64_t Size() const { return offset_; }
    [[nodiscard]] bool EndsWithLineEnd() const { return line_ended_; }
    [[nodiscard]] bool EndsWithEmptyLine() const { return empty_; }
    [[nodiscard]] bool FirstLineIsCrlf() const { return first_crlf_; }

 private:
    enum class Kind { kText, kComment, kEmpty, kEnd, kBroken };
    Kind ReadLogical();
    bool ReadPhysical();
    bool NextIsFolded();
    bool Split(LdifLine* line);
    bool Take(LdifRecord* record, LdifLine* line);
    Result Broken(unsigned long line, const char* what);

    std::FILE* file_;
    char* buffer_ = nullptr;  // of getdelim
    std::size_t capacity_ = 0;
    std::string_view physical_;  // the line in buffer_, without its line end
    std::string logical_;        // unfolded
    std::uint64_t offset_ = 0;
    std::uint64_t logical_begin_ = 0;
    unsigned long line_ = 0;
    unsigned long logical_line_ = 0;
    bool crlf_ = false;
    bool first_crlf_ = false;
    bool line_ended_ = true;
    bool empty_ = true;
    bool first_record_ = true;
    bool in_record_ = false;
    std::string error_;
};

// `name` and `value` as lines of a file: folded, in base64 where needed.
std::string LdifText(const std::string& name, const std::string& value, bool crlf);

}  // namespace dl
