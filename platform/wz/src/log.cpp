#include <wz/log.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <set>
#include <string>
#include <thread>

namespace wz {

const char *logLevelName(LogLevel level)
{
    switch (level) {
    case LogLevel_Silent:
        return "silent";
    case LogLevel_Fatal:
        return "fatal";
    case LogLevel_Error:
        return "error";
    case LogLevel_Warning:
        return "warning";
    case LogLevel_Info:
        return "info";
    case LogLevel_Verbose:
        return "verbose";
    case LogLevel_Debug:
        return "debug";
    }
    return "?";
}

namespace log {

struct LogCapture::Impl
{
    mutable std::mutex mutex;
    std::vector<LogMessage> records;
};

namespace {

struct Sink
{
    std::mutex mutex;
    std::atomic<int> level {LogLevel_Warning};
    std::atomic<int> captureCount {0};
    bool stderrEnabled = true;
    uint64_t nextHandler = 1;
    std::map<uint64_t, std::shared_ptr<Handler>> handlers;
    std::set<LogCapture::Impl *> captures;
    std::atomic<uint64_t> nextId {1};
};

Sink &sink()
{
    // Leaked on purpose: records may be written from threads that outlive
    // static destruction.
    static Sink *s = new Sink;
    return *s;
}

// Standard error may be a pipe that nobody reads: a write would then block
// whichever thread logged, I/O threads included. Lines go to a thread of
// their own through a bounded queue instead; when it is full they are
// dropped and counted, and the count is written once the queue drains.
class StderrWriter
{
public:
    static StderrWriter &instance()
    {
        // Leaked on purpose, like the sink: the thread is never joined.
        static StderrWriter *w = new StderrWriter;
        return *w;
    }

    void write(std::string line)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_lines.size() >= kLimit) {
            ++m_dropped;
            return;
        }
        m_lines.push_back(std::move(line));
        ++m_unwritten;
        m_cond.notify_one();
    }

    // Lets the lines already queued reach standard error before the process
    // ends, for a bounded time: a pipe nobody reads must not hold up the exit.
    void drain(std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_drained.wait_for(lock, limit, [this]() { return m_unwritten == 0; });
    }

private:
    static constexpr size_t kLimit = 10000;

    StderrWriter()
    {
        std::thread([this]() {
            pthread_setname_np(pthread_self(), "wz log");
            run();
        }).detach();
        std::atexit([]() { instance().drain(std::chrono::seconds(1)); });
    }

    void run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (true) {
            m_cond.wait(lock, [this]() { return !m_lines.empty() || m_dropped > 0; });
            std::deque<std::string> lines;
            lines.swap(m_lines);
            const uint64_t dropped = m_dropped;
            m_dropped = 0;
            lock.unlock();
            if (dropped > 0)
                std::fprintf(stderr,
                             "[warning] log: %llu line(s) dropped, standard error was not "
                             "being read\n",
                             static_cast<unsigned long long>(dropped));
            for (const std::string &line : lines)
                std::fputs(line.c_str(), stderr);
            std::fflush(stderr);
            lock.lock();
            m_unwritten -= lines.size();
            if (m_unwritten == 0)
                m_drained.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::condition_variable m_drained;
    std::deque<std::string> m_lines;
    size_t m_unwritten = 0;
    uint64_t m_dropped = 0;
};

} // namespace

void setLogLevel(LogLevel level)
{
    sink().level = level;
}

LogLevel logLevel()
{
    return static_cast<LogLevel>(sink().level.load());
}

void setStderrEnabled(bool enabled)
{
    std::lock_guard<std::mutex> lock(sink().mutex);
    sink().stderrEnabled = enabled;
}

uint64_t addHandler(Handler handler)
{
    Sink &s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    uint64_t id = s.nextHandler++;
    s.handlers[id] = std::make_shared<Handler>(std::move(handler));
    return id;
}

void removeHandler(uint64_t id)
{
    Sink &s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.handlers.erase(id);
}

void log(LogLevel level, const std::string &category, const std::string &function,
         const std::string &message)
{
    Sink &s = sink();
    if (level == LogLevel_Silent)
        return;
    const bool passes = level <= s.level.load(std::memory_order_relaxed);
    if (!passes && s.captureCount.load(std::memory_order_relaxed) == 0)
        return;

    LogMessage msg;
    msg.source = function;
    msg.level = level;
    msg.timestampUs = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
    msg.category = category;
    msg.location = "local";
    msg.message = message;
    msg.id = s.nextId++;

    std::vector<std::shared_ptr<Handler>> handlers;
    bool toStderr = false;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        for (LogCapture::Impl *c : s.captures) {
            std::lock_guard<std::mutex> clock(c->mutex);
            c->records.push_back(msg);
        }
        if (passes) {
            toStderr = s.stderrEnabled;
            handlers.reserve(s.handlers.size());
            for (auto &h : s.handlers)
                handlers.push_back(h.second);
        }
    }
    if (toStderr) {
        StderrWriter::instance().write(std::string("[") + logLevelName(msg.level) + "] "
                                       + msg.category + ": " + msg.message + "\n");
    }
    // Handlers run outside the lock so that one may log in turn.
    for (auto &h : handlers)
        (*h)(msg);
}

LogStream::LogStream(LogLevel level, const char *category, const char *function)
    : m_level(level), m_category(category ? category : ""), m_function(function ? function : "")
{ }

LogStream::LogStream(LogLevel level, const std::string &category, const char *function)
    : m_level(level), m_category(category), m_function(function ? function : "")
{ }

LogStream::~LogStream()
{
    log(m_level, m_category, m_function, str());
}

LogCapture::LogCapture() : d(new Impl)
{
    Sink &s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.captures.insert(d);
    s.captureCount = static_cast<int>(s.captures.size());
}

LogCapture::~LogCapture()
{
    {
        Sink &s = sink();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.captures.erase(d);
        s.captureCount = static_cast<int>(s.captures.size());
    }
    delete d;
}

std::vector<LogMessage> LogCapture::records() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->records;
}

std::vector<LogMessage> LogCapture::find(const std::string &category, const std::string &text) const
{
    std::vector<LogMessage> out;
    std::lock_guard<std::mutex> lock(d->mutex);
    for (const LogMessage &m : d->records) {
        if ((category.empty() || m.category == category)
            && m.message.find(text) != std::string::npos)
            out.push_back(m);
    }
    return out;
}

bool LogCapture::contains(const std::string &category, const std::string &text) const
{
    return !find(category, text).empty();
}

bool LogCapture::contains(LogLevel level, const std::string &category,
                          const std::string &text) const
{
    for (const LogMessage &m : find(category, text)) {
        if (m.level == level)
            return true;
    }
    return false;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->records.clear();
}

} // namespace log
} // namespace wz
