// Dispatch: what each incoming message does, and serving local objects to the peer.

#include "peer_link.h"
#include "peer_link_support.h"

#include "session_impl.h"

#include <wz/detail/trace.h>
#include <wz/log.h>

namespace wz {
namespace detail {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

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

// ---- serving ----

boost::shared_ptr<GenericObject> PeerLink::findExport(uint64_t id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_exports.find(id);
    return it == m_exports.end() ? nullptr : it->second.object;
}

void PeerLink::sendError(uint64_t id, const std::string &text)
{
    IoRuntime::instance().noteAnswered();
    Message m;
    m.kind = MsgKind::Error;
    m.id = id;
    m.name = text;
    send(m);
}

void PeerLink::sendResult(uint64_t id, const Future<AnyValue> &f)
{
    const FutureState st = f.wait(0);
    if (st == FutureState_FinishedWithValue) {
        IoRuntime::instance().noteAnswered(); // the other outcomes go through sendError
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
        WZ_TRACE_MARK(ReplyWritten);
        write(std::move(frame), std::string());
    } else if (st == FutureState_Canceled) {
        sendError(id, "canceled");
    } else {
        sendError(id, f.error());
    }
}

std::shared_ptr<SerialQueue> PeerLink::queueFor(std::map<uint64_t, std::shared_ptr<SerialQueue>> &m,
                                                uint64_t id)
{
    auto &q = m[id];
    if (!q)
        q = std::make_shared<SerialQueue>();
    return q;
}

void PeerLink::serveCall(Message &msg, boost::shared_ptr<GenericObject> obj)
{
    auto self = shared_from_this();
    const uint64_t id = msg.id;
    if (obj->isDirect(msg.name, msg.args.size())) {
        // Run here, on the thread that read the call: no hand-over.
        Future<AnyValue> f;
        {
            CallerScope scope(m_peerId);
            DirectMethodScope direct;
            WZ_TRACE_MARK(MethodStart);
            f = obj->metaCall(msg.name, std::move(msg.args));
            WZ_TRACE_MARK(MethodEnd);
        }
        sendResult(id, f);
        return;
    }
    FrameworkPool::instance().post(
        [self, obj, id, name = std::move(msg.name), args = std::move(msg.args)]() mutable {
            Future<AnyValue> f;
            {
                CallerScope scope(self->m_peerId);
                WZ_TRACE_MARK(MethodStart);
                f = obj->metaCall(name, std::move(args));
                WZ_TRACE_MARK(MethodEnd);
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

void PeerLink::serveSubscribe(Message &msg, boost::shared_ptr<GenericObject> obj)
{
    std::weak_ptr<PeerLink> weak = shared_from_this();
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

void PeerLink::releaseExport(uint64_t id, uint64_t count)
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

void PeerLink::dispatch(Message &msg)
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
            CallerScope scope(peer, true);
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
} // namespace detail
} // namespace wz
