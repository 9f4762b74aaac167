// The log: one call, LogMessage, and the printf-style calls that the modules make of it.
//
// OpenLog is called once by each program, after its last fork; before it, and after CloseLog, lines
// go to standard error, so that nothing said at start is lost. A line carries time, level, module
// and text. Control characters of a text are written as \n, \t, \xHH: no address, subject or path
// can forge a line or a field. Levels: 1 errors and refusals, 3 one record per delivered or bounced
// message, 5 milestones, 6 progress. LogMessage may be called from any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace dl
{

struct LogSettings {
    enum class Target { kStderr, kSyslog, kFile };
    Target target = Target::kStderr;
    std::string path;                      // of Target::kFile
    std::uint64_t max_bytes = 10'000'000;  // the file is rotated when it would grow beyond
    int max_files = 5;                     // rotated files that are kept
    int level = 6;                         // lines above it are dropped
};

// Reads section "Log" of "qvms.conf": Target (syslog, file, stderr), File, MaxBytes, MaxFiles,
// Level.
LogSettings ReadLogSettings();

// Opens the log as `settings` say. Returns false, with the reason in `error`, when the target
// cannot be opened; lines then go to standard error.
[[nodiscard]] bool OpenLog(const LogSettings& settings, const char* program, std::string* error);
void CloseLog();
// Brings buffered lines to the file. Level 1 lines come there at once, others at the end of each
// message and pass.
void FlushLog();

// Writes one line. `module` is the tag of the writing part ("DL Manager", "Kestrune", ...).
// Returns the number of characters of `text`.
int LogMessage(int level, const char* module, const char* text);

// Formats by the printf rules into at most `size` - 1 characters, then calls LogMessage.
// Returns the number of characters formatted, before any cut.
int LogFormatted(int level, const char* module, std::size_t size, const char* format, va_list args);

// The service's log call, tag "DL Manager". A line is cut at 1023 characters.
int DlLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Where lines go. A test installs its own to read what was logged.
class LogSink
{
 public:
    virtual ~LogSink() = default;
    virtual void Write(int level, const char* module, const std::string& escaped) = 0;
};

// Sends all lines to `sink`, whatever their level, until it is called with null again. Returns the
// one before.
LogSink* SetLogSink(LogSink* sink);

// Told each level 1 line, escaped, whatever becomes of it in the log; null: nobody. It must not
// log.
using ErrorListener = void (*)(const std::string& escaped);
void SetErrorListener(ErrorListener listener);

// `text` as it may stand in a log line: control characters, those of UTF-8 among them, written as
// escapes, other bytes unchanged.
std::string EscapeForLog(const char* text);

}  // namespace dl
