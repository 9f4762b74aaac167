#include "platform/log/log.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/config/config.h"
#include "platform/log/log_hold.h"
#include "platform/log/spdlog_private.h"

namespace dl
{
namespace
{

constexpr std::size_t kDlLogSize = 1024;

std::atomic<LogSink*> test_sink{nullptr};

std::atomic<ErrorListener> error_listener{nullptr};

std::mutex opened_mutex;
std::shared_ptr<OpenedLog> opened;

std::shared_ptr<OpenedLog> Opened()
{
    const std::lock_guard<std::mutex> guard(opened_mutex);
    return opened;
}

void AppendHex(unsigned char c, std::string* out)
{
    char code[8];
    std::snprintf(code, sizeof code, "\\x%02X", c);
    *out += code;
}

}  // namespace

LogSettings ReadLogSettings()
{
    LogSettings settings;
    const auto text = [](const char* key) {
        return GetPrivateProfileString("Log", key, "", 4096, kMainConfig);
    };
    const std::string target = text("Target");
    if (target == "syslog" || target.empty())
        settings.target = LogSettings::Target::kSyslog;
    else if (target == "file")
        settings.target = LogSettings::Target::kFile;
    settings.path = text("File");
    const int bytes = GetPrivateProfileInt("Log", "MaxBytes", 10'000'000, kMainConfig);
    settings.max_bytes = bytes > 4096 ? static_cast<std::uint64_t>(bytes) : 4096;
    const int files = GetPrivateProfileInt("Log", "MaxFiles", 5, kMainConfig);
    settings.max_files = files > 0 ? files : 1;
    settings.level = GetPrivateProfileInt("Log", "Level", 6, kMainConfig);
    return settings;
}

bool OpenLog(const LogSettings& settings, const char* program, std::string* error)
{
    std::shared_ptr<OpenedLog> log = OpenSpdlog(settings, program, error);
    const bool done = log != nullptr;
    const std::lock_guard<std::mutex> guard(opened_mutex);
    opened = std::move(log);
    return done;
}

void CloseLog()
{
    const std::lock_guard<std::mutex> guard(opened_mutex);
    opened.reset();
}

void FlushLog()
{
    if (const auto log = Opened())
        log->Flush();
}

int LogMessage(int level, const char* module, const char* text)
{
    LogHold* hold = LogHold::Current();
    if (hold && hold->Keep(level, module, text))
        return static_cast<int>(std::strlen(text));
    const std::string escaped = EscapeForLog(text);
    if (const ErrorListener listener = level <= 1 ? error_listener.load() : nullptr)
        listener(escaped);
    if (LogSink* sink = test_sink.load())
        sink->Write(level, module, escaped);
    else if (const auto log = Opened())
        log->Write(level, module, escaped);
    else
        std::fprintf(stderr, "%d %s: %s\n", level, module, escaped.c_str());
    return static_cast<int>(std::strlen(text));
}

int LogFormatted(int level, const char* module, std::size_t size, const char* format, va_list args)
{
    char small[kDlLogSize];
    std::vector<char> large;
    char* buffer = small;
    if (size > sizeof small) {
        large.resize(size);
        buffer = large.data();
    }
    const int length = std::vsnprintf(buffer, size, format, args);
    if (length < 0)
        return length;
    LogMessage(level, module, buffer);
    return length;
}

int DlLog(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = LogFormatted(level, "DL Manager", kDlLogSize, format, args);
    va_end(args);
    return length;
}

void SetErrorListener(ErrorListener listener)
{
    error_listener.store(listener);
}

LogSink* SetLogSink(LogSink* sink)
{
    return test_sink.exchange(sink);
}

std::string EscapeForLog(const char* text)
{
    std::string out;
    for (const char* p = text; *p; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        const auto next = static_cast<unsigned char>(p[1]);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            AppendHex(c, &out);
        } else if (c == 0xC2 && next >= 0x80 && next < 0xA0) {
            AppendHex(c, &out);  // a C1 control in UTF-8, which terminals obey
            AppendHex(next, &out);
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

}  // namespace dl
