// The steps of InsertDisclaimers: find the text parts of a message, decide the edits of each, apply
// them in one copy.
//
// An edit is a list of splices in the order of the file; a part that cannot be changed safely gives
// a reason instead, and no splice. Deciding is pure: facts of one part in, splices out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mime/encodings.h"
#include "platform/mime/gmime_private.h"
#include "platform/mime/part_header.h"

namespace dl
{

// Replaces [from, to) of the file by `bytes`.
struct Splice {
    std::int64_t from = 0;
    std::int64_t to = 0;
    std::string bytes;
};

struct Edit {
    std::vector<Splice> splices;
    const char* reason = nullptr;  // why the part stays unchanged

    static Edit Leave(const char* why) { return {{}, why}; }
};

struct Disclaimers {
    std::string text;  // UTF-8, lines end with "\n", the last one too; empty: none
    std::string html;  // ASCII
};

struct TextPart {
    bool html = false;
    bool top = false;     // the message itself, whose header also says MIME-Version
    bool flowed = false;  // RFC 3676
    std::string charset;  // as declared, in lower case; empty: not declared
    Encoding encoding = Encoding::k7Bit;
    std::string eol;  // the message's
    PartHeader header;
    std::int64_t body_start = 0;
    std::string body;  // as it stands in the file
};

// text_part_edit.cpp. `text` is Disclaimers::text or ::html.
[[nodiscard]] Edit EditPlain(const TextPart& part, const std::string& text);
[[nodiscard]] Edit EditHtml(const TextPart& part, const std::string& html);

// rewrite_part.cpp. The edit that gives `part` the decoded body `bytes`. With `utf8` the body is
// UTF-8 and the charset parameter is made to say so. A 7bit body becomes quoted-printable, one with
// a line that is too long too.
[[nodiscard]] Edit RewritePart(const TextPart& part, std::string bytes, bool utf8);
// The part's decoded body converted to UTF-8; a reason when it cannot be.
[[nodiscard]] const char* BodyAsUtf8(const TextPart& part, const std::string& decoded,
                                     std::string* utf8);

// find_edits.cpp.
struct EditPlan {
    std::vector<Splice> splices;
    std::size_t unchanged = 0;     // text parts that wanted a disclaimer and stay without
    const char* reason = nullptr;  // of the first of them
};
[[nodiscard]] EditPlan FindEdits(const MimeMessage& message, const Disclaimers& disclaimers);

// splice.cpp. Copies `file` with the splices applied over `path`, whose mode stays. False: `path`
// is as it was.
[[nodiscard]] bool ApplySplices(const RawFile& file, const std::vector<Splice>& splices,
                                const std::string& path);

}  // namespace dl
