// Heartbeats: keep a quiet link alive and declare a silent peer gone.

#include "peer_link.h"
#include "peer_link_support.h"

#include <wz/log.h>

#include <boost/asio/bind_executor.hpp>

#include <algorithm>

namespace wz {
namespace detail {

namespace asio = boost::asio;
using asio::ip::tcp;

void PeerLink::armHeartbeat()
{
    const int64_t interval = std::max<int64_t>(10, m_intervalMs.load());
    // Checked every eighth of the timeout: silence is found within 9/8 of it
    // (default 8 s, so within 9 s).
    const int64_t tick = std::max<int64_t>(10, std::min(interval, m_timeoutMs.load() / 8));
    m_timer.expires_after(std::chrono::milliseconds(tick));
    std::weak_ptr<PeerLink> weak = shared_from_this();
    m_timer.async_wait(asio::bind_executor(m_strand, [weak](const boost::system::error_code &ec) {
        if (ec)
            return;
        if (auto self = weak.lock())
            self->onHeartbeat();
    }));
}

void PeerLink::onHeartbeat()
{
    if (!m_open)
        return;
    const int64_t now = nowMs();
    if (!m_stalled) {
        const int64_t silent = now - m_lastReceived.load();
        if (silent > m_timeoutMs.load()) {
            log::LogStream(LogLevel_Warning, kTransport, __FUNCTION__)
                << m_peerId << ": nothing received for " << silent << " ms, declaring it gone";
            close("disconnected: no heartbeat from the peer for " + std::to_string(silent) + " ms",
                  CloseMode::Quiet);
            return;
        }
        if (now - m_lastSent.load() >= m_intervalMs.load()) {
            Message hb;
            hb.kind = MsgKind::Heartbeat;
            send(hb);
        }
    }
    armHeartbeat();
}
} // namespace detail
} // namespace wz
