#pragma once

#include "peer_link.h"

#include <wz/session.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace wz {
namespace detail {

// Log category of the transport and the directory alike.
constexpr const char *kSession = "wz.session";

class SessionImpl : public std::enable_shared_from_this<SessionImpl>
{
public:
    explicit SessionImpl(Session *owner);
    ~SessionImpl();

    Future<void> listen(const Url &url);
    Future<void> connect(const Url &url);
    void close(const std::string &reason);
    void failPendingCalls(const std::string &reason);
    bool isConnected() const;
    Url url() const;
    std::vector<Url> endpoints() const;

    Future<std::vector<ServiceInfo>> services(ServiceLocality locality);
    Future<Object> service(const std::string &name);
    Future<unsigned int> registerService(const std::string &name, Object object);
    Future<void> unregisterService(unsigned int id);

    std::vector<std::string> clients() const;
    void closeClient(const std::string &peer);
    void stallClient(const std::string &peer, bool stalled);
    void sendRaw(const std::string &peer, const std::string &bytes);
    void setHeartbeat(PeerLink::Heartbeat heartbeat);
    void detachOwner();

    // From connections (any thread).
    void onLinkClosed(const std::shared_ptr<PeerLink> &conn, const std::string &reason);
    // On the I/O thread.
    void handleDirectoryRequest(const std::shared_ptr<PeerLink> &conn, Message &msg);

private:
    struct ServiceEntry
    {
        unsigned id = 0;
        std::string name;
        Object object;
        const PeerLink *owner = nullptr; // null: registered by this session
        std::string endpoint;
    };

    void startAccept(std::shared_ptr<boost::asio::ip::tcp::acceptor> acceptor);
    void onAccepted(boost::asio::ip::tcp::socket socket);
    void emitOwner(Signal<std::string> Session::*signal, const std::string &arg);
    std::shared_ptr<PeerLink> findPeer(const std::string &peer) const;
    std::shared_ptr<PeerLink> directoryLink() const;
    // Returns the new id, or 0 with `error` set.
    unsigned addService(const std::string &name, const Object &object, const PeerLink *owner,
                        const std::string &endpoint, std::string &error);
    std::vector<ServiceInfo> listServices(bool localOnly) const;

    mutable std::mutex m_mutex;
    std::recursive_mutex m_ownerMutex;
    Session *m_owner;
    std::shared_ptr<SerialQueue> m_signals;

    // The acceptors' operations run in it.
    boost::asio::strand<boost::asio::io_context::executor_type> m_strand;
    std::vector<std::shared_ptr<boost::asio::ip::tcp::acceptor>> m_acceptors;
    std::vector<Url> m_endpoints;
    std::shared_ptr<PeerLink> m_directory;
    Url m_directoryUrl;
    std::map<std::string, std::shared_ptr<PeerLink>> m_peers;
    std::map<unsigned, ServiceEntry> m_services;
    unsigned m_nextServiceId = 1;
    std::set<unsigned> m_registeredRemotely;
    PeerLink::Heartbeat m_heartbeat;
    uint64_t m_generation = 0; // bumped by close(), so that late connects are dropped
    // Connects under way: close() fails them at once rather than after the
    // system's own connect time-out (minutes, for an address that never
    // answers).
    struct PendingConnect
    {
        std::weak_ptr<boost::asio::ip::tcp::socket> socket;
        Promise<void> promise;
    };
    std::map<uint64_t, PendingConnect> m_connecting;
    uint64_t m_nextConnectId = 1;
};

} // namespace detail
} // namespace wz
