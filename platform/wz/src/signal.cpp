#include <wz/log.h>
#include <wz/signal.h>

#include <atomic>
#include <limits>

namespace wz {

const SignalLink SignalBase::invalidSignalLink = std::numeric_limits<SignalLink>::max();

SignalBase::SignalBase() = default;
SignalBase::~SignalBase() = default;

SignalLink SignalBase::nextLink()
{
    static std::atomic<SignalLink> next {1};
    return next++;
}

namespace detail {

void logCallbackFailure(const char *what, const std::string &text)
{
    log::LogStream(LogLevel_Warning, "wz.signal", __FUNCTION__) << what << " failed: " << text;
}

std::string arityMismatchText(unsigned expected, size_t got)
{
    return "expected " + std::to_string(expected) + " argument(s), got " + std::to_string(got);
}

} // namespace detail
} // namespace wz
