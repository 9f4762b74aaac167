// The lines of the programs' logs, as far as following a message needs to understand them.
#pragma once

#include <string>
#include <string_view>

namespace dl
{

// One to eight hexadecimal digits.
[[nodiscard]] bool IsQueueId(const std::string& text);
// The eight digits, in capitals, that files and most lines have.
[[nodiscard]] std::string NormalId(std::string_view hex);
// The hexadecimal number that stands behind `before` in `text`; empty when there is none.
[[nodiscard]] std::string IdBehind(std::string_view text, std::string_view before);
// The text between the first `begin` and the `end` that follows, or the end of `text`; empty
// without a `begin`.
[[nodiscard]] std::string Between(std::string_view text, std::string_view begin,
                                  std::string_view end);
// A Message-ID without its angle brackets.
[[nodiscard]] std::string CoreOf(const std::string& message_id);
// Whether the value of a Message-ID header, folded or not, is the one with this core.
[[nodiscard]] bool IsMessageId(std::string_view value, const std::string& core);
// Whether `id` stands in `line` by itself, not within a longer word.
[[nodiscard]] bool HasWord(std::string_view line, std::string_view id);
// Whether a line of the service only says that work goes on.
[[nodiscard]] bool IsNoise(std::string_view text);
// Whether a line of the service belongs to the message before it no more.
[[nodiscard]] bool EndsPass(std::string_view text);

}  // namespace dl
