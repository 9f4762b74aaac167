// A message file as GMime's parser reads it, for the files of this folder only.
//
// The parser takes a read error for the end of the message; the file remembers it
// (RawFile::Failed), so whoever parsed asks there. The parser's streams of the parts' bodies are
// streams of this kind too; only their bounds are used, bodies are read from the file.
#pragma once

#include <gmime/gmime.h>

#include "platform/mime/raw_bytes.h"

namespace dl
{

// A stream over all of `file`, which must outlive it and all its substreams.
[[nodiscard]] GMimeStream* NewMessageStream(const RawFile& file);

}  // namespace dl
