// Two sessions in one process over loopback: calls, posts, signals,
// properties, object references, the directory.

#include "wz_test_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using wz::AnyValue;
using wztest::errorOf;

namespace {

wz::Object makeEcho(const std::string &name = "Echo")
{
    wz::DynamicObjectBuilder b(name);
    b.advertiseMethod("echo", 1, [](const std::vector<AnyValue> &a) { return a[0]; });
    b.advertiseMethod("add", [](int a, int b) { return a + b; });
    b.advertiseMethod("add", [](int a, int b, int c) { return a + b + c; });
    b.advertiseMethod("fail", [](std::string why) -> int { throw std::runtime_error(why); });
    b.advertiseMethod("caller", []() { return wz::Session::currentCaller(); });
    return b.object();
}

class WzSession : public wztest::TwoSessions
{
};

TEST_F(WzSession, CallsCarryEveryValueKind)
{
    ASSERT_FALSE(directory->registerService("Echo", makeEcho()).hasError());
    wz::Object echo = client->service("Echo").value();
    ASSERT_TRUE(echo->isRemote());

    const std::vector<AnyValue> values {
        AnyValue(),
        AnyValue(true),
        AnyValue(-123456789012LL),
        AnyValue(1.0),
        AnyValue(3.25),
        AnyValue(std::string("utf-8 \xc3\xa9\0 and nul", 17)),
        AnyValue(wz::Buffer(std::string(300000, '\x7f'))), // written by reference
        AnyValue(AnyValue::List {AnyValue(1), AnyValue("two"), AnyValue(AnyValue::List {})}),
        AnyValue(AnyValue::Map {{"source", AnyValue("x")}, {"level", AnyValue(4)}})};
    for (const AnyValue &v : values)
        EXPECT_EQ(echo.call<AnyValue>("echo", v), v) << v.repr();

    // The other way: the directory calls into an object the client registered.
    client->registerService("ClientEcho", makeEcho("ClientEcho")).value();
    wz::Object back = directory->service("ClientEcho").value();
    ASSERT_TRUE(back->isRemote());
    for (const AnyValue &v : values)
        EXPECT_EQ(back.call<AnyValue>("echo", v), v) << v.repr();

    // Typed conversions on both ends.
    const std::vector<std::pair<std::string, float>> pairs {{"a", 1.5f}, {"b", -2.0f}};
    EXPECT_EQ((echo.call<std::vector<std::pair<std::string, float>>>("echo", pairs)), pairs);
    EXPECT_EQ(echo.call<int>("add", 2, 3), 5);
    EXPECT_EQ(echo.async<int>("add", 1, 2, 3).value(), 6);
    EXPECT_NE(errorOf([&] { echo.call<int>("echo", "not a number"); }).find("String to Int"),
              std::string::npos);
}

TEST_F(WzSession, ErrorsUseTheFixedTexts)
{
    directory->registerService("Echo", makeEcho()).value();
    wz::Object echo = client->service("Echo").value();
    EXPECT_EQ(echo.metaObject().findMethod("add").size(), 2u);
    EXPECT_EQ(errorOf([&] { echo.call<int>("add", 1); }),
              "method \"add\" with 1 argument(s) not found on \"Echo\"");
    EXPECT_EQ(errorOf([&] { echo.call<int>("nothing"); }),
              "method \"nothing\" with 0 argument(s) not found on \"Echo\"");
    EXPECT_EQ(errorOf([&] { echo.call<int>("fail", "motor \"3\" overheated"); }),
              "motor \"3\" overheated");
    EXPECT_EQ(client->service("Nobody").error(), "service \"Nobody\" not found");
    EXPECT_EQ(directory->service("Nobody").error(), "service \"Nobody\" not found");
    EXPECT_NE(directory->registerService("Echo", makeEcho()).error().find("already registered"),
              std::string::npos);
    EXPECT_NE(client->registerService("Echo", makeEcho()).error().find("\"Echo\""),
              std::string::npos);
}

TEST_F(WzSession, ServicesListAndUnregister)
{
    const unsigned id = directory->registerService("Echo", makeEcho()).value();
    const unsigned mine = client->registerService("ClientSide", makeEcho()).value();
    auto all = client->services().value();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].name, "Echo");
    EXPECT_EQ(all[0].serviceId, id);
    EXPECT_EQ(all[1].name, "ClientSide");
    auto local = client->services(wz::ServiceLocality_Local).value();
    ASSERT_EQ(local.size(), 1u);
    EXPECT_EQ(local[0].serviceId, mine);

    EXPECT_TRUE(client->unregisterService(id).hasError()) << "not the client's to remove";
    EXPECT_FALSE(client->unregisterService(mine).hasError());
    EXPECT_FALSE(directory->unregisterService(id).hasError());
    EXPECT_TRUE(client->services().value().empty());
}

TEST_F(WzSession, PostsArriveInOrderWithTheCallerId)
{
    std::mutex m;
    std::vector<int> got;
    std::string caller;
    std::vector<bool> posted;
    wz::DynamicObjectBuilder b("Sink");
    b.advertiseMethod("push", [&](int v) {
        std::lock_guard<std::mutex> lock(m);
        got.push_back(v);
        caller = wz::Session::currentCaller();
        posted.push_back(wz::Session::currentCallPosted());
    });
    directory->registerService("Sink", b.object()).value();
    wz::Object sink = client->service("Sink").value();
    for (int i = 0; i < 2000; ++i)
        sink.post("push", i);
    ASSERT_TRUE(test::waitUntil([&] {
        std::lock_guard<std::mutex> lock(m);
        return got.size() == 2000;
    }));
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(got[i], i);
    EXPECT_EQ(caller, directory->clients().at(0));
    EXPECT_EQ(wz::Session::currentCaller(), "");

    // A method is told how it was reached: every post above was, a call is not.
    sink.call<void>("push", -1);
    std::lock_guard<std::mutex> lock(m);
    ASSERT_EQ(posted.size(), 2001u);
    EXPECT_EQ(std::count(posted.begin(), posted.end(), true), 2000);
    EXPECT_FALSE(posted.back());
    EXPECT_FALSE(wz::Session::currentCallPosted());
}

TEST_F(WzSession, SignalsAndPropertiesAcrossTheLink)
{
    wz::DynamicObjectBuilder b("Battery");
    b.advertiseSignal("level", 2);
    b.advertiseProperty("threshold", AnyValue(20));
    wz::Object battery = b.object();
    directory->registerService("Battery", battery).value();
    wz::Object remote = client->service("Battery").value();

    std::mutex m;
    std::vector<std::string> events;
    const wz::SignalLink link = remote
                                    .connect("level",
                                             [&](int percent, const std::string &state) {
                                                 std::lock_guard<std::mutex> lock(m);
                                                 events.push_back(std::to_string(percent) + state);
                                             })
                                    .value();
    for (int i = 0; i < 100; ++i)
        battery->emitSignal("level", {AnyValue(i), AnyValue(i % 2 ? "+" : "-")});
    ASSERT_TRUE(test::waitUntil([&] {
        std::lock_guard<std::mutex> lock(m);
        return events.size() == 100;
    }));
    EXPECT_EQ(events[7], "7+");
    EXPECT_EQ(events[99], "99+");

    remote.disconnect(link).value();
    battery->emitSignal("level", {AnyValue(1000), AnyValue("x")});
    // A later signal to a link made after: once it is here, the one before
    // would have come too.
    std::atomic<bool> marked {false};
    const wz::SignalLink marker = remote
                                      .connect("level",
                                               [&](int percent, const std::string &) {
                                                   if (percent == 1001)
                                                       marked = true;
                                               })
                                      .value();
    battery->emitSignal("level", {AnyValue(1001), AnyValue("x")});
    ASSERT_TRUE(test::waitUntil([&] { return marked.load(); }));
    remote.disconnect(marker).value();
    {
        std::lock_guard<std::mutex> lock(m);
        EXPECT_EQ(events.size(), 100u);
    }
    EXPECT_NE(remote.connect("nothing", [](int) {}).error().find("signal \"nothing\" not found"),
              std::string::npos);

    std::atomic<int> changedTo {0};
    remote.connect("threshold", [&](int v) { changedTo = v; }).value();
    EXPECT_EQ(remote.property<int>("threshold").value(), 20);
    remote.setProperty("threshold", 35).value();
    EXPECT_EQ(battery.property<int>("threshold").value(), 35);
    EXPECT_TRUE(test::waitUntil([&] { return changedTo == 35; }));
    EXPECT_NE(remote.property("voltage").error().find("not found"), std::string::npos);
}

TEST_F(WzSession, ObjectReferencesTravelBothWays)
{
    // A method hands out a new object; the caller gets a working proxy.
    wz::DynamicObjectBuilder mb("LogManager");
    mb.advertiseMethod("getListener", []() {
        wz::DynamicObjectBuilder lb("Listener");
        lb.advertiseMethod("ping", []() { return std::string("pong"); });
        return lb.object();
    });
    // A method takes the caller's object and calls back into it.
    mb.advertiseMethod("callBack", [](wz::Object cb, int v) { return cb.call<int>("twice", v); });
    wz::Object self;
    mb.advertiseMethod("isSelf", [&self](wz::Object o) { return o == self; });
    self = mb.object();
    directory->registerService("LogManager", self).value();

    wz::Object lm = client->service("LogManager").value();
    wz::Object listener = lm.call<wz::Object>("getListener");
    ASSERT_TRUE(listener);
    EXPECT_TRUE(listener->isRemote());
    EXPECT_EQ(listener.call<std::string>("ping"), "pong");

    wz::DynamicObjectBuilder cb("Doubler");
    cb.advertiseMethod("twice", [](int v) { return 2 * v; });
    EXPECT_EQ(lm.call<int>("callBack", cb.object(), 21), 42);
    // The directory's own object comes back to it as itself, not as a proxy.
    EXPECT_TRUE(lm.call<bool>("isSelf", lm));
    EXPECT_EQ(client->service("LogManager").value(), lm) << "one proxy per remote object";
}

TEST_F(WzSession, CancelingARemoteCall)
{
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    std::atomic<int> started {0};
    wz::DynamicObjectBuilder b("Slow");
    b.advertiseMethod("wait", [gate, &started]() {
        ++started;
        gate.wait();
        return 1;
    });
    b.advertiseMethod("quick", []() { return 2; });
    directory->registerService("Slow", b.object()).value();
    wz::Object slow = client->service("Slow").value();

    wz::Future<int> f = slow.async<int>("wait");
    ASSERT_TRUE(test::waitUntil([&] { return started == 1; }));
    f.cancel();
    EXPECT_TRUE(f.isCanceled());
    EXPECT_EQ(errorOf([&] { f.value(); }), "canceled");
    release.set_value();
    EXPECT_EQ(slow.call<int>("quick"), 2) << "the link survives a cancellation";
}

// A thread waiting for its reply reads the link itself, spinning and then
// sleeping on the socket. What else comes meanwhile (a signal here) still
// reaches its subscriber before the reply, and a waiter that gave up hands
// the reading back: a later signal arrives with nobody waiting.
TEST_F(WzSession, WhatComesWhileACallerWaitsIsStillDelivered)
{
    std::promise<void> tickSeen;
    std::shared_future<void> seen = tickSeen.get_future().share();
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    wz::DynamicObjectBuilder b("Slow");
    b.advertiseSignal("tick", 1);
    std::shared_ptr<wz::Object> self = std::make_shared<wz::Object>();
    b.advertiseMethod("tickAndWait", [self, seen](int n) {
        (*self)->emitSignal("tick", {AnyValue(n)});
        return seen.wait_for(std::chrono::seconds(8)) == std::future_status::ready;
    });
    b.advertiseMethod("hold", [gate]() {
        gate.wait_for(std::chrono::seconds(8));
        return 7;
    });
    *self = b.object();
    directory->registerService("Slow", *self).value();
    wz::Object remote = client->service("Slow").value();

    std::atomic<int> last {0};
    remote
        .connect("tick",
                 [&](int n) {
                     last = n;
                     if (n == 1)
                         tickSeen.set_value();
                 })
        .value();
    EXPECT_TRUE(remote.call<bool>("tickAndWait", 1)) << "the tick waited for the reply";

    wz::Future<int> held = remote.async<int>("hold");
    EXPECT_EQ(held.wait(30), wz::FutureState_Running);
    (*self)->emitSignal("tick", {AnyValue(2)});
    EXPECT_TRUE(test::waitUntil([&] { return last == 2; }));
    release.set_value();
    EXPECT_EQ(held.value(), 7);
    self->reset();
}

TEST_F(WzSession, ClientServiceReachedFromTheDirectoryAndRemovedWhenItLeaves)
{
    wz::DynamicObjectBuilder b("Desktop");
    b.advertiseMethod("whoami", []() { return std::string("desktop"); });
    b.advertiseSignal("event", 1);
    wz::Object desktop = b.object();
    client->registerService("Desktop", desktop).value();

    // The directory calls back into the client's object over the same link.
    wz::Object fromDirectory = directory->service("Desktop").value();
    EXPECT_EQ(fromDirectory.call<std::string>("whoami"), "desktop");
    // A second client reaches it through the directory.
    auto other = connectClient();
    wz::Object viaDirectory = other->service("Desktop").value();
    EXPECT_EQ(viaDirectory.call<std::string>("whoami"), "desktop");
    std::atomic<int> relayed {0};
    viaDirectory.connect("event", [&](int v) { relayed = v; }).value();
    desktop->emitSignal("event", {AnyValue(9)});
    EXPECT_TRUE(test::waitUntil([&] { return relayed == 9; }));

    client->close();
    ASSERT_TRUE(test::waitUntil([&] { return directory->service("Desktop").hasError(); }));
    EXPECT_EQ(directory->service("Desktop").error(), "service \"Desktop\" not found");
    EXPECT_EQ(errorOf([&] { fromDirectory.call<std::string>("whoami"); }).rfind("disconnected", 0),
              0u);
    EXPECT_EQ(errorOf([&] { viaDirectory.call<std::string>("whoami"); }).rfind("disconnected", 0),
              0u);

    // The name is free again for the next desktop.
    client = connectClient();
    wz::DynamicObjectBuilder b2("Desktop");
    b2.advertiseMethod("whoami", []() { return std::string("second"); });
    ASSERT_FALSE(client->registerService("Desktop", b2.object()).hasError());
    EXPECT_EQ(directory->service("Desktop").value().call<std::string>("whoami"), "second");
    other->close();
}

TEST_F(WzSession, ConcurrentCallsFromEightThreads)
{
    directory->registerService("Echo", makeEcho()).value();
    wz::Object echo = client->service("Echo").value();
    std::atomic<int> wrong {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                if (echo.call<int>("add", t * 1000, i) != t * 1000 + i)
                    ++wrong;
            }
        });
    }
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(wrong, 0);
}

// Callers waiting on one link while it also carries a stream of signals:
// with replies small and large (over the 64 KiB read buffer), every reply is
// the caller's own and whole, and the signals arrive complete and in order.
TEST_F(WzSession, RepliesAndSignalsSharingALinkKeepTheStreamWhole)
{
    wz::DynamicObjectBuilder b("Mixed");
    b.advertiseSignal("tick", 1);
    b.advertiseMethod("echo", 1, [](const std::vector<AnyValue> &a) { return a[0]; });
    wz::Object mixed = b.object();
    directory->registerService("Mixed", mixed).value();
    wz::Object remote = client->service("Mixed").value();

    std::mutex m;
    std::vector<int> ticks;
    remote
        .connect("tick",
                 [&](int n) {
                     std::lock_guard<std::mutex> lock(m);
                     ticks.push_back(n);
                 })
        .value();
    constexpr int kTicks = 20000;
    std::thread emitter([&] {
        for (int i = 0; i < kTicks; ++i)
            mixed->emitSignal("tick", {AnyValue(i)});
    });

    std::atomic<int> wrong {0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 150; ++i) {
                // Every tenth value is larger than the read buffer.
                const size_t size = i % 10 == 0 ? 200000 + t : 16 + (i % 7);
                const std::string bytes(size, static_cast<char>('a' + (t * 7 + i) % 26));
                const wz::Buffer got = remote.call<wz::Buffer>("echo", wz::Buffer(bytes));
                if (got != wz::Buffer(bytes))
                    ++wrong;
            }
        });
    }
    for (auto &c : callers)
        c.join();
    emitter.join();
    EXPECT_EQ(wrong, 0);
    ASSERT_TRUE(test::waitUntil([&] {
        std::lock_guard<std::mutex> lock(m);
        return ticks.size() >= static_cast<size_t>(kTicks);
    }));
    std::lock_guard<std::mutex> lock(m);
    ASSERT_EQ(ticks.size(), static_cast<size_t>(kTicks));
    for (int i = 0; i < kTicks; ++i)
        ASSERT_EQ(ticks[i], i) << "tick " << i;
}

TEST_F(WzSession, NestedRemoteCallsFromFrameworkThreads)
{
    // The client offers an object; the directory's method calls into it and
    // blocks on the answer, from a framework thread, many at once.
    wz::DynamicObjectBuilder cb("Callback");
    cb.advertiseMethod("square", [](int v) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return v * v;
    });
    client->registerService("Callback", cb.object()).value();
    auto dir = directory;
    wz::DynamicObjectBuilder rb("Relay");
    rb.advertiseMethod("relay", [dir](int v) {
        return dir->service("Callback").value().call<int>("square", v) + 1;
    });
    directory->registerService("Relay", rb.object()).value();
    wz::Object relay = client->service("Relay").value();

    std::vector<wz::Future<int>> futures;
    for (int i = 0; i < 32; ++i)
        futures.push_back(relay.async<int>("relay", i));
    for (int i = 0; i < 32; ++i) {
        ASSERT_EQ(futures[i].wait(20000), wz::FutureState_FinishedWithValue) << futures[i].error();
        EXPECT_EQ(futures[i].value(), i * i + 1);
    }
}

std::string threadName()
{
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST_F(WzSession, DirectMethodsRunWhereTheCallIsReadAndCannotWait)
{
    wz::DynamicObjectBuilder cb("Callback");
    cb.advertiseMethod("square", [](int v) { return v * v; });
    client->registerService("Callback", cb.object()).value();
    auto dir = directory;
    std::atomic<bool> directNow {true};
    wz::DynamicObjectBuilder b("Direct");
    b.advertiseMethod(
        "where", [] { return threadName(); }, wz::MethodFlag_Direct);
    b.advertiseMethod("wherePooled", [] { return threadName(); });
    b.advertiseMethod(
        "whereWhen", 0, [](const std::vector<AnyValue> &) { return AnyValue(threadName()); },
        [&directNow] { return directNow.load(); });
    // A remote call's reply would be read by the very thread that waits.
    b.advertiseMethod(
        "relay", [dir](int v) { return dir->service("Callback").value().call<int>("square", v); },
        wz::MethodFlag_Direct);
    directory->registerService("Direct", b.object()).value();
    wz::Object direct = client->service("Direct").value();

    EXPECT_EQ(direct.call<std::string>("where"), "wz io");
    EXPECT_EQ(direct.call<std::string>("wherePooled"), "wz pool");
    EXPECT_EQ(direct.call<std::string>("whereWhen"), "wz io");
    directNow = false;
    EXPECT_EQ(direct.call<std::string>("whereWhen"), "wz pool");

    // An error at once, not a stalled link: the next call is answered.
    wz::Future<int> relayed = direct.async<int>("relay", 7);
    ASSERT_EQ(relayed.wait(20000), wz::FutureState_FinishedWithError);
    EXPECT_NE(relayed.error().find("a direct method cannot wait"), std::string::npos)
        << relayed.error();
    EXPECT_EQ(direct.call<std::string>("where"), "wz io");
}

TEST_F(WzSession, SessionSignalsReportPeers)
{
    // The directory outlives this body and tells of the fixture's client
    // leaving too, after the body has returned: what it writes to must live
    // as long as its callbacks.
    struct Peers
    {
        std::mutex m;
        std::vector<std::string> joined, left;
    };
    const auto peers = std::make_shared<Peers>();
    std::mutex &m = peers->m;
    std::vector<std::string> &joined = peers->joined;
    std::vector<std::string> &left = peers->left;
    directory->clientConnected.connect([peers](std::string p) {
        std::lock_guard<std::mutex> lock(peers->m);
        peers->joined.push_back(p);
    });
    directory->clientDisconnected.connect([peers](std::string p) {
        std::lock_guard<std::mutex> lock(peers->m);
        peers->left.push_back(p);
    });
    auto second = connectClient();
    EXPECT_EQ(second->url(), directory->endpoints()[0]);
    EXPECT_EQ(directory->url(), directory->endpoints()[0]);
    EXPECT_TRUE(second->isConnected());
    ASSERT_TRUE(test::waitUntil([&] { return directory->clients().size() == 2; }));
    const std::string id = directory->clients().back();
    EXPECT_NE(id.find("127.0.0.1:"), std::string::npos);
    EXPECT_NE(id.find('#'), std::string::npos);

    std::promise<std::string> reason;
    second->disconnected.connect([&](std::string r) { reason.set_value(r); });
    second->close();
    auto rf = reason.get_future();
    ASSERT_EQ(rf.wait_for(test::patience()), std::future_status::ready);
    EXPECT_EQ(rf.get().rfind("disconnected", 0), 0u);
    EXPECT_FALSE(second->isConnected());
    ASSERT_TRUE(test::waitUntil([&] {
        std::lock_guard<std::mutex> lock(m);
        return !left.empty();
    }));
    std::lock_guard<std::mutex> lock(m);
    EXPECT_NE(std::find(joined.begin(), joined.end(), left[0]), joined.end());
}

TEST(WzSessionSetup, ConnectAndListenFailuresAreExplained)
{
    wz::Session s;
    EXPECT_NE(s.connect(wz::Url("tcp://127.0.0.1")).error().find("no port"), std::string::npos);
    EXPECT_NE(s.connect(wz::Url("tcp://robot.example:9559")).error().find("not an IP address"),
              std::string::npos);
    // Port 1 on loopback: nothing listens there in a test environment.
    EXPECT_NE(s.connect(wz::Url("tcp://127.0.0.1:1")).error().find("cannot connect"),
              std::string::npos);
    EXPECT_FALSE(s.isConnected());

    wz::Session a;
    ASSERT_FALSE(a.listen(wz::Url("tcp://127.0.0.1:0")).hasError());
    wz::Session b;
    EXPECT_NE(b.listen(a.endpoints()[0]).error().find("cannot listen"), std::string::npos);
}

// A connect to a peer that never completes the handshake (its accept queue
// is full, so the system drops the SYNs): close() ends it at once, not after
// the system's own connect time-out of minutes.
TEST(WzSessionSetup, CloseEndsAConnectStillUnderWay)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    socklen_t length = sizeof addr;
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &length), 0);
    std::vector<int> fillers;
    for (int i = 0; i < 4; ++i) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        fillers.push_back(fd);
    }
    const auto cleanup = [&] {
        for (int fd : fillers)
            ::close(fd);
        ::close(listener);
    };

    wz::Session s;
    const wz::Future<void> connecting
        = s.connect(wz::Url("tcp://127.0.0.1:" + std::to_string(ntohs(addr.sin_port))));
    if (connecting.wait(300) != wz::FutureState_Running) {
        cleanup();
        GTEST_SKIP() << "the system completed the handshake: " << connecting.error(0);
    }
    s.close();
    EXPECT_NE(connecting.wait(2000), wz::FutureState_Running);
    EXPECT_EQ(connecting.error(0), "disconnected: session closed");
    EXPECT_FALSE(s.isConnected());
    cleanup();
}

} // namespace
