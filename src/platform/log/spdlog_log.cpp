#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <syslog.h>

#include "platform/log/spdlog_private.h"

namespace dl
{
namespace
{

spdlog::level::level_enum SyslogSeverity(int level)
{
    if (level <= 1)
        return spdlog::level::err;
    return level <= 3 ? spdlog::level::info : spdlog::level::debug;
}

class SpdlogLog : public OpenedLog
{
 public:
    SpdlogLog(spdlog::sink_ptr sink, int max_level)
        : logger_("dl", std::move(sink)), max_level_(max_level)
    {
        logger_.set_level(spdlog::level::trace);
        logger_.flush_on(spdlog::level::err);
    }

    void Write(int level, const char* module, const std::string& escaped) override
    {
        if (level <= max_level_)
            logger_.log(SyslogSeverity(level), "{} {}: {}", level, module, escaped);
    }

    void Flush() override { logger_.flush(); }

 private:
    spdlog::logger logger_;
    int max_level_;
};

spdlog::sink_ptr MakeSink(const LogSettings& settings, const char* program)
{
    switch (settings.target) {
        case LogSettings::Target::kFile:
            return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
                settings.path, settings.max_bytes, static_cast<std::size_t>(settings.max_files));
        case LogSettings::Target::kSyslog:
            return std::make_shared<spdlog::sinks::syslog_sink_mt>(program, LOG_PID, LOG_MAIL,
                                                                   false);
        case LogSettings::Target::kStderr:
            break;
    }
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

}  // namespace

std::shared_ptr<OpenedLog> OpenSpdlog(const LogSettings& settings, const char* program,
                                      std::string* error)
{
    try {
        spdlog::sink_ptr sink = MakeSink(settings, program);
        if (settings.target != LogSettings::Target::kSyslog)
            sink->set_pattern("%Y-%m-%d %H:%M:%S.%e [%P] %v");
        return std::make_shared<SpdlogLog>(std::move(sink), settings.level);
    } catch (const spdlog::spdlog_ex& problem) {
        *error = problem.what();
        return nullptr;
    }
}

}  // namespace dl
