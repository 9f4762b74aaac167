// The two halves of read_posting.h, for the files of this folder only.
#pragma once

#include <string>

#include "platform/mime/gmime_private.h"
#include "platform/mime/read_posting.h"

namespace dl
{

// Fills everything but texts, attachments and an identity without Message-ID.
void ReadPostingHeader(const MimeMessage& message, Posting* posting);
// `text` as valid UTF-8; empty for null.
[[nodiscard]] std::string ReadableText(const char* text);

}  // namespace dl
