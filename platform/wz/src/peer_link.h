#pragma once

// One TCP link to a peer and the objects reached over it. Its code is spread
// by concern: peer_link.cpp (life and closing), peer_link_framing.cpp (bytes
// and frames), peer_link_dispatch.cpp (incoming messages, serving local
// objects), peer_link_calls.cpp (requests in flight, remote objects),
// peer_link_heartbeat.cpp; io_runtime.cpp holds the I/O threads.

#include "runtime.h"
#include "wire.h"

#include <wz/future.h>
#include <wz/object.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace wz {
namespace detail {

// The process-wide I/O threads. They read, decode, write and complete
// futures; they never run user code.
class IoRuntime
{
public:
    static IoRuntime &instance();
    boost::asio::io_context &context() { return m_io; }

    static constexpr int kIoThreads = 1;

    // This process answered a call: its I/O thread then polls a little
    // before it sleeps (Waker::ioSpinUs()), for the caller's next request.
    void noteAnswered() { m_answered.fetch_add(1, std::memory_order_relaxed); }

private:
    IoRuntime();
    void runLoop();
    boost::asio::io_context m_io {kIoThreads};
    std::atomic<uint64_t> m_answered {0};
    std::unique_ptr<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>>
        m_work;
};

class PeerLink;
class SessionImpl;

// Sets the caller id seen by Session::currentCaller(), and whether the call
// was posted (Session::currentCallPosted()), for one task.
class CallerScope
{
public:
    explicit CallerScope(const std::string &peer, bool posted = false);
    ~CallerScope();

private:
    std::string m_previous;
    bool m_previousPosted;
};

// Called with the outcome of a request: ok and the value, or the error text.
using Done = std::function<void(bool ok, const AnyValue &value, const std::string &error)>;

class PeerLink : public std::enable_shared_from_this<PeerLink>, public ObjectCodec
{
public:
    struct Heartbeat
    {
        std::chrono::milliseconds interval {2000};
        std::chrono::milliseconds timeout {8000};
    };

    PeerLink(std::weak_ptr<SessionImpl> session, boost::asio::ip::tcp::socket socket,
             std::string peerId, Heartbeat heartbeat);
    ~PeerLink() override;

    // On the I/O thread: starts reading and the heartbeat.
    void start();

    const std::string &peerId() const { return m_peerId; }
    bool isOpen() const { return m_open.load(); }
    std::string closeReason() const;

    // Fire and forget; false when the link is gone (or the message could not be encoded).
    bool send(const Message &msg);
    // A request expecting a Reply or Error; `done` runs on the completing
    // thread (usually the I/O thread) and must not block.
    uint64_t request(Message msg, Done done);
    // Forgets the request and tells the peer.
    void cancelRequest(uint64_t id);
    // A call as a future, cancelable. A thread that waits for it reads the
    // reply itself, spinning and then sleeping on the socket
    // (pollFromCaller), so a small call needs no wake of the I/O thread on
    // the caller's side.
    Future<AnyValue> call(Message msg);
    // From a thread waiting for one of this link's replies: reads what the
    // socket holds now, without waiting. Replies with nothing unhandled
    // before them are completed on this thread; anything else goes to the
    // I/O thread in stream order. True when it read something.
    bool pollFromCaller();
    // From a thread about to wait for one of this link's replies (+1) and
    // after its wait (-1): meanwhile the I/O thread is not woken for bytes
    // that the caller reads itself.
    void countCallerPolls(int delta);
    // The socket, for such a caller to sleep on; -1 once the link closed.
    int callerDescriptor() const;

    enum class CloseMode { Graceful, Quiet, Reset };
    // Thread-safe, idempotent, never waits. Fails every request in flight
    // with `reason`.
    void close(const std::string &reason, CloseMode mode = CloseMode::Quiet);
    // Fails the requests waiting for an answer; the link stays open.
    void failPending(const std::string &reason);

    void setStalled(bool stalled);
    void sendRaw(const std::string &bytes);
    void setHeartbeat(Heartbeat heartbeat);

    // Signal subscriptions held by remote proxies over this link.
    void addHeldSubscription(uint64_t link, uint64_t objectId,
                             boost::shared_ptr<GenericObject> proxy, GenericCallback cb);
    void removeHeldSubscription(uint64_t link);
    void forgetImport(uint64_t id, const GenericObject *proxy, uint64_t received);

    // ObjectCodec
    bool peerObjectId(const GenericObject &obj, uint64_t &id) override;
    uint64_t exportObject(const boost::shared_ptr<GenericObject> &obj) override;
    AnyValue importObject(uint64_t id, MetaObject meta) override;
    AnyValue ownObject(uint64_t id) override;

private:
    struct Queued
    {
        std::shared_ptr<FrameBuffer> frame; // or raw bytes
        std::string raw;
        size_t offset = 0;
        size_t size() const { return frame ? frame->size() : raw.size(); }
    };
    struct Export
    {
        boost::shared_ptr<GenericObject> object;
        uint64_t count = 0;
    };
    struct Import
    {
        boost::weak_ptr<GenericObject> proxy;
        const GenericObject *raw = nullptr;
    };
    struct Served
    {
        boost::shared_ptr<GenericObject> object;
        uint64_t objectId = 0;
        SignalLink localLink = 0;
    };
    struct Held
    {
        uint64_t objectId = 0;
        boost::shared_ptr<GenericObject> proxy;
        GenericCallback callback;
    };

    // Writing: direct from the caller when the socket takes the bytes, else
    // queued for the I/O thread. Returns false when the link is gone.
    bool write(std::shared_ptr<FrameBuffer> frame, std::string raw);
    bool flushLocked(std::string &error);
    void scheduleFlush();
    void onWritable();

    // Readiness. The socket is in no reactor: the link keeps it in an epoll
    // set of its own, one-shot, which the I/O thread watches through
    // m_poller. So what that thread is woken for is the link's choice, and
    // above all not a reply that a waiting caller reads itself (three
    // threads would then run for one call where two suffice).
    // Any thread; with m_watchMutex: tells the kernel what is wanted now.
    void updateWatchLocked();
    void awaitReadable(bool alone);
    // I/O thread: the wait for m_poller, and what it reports.
    void awaitReady();
    void onReady(const boost::system::error_code &ec);
    void collectReady();

    // Reading, on the I/O thread: readSome() asks for readability and then
    // pumps, so that bytes landing after the pump's last read wake it.
    void readSome();
    void onReadable();
    void pump();
    void readLargeFrame(size_t bodySize);
    void continueLargeFrame();
    void drainInbox();
    // With m_readMutex held, by either reader.
    size_t readOnceLocked();
    size_t cutFramesLocked();
    void decodeFrameLocked(const std::shared_ptr<const void> &owner, const char *body, size_t size);
    void handleFrame(Message &msg);
    void dispatch(Message &msg);
    void armHeartbeat();
    void onHeartbeat();
    void protocolError(const std::string &why);
    void failRead(const boost::system::error_code &ec);

    boost::shared_ptr<GenericObject> findExport(uint64_t id);
    void sendResult(uint64_t id, const Future<AnyValue> &f);
    void sendError(uint64_t id, const std::string &text);
    std::shared_ptr<SerialQueue> queueFor(std::map<uint64_t, std::shared_ptr<SerialQueue>> &m,
                                          uint64_t id);
    void serveCall(Message &msg, boost::shared_ptr<GenericObject> obj);
    void serveSubscribe(Message &msg, boost::shared_ptr<GenericObject> obj);
    void releaseExport(uint64_t id, uint64_t count);

    std::weak_ptr<SessionImpl> m_session;
    const int m_fd;
    const std::string m_peerId;
    // Every socket operation and handler of this connection runs in it.
    boost::asio::strand<boost::asio::io_context::executor_type> m_strand;
    boost::asio::steady_timer m_timer;
    boost::asio::posix::stream_descriptor m_poller;
    std::string m_watchFailure; // set once, by the constructor

    // What is wanted of the socket, and what the kernel was last told (0
    // after a one-shot report). Any thread, with m_watchMutex.
    std::mutex m_watchMutex;
    int m_pollFd = -1;
    bool m_watchClosed = false; // set as the link closes both descriptors
    bool m_wantRead = false;
    bool m_readAlone = false; // a large frame: callers do not read it
    bool m_wantWrite = false;
    int m_callerPolls = 0;
    uint32_t m_watched = 0;
    bool m_readyAwaited = false; // I/O thread only

    std::atomic<bool> m_open {true};
    std::atomic<bool> m_stalled {false};
    std::atomic<int64_t> m_lastReceived;
    std::atomic<int64_t> m_lastSent;
    std::atomic<int64_t> m_intervalMs;
    std::atomic<int64_t> m_timeoutMs;

    // Write side.
    std::mutex m_writeMutex;
    bool m_closed = false;
    bool m_flushScheduled = false;
    std::deque<Queued> m_queue;
    size_t m_queuedBytes = 0;

    // Read side. The I/O thread reads when the socket turns readable, and a
    // caller spinning for its reply may read too; both take m_readMutex, and
    // decode under it, so bytes and frames keep the stream's order. Decoded
    // messages wait in m_inbox for the I/O thread, in that order.
    std::mutex m_readMutex;
    std::unique_ptr<char[]> m_rx;
    size_t m_rxBegin = 0;
    size_t m_rxEnd = 0;
    bool m_largeReading = false; // a large frame is read into its own buffer
    std::deque<Message> m_inbox;
    boost::system::error_code m_readFailure; // the first, whoever read it
    std::string m_protocolFailure;
    struct LargeFrame
    {
        std::shared_ptr<char[]> frame;
        size_t body = 0;
        size_t filled = 0;
    };
    std::unique_ptr<LargeFrame> m_large; // I/O thread only

    // Objects and requests.
    mutable std::mutex m_mutex;
    std::string m_reason;
    uint64_t m_nextRequest = 1;
    std::map<uint64_t, Done> m_pending;
    std::map<uint64_t, Future<AnyValue>> m_incoming;
    std::map<uint64_t, Export> m_exports;
    std::map<uint64_t, Import> m_imports;
    std::map<uint64_t, Served> m_served;
    std::map<uint64_t, Held> m_held;
    std::map<uint64_t, std::shared_ptr<SerialQueue>> m_postQueues;
    std::map<uint64_t, std::shared_ptr<SerialQueue>> m_emitQueues;
};

} // namespace detail
} // namespace wz
