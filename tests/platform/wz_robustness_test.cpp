// Lost, stalled and hostile peers: nothing in flight is left waiting, only
// the offending connection is closed, and nothing deadlocks.

#include "wz_test_support.h"

#include <wz/detail/decode.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <dirent.h>

#include <atomic>
#include <future>
#include <random>

using wz::AnyValue;
using wztest::errorOf;

namespace {

wz::Object blockingService(std::shared_future<void> gate, std::atomic<int> &started)
{
    wz::DynamicObjectBuilder b("Blocking");
    b.advertiseMethod("hold", [gate, &started]() {
        ++started;
        gate.wait_for(std::chrono::seconds(20));
        return 1;
    });
    b.advertiseMethod("ping", []() { return std::string("pong"); });
    return b.object();
}

class WzRobustness : public wztest::TwoSessions
{
protected:
    void TearDown() override
    {
        release.set_value();
        TwoSessions::TearDown();
    }
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    std::atomic<int> started {0};
};

TEST_F(WzRobustness, PeerDroppedMidCallFailsEveryPendingCallAtOnce)
{
    directory->registerService("Blocking", blockingService(gate, started)).value();
    wz::Object svc = client->service("Blocking").value();
    std::promise<std::string> reason;
    client->disconnected.connect([&](std::string r) { reason.set_value(r); });

    std::vector<wz::Future<int>> calls;
    for (int i = 0; i < 5; ++i)
        calls.push_back(svc.async<int>("hold"));
    ASSERT_TRUE(test::waitUntil([&] { return started == 5; }));
    directory->closeClient(onlyClientId());

    for (auto &f : calls) {
        // Well before the blocked methods could return.
        ASSERT_EQ(f.wait(5000), wz::FutureState_FinishedWithError);
        EXPECT_EQ(f.error(), "disconnected: connection reset by peer");
    }
    auto rf = reason.get_future();
    ASSERT_EQ(rf.wait_for(test::patience()), std::future_status::ready);
    EXPECT_EQ(rf.get(), "disconnected: connection reset by peer");
    EXPECT_EQ(errorOf([&] { svc.call<std::string>("ping"); }),
              "disconnected: connection reset by peer");
    EXPECT_THROW(svc.post("ping"), std::runtime_error);
}

TEST_F(WzRobustness, ClosingTheSessionFailsItsOwnCallsInFlight)
{
    directory->registerService("Blocking", blockingService(gate, started)).value();
    wz::Object svc = client->service("Blocking").value();
    wz::Future<int> f = svc.async<int>("hold");
    ASSERT_TRUE(test::waitUntil([&] { return started == 1; }));
    client.reset(); // destructor closes
    ASSERT_EQ(f.wait(5000), wz::FutureState_FinishedWithError);
    EXPECT_EQ(f.error(), "disconnected: session closed");
}

TEST_F(WzRobustness, StalledPeerIsFoundByTheHeartbeat)
{
    directory->registerService("Blocking", blockingService(gate, started)).value();
    const std::vector<std::string> before = directory->clients();
    auto watched = boost::make_shared<wz::Session>();
    watched->setHeartbeat(std::chrono::milliseconds(50), std::chrono::milliseconds(400));
    ASSERT_FALSE(watched->connect(directory->endpoints()[0]).hasError());
    wz::Object svc = watched->service("Blocking").value();
    EXPECT_EQ(svc.call<std::string>("ping"), "pong");
    std::promise<std::string> reason;
    watched->disconnected.connect([&](std::string r) { reason.set_value(r); });

    directory->stallClient(newClientId(before), true);
    wz::Future<std::string> pending = svc.async<std::string>("ping");
    auto rf = reason.get_future();
    ASSERT_EQ(rf.wait_for(test::patience()), std::future_status::ready);
    EXPECT_EQ(rf.get().rfind("disconnected: no heartbeat", 0), 0u);
    ASSERT_EQ(pending.wait(1000), wz::FutureState_FinishedWithError);
    EXPECT_EQ(pending.error().rfind("disconnected", 0), 0u);
    // The other client was never affected.
    wz::Object other = client->service("Blocking").value();
    EXPECT_EQ(other.call<std::string>("ping"), "pong");
}

TEST_F(WzRobustness, WritesToAStalledPeerNeverBlockAndAreCapped)
{
    std::atomic<int> received {0};
    wz::DynamicObjectBuilder b("Desktop");
    b.advertiseMethod("onEvent", [&](wz::Buffer) { ++received; });
    client->registerService("Desktop", b.object()).value();
    wz::Object desktop = directory->service("Desktop").value();
    const std::string id = onlyClientId();
    std::promise<std::string> reason;
    client->disconnected.connect([&](std::string r) { reason.set_value(r); });

    directory->stallClient(id, true);
    // 64 MiB of events to a peer that reads nothing: every post returns.
    const wz::Buffer mib(std::string(1 << 20, 'e'));
    for (int i = 0; i < 64; ++i)
        desktop.post("onEvent", mib);
    EXPECT_EQ(directory->clients().size(), 1u);
    directory->stallClient(id, false);
    ASSERT_TRUE(test::waitUntil([&] { return received == 64; })) << received;

    // Past the queue cap the peer counts as dead.
    directory->stallClient(id, true);
    for (int i = 0; i < 300 && desktop->isRemote(); ++i) {
        try {
            desktop.post("onEvent", mib);
        } catch (const std::runtime_error &e) {
            EXPECT_EQ(std::string(e.what()).rfind("disconnected", 0), 0u);
            break;
        }
    }
    EXPECT_TRUE(test::waitUntil([&] { return directory->clients().empty(); }));
    EXPECT_TRUE(directory->service("Desktop").hasError());
    auto rf = reason.get_future();
    ASSERT_EQ(rf.wait_for(test::patience()), std::future_status::ready);
    EXPECT_EQ(rf.get().rfind("disconnected", 0), 0u);
}

// A raw TCP peer that writes what it is told and reports how the directory
// answered: closed (as it should be for garbage) or still open.
bool directoryHangsUpOn(const wz::Url &url, const std::string &bytes)
{
    namespace asio = boost::asio;
    asio::io_context io;
    asio::ip::tcp::socket s(io);
    s.connect(asio::ip::tcp::endpoint(asio::ip::make_address(url.host()), url.port()));
    asio::write(s, asio::buffer(bytes));
    timeval tv {10, 0};
    setsockopt(s.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    char buf[4096];
    for (;;) {
        boost::system::error_code ec;
        s.read_some(asio::buffer(buf), ec);
        if (ec == asio::error::eof || ec == asio::error::connection_reset)
            return true;
        if (ec)
            return false; // timed out: the connection stayed open
    }
}

TEST_F(WzRobustness, MalformedFramesCloseOnlyTheOffendingConnection)
{
    using wz::detail::frameForTest;
    directory->registerService("Blocking", blockingService(gate, started)).value();
    wz::Object svc = client->service("Blocking").value();

    std::mt19937 rng(7);
    std::string random(2000, '\0');
    for (char &c : random)
        c = static_cast<char>(rng());
    const std::vector<std::pair<std::string, std::string>> cases {
        {"oversized length", std::string("WZ\x01\x00\x7f\xff\xff\xff", 8)},
        {"deep nesting", frameForTest(std::string(100, '\x91') + '\x90')},
        {"bogus count", frameForTest(std::string("\xdd\x7f\xff\xff\xff\x01\x02", 7))},
        {"unknown kind", frameForTest(std::string("\x92\x63\x00", 3))},
        {"wrong shape", frameForTest(std::string("\x95\x01\x01\xa1x\xa1y\x90", 8))},
        {"random bytes", random},
    };
    for (const auto &c : cases) {
        wz::log::LogCapture capture;
        EXPECT_TRUE(directoryHangsUpOn(directory->endpoints()[0], c.second)) << c.first;
        EXPECT_TRUE(test::waitUntil([&] {
            return capture.contains("wz.transport", "protocol error");
        })) << c.first;
        EXPECT_EQ(svc.call<std::string>("ping"), "pong") << "after " << c.first;
    }
    EXPECT_TRUE(client->isConnected());

    // The same holds the other way: garbage from the directory closes the client's link only.
    const std::vector<std::string> before = directory->clients();
    auto victim = connectClient();
    std::promise<std::string> reason;
    victim->disconnected.connect([&](std::string r) { reason.set_value(r); });
    directory->sendRaw(newClientId(before), frameForTest(std::string("\x92\x63\x00", 3)));
    auto rf = reason.get_future();
    ASSERT_EQ(rf.wait_for(test::patience()), std::future_status::ready);
    EXPECT_EQ(rf.get(), "disconnected: protocol error: unknown message kind 99");
    EXPECT_EQ(svc.call<std::string>("ping"), "pong");
}

TEST_F(WzRobustness, SessionDestroyedFromItsOwnCallbackDoesNotDeadlock)
{
    const std::vector<std::string> before = directory->clients();
    auto doomed = connectClient();
    std::promise<void> done;
    doomed->disconnected.connect([&](std::string) {
        doomed.reset(); // the last reference, on a framework thread, inside the signal
        done.set_value();
    });
    directory->closeClient(newClientId(before));
    ASSERT_EQ(done.get_future().wait_for(test::patience()), std::future_status::ready);
    EXPECT_FALSE(doomed);

    // close() from inside an incoming call on the directory's framework thread.
    auto dir = directory;
    wz::DynamicObjectBuilder b("Closer");
    b.advertiseMethod("closeAll", [dir]() { dir->close(); });
    directory->registerService("Closer", b.object()).value();
    wz::Object closer = client->service("Closer").value();
    wz::Future<void> f = closer.async<void>("closeAll");
    ASSERT_NE(f.wait(5000), wz::FutureState_Running);
    EXPECT_TRUE(test::waitUntil([&] { return !client->isConnected(); }));
}

size_t threadCount()
{
    size_t n = 0;
    if (DIR *d = opendir("/proc/self/task")) {
        while (dirent *e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

TEST_F(WzRobustness, SessionsComeAndGoWithoutLeakingThreads)
{
    directory->registerService("Blocking", blockingService(gate, started)).value();
    auto cycle = [&] {
        auto s = connectClient();
        EXPECT_EQ(s->service("Blocking").value().call<std::string>("ping"), "pong");
        s.reset();
    };
    for (int i = 0; i < 5; ++i)
        cycle();
    const size_t before = threadCount();
    for (int i = 0; i < 40; ++i)
        cycle();
    EXPECT_TRUE(test::waitUntil([&] { return directory->clients().size() == 1; }));
    EXPECT_LE(threadCount(), before + 2);
}

} // namespace
