// The call table: requests in flight, and the objects they reach on either side.

#include "peer_link.h"
#include "peer_link_support.h"

#include <wz/detail/trace.h>
#include <wz/log.h>

#include <boost/make_shared.hpp>

namespace wz {
namespace detail {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

std::atomic<uint64_t> g_nextRemoteLink {uint64_t(1) << 48};

std::string goneText(const std::shared_ptr<PeerLink> &c)
{
    return c ? c->closeReason() : std::string("disconnected: connection closed");
}

// A proxy of an object that lives at the other end of a connection.
class RemoteObject : public GenericObject
{
public:
    RemoteObject(std::weak_ptr<PeerLink> conn, const PeerLink *raw, uint64_t id, MetaObject meta)
        : m_conn(std::move(conn)), m_raw(raw), m_id(id), m_meta(std::move(meta))
    { }

    ~RemoteObject() override
    {
        if (auto c = m_conn.lock())
            c->forgetImport(m_id, this, m_received.load());
    }

    const PeerLink *link() const { return m_raw; }
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
        std::weak_ptr<PeerLink> weak = c;
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
    std::weak_ptr<PeerLink> m_conn;
    const PeerLink *m_raw;
    uint64_t m_id;
    MetaObject m_meta;
    std::atomic<uint64_t> m_received {1};
};

} // namespace

// ---- requests ----

bool PeerLink::send(const Message &msg)
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

uint64_t PeerLink::request(Message msg, Done done)
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
    WZ_TRACE_MARK(CallWritten);
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

void PeerLink::cancelRequest(uint64_t id)
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

namespace {

// A thread waiting for a reply reads the link itself while it waits: the
// I/O thread is then not woken for the reply, so one call needs the caller
// and the peer only.
class CallerReading : public WaitHelper
{
public:
    explicit CallerReading(std::weak_ptr<PeerLink> link) : m_link(std::move(link)) { }

    std::unique_ptr<Turn> begin() override
    {
        auto link = m_link.lock();
        if (!link)
            return nullptr;
        return std::make_unique<Reading>(std::move(link));
    }

private:
    class Reading : public Turn
    {
    public:
        // Held for the wait, so that the link's end is a close(), which
        // fails the awaited request and so wakes the sleeper.
        explicit Reading(std::shared_ptr<PeerLink> link) : m_link(std::move(link))
        {
            m_link->countCallerPolls(1);
        }
        ~Reading() override { m_link->countCallerPolls(-1); }
        bool poll() override { return m_link->pollFromCaller(); }
        int descriptor() const override { return m_link->callerDescriptor(); }

    private:
        std::shared_ptr<PeerLink> m_link;
    };

    std::weak_ptr<PeerLink> m_link;
};

} // namespace

Future<AnyValue> PeerLink::call(Message msg)
{
    std::weak_ptr<PeerLink> weak = shared_from_this();
    auto idHolder = std::make_shared<std::atomic<uint64_t>>(0);
    Promise<AnyValue> p([weak, idHolder](Promise<AnyValue> &promise) {
        if (auto c = weak.lock())
            c->cancelRequest(idHolder->load());
        promise.setCanceled();
    });
    Future<AnyValue> f = p.future();
    if (auto state = FutureAccess<AnyValue>::state(f)) {
        state->setWaitHelper(std::make_shared<CallerReading>(weak));
    }
    *idHolder
        = request(std::move(msg), [p](bool ok, const AnyValue &v, const std::string &e) mutable {
              if (ok)
                  p.setValue(v);
              else
                  p.setError(e);
          });
    return f;
}

// ---- object references ----

bool PeerLink::peerObjectId(const GenericObject &obj, uint64_t &id)
{
    auto *remote = dynamic_cast<const RemoteObject *>(&obj);
    if (!remote || remote->link() != this)
        return false;
    id = remote->remoteId();
    return true;
}

uint64_t PeerLink::exportObject(const boost::shared_ptr<GenericObject> &obj)
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

AnyValue PeerLink::importObject(uint64_t id, MetaObject meta)
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

AnyValue PeerLink::ownObject(uint64_t id)
{
    auto obj = findExport(id);
    if (!obj) {
        log::LogStream(LogLevel_Warning, kTransport, __FUNCTION__)
            << m_peerId << " referred to object " << id << " which it no longer holds";
        return AnyValue();
    }
    return AnyValue(Object(obj));
}

void PeerLink::forgetImport(uint64_t id, const GenericObject *proxy, uint64_t received)
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

void PeerLink::addHeldSubscription(uint64_t link, uint64_t objectId,
                                   boost::shared_ptr<GenericObject> proxy, GenericCallback cb)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open)
        return;
    m_held[link] = Held {objectId, std::move(proxy), std::move(cb)};
}

void PeerLink::removeHeldSubscription(uint64_t link)
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
