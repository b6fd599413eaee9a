// A link's life: creation, start, closing and stalling.

#include "peer_link.h"
#include "peer_link_support.h"

#include "session_impl.h"

#include <boost/asio/post.hpp>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace wz {
namespace detail {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

int releaseSocket(tcp::socket &socket)
{
    boost::system::error_code ec;
    const int fd = socket.release(ec);
    return ec ? -1 : fd;
}

} // namespace

PeerLink::PeerLink(std::weak_ptr<SessionImpl> session, tcp::socket socket, std::string peerId,
                   Heartbeat heartbeat)
    : m_session(std::move(session)),
      m_fd(releaseSocket(socket)),
      m_peerId(std::move(peerId)),
      m_strand(asio::make_strand(IoRuntime::instance().context())),
      m_timer(IoRuntime::instance().context()),
      m_poller(IoRuntime::instance().context()),
      m_lastReceived(nowMs()),
      m_lastSent(nowMs()),
      m_intervalMs(heartbeat.interval.count()),
      m_timeoutMs(heartbeat.timeout.count()),
      m_rx(new char[kRxCapacity])
{
    // The socket joins its own epoll set, disabled until something is wanted.
    // Out of descriptors, the link closes as it starts.
    if (m_fd < 0) {
        m_watchFailure = "the socket could not be taken over";
        return;
    }
    const int pollFd = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev {};
    ev.events = EPOLLONESHOT;
    if (pollFd < 0 || ::epoll_ctl(pollFd, EPOLL_CTL_ADD, m_fd, &ev) != 0) {
        m_watchFailure = std::string("cannot watch the socket: ") + std::strerror(errno);
        if (pollFd >= 0)
            ::close(pollFd);
        return;
    }
    boost::system::error_code ec;
    m_poller.assign(pollFd, ec);
    if (ec) {
        m_watchFailure = "cannot watch the socket: " + ec.message();
        ::close(pollFd);
        return;
    }
    m_pollFd = pollFd;
}

PeerLink::~PeerLink()
{
    // A link that never closed (its session let it go) still owns the socket.
    if (m_fd >= 0 && !m_watchClosed)
        ::close(m_fd);
}

void PeerLink::start()
{
    if (!m_watchFailure.empty()) {
        close("disconnected: " + m_watchFailure, CloseMode::Quiet);
        return;
    }
    auto self = shared_from_this();
    asio::post(m_strand, [self]() {
        // From here until the link closes, a wait for m_poller is pending.
        self->awaitReady();
        self->collectReady();
        self->readSome();
        self->armHeartbeat();
    });
}

std::string PeerLink::closeReason() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reason.empty() ? std::string("disconnected: connection closed") : m_reason;
}

void PeerLink::setHeartbeat(Heartbeat heartbeat)
{
    m_intervalMs = heartbeat.interval.count();
    m_timeoutMs = heartbeat.timeout.count();
}

// ---- closing ----

void PeerLink::close(const std::string &reason, CloseMode mode)
{
    {
        std::lock_guard<std::mutex> lock(m_writeMutex);
        if (m_closed)
            return;
        if (mode == CloseMode::Graceful && m_queue.empty() && !m_stalled) {
            // Best effort: tell the peer why, if the socket takes it now.
            Message bye;
            bye.kind = MsgKind::Goodbye;
            bye.name = reason;
            FrameBuffer fb;
            try {
                encodeMessage(bye, nullptr, fb);
                std::string ignored;
                sendSome(m_fd, fb.iovecs(), ignored);
            } catch (const std::exception &) { }
        }
        m_closed = true;
        m_queue.clear();
        m_queuedBytes = 0;
    }
    m_open = false;

    std::map<uint64_t, Done> pending;
    std::map<uint64_t, Future<AnyValue>> incoming;
    std::map<uint64_t, Export> exports;
    std::map<uint64_t, Served> served;
    std::map<uint64_t, Held> held;
    std::map<uint64_t, std::shared_ptr<SerialQueue>> postQueues, emitQueues;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_reason = reason;
        pending.swap(m_pending);
        incoming.swap(m_incoming);
        exports.swap(m_exports);
        served.swap(m_served);
        held.swap(m_held);
        postQueues.swap(m_postQueues);
        emitQueues.swap(m_emitQueues);
        m_imports.clear();
    }

    auto self = shared_from_this();
    asio::post(m_strand, [self, mode]() {
        // A caller reading the socket holds m_readMutex, and one changing
        // what is watched m_watchMutex: neither descriptor is closed (and its
        // number reused) under them.
        std::lock_guard<std::mutex> lock(self->m_readMutex);
        {
            std::lock_guard<std::mutex> watchLock(self->m_watchMutex);
            self->m_watchClosed = true;
        }
        boost::system::error_code ec;
        self->m_poller.close(ec);
        if (self->m_fd >= 0) {
            if (mode == CloseMode::Reset) {
                const linger hard {1, 0};
                ::setsockopt(self->m_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            }
            ::close(self->m_fd);
        }
        self->m_timer.cancel();
    });

    for (auto &p : pending)
        p.second(false, AnyValue(), reason);
    for (auto &f : incoming)
        f.second.cancel();
    for (auto &s : served)
        s.second.object->disconnect(s.second.localLink);
    held.clear();
    if (!exports.empty()) {
        // The last reference to a local object may run user code in its destructor.
        auto doomed = std::make_shared<std::map<uint64_t, Export>>(std::move(exports));
        FrameworkPool::instance().post([doomed]() { doomed->clear(); });
    }
    if (auto session = m_session.lock())
        session->onLinkClosed(self, reason);
}

void PeerLink::failPending(const std::string &reason)
{
    std::map<uint64_t, Done> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pending.swap(m_pending);
    }
    for (auto &p : pending)
        p.second(false, AnyValue(), reason);
}

void PeerLink::setStalled(bool stalled)
{
    bool schedule = false;
    {
        std::lock_guard<std::mutex> lock(m_writeMutex);
        if (m_closed || m_stalled == stalled)
            return;
        m_stalled = stalled;
        if (!stalled && !m_queue.empty() && !m_flushScheduled) {
            m_flushScheduled = true;
            schedule = true;
        }
    }
    if (stalled)
        return;
    m_lastReceived = nowMs();
    if (schedule)
        scheduleFlush();
    auto self = shared_from_this();
    asio::post(m_strand, [self]() {
        self->m_lastReceived = nowMs();
        self->readSome();
    });
}
} // namespace detail
} // namespace wz
