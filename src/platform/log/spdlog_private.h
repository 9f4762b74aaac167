// The opened log: one target behind the logging library. Only log.cpp uses this.
#pragma once

#include <memory>
#include <string>

#include "platform/log/log.h"

namespace dl
{

class OpenedLog
{
 public:
    virtual ~OpenedLog() = default;
    virtual void Write(int level, const char* module, const std::string& escaped) = 0;
    virtual void Flush() = 0;
};

// Null, with the reason in `error`, when the target cannot be opened.
std::shared_ptr<OpenedLog> OpenSpdlog(const LogSettings& settings, const char* program,
                                      std::string* error);

}  // namespace dl
