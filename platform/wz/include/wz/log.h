#pragma once

#include <wz/api.h>

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace wz {

// Levels by number: 0 silent .. 6 debug.
enum LogLevel {
    LogLevel_Silent = 0,
    LogLevel_Fatal = 1,
    LogLevel_Error = 2,
    LogLevel_Warning = 3,
    LogLevel_Info = 4,
    LogLevel_Verbose = 5,
    LogLevel_Debug = 6
};

WZ_API const char *logLevelName(LogLevel level);

struct LogMessage
{
    std::string source; // "file:line" or the function name
    LogLevel level = LogLevel_Silent;
    int64_t timestampUs = 0; // wall clock, microseconds since the epoch
    std::string category;
    std::string location; // process / machine that produced it
    std::string message;
    uint64_t id = 0; // increasing per process
};

namespace log {

using Handler = std::function<void(const LogMessage &)>;

// Process-wide sink. Records below the level filter are dropped before any
// handler sees them; stderr is a handler like any other.
WZ_API void setLogLevel(LogLevel level);
WZ_API LogLevel logLevel();
WZ_API void setStderrEnabled(bool enabled);
WZ_API uint64_t addHandler(Handler handler);
WZ_API void removeHandler(uint64_t id);
WZ_API void log(LogLevel level, const std::string &category, const std::string &function,
                const std::string &message);

// Used as a stream: LogStream(LogLevel_Info, "cat", __FUNCTION__) << "text" << 12;
// The record is emitted when the stream is destroyed.
class WZ_API LogStream : public std::ostringstream
{
public:
    LogStream(LogLevel level, const char *category, const char *function);
    LogStream(LogLevel level, const std::string &category, const char *function);
    ~LogStream() override;
    LogStream(const LogStream &) = delete;
    LogStream &operator=(const LogStream &) = delete;
    LogStream &self() { return *this; }

private:
    LogLevel m_level;
    std::string m_category;
    std::string m_function;
};

// Collects every record (whatever the level filter says, while it lives) so
// that a test can assert on what was logged.
class WZ_API LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogMessage> records() const;
    // Records whose category equals `category` (empty: any) and whose message
    // contains `text`.
    std::vector<LogMessage> find(const std::string &category, const std::string &text) const;
    bool contains(const std::string &category, const std::string &text) const;
    bool contains(LogLevel level, const std::string &category, const std::string &text) const;
    void clear();

    struct Impl;

private:
    Impl *d;
};

} // namespace log
} // namespace wz
