// The configuration files: sections of "key = value" lines in files named without a folder.
//
// The files lie in $DLMANAGER_CONF when that is set, else in /etc/dlmanager; a name beginning with
// '/' is a path. Section and key names match without regard to case; of a key that stands twice the
// last one holds; a line whose first character is '#' or ';' is a comment; blanks around names and
// values are cut, and all the rest of a line is the value. A BOM, CRLF and a missing last line end
// do no harm. Each read looks at the file's state and parses it again only when it has changed, so
// a change takes effect at the next read. A missing file is no error: the defaults stand. Calls may
// come from any thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace dl
{

inline constexpr char kMainConfig[] = "qvms.conf";
inline constexpr char kGatewayConfig[] = "qvmta.ini";

// The value of `key`, cut at `size` - 1 bytes; `fallback` (cut likewise) when file, section or key
// is missing.
std::string GetPrivateProfileString(const std::string& section, const std::string& key,
                                    const std::string& fallback, std::size_t size,
                                    const std::string& file);

// The value as a decimal number, read up to the first character that is no digit (a leading sign
// and blanks are allowed; a value without any digit is 0; out of range is the nearest int);
// `fallback` when missing.
int GetPrivateProfileInt(const std::string& section, const std::string& key, int fallback,
                         const std::string& file);

// Stores a value: replaces the key's line, or adds one after the section's last key, or adds the
// section. Every other byte of the file stays. Written to a temp file that is renamed over the old
// one, under a lock that other writers respect; the new one has mode, owner and group of the old.
// False when the file cannot be written, when a name or the value holds a line break or a NUL, or
// when the line would not be read as this key of this section; the file is then as it was.
[[nodiscard]] bool WritePrivateProfileString(const std::string& section, const std::string& key,
                                             const std::string& value, const std::string& file);

// The folder of the files, and one file's full path.
std::string ConfigFolder();
std::string ConfigPath(const std::string& file);

// Uses `folder` instead of the environment's; empty goes back to the environment. For tests and for
// tools with an option that names it.
void SetConfigFolder(const std::string& folder);

// Told once per state of a file that exists and cannot be read as a whole, with one line of text
// for the log. A file that cannot be opened: what was read before stands. A NUL byte: its line is
// left out. A section line without ']': the keys below it belong nowhere. More than 16 MiB: the
// rest is left out. Not told of a missing file.
void SetConfigReporter(std::function<void(const std::string&)> reporter);

}  // namespace dl
