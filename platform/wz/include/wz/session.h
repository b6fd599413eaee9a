#pragma once

#include <wz/api.h>
#include <wz/future.h>
#include <wz/object.h>
#include <wz/signal.h>
#include <wz/url.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace wz {

struct ServiceInfo
{
    std::string name;
    unsigned int serviceId = 0;
    std::string endpoint; // where the service lives: a peer id, or "local"
};

enum ServiceLocality { ServiceLocality_All = 0, ServiceLocality_Local = 1 };

namespace detail {
class SessionImpl;
}

// One end of the messaging network. A session that listens and is not
// connected to another one is the service directory; a session that connects
// is a client of that directory. One TCP connection per peer carries calls in
// both directions, so the directory can call back into objects a client
// registered. Used through boost::shared_ptr; not copyable.
class WZ_API Session
{
public:
    Session();
    // Closes; safe on any thread, including a framework thread running one of
    // this session's callbacks.
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Accepts peers on `url` (port 0: chosen; see endpoints()).
    Future<void> listen(const Url &url);
    // Connects to a directory.
    Future<void> connect(const Url &url);
    // Ends every connection and fails what is in flight ("disconnected: session closed").
    Future<void> close();
    // Fails every call this session is waiting for, now, with `reason` (it
    // should start with "disconnected"), and keeps the links open: for a
    // client that is leaving and still has a few words to say. A late
    // answer to a failed call is dropped.
    void failPendingCalls(const std::string &reason);

    // Client: connected to its directory. Directory: listening.
    bool isConnected() const;
    // The peer connected to; for a directory, its first endpoint.
    Url url() const;
    // Listening endpoints with their real ports.
    std::vector<Url> endpoints() const;

    Future<std::vector<ServiceInfo>> services(ServiceLocality locality = ServiceLocality_All);
    // Fails with: service "NAME" not found.
    Future<Object> service(const std::string &name, const std::string &protocol = "");
    // Fails when the name is taken.
    Future<unsigned int> registerService(const std::string &name, Object object);
    Future<void> unregisterService(unsigned int id);

    // Reason text; emitted when the link to the directory ends (close() too).
    Signal<std::string> disconnected;

    // Directory side (the simulated robot and its tests). A peer id looks like
    // "127.0.0.1:53210#7".
    Signal<std::string> clientConnected;
    Signal<std::string> clientDisconnected;
    std::vector<std::string> clients() const;
    // Drops the peer at once (a reset, as a crash would look).
    void closeClient(const std::string &peer);
    // Stops reading from and writing to the peer, keeping its socket open, as
    // a peer that froze would look. `false` resumes.
    void stallClient(const std::string &peer, bool stalled);
    // Writes raw bytes to the peer, bypassing framing (malformed-frame tests).
    void sendRaw(const std::string &peer, const std::string &bytes);

    // Peer id of the incoming call running on this thread, "" otherwise.
    static std::string currentCaller();
    // Whether that call was posted: its caller waits for no answer, so a
    // long method may set its work going and return.
    static bool currentCallPosted();

    // Heartbeat period and silence after which a peer counts as gone
    // (defaults 2 s and 8 s). Applies to connections made afterwards too.
    void setHeartbeat(std::chrono::milliseconds interval, std::chrono::milliseconds timeout);

private:
    std::shared_ptr<detail::SessionImpl> d;
};

using SessionPtr = boost::shared_ptr<Session>;

} // namespace wz
