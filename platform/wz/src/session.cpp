// The transport: listening, connecting and closing the links of a session, and
// the public Session that forwards to it. The directory is in session_directory.cpp.

#include "session_impl.h"

#include <wz/log.h>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>

namespace wz {

namespace detail {

std::string currentCallerId();
bool currentCallPosted();

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

std::atomic<uint64_t> g_nextPeer {1};

// Only literal addresses and "localhost": name resolution would block and
// could leave the machine.
bool parseAddress(const std::string &host, asio::ip::address &out, std::string &error)
{
    const std::string h = host == "localhost" ? std::string("127.0.0.1") : host;
    boost::system::error_code ec;
    out = asio::ip::make_address(h, ec);
    if (ec) {
        error = "\"" + host + "\" is not an IP address";
        return false;
    }
    return true;
}

// Small calls go out at once; buffers large enough that a camera frame goes
// through in one write rather than in many wake-ups of the I/O threads (the
// kernel only charges what is actually queued).
void tuneSocket(tcp::socket &socket)
{
    boost::system::error_code ec;
    socket.set_option(tcp::no_delay(true), ec);
    socket.set_option(asio::socket_base::send_buffer_size(4 << 20), ec);
    socket.set_option(asio::socket_base::receive_buffer_size(4 << 20), ec);
}

std::string peerIdOf(const tcp::socket &socket)
{
    boost::system::error_code ec;
    const tcp::endpoint ep = socket.remote_endpoint(ec);
    std::string addr
        = ec ? std::string("?") : ep.address().to_string() + ":" + std::to_string(ep.port());
    return addr + "#" + std::to_string(g_nextPeer++);
}

} // namespace

SessionImpl::SessionImpl(Session *owner)
    : m_owner(owner),
      m_signals(std::make_shared<SerialQueue>()),
      m_strand(asio::make_strand(IoRuntime::instance().context()))
{ }

SessionImpl::~SessionImpl() = default;

void SessionImpl::detachOwner()
{
    std::lock_guard<std::recursive_mutex> lock(m_ownerMutex);
    m_owner = nullptr;
}

void SessionImpl::emitOwner(Signal<std::string> Session::*signal, const std::string &arg)
{
    // On a framework thread, in order, and never after the Session is gone.
    std::weak_ptr<SessionImpl> weak = shared_from_this();
    m_signals->post([weak, signal, arg]() {
        auto self = weak.lock();
        if (!self)
            return;
        std::lock_guard<std::recursive_mutex> lock(self->m_ownerMutex);
        if (self->m_owner)
            (self->m_owner->*signal)(arg);
    });
}

Future<void> SessionImpl::listen(const Url &url)
{
    if (!url.isValid())
        return makeFutureError<void>("cannot listen on \"" + url.str() + "\": " + url.error());
    asio::ip::address address;
    std::string error;
    if (!parseAddress(url.host(), address, error))
        return makeFutureError<void>("cannot listen on " + url.str() + ": " + error);
    auto acceptor = std::make_shared<tcp::acceptor>(IoRuntime::instance().context());
    boost::system::error_code ec;
    const tcp::endpoint ep(address, url.port());
    acceptor->open(ep.protocol(), ec);
    if (!ec)
        acceptor->set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec)
        acceptor->bind(ep, ec);
    if (!ec)
        acceptor->listen(asio::socket_base::max_listen_connections, ec);
    if (ec)
        return makeFutureError<void>("cannot listen on " + url.str() + ": " + ec.message());
    const unsigned short port = acceptor->local_endpoint(ec).port();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_acceptors.push_back(acceptor);
        m_endpoints.push_back(Url(url.host(), "tcp", port));
    }
    log::LogStream(LogLevel_Info, kSession, __FUNCTION__)
        << "listening on " << Url(url.host(), "tcp", port).str();
    auto self = shared_from_this();
    asio::post(m_strand, [self, acceptor]() { self->startAccept(acceptor); });
    return makeReadyFuture();
}

void SessionImpl::startAccept(std::shared_ptr<tcp::acceptor> acceptor)
{
    if (!acceptor->is_open())
        return;
    auto self = shared_from_this();
    acceptor->async_accept(asio::bind_executor(
        m_strand, [self, acceptor](const boost::system::error_code &ec, tcp::socket socket) {
            if (ec == asio::error::operation_aborted || !acceptor->is_open())
                return;
            if (ec) {
                log::LogStream(LogLevel_Warning, kSession, "accept")
                    << "accept failed: " << ec.message();
                // Out of descriptors and the like: wait a little instead of spinning.
                auto timer = std::make_shared<asio::steady_timer>(IoRuntime::instance().context());
                timer->expires_after(std::chrono::milliseconds(100));
                timer->async_wait(asio::bind_executor(
                    self->m_strand, [self, acceptor, timer](const boost::system::error_code &) {
                        self->startAccept(acceptor);
                    }));
                return;
            }
            self->onAccepted(std::move(socket));
            self->startAccept(acceptor);
        }));
}

void SessionImpl::onAccepted(tcp::socket socket)
{
    tuneSocket(socket);
    const std::string peer = peerIdOf(socket);
    std::shared_ptr<PeerLink> conn;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_acceptors.empty())
            return; // closed meanwhile: the socket closes with this scope
        conn = std::make_shared<PeerLink>(weak_from_this(), std::move(socket), peer, m_heartbeat);
        m_peers[peer] = conn;
    }
    conn->start();
    log::LogStream(LogLevel_Info, kSession, __FUNCTION__) << "client " << peer << " connected";
    emitOwner(&Session::clientConnected, peer);
}

Future<void> SessionImpl::connect(const Url &url)
{
    if (!url.isValid())
        return makeFutureError<void>("cannot connect to \"" + url.str() + "\": " + url.error());
    asio::ip::address address;
    std::string error;
    if (!parseAddress(url.host(), address, error))
        return makeFutureError<void>("cannot connect to " + url.str() + ": " + error);
    if (auto d = directoryLink()) {
        if (d->isOpen())
            return makeFutureError<void>("already connected to " + url.str());
    }
    auto socket = std::make_shared<tcp::socket>(IoRuntime::instance().context());
    Promise<void> promise;
    auto self = shared_from_this();
    const tcp::endpoint ep(address, url.port());
    uint64_t generation;
    uint64_t connectId;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        generation = m_generation;
        connectId = m_nextConnectId++;
        m_connecting[connectId] = PendingConnect {socket, promise};
    }
    asio::post(IoRuntime::instance().context(),
               [self, socket, promise, url, ep, generation, connectId]() mutable {
                   socket->async_connect(
                       ep,
                       [self, socket, promise, url, generation,
                        connectId](const boost::system::error_code &ec) mutable {
                           {
                               std::lock_guard<std::mutex> lock(self->m_mutex);
                               self->m_connecting.erase(connectId);
                           }
                           if (ec) {
                               promise.setError("cannot connect to " + url.str() + ": "
                                                + ec.message());
                               return;
                           }
                           tuneSocket(*socket);
                           const std::string peer = peerIdOf(*socket);
                           std::shared_ptr<PeerLink> conn;
                           std::shared_ptr<PeerLink> old;
                           {
                               std::lock_guard<std::mutex> lock(self->m_mutex);
                               if (self->m_generation != generation) {
                                   promise.setError("disconnected: session closed");
                                   return;
                               }
                               conn = std::make_shared<PeerLink>(self, std::move(*socket), peer,
                                                                 self->m_heartbeat);
                               old = std::move(self->m_directory);
                               self->m_directory = conn;
                               self->m_directoryUrl = url;
                               self->m_registeredRemotely.clear();
                           }
                           if (old)
                               old->close("disconnected: replaced by a new connection");
                           conn->start();
                           log::LogStream(LogLevel_Info, kSession, "connect")
                               << "connected to " << url.str();
                           promise.setValue();
                       });
               });
    return promise.future();
}

void SessionImpl::close(const std::string &reason)
{
    std::vector<std::shared_ptr<tcp::acceptor>> acceptors;
    std::map<std::string, std::shared_ptr<PeerLink>> peers;
    std::map<unsigned, ServiceEntry> services;
    std::shared_ptr<PeerLink> directory;
    std::map<uint64_t, PendingConnect> connecting;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_generation;
        connecting.swap(m_connecting);
        acceptors.swap(m_acceptors);
        m_endpoints.clear();
        peers.swap(m_peers);
        services.swap(m_services);
        directory = m_directory;
        m_registeredRemotely.clear();
    }
    for (auto &a : acceptors) {
        asio::post(m_strand, [a]() {
            boost::system::error_code ec;
            a->close(ec);
        });
    }
    // The waiter learns at once; the socket is closed on the I/O thread,
    // which owns it, and its handler then finds the promise already kept.
    for (auto &c : connecting) {
        c.second.promise.setError("disconnected: session closed");
        if (std::shared_ptr<tcp::socket> socket = c.second.socket.lock()) {
            asio::post(IoRuntime::instance().context(), [socket]() {
                boost::system::error_code ec;
                socket->close(ec);
            });
        }
    }
    if (directory)
        directory->close(reason, PeerLink::CloseMode::Graceful);
    for (auto &p : peers)
        p.second->close(reason, PeerLink::CloseMode::Graceful);
}

void SessionImpl::failPendingCalls(const std::string &reason)
{
    std::vector<std::shared_ptr<PeerLink>> links;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_directory)
            links.push_back(m_directory);
        for (auto &p : m_peers)
            links.push_back(p.second);
    }
    for (auto &link : links)
        link->failPending(reason);
}

bool SessionImpl::isConnected() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_directory)
        return m_directory->isOpen();
    return !m_acceptors.empty();
}

Url SessionImpl::url() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_directory)
        return m_directoryUrl;
    return m_endpoints.empty() ? Url() : m_endpoints.front();
}

std::vector<Url> SessionImpl::endpoints() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_endpoints;
}

std::shared_ptr<PeerLink> SessionImpl::directoryLink() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_directory;
}

std::shared_ptr<PeerLink> SessionImpl::findPeer(const std::string &peer) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_peers.find(peer);
    return it == m_peers.end() ? nullptr : it->second;
}

std::vector<std::string> SessionImpl::clients() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &p : m_peers)
        out.push_back(p.first);
    return out;
}

void SessionImpl::closeClient(const std::string &peer)
{
    if (auto c = findPeer(peer)) {
        log::LogStream(LogLevel_Info, kSession, __FUNCTION__) << "dropping client " << peer;
        c->close("disconnected: dropped by the directory", PeerLink::CloseMode::Reset);
    } else {
        log::LogStream(LogLevel_Warning, kSession, __FUNCTION__) << "no client " << peer;
    }
}

void SessionImpl::stallClient(const std::string &peer, bool stalled)
{
    if (auto c = findPeer(peer))
        c->setStalled(stalled);
    else
        log::LogStream(LogLevel_Warning, kSession, __FUNCTION__) << "no client " << peer;
}

void SessionImpl::sendRaw(const std::string &peer, const std::string &bytes)
{
    if (auto c = findPeer(peer))
        c->sendRaw(bytes);
    else
        log::LogStream(LogLevel_Warning, kSession, __FUNCTION__) << "no client " << peer;
}

void SessionImpl::setHeartbeat(PeerLink::Heartbeat heartbeat)
{
    std::vector<std::shared_ptr<PeerLink>> conns;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_heartbeat = heartbeat;
        if (m_directory)
            conns.push_back(m_directory);
        for (auto &p : m_peers)
            conns.push_back(p.second);
    }
    for (auto &c : conns)
        c->setHeartbeat(heartbeat);
}

void SessionImpl::onLinkClosed(const std::shared_ptr<PeerLink> &conn, const std::string &reason)
{
    bool wasDirectory = false;
    bool wasPeer = false;
    std::vector<ServiceEntry> gone;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (conn == m_directory) {
            wasDirectory = true;
            m_registeredRemotely.clear();
        }
        auto it = m_peers.find(conn->peerId());
        if (it != m_peers.end() && it->second == conn) {
            wasPeer = true;
            m_peers.erase(it);
        }
        for (auto s = m_services.begin(); s != m_services.end();) {
            if (s->second.owner == conn.get()) {
                gone.push_back(std::move(s->second));
                s = m_services.erase(s);
            } else {
                ++s;
            }
        }
    }
    for (const ServiceEntry &e : gone)
        log::LogStream(LogLevel_Info, kSession, __FUNCTION__)
            << "service \"" << e.name << "\" of " << conn->peerId() << " removed";
    gone.clear();
    if (wasDirectory) {
        log::LogStream(LogLevel_Info, kSession, __FUNCTION__) << reason;
        emitOwner(&Session::disconnected, reason);
    }
    if (wasPeer) {
        log::LogStream(LogLevel_Info, kSession, __FUNCTION__)
            << "client " << conn->peerId() << " left: " << reason;
        emitOwner(&Session::clientDisconnected, conn->peerId());
    }
}

} // namespace detail

// ---- Session -------------------------------------------------------------------------

Session::Session() : d(std::make_shared<detail::SessionImpl>(this)) { }

Session::~Session()
{
    d->close("disconnected: session closed");
    d->detachOwner();
}

void Session::failPendingCalls(const std::string &reason)
{
    d->failPendingCalls(reason);
}

Future<void> Session::listen(const Url &url)
{
    return d->listen(url);
}

Future<void> Session::connect(const Url &url)
{
    return d->connect(url);
}

Future<void> Session::close()
{
    d->close("disconnected: session closed");
    return makeReadyFuture();
}

bool Session::isConnected() const
{
    return d->isConnected();
}

Url Session::url() const
{
    return d->url();
}

std::vector<Url> Session::endpoints() const
{
    return d->endpoints();
}

Future<std::vector<ServiceInfo>> Session::services(ServiceLocality locality)
{
    return d->services(locality);
}

Future<Object> Session::service(const std::string &name, const std::string &)
{
    return d->service(name);
}

Future<unsigned int> Session::registerService(const std::string &name, Object object)
{
    return d->registerService(name, std::move(object));
}

Future<void> Session::unregisterService(unsigned int id)
{
    return d->unregisterService(id);
}

std::vector<std::string> Session::clients() const
{
    return d->clients();
}

void Session::closeClient(const std::string &peer)
{
    d->closeClient(peer);
}

void Session::stallClient(const std::string &peer, bool stalled)
{
    d->stallClient(peer, stalled);
}

void Session::sendRaw(const std::string &peer, const std::string &bytes)
{
    d->sendRaw(peer, bytes);
}

std::string Session::currentCaller()
{
    return detail::currentCallerId();
}

bool Session::currentCallPosted()
{
    return detail::currentCallPosted();
}

void Session::setHeartbeat(std::chrono::milliseconds interval, std::chrono::milliseconds timeout)
{
    d->setHeartbeat(detail::PeerLink::Heartbeat {interval, timeout});
}

} // namespace wz
