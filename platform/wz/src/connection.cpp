#include "connection.h"

#include "session_impl.h"

#include <wz/log.h>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/make_shared.hpp>

#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <thread>

namespace wz {
namespace detail {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr size_t kRxCapacity = 64 * 1024;
constexpr size_t kMaxQueuedBytes = size_t(256) << 20;
const char *const kTransport = "wz.transport";

int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

thread_local std::string t_caller;

std::atomic<uint64_t> g_nextRemoteLink {uint64_t(1) << 48};

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

// ---- I/O runtime -----------------------------------------------------------------

IoRuntime &IoRuntime::instance()
{
    // Leaked: the I/O thread may still be inside it while the process exits.
    static IoRuntime *runtime = new IoRuntime;
    return *runtime;
}

IoRuntime::IoRuntime()
    : m_work(std::make_unique<asio::executor_work_guard<asio::io_context::executor_type>>(
        asio::make_work_guard(m_io)))
{
    // One thread: with a second one, every event also wakes the idle thread
    // (measured: small calls 25% slower on two cores). Each connection's
    // handlers still run in its own strand, so more threads stay an option.
    for (int i = 0; i < kIoThreads; ++i) {
        std::thread([this]() {
            for (;;) {
                try {
                    m_io.run();
                    return;
                } catch (const std::exception &e) {
                    log::LogStream(LogLevel_Error, kTransport, "IoRuntime")
                        << "an I/O handler threw: " << e.what();
                }
            }
        }).detach();
    }
}

CallerScope::CallerScope(const std::string &peer) : m_previous(std::move(t_caller))
{
    t_caller = peer;
}

CallerScope::~CallerScope()
{
    t_caller = std::move(m_previous);
}

std::string currentCallerId()
{
    return t_caller;
}

// ---- remote objects ----------------------------------------------------------------

namespace {

std::string goneText(const std::shared_ptr<Connection> &c)
{
    return c ? c->closeReason() : std::string("disconnected: connection closed");
}

// A proxy of an object that lives at the other end of a connection.
class RemoteObject : public GenericObject
{
public:
    RemoteObject(std::weak_ptr<Connection> conn, const Connection *raw, uint64_t id,
                 MetaObject meta)
        : m_conn(std::move(conn)), m_raw(raw), m_id(id), m_meta(std::move(meta))
    { }

    ~RemoteObject() override
    {
        if (auto c = m_conn.lock())
            c->forgetImport(m_id, this, m_received.load());
    }

    const Connection *connection() const { return m_raw; }
    uint64_t remoteId() const { return m_id; }
    void addReceived() { ++m_received; }

    const MetaObject &metaObject() const override { return m_meta; }
    bool isRemote() const override { return true; }

    Future<AnyValue> metaCall(const std::string &method, std::vector<AnyValue> args) override
    {
        auto c = m_conn.lock();
        if (!c || !c->isOpen())
            return makeFutureError<AnyValue>(goneText(c));
        if (!m_meta.method(method, static_cast<unsigned>(args.size())))
            return makeFutureError<AnyValue>(
                methodNotFoundText(method, args.size(), displayName()));
        Message m;
        m.kind = MsgKind::Call;
        m.object = m_id;
        m.name = method;
        m.args = std::move(args);
        return c->call(std::move(m));
    }

    void metaPost(const std::string &method, std::vector<AnyValue> args) override
    {
        auto c = m_conn.lock();
        if (!c || !c->isOpen())
            throw std::runtime_error(goneText(c));
        if (!m_meta.method(method, static_cast<unsigned>(args.size()))) {
            log::LogStream(LogLevel_Warning, "wz.object", __FUNCTION__)
                << "post dropped: " << methodNotFoundText(method, args.size(), displayName());
            return;
        }
        Message m;
        m.kind = MsgKind::Post;
        m.object = m_id;
        m.name = method;
        m.args = std::move(args);
        if (!c->send(m) && !c->isOpen())
            throw std::runtime_error(goneText(c));
    }

    Future<SignalLink> connect(const std::string &signal, GenericCallback cb) override
    {
        auto c = m_conn.lock();
        if (!c || !c->isOpen())
            return makeFutureError<SignalLink>(goneText(c));
        if (!m_meta.signal(signal) && !m_meta.property(signal))
            return makeFutureError<SignalLink>(signalNotFoundText(signal, displayName()));
        const uint64_t link = g_nextRemoteLink++;
        c->addHeldSubscription(link, m_id, shared_from_this(), std::move(cb));
        Promise<SignalLink> p;
        std::weak_ptr<Connection> weak = c;
        Message m;
        m.kind = MsgKind::Subscribe;
        m.object = m_id;
        m.name = signal;
        m.link = link;
        c->request(std::move(m),
                   [p, link, weak](bool ok, const AnyValue &, const std::string &e) mutable {
                       if (ok) {
                           p.setValue(link);
                           return;
                       }
                       if (auto conn = weak.lock())
                           conn->removeHeldSubscription(link);
                       p.setError(e);
                   });
        return p.future();
    }

    Future<void> disconnect(SignalLink link) override
    {
        auto c = m_conn.lock();
        if (!c || !c->isOpen())
            return makeFutureError<void>(goneText(c));
        c->removeHeldSubscription(link);
        Message m;
        m.kind = MsgKind::Unsubscribe;
        m.object = m_id;
        m.link = link;
        return convertFuture<void>(c->call(std::move(m)));
    }

    Future<AnyValue> property(const std::string &name) override
    {
        auto c = m_conn.lock();
        if (!c || !c->isOpen())
            return makeFutureError<AnyValue>(goneText(c));
        if (!m_meta.property(name))
            return makeFutureError<AnyValue>(propertyNotFoundText(name, displayName()));
        Message m;
        m.kind = MsgKind::PropertyGet;
        m.object = m_id;
        m.name = name;
        return c->call(std::move(m));
    }

    Future<void> setProperty(const std::string &name, AnyValue value) override
    {
        auto c = m_conn.lock();
        if (!c || !c->isOpen())
            return makeFutureError<void>(goneText(c));
        if (!m_meta.property(name))
            return makeFutureError<void>(propertyNotFoundText(name, displayName()));
        Message m;
        m.kind = MsgKind::PropertySet;
        m.object = m_id;
        m.name = name;
        m.value = std::move(value);
        return convertFuture<void>(c->call(std::move(m)));
    }

private:
    std::weak_ptr<Connection> m_conn;
    const Connection *m_raw;
    uint64_t m_id;
    MetaObject m_meta;
    std::atomic<uint64_t> m_received {1};
};

AnyValue metaToValue(const MetaObject &meta)
{
    AnyValue::List methods, signals, properties;
    for (const MetaMethod &m : meta.methods())
        methods.push_back(AnyValue::List {AnyValue(m.uid), AnyValue(m.name), AnyValue(m.arity)});
    for (const MetaSignal &s : meta.signals())
        signals.push_back(AnyValue::List {AnyValue(s.uid), AnyValue(s.name), AnyValue(s.arity)});
    for (const MetaProperty &p : meta.properties())
        properties.push_back(AnyValue::List {AnyValue(p.uid), AnyValue(p.name)});
    return AnyValue(AnyValue::List {AnyValue(meta.name()), AnyValue(std::move(methods)),
                                    AnyValue(std::move(signals)), AnyValue(std::move(properties))});
}

} // namespace

// ---- connection ----------------------------------------------------------------------

Connection::Connection(std::weak_ptr<SessionImpl> session, tcp::socket socket, std::string peerId,
                       Heartbeat heartbeat)
    : m_session(std::move(session)),
      m_socket(std::move(socket)),
      m_fd(m_socket.native_handle()),
      m_peerId(std::move(peerId)),
      m_strand(asio::make_strand(IoRuntime::instance().context())),
      m_timer(IoRuntime::instance().context()),
      m_lastReceived(nowMs()),
      m_lastSent(nowMs()),
      m_intervalMs(heartbeat.interval.count()),
      m_timeoutMs(heartbeat.timeout.count()),
      m_rx(new char[kRxCapacity])
{ }

Connection::~Connection() = default;

void Connection::start()
{
    auto self = shared_from_this();
    asio::post(m_strand, [self]() {
        self->readSome();
        self->armHeartbeat();
    });
}

std::string Connection::closeReason() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reason.empty() ? std::string("disconnected: connection closed") : m_reason;
}

void Connection::setHeartbeat(Heartbeat heartbeat)
{
    m_intervalMs = heartbeat.interval.count();
    m_timeoutMs = heartbeat.timeout.count();
}

// ---- writing ----

namespace {

// Writes what the socket takes now, never waiting. Returns the bytes written;
// sets `error` on a failure other than "would block".
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

std::vector<iovec> piecesOf(const std::shared_ptr<FrameBuffer> &frame, const std::string &raw,
                            size_t offset)
{
    if (frame)
        return frame->iovecs(offset);
    return {iovec {const_cast<char *>(raw.data() + offset), raw.size() - offset}};
}

} // namespace

bool Connection::write(std::shared_ptr<FrameBuffer> frame, std::string raw)
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

bool Connection::flushLocked(std::string &error)
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

void Connection::scheduleFlush()
{
    auto self = shared_from_this();
    asio::post(m_strand, [self]() {
        self->m_socket.async_wait(
            tcp::socket::wait_write,
            asio::bind_executor(self->m_strand, [self](const boost::system::error_code &ec) {
                self->onWritable(ec);
            }));
    });
}

void Connection::onWritable(const boost::system::error_code &ec)
{
    std::string error;
    bool again = false;
    {
        std::lock_guard<std::mutex> lock(m_writeMutex);
        if (m_closed)
            return;
        if (ec) {
            error = ec.message();
        } else if (!m_stalled) {
            flushLocked(error);
        }
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
    if (again) {
        auto self = shared_from_this();
        m_socket.async_wait(
            tcp::socket::wait_write,
            asio::bind_executor(
                m_strand, [self](const boost::system::error_code &e) { self->onWritable(e); }));
    }
}

bool Connection::send(const Message &msg)
{
    auto frame = std::make_shared<FrameBuffer>();
    try {
        encodeMessage(msg, this, *frame);
    } catch (const std::exception &e) {
        log::LogStream(LogLevel_Warning, kTransport, __FUNCTION__)
            << "cannot send a " << msgKindName(msg.kind) << " message to " << m_peerId << ": "
            << e.what();
        return false;
    }
    return write(std::move(frame), std::string());
}

void Connection::sendRaw(const std::string &bytes)
{
    write(nullptr, bytes);
}

uint64_t Connection::request(Message msg, Done done)
{
    uint64_t id;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_open) {
            const std::string reason = m_reason;
            lock.unlock();
            done(false, AnyValue(), reason);
            return 0;
        }
        id = m_nextRequest++;
        m_pending.emplace(id, std::move(done));
    }
    msg.id = id;
    auto frame = std::make_shared<FrameBuffer>();
    std::string error;
    try {
        encodeMessage(msg, this, *frame);
    } catch (const std::exception &e) {
        error = e.what();
    }
    if (error.empty() && write(std::move(frame), std::string()))
        return id;
    Done d;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_pending.find(id);
        if (it != m_pending.end()) {
            d = std::move(it->second);
            m_pending.erase(it);
        }
    }
    if (d)
        d(false, AnyValue(), error.empty() ? closeReason() : error);
    return id;
}

void Connection::cancelRequest(uint64_t id)
{
    Done d;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_pending.find(id);
        if (it == m_pending.end())
            return;
        d = std::move(it->second);
        m_pending.erase(it);
    }
    Message m;
    m.kind = MsgKind::Cancel;
    m.id = id;
    send(m);
}

Future<AnyValue> Connection::call(Message msg)
{
    std::weak_ptr<Connection> weak = shared_from_this();
    auto idHolder = std::make_shared<std::atomic<uint64_t>>(0);
    Promise<AnyValue> p([weak, idHolder](Promise<AnyValue> &promise) {
        if (auto c = weak.lock())
            c->cancelRequest(idHolder->load());
        promise.setCanceled();
    });
    Future<AnyValue> f = p.future();
    *idHolder
        = request(std::move(msg), [p](bool ok, const AnyValue &v, const std::string &e) mutable {
              if (ok)
                  p.setValue(v);
              else
                  p.setError(e);
          });
    return f;
}

// ---- closing ----

void Connection::close(const std::string &reason, CloseMode mode)
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
        boost::system::error_code ec;
        if (mode == CloseMode::Reset)
            self->m_socket.set_option(asio::socket_base::linger(true, 0), ec);
        self->m_socket.close(ec);
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
        session->onConnectionClosed(self, reason);
}

void Connection::setStalled(bool stalled)
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
        self->processInput();
    });
}

// ---- reading ----

void Connection::readSome()
{
    if (m_reading || !m_open || m_stalled)
        return;
    if (m_rxBegin == m_rxEnd) {
        m_rxBegin = m_rxEnd = 0;
    } else if (m_rxEnd == kRxCapacity) {
        std::memmove(m_rx.get(), m_rx.get() + m_rxBegin, m_rxEnd - m_rxBegin);
        m_rxEnd -= m_rxBegin;
        m_rxBegin = 0;
    }
    m_reading = true;
    auto self = shared_from_this();
    m_socket.async_read_some(
        asio::buffer(m_rx.get() + m_rxEnd, kRxCapacity - m_rxEnd),
        asio::bind_executor(m_strand, [self](const boost::system::error_code &ec, size_t n) {
            self->onRead(ec, n);
        }));
}

void Connection::failRead(const boost::system::error_code &ec)
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

void Connection::onRead(const boost::system::error_code &ec, size_t n)
{
    m_reading = false;
    if (ec) {
        failRead(ec);
        return;
    }
    m_rxEnd += n;
    m_lastReceived = nowMs();
    processInput();
}

void Connection::protocolError(const std::string &why)
{
    if (!m_open)
        return;
    log::LogStream(LogLevel_Error, kTransport, __FUNCTION__)
        << "closing connection to " << m_peerId << ": protocol error: " << why;
    close("disconnected: protocol error: " + why, CloseMode::Quiet);
}

void Connection::processInput()
{
    while (m_open && !m_stalled && !m_reading) {
        const size_t avail = m_rxEnd - m_rxBegin;
        if (avail < kHeaderSize)
            break;
        size_t body;
        try {
            body = parseHeader(reinterpret_cast<const unsigned char *>(m_rx.get() + m_rxBegin));
        } catch (const ProtocolError &e) {
            protocolError(e.what());
            return;
        }
        if (avail >= kHeaderSize + body) {
            std::shared_ptr<char[]> frame(new char[body]);
            std::memcpy(frame.get(), m_rx.get() + m_rxBegin + kHeaderSize, body);
            m_rxBegin += kHeaderSize + body;
            handleFrame(frame, frame.get(), body);
            continue;
        }
        if (kHeaderSize + body > kRxCapacity) {
            readLargeFrame(body);
            return;
        }
        break;
    }
    readSome();
}

void Connection::readLargeFrame(size_t body)
{
    // Read straight into the frame's own buffer: a large binary value is
    // then handed to the caller without another copy.
    std::shared_ptr<char[]> frame = largeFrameBuffer(body);
    const size_t have = m_rxEnd - m_rxBegin - kHeaderSize;
    std::memcpy(frame.get(), m_rx.get() + m_rxBegin + kHeaderSize, have);
    m_rxBegin = m_rxEnd = 0;
    m_reading = true;
    auto self = shared_from_this();
    auto filled = std::make_shared<size_t>(have);
    auto step = std::make_shared<std::function<void()>>();
    std::weak_ptr<std::function<void()>> weakStep = step;
    *step = [self, frame, body, filled, weakStep]() {
        auto next = weakStep.lock();
        self->m_socket.async_read_some(
            asio::buffer(frame.get() + *filled, body - *filled),
            asio::bind_executor(
                self->m_strand,
                [self, frame, body, filled, next](const boost::system::error_code &ec, size_t n) {
                    if (ec) {
                        self->m_reading = false;
                        self->failRead(ec);
                        return;
                    }
                    self->m_lastReceived = nowMs();
                    *filled += n;
                    if (*filled < body) {
                        (*next)();
                        return;
                    }
                    self->m_reading = false;
                    self->handleFrame(frame, frame.get(), body);
                    self->processInput();
                }));
    };
    (*step)();
}

void Connection::handleFrame(const std::shared_ptr<const void> &owner, const char *body,
                             size_t size)
{
    Message msg;
    try {
        msg = decodeMessage(owner, body, size, this);
    } catch (const ProtocolError &e) {
        protocolError(e.what());
        return;
    } catch (const std::exception &e) {
        // Out of memory and the like while decoding: still this peer's doing.
        protocolError(std::string("undecodable frame: ") + e.what());
        return;
    }
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

// ---- heartbeat ----

void Connection::armHeartbeat()
{
    const int64_t interval = std::max<int64_t>(10, m_intervalMs.load());
    // Checked every eighth of the timeout: silence is found within 9/8 of it
    // (default 8 s, so within 9 s).
    const int64_t tick = std::max<int64_t>(10, std::min(interval, m_timeoutMs.load() / 8));
    m_timer.expires_after(std::chrono::milliseconds(tick));
    std::weak_ptr<Connection> weak = shared_from_this();
    m_timer.async_wait(asio::bind_executor(m_strand, [weak](const boost::system::error_code &ec) {
        if (ec)
            return;
        if (auto self = weak.lock())
            self->onHeartbeat();
    }));
}

void Connection::onHeartbeat()
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

// ---- serving ----

boost::shared_ptr<GenericObject> Connection::findExport(uint64_t id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_exports.find(id);
    return it == m_exports.end() ? nullptr : it->second.object;
}

void Connection::sendError(uint64_t id, const std::string &text)
{
    Message m;
    m.kind = MsgKind::Error;
    m.id = id;
    m.name = text;
    send(m);
}

void Connection::sendResult(uint64_t id, const Future<AnyValue> &f)
{
    const FutureState st = f.wait(0);
    if (st == FutureState_FinishedWithValue) {
        Message m;
        m.kind = MsgKind::Reply;
        m.id = id;
        m.value = f.value();
        auto frame = std::make_shared<FrameBuffer>();
        try {
            encodeMessage(m, this, *frame);
        } catch (const std::exception &e) {
            sendError(id, std::string("cannot send the result: ") + e.what());
            return;
        }
        write(std::move(frame), std::string());
    } else if (st == FutureState_Canceled) {
        sendError(id, "canceled");
    } else {
        sendError(id, f.error());
    }
}

std::shared_ptr<SerialQueue>
Connection::queueFor(std::map<uint64_t, std::shared_ptr<SerialQueue>> &m, uint64_t id)
{
    auto &q = m[id];
    if (!q)
        q = std::make_shared<SerialQueue>();
    return q;
}

void Connection::serveCall(Message &msg, boost::shared_ptr<GenericObject> obj)
{
    auto self = shared_from_this();
    const uint64_t id = msg.id;
    FrameworkPool::instance().post(
        [self, obj, id, name = std::move(msg.name), args = std::move(msg.args)]() mutable {
            Future<AnyValue> f;
            {
                CallerScope scope(self->m_peerId);
                f = obj->metaCall(name, std::move(args));
            }
            if (f.isFinished()) {
                self->sendResult(id, f);
                return;
            }
            {
                std::lock_guard<std::mutex> lock(self->m_mutex);
                if (!self->m_open) {
                    f.cancel();
                    return;
                }
                self->m_incoming.emplace(id, f);
            }
            FutureAccess<AnyValue>::state(f)->addDirectCallback([self, id, f]() {
                {
                    std::lock_guard<std::mutex> lock(self->m_mutex);
                    self->m_incoming.erase(id);
                }
                self->sendResult(id, f);
            });
        });
}

void Connection::serveSubscribe(Message &msg, boost::shared_ptr<GenericObject> obj)
{
    std::weak_ptr<Connection> weak = shared_from_this();
    const uint64_t link = msg.link;
    GenericCallback forward = [weak, link](const std::vector<AnyValue> &args) {
        auto c = weak.lock();
        if (!c || !c->isOpen())
            return;
        Message m;
        m.kind = MsgKind::Emit;
        m.link = link;
        m.args = args;
        c->send(m);
    };
    Future<SignalLink> f = obj->connect(msg.name, std::move(forward));
    auto self = shared_from_this();
    const uint64_t id = msg.id;
    const uint64_t objectId = msg.object;
    FutureAccess<SignalLink>::state(f)->addDirectCallback([self, f, obj, id, link, objectId]() {
        if (!f.hasValue()) {
            self->sendError(id, f.isCanceled() ? std::string("canceled") : f.error());
            return;
        }
        bool keep;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            keep = self->m_open.load();
            if (keep)
                self->m_served[link] = Served {obj, objectId, f.value()};
        }
        if (!keep) {
            obj->disconnect(f.value());
            return;
        }
        Message reply;
        reply.kind = MsgKind::Reply;
        reply.id = id;
        self->send(reply);
    });
}

void Connection::releaseExport(uint64_t id, uint64_t count)
{
    boost::shared_ptr<GenericObject> drop;
    std::vector<Served> unsubscribe;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_exports.find(id);
        if (it == m_exports.end())
            return;
        if (count < it->second.count) {
            it->second.count -= count;
            return;
        }
        drop = std::move(it->second.object);
        m_exports.erase(it);
        for (auto s = m_served.begin(); s != m_served.end();) {
            if (s->second.objectId == id) {
                unsubscribe.push_back(std::move(s->second));
                s = m_served.erase(s);
            } else {
                ++s;
            }
        }
        m_postQueues.erase(id);
    }
    for (Served &s : unsubscribe)
        s.object->disconnect(s.localLink);
    unsubscribe.clear();
    FrameworkPool::instance().post([drop]() mutable { drop.reset(); });
}

void Connection::dispatch(Message &msg)
{
    switch (msg.kind) {
    case MsgKind::Call: {
        auto obj = findExport(msg.object);
        if (!obj) {
            sendError(msg.id, "object " + std::to_string(msg.object) + " not found on this peer");
            return;
        }
        serveCall(msg, std::move(obj));
        return;
    }
    case MsgKind::Post: {
        auto obj = findExport(msg.object);
        if (!obj) {
            log::LogStream(LogLevel_Warning, "wz.object", __FUNCTION__)
                << "post \"" << msg.name << "\" from " << m_peerId << " to unknown object "
                << msg.object;
            return;
        }
        std::shared_ptr<SerialQueue> q;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            q = queueFor(m_postQueues, msg.object);
        }
        const std::string peer = m_peerId;
        q->post([obj, peer, name = std::move(msg.name), args = std::move(msg.args)]() mutable {
            CallerScope scope(peer);
            if (obj->isRemote()) {
                obj->metaPost(name, std::move(args));
                return;
            }
            Future<AnyValue> f = obj->metaCall(name, std::move(args));
            if (f.hasError())
                log::LogStream(LogLevel_Warning, "wz.object", "post")
                    << "posted call \"" << name << "\" from " << peer << " failed: " << f.error();
        });
        return;
    }
    case MsgKind::Reply:
    case MsgKind::Error: {
        Done d;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_pending.find(msg.id);
            if (it == m_pending.end())
                return; // canceled meanwhile
            d = std::move(it->second);
            m_pending.erase(it);
        }
        if (msg.kind == MsgKind::Reply)
            d(true, msg.value, std::string());
        else
            d(false, AnyValue(), msg.name);
        return;
    }
    case MsgKind::Cancel: {
        Future<AnyValue> f;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_incoming.find(msg.id);
            if (it == m_incoming.end())
                return;
            f = it->second;
        }
        f.cancel();
        return;
    }
    case MsgKind::Subscribe: {
        auto obj = findExport(msg.object);
        if (!obj) {
            sendError(msg.id, "object " + std::to_string(msg.object) + " not found on this peer");
            return;
        }
        serveSubscribe(msg, std::move(obj));
        return;
    }
    case MsgKind::Unsubscribe: {
        Served s;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_served.find(msg.link);
            if (it != m_served.end()) {
                s = std::move(it->second);
                m_served.erase(it);
            }
        }
        if (s.object)
            s.object->disconnect(s.localLink);
        Message reply;
        reply.kind = MsgKind::Reply;
        reply.id = msg.id;
        send(reply);
        return;
    }
    case MsgKind::Emit: {
        GenericCallback cb;
        std::shared_ptr<SerialQueue> q;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_held.find(msg.link);
            if (it == m_held.end())
                return; // unsubscribed meanwhile
            cb = it->second.callback;
            q = queueFor(m_emitQueues, it->second.objectId);
        }
        const std::string peer = m_peerId;
        q->post([cb, peer, args = std::move(msg.args)]() {
            CallerScope scope(peer);
            cb(args);
        });
        return;
    }
    case MsgKind::PropertyGet:
    case MsgKind::PropertySet: {
        auto obj = findExport(msg.object);
        if (!obj) {
            sendError(msg.id, "object " + std::to_string(msg.object) + " not found on this peer");
            return;
        }
        auto self = shared_from_this();
        FrameworkPool::instance().post([self, obj, m = std::move(msg)]() mutable {
            CallerScope scope(self->m_peerId);
            if (m.kind == MsgKind::PropertyGet) {
                Future<AnyValue> f = obj->property(m.name);
                f.wait();
                self->sendResult(m.id, f);
            } else {
                Future<void> f = obj->setProperty(m.name, std::move(m.value));
                f.wait();
                if (f.hasValue())
                    self->sendResult(m.id, makeReadyFuture(AnyValue()));
                else
                    self->sendError(m.id, f.isCanceled() ? std::string("canceled") : f.error());
            }
        });
        return;
    }
    case MsgKind::MetaObject: {
        auto obj = findExport(msg.object);
        if (!obj) {
            sendError(msg.id, "object " + std::to_string(msg.object) + " not found on this peer");
            return;
        }
        Message reply;
        reply.kind = MsgKind::Reply;
        reply.id = msg.id;
        reply.value = metaToValue(obj->metaObject());
        send(reply);
        return;
    }
    case MsgKind::ServiceLookup:
    case MsgKind::ServicesList:
    case MsgKind::Register:
    case MsgKind::Unregister: {
        if (auto session = m_session.lock())
            session->handleDirectoryRequest(shared_from_this(), msg);
        else
            sendError(msg.id, "session closed");
        return;
    }
    case MsgKind::Heartbeat:
        return;
    case MsgKind::Goodbye:
        log::LogStream(LogLevel_Info, kTransport, __FUNCTION__)
            << m_peerId << " said goodbye: " << msg.name;
        {
            // The peer's own reason starts with "disconnected: " too; say it once.
            std::string why = msg.name;
            if (why.rfind("disconnected: ", 0) == 0)
                why = why.substr(14);
            close("disconnected: the peer closed the connection (" + why + ")", CloseMode::Quiet);
        }
        return;
    case MsgKind::Release:
        releaseExport(msg.object, msg.link);
        return;
    }
}

// ---- object references ----

bool Connection::peerObjectId(const GenericObject &obj, uint64_t &id)
{
    auto *remote = dynamic_cast<const RemoteObject *>(&obj);
    if (!remote || remote->connection() != this)
        return false;
    id = remote->remoteId();
    return true;
}

uint64_t Connection::exportObject(const boost::shared_ptr<GenericObject> &obj)
{
    const uint64_t id = obj->objectUid();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open)
        return id; // the frame will not be sent; hold nothing
    Export &e = m_exports[id];
    e.object = obj;
    ++e.count;
    return id;
}

AnyValue Connection::importObject(uint64_t id, MetaObject meta)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_imports.find(id);
    if (it != m_imports.end()) {
        if (boost::shared_ptr<GenericObject> p = it->second.proxy.lock()) {
            static_cast<RemoteObject *>(p.get())->addReceived();
            return AnyValue(Object(p));
        }
    }
    auto p = boost::make_shared<RemoteObject>(weak_from_this(), this, id, std::move(meta));
    m_imports[id] = Import {p, p.get()};
    return AnyValue(Object(p));
}

AnyValue Connection::ownObject(uint64_t id)
{
    auto obj = findExport(id);
    if (!obj) {
        log::LogStream(LogLevel_Warning, kTransport, __FUNCTION__)
            << m_peerId << " referred to object " << id << " which it no longer holds";
        return AnyValue();
    }
    return AnyValue(Object(obj));
}

void Connection::forgetImport(uint64_t id, const GenericObject *proxy, uint64_t received)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_imports.find(id);
        if (it != m_imports.end() && it->second.raw == proxy) {
            m_imports.erase(it);
            m_emitQueues.erase(id);
        }
    }
    if (!m_open)
        return;
    Message m;
    m.kind = MsgKind::Release;
    m.object = id;
    m.link = received;
    send(m);
}

void Connection::addHeldSubscription(uint64_t link, uint64_t objectId,
                                     boost::shared_ptr<GenericObject> proxy, GenericCallback cb)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open)
        return;
    m_held[link] = Held {objectId, std::move(proxy), std::move(cb)};
}

void Connection::removeHeldSubscription(uint64_t link)
{
    Held h;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_held.find(link);
        if (it == m_held.end())
            return;
        h = std::move(it->second);
        m_held.erase(it);
    }
}

} // namespace detail
} // namespace wz
