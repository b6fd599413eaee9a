// Framing: bytes to and from the socket, cut into frames and decoded.

#include "peer_link.h"
#include "peer_link_support.h"

#include <wz/detail/trace.h>
#include <wz/log.h>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace wz {
namespace detail {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr size_t kMaxQueuedBytes = size_t(256) << 20;
// A reading pass reads a bounded amount, so that a peer that never stops
// sending cannot keep the other links waiting.
constexpr int kReadsAPass = 16;

// Large frames reuse a few buffers: a fresh multi-megabyte allocation is
// mapped anew by the allocator and costs a page fault per 4 KiB written, which
// on a camera stream is more than the copy from the socket itself.
class LargeBufferPool
{
public:
    static LargeBufferPool &instance()
    {
        static LargeBufferPool *pool = new LargeBufferPool; // leaked: buffers may outlive statics
        return *pool;
    }

    std::shared_ptr<char[]> get(size_t size)
    {
        std::unique_ptr<char[]> buf;
        size_t capacity = size;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // The smallest kept buffer that fits without wasting more than half.
            auto best = m_free.end();
            for (auto it = m_free.begin(); it != m_free.end(); ++it) {
                if (it->first >= size && it->first <= size * 2
                    && (best == m_free.end() || it->first < best->first))
                    best = it;
            }
            if (best != m_free.end()) {
                capacity = best->first;
                buf = std::move(best->second);
                m_keptBytes -= capacity;
                m_free.erase(best);
            }
        }
        if (!buf)
            buf.reset(new char[size]);
        char *raw = buf.release();
        return std::shared_ptr<char[]>(raw, [capacity](char *p) {
            LargeBufferPool::instance().put(std::unique_ptr<char[]>(p), capacity);
        });
    }

private:
    void put(std::unique_ptr<char[]> buf, size_t capacity)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_free.size() >= kMaxKept || m_keptBytes + capacity > kMaxKeptBytes)
            return; // freed here
        m_keptBytes += capacity;
        m_free.emplace_back(capacity, std::move(buf));
    }

    static constexpr size_t kMaxKept = 8;
    static constexpr size_t kMaxKeptBytes = size_t(96) << 20;
    std::mutex m_mutex;
    std::vector<std::pair<size_t, std::unique_ptr<char[]>>> m_free;
    size_t m_keptBytes = 0;
};

std::shared_ptr<char[]> largeFrameBuffer(size_t size)
{
    return LargeBufferPool::instance().get(size);
}

} // namespace

// ---- writing ----

size_t sendSome(int fd, std::vector<iovec> iov, std::string &error)
{
    size_t written = 0;
    size_t first = 0;
    while (first < iov.size()) {
        msghdr mh {};
        mh.msg_iov = iov.data() + first;
        mh.msg_iovlen = std::min<size_t>(iov.size() - first, IOV_MAX);
        const ssize_t n = ::sendmsg(fd, &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                error = errno == EPIPE || errno == ECONNRESET ? "connection reset by peer"
                                                              : std::strerror(errno);
            break;
        }
        written += static_cast<size_t>(n);
        size_t left = static_cast<size_t>(n);
        while (left > 0 && first < iov.size()) {
            if (left >= iov[first].iov_len) {
                left -= iov[first].iov_len;
                ++first;
            } else {
                iov[first].iov_base = static_cast<char *>(iov[first].iov_base) + left;
                iov[first].iov_len -= left;
                left = 0;
            }
        }
    }
    return written;
}

namespace {

std::vector<iovec> piecesOf(const std::shared_ptr<FrameBuffer> &frame, const std::string &raw,
                            size_t offset)
{
    if (frame)
        return frame->iovecs(offset);
    return {iovec {const_cast<char *>(raw.data() + offset), raw.size() - offset}};
}

} // namespace

bool PeerLink::write(std::shared_ptr<FrameBuffer> frame, std::string raw)
{
    std::string error;
    bool schedule = false;
    {
        std::lock_guard<std::mutex> lock(m_writeMutex);
        if (m_closed)
            return false;
        Queued q {std::move(frame), std::move(raw), 0};
        const size_t size = q.size();
        if (m_queue.empty() && !m_stalled) {
            q.offset = sendSome(m_fd, piecesOf(q.frame, q.raw, 0), error);
            if (error.empty() && q.offset == size) {
                m_lastSent = nowMs();
                return true;
            }
        }
        if (error.empty()) {
            m_queuedBytes += size - q.offset;
            m_queue.push_back(std::move(q));
            if (m_queuedBytes > kMaxQueuedBytes) {
                error = "the peer does not read (over 256 MiB queued)";
            } else if (!m_flushScheduled && !m_stalled) {
                m_flushScheduled = true;
                schedule = true;
            }
        }
    }
    if (!error.empty()) {
        log::LogStream(LogLevel_Warning, kTransport, __FUNCTION__)
            << "closing connection to " << m_peerId << ": " << error;
        close("disconnected: " + error, CloseMode::Reset);
        return false;
    }
    if (schedule)
        scheduleFlush();
    return true;
}

bool PeerLink::flushLocked(std::string &error)
{
    while (!m_queue.empty()) {
        Queued &q = m_queue.front();
        const size_t n = sendSome(m_fd, piecesOf(q.frame, q.raw, q.offset), error);
        q.offset += n;
        m_queuedBytes -= n;
        if (n > 0)
            m_lastSent = nowMs();
        if (q.offset < q.size())
            return false;
        m_queue.pop_front();
    }
    return true;
}

void PeerLink::scheduleFlush()
{
    std::lock_guard<std::mutex> lock(m_watchMutex);
    m_wantWrite = true;
    updateWatchLocked();
}

void PeerLink::onWritable()
{
    std::string error;
    bool again = false;
    {
        std::lock_guard<std::mutex> lock(m_writeMutex);
        if (m_closed)
            return;
        if (!m_stalled)
            flushLocked(error);
        if (error.empty()) {
            if (!m_queue.empty() && !m_stalled)
                again = true;
            else
                m_flushScheduled = false;
        }
    }
    if (!error.empty()) {
        close("disconnected: " + error, CloseMode::Quiet);
        return;
    }
    if (again)
        scheduleFlush();
}

void PeerLink::sendRaw(const std::string &bytes)
{
    write(nullptr, bytes);
}

// ---- readiness ----

void PeerLink::updateWatchLocked()
{
    if (m_watchClosed || m_pollFd < 0)
        return;
    uint32_t events = 0;
    if (m_wantRead && (m_callerPolls == 0 || m_readAlone))
        events |= EPOLLIN | EPOLLRDHUP;
    if (m_wantWrite)
        events |= EPOLLOUT;
    if (events == m_watched)
        return;
    // Even with nothing wanted, an error or hang-up may still be reported,
    // once: the reader then finds it.
    epoll_event ev {};
    ev.events = events | EPOLLONESHOT;
    if (::epoll_ctl(m_pollFd, EPOLL_CTL_MOD, m_fd, &ev) == 0) {
        m_watched = events;
        return;
    }
    // Only out of kernel memory: without a watch the link would stall.
    const std::string reason = std::string("cannot watch the socket: ") + std::strerror(errno);
    auto self = shared_from_this();
    asio::post(m_strand, [self, reason]() { self->close("disconnected: " + reason); });
}

void PeerLink::awaitReadable(bool alone)
{
    std::lock_guard<std::mutex> lock(m_watchMutex);
    m_wantRead = true;
    m_readAlone = alone;
    updateWatchLocked();
}

void PeerLink::countCallerPolls(int delta)
{
    std::lock_guard<std::mutex> lock(m_watchMutex);
    m_callerPolls += delta;
    updateWatchLocked();
}

void PeerLink::awaitReady()
{
    if (m_readyAwaited || !m_open)
        return;
    m_readyAwaited = true;
    auto self = shared_from_this();
    m_poller.async_wait(asio::posix::stream_descriptor::wait_read,
                        asio::bind_executor(m_strand, [self](const boost::system::error_code &ec) {
                            self->onReady(ec);
                        }));
}

void PeerLink::onReady(const boost::system::error_code &ec)
{
    m_readyAwaited = false;
    if (ec || !m_open)
        return; // closed
    // Waits again before collecting: a report that comes after the
    // collection then ends the new wait.
    awaitReady();
    collectReady();
}

void PeerLink::collectReady()
{
    bool read = false;
    bool write = false;
    {
        std::lock_guard<std::mutex> lock(m_watchMutex);
        if (m_watchClosed || m_pollFd < 0)
            return;
        epoll_event ev {};
        int n;
        do {
            n = ::epoll_wait(m_pollFd, &ev, 1, 0);
        } while (n < 0 && errno == EINTR);
        if (n <= 0)
            return;
        m_watched = 0; // one-shot: reported, so disabled
        const uint32_t failed = EPOLLERR | EPOLLHUP;
        if (m_wantRead && (ev.events & (EPOLLIN | EPOLLRDHUP | failed))) {
            m_wantRead = false;
            read = true;
        }
        if (m_wantWrite && (ev.events & (EPOLLOUT | failed))) {
            m_wantWrite = false;
            write = true;
        }
        updateWatchLocked();
    }
    if (write)
        onWritable();
    if (read)
        onReadable();
}

// ---- reading ----

void PeerLink::readSome()
{
    if (!m_open || m_stalled || m_largeReading)
        return;
    awaitReadable(false);
    pump();
}

void PeerLink::onReadable()
{
    if (m_large)
        continueLargeFrame();
    else
        readSome();
}

size_t PeerLink::readOnceLocked()
{
    if (m_readFailure || !m_protocolFailure.empty())
        return 0;
    if (m_rxBegin == m_rxEnd) {
        m_rxBegin = m_rxEnd = 0;
    } else if (m_rxEnd == kRxCapacity) {
        if (m_rxBegin == 0)
            return 0; // a large frame's start: it is read into its own buffer
        std::memmove(m_rx.get(), m_rx.get() + m_rxBegin, m_rxEnd - m_rxBegin);
        m_rxEnd -= m_rxBegin;
        m_rxBegin = 0;
    }
    for (;;) {
        const ssize_t n = ::recv(m_fd, m_rx.get() + m_rxEnd, kRxCapacity - m_rxEnd, MSG_DONTWAIT);
        if (n > 0) {
            m_rxEnd += static_cast<size_t>(n);
            m_lastReceived = nowMs();
            return static_cast<size_t>(n);
        }
        if (n == 0)
            m_readFailure = asio::error::eof;
        else if (errno == EINTR)
            continue;
        else if (errno != EAGAIN && errno != EWOULDBLOCK)
            m_readFailure = boost::system::error_code(errno, boost::system::system_category());
        return 0;
    }
}

size_t PeerLink::cutFramesLocked()
{
    while (m_protocolFailure.empty()) {
        const size_t avail = m_rxEnd - m_rxBegin;
        if (avail < kHeaderSize)
            return 0;
        size_t body;
        try {
            body = parseHeader(reinterpret_cast<const unsigned char *>(m_rx.get() + m_rxBegin));
        } catch (const ProtocolError &e) {
            m_protocolFailure = e.what();
            return 0;
        }
        if (avail < kHeaderSize + body)
            return kHeaderSize + body > kRxCapacity ? body : 0;
        std::shared_ptr<char[]> frame(new char[body]);
        std::memcpy(frame.get(), m_rx.get() + m_rxBegin + kHeaderSize, body);
        m_rxBegin += kHeaderSize + body;
        decodeFrameLocked(frame, frame.get(), body);
    }
    return 0;
}

void PeerLink::decodeFrameLocked(const std::shared_ptr<const void> &owner, const char *body,
                                 size_t size)
{
    try {
        m_inbox.push_back(decodeMessage(owner, body, size, this));
    } catch (const ProtocolError &e) {
        m_protocolFailure = e.what();
    } catch (const std::exception &e) {
        // Out of memory and the like while decoding: still this peer's doing.
        m_protocolFailure = std::string("undecodable frame: ") + e.what();
    }
}

void PeerLink::pump()
{
    // The socket is read until it is empty (in passes of kReadsAPass): its
    // wait is armed, and wakes only for bytes that land from now on.
    size_t largeBody = 0;
    bool empty = false;
    {
        std::lock_guard<std::mutex> lock(m_readMutex);
        if (!m_open || m_stalled || m_largeReading)
            return;
        for (int i = 0; i < kReadsAPass && !empty && largeBody == 0; ++i) {
            empty = readOnceLocked() == 0;
            largeBody = cutFramesLocked();
        }
    }
    drainInbox();
    if (!m_open || m_stalled)
        return;
    if (largeBody > 0) {
        readLargeFrame(largeBody);
    } else if (!empty) {
        auto self = shared_from_this();
        asio::post(m_strand, [self]() { self->readSome(); });
    }
}

bool PeerLink::pollFromCaller()
{
    std::unique_lock<std::mutex> lock(m_readMutex, std::try_to_lock);
    // With messages still waiting for the I/O thread, no reply read now could
    // be completed here before them: leave the reading to that thread too.
    if (!lock.owns_lock() || !m_open || m_stalled || m_largeReading || m_readFailure
        || !m_protocolFailure.empty() || !m_inbox.empty())
        return false;
    if (readOnceLocked() == 0 && !m_readFailure)
        return false;
    cutFramesLocked();
    std::vector<Message> replies;
    while (!m_inbox.empty()
           && (m_inbox.front().kind == MsgKind::Reply || m_inbox.front().kind == MsgKind::Error)) {
        replies.push_back(std::move(m_inbox.front()));
        m_inbox.pop_front();
    }
    const bool more
        = !m_inbox.empty() || m_rxBegin != m_rxEnd || m_readFailure || !m_protocolFailure.empty();
    lock.unlock();
    for (Message &reply : replies)
        handleFrame(reply);
    if (more) {
        auto self = shared_from_this();
        asio::post(m_strand, [self]() { self->readSome(); });
    }
    return true;
}

int PeerLink::callerDescriptor() const
{
    return m_open ? m_fd : -1;
}

void PeerLink::drainInbox()
{
    for (;;) {
        Message msg;
        boost::system::error_code failure;
        std::string protocolFailure;
        {
            std::lock_guard<std::mutex> lock(m_readMutex);
            if (!m_open || m_stalled)
                return;
            if (m_inbox.empty()) {
                if (!m_readFailure && m_protocolFailure.empty())
                    return;
                failure = m_readFailure;
                protocolFailure = m_protocolFailure;
            } else {
                msg = std::move(m_inbox.front());
                m_inbox.pop_front();
            }
        }
        if (failure) {
            failRead(failure);
            return;
        }
        if (!protocolFailure.empty()) {
            protocolError(protocolFailure);
            return;
        }
        handleFrame(msg);
    }
}

void PeerLink::failRead(const boost::system::error_code &ec)
{
    if (!m_open)
        return;
    std::string reason;
    if (ec == asio::error::eof)
        reason = "disconnected: connection closed by peer";
    else if (ec == asio::error::connection_reset)
        reason = "disconnected: connection reset by peer";
    else
        reason = "disconnected: " + ec.message();
    log::LogStream(LogLevel_Info, kTransport, __FUNCTION__) << m_peerId << ": " << reason;
    close(reason, CloseMode::Quiet);
}

void PeerLink::protocolError(const std::string &why)
{
    if (!m_open)
        return;
    log::LogStream(LogLevel_Error, kTransport, __FUNCTION__)
        << "closing connection to " << m_peerId << ": protocol error: " << why;
    close("disconnected: protocol error: " + why, CloseMode::Quiet);
}

void PeerLink::readLargeFrame(size_t body)
{
    // Read straight into the frame's own buffer: a large binary value is
    // then handed to the caller without another copy.
    auto large = std::make_unique<LargeFrame>();
    large->frame = largeFrameBuffer(body);
    large->body = body;
    {
        std::lock_guard<std::mutex> lock(m_readMutex);
        large->filled = m_rxEnd - m_rxBegin - kHeaderSize;
        std::memcpy(large->frame.get(), m_rx.get() + m_rxBegin + kHeaderSize, large->filled);
        m_rxBegin = m_rxEnd = 0;
        m_largeReading = true;
    }
    m_large = std::move(large);
    continueLargeFrame();
}

void PeerLink::continueLargeFrame()
{
    if (!m_open || !m_large)
        return;
    // Bounded like the pump.
    LargeFrame &large = *m_large;
    boost::system::error_code failure;
    for (int i = 0; large.filled < large.body; ++i) {
        if (i == kReadsAPass) {
            auto self = shared_from_this();
            asio::post(m_strand, [self]() { self->continueLargeFrame(); });
            return;
        }
        const ssize_t n = ::recv(m_fd, large.frame.get() + large.filled, large.body - large.filled,
                                 MSG_DONTWAIT);
        if (n > 0) {
            large.filled += static_cast<size_t>(n);
            m_lastReceived = nowMs();
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            awaitReadable(true);
            return;
        }
        failure = n == 0 ? asio::error::eof
                         : boost::system::error_code(errno, boost::system::system_category());
        break;
    }
    std::unique_ptr<LargeFrame> done = std::move(m_large);
    {
        std::lock_guard<std::mutex> lock(m_readMutex);
        m_largeReading = false;
        if (!failure)
            decodeFrameLocked(done->frame, done->frame.get(), done->body);
    }
    if (failure) {
        failRead(failure);
        return;
    }
    drainInbox();
    readSome();
}

void PeerLink::handleFrame(Message &msg)
{
#ifdef WZ_TRACE
    if (msg.kind == MsgKind::Call)
        WZ_TRACE_MARK(CallDecoded);
    else if (msg.kind == MsgKind::Reply)
        WZ_TRACE_MARK(ReplyDecoded);
#endif
    try {
        dispatch(msg);
    } catch (const std::exception &e) {
        log::LogStream(LogLevel_Error, kTransport, __FUNCTION__)
            << "handling a " << msgKindName(msg.kind) << " message from " << m_peerId
            << " failed: " << e.what();
        if (msg.id != 0 && msg.kind != MsgKind::Reply && msg.kind != MsgKind::Error)
            sendError(msg.id, e.what());
    }
}
} // namespace detail
} // namespace wz
