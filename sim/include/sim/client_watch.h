#pragma once

#include <sim/api.h>

#include <wz/signal.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace wz {
class Session;
}

namespace sim {

// Tells a service that a client's connection ended, from start() until
// stop(). The session may still be running the callback when stop()
// disconnects it; the callback reaches the service only through a hook that
// stop() clears once no callback is inside, so none runs after stop().
class SIM_API ClientWatch
{
public:
    ClientWatch() = default;
    ~ClientWatch();
    ClientWatch(const ClientWatch &) = delete;
    ClientWatch &operator=(const ClientWatch &) = delete;

    void start(wz::Session &session, std::function<void(const std::string &peer)> gone);
    void stop();

private:
    struct Hook
    {
        std::mutex mutex;
        std::function<void(const std::string &)> gone;
    };

    wz::Session *m_session = nullptr;
    wz::SignalLink m_link = 0;
    std::shared_ptr<Hook> m_hook;
};

} // namespace sim
