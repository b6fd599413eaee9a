// The simulated robot's "VXMemoryWatcher", called over TCP by plain sessions:
// what the library's tests and benchmarks rely on it for.

#include "robot_fixture.h"

#include <QElapsedTimer>

#include <sim/memory_watcher_service.h>
#include <wz/object.h>
#include <wz/session.h>

#include <boost/make_shared.hpp>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

struct Client
{
    explicit Client(const sim::Robot &robot) : session(boost::make_shared<wz::Session>())
    {
        session->connect(robot.url()).value();
        watcher = session->service("VXMemoryWatcher").value();
    }
    ~Client() { session->close().wait(); }

    // key -> [(stamp in seconds, value)], from one getData.
    std::map<std::string, std::vector<std::pair<double, wz::AnyValue>>> take()
    {
        std::map<std::string, std::vector<std::pair<double, wz::AnyValue>>> out;
        const wz::AnyValue data = watcher.call<wz::AnyValue>("getData");
        for (const wz::AnyValue &entry : data.toList()) {
            auto &history = out[entry.toList().at(0).toStr()];
            for (const wz::AnyValue &s : entry.toList().at(1).toList()) {
                const wz::AnyValue::List &stamp = s.toList().at(0).toList();
                history.emplace_back(double(stamp.at(0).toInt()) + stamp.at(1).toInt() / 1e6,
                                     s.toList().at(1));
            }
        }
        return out;
    }

    boost::shared_ptr<wz::Session> session;
    wz::Object watcher;
};

class MemorySimWatcherTest : public test::RobotTest
{
protected:
    static sim::MemoryWatcherService &service()
    {
        return *robot().serviceAs<sim::MemoryWatcherService>("VXMemoryWatcher");
    }
};

TEST_F(MemorySimWatcherTest, SamplesAtTheSetPeriodForEachClientApart)
{
    robot().scenario().setKey("Sim/a", 1);
    robot().scenario().setKey("Sim/b", "two");
    Client one(robot());
    Client two(robot());
    one.watcher.call<void>("addListeners", std::vector<std::string> {"Sim/a", "Sim/gone"});
    one.watcher.call<void>("setPeriodMs", 20);
    two.watcher.call<void>("addListener", std::string("Sim/b"));
    two.watcher.call<void>("setPeriodMs", 0); // raised to the robot's shortest period

    QElapsedTimer elapsed;
    elapsed.start();
    one.watcher.call<void>("startWatching");
    two.watcher.call<void>("startWatching");
    // Two samples of every key, for each client watching.
    ASSERT_TRUE(test::waitUntil([] {
        for (const std::string &peer : service().clients()) {
            const sim::MemoryWatcherService::ClientState state = service().clientState(peer);
            if (state.watching && state.pendingSamples < 2 * state.listeners.size())
                return false;
        }
        return true;
    }));
    auto first = one.take();
    auto second = two.take();
    const double ms = elapsed.elapsed();

    // Each client sees its own keys only, and reading one leaves the other.
    EXPECT_EQ(first.size(), 2u);
    EXPECT_EQ(second.size(), 1u);
    const auto &a = first.at("Sim/a");
    ASSERT_GE(a.size(), 2u);
    EXPECT_EQ(a.front().second, wz::AnyValue(1));
    // A key that is not in memory is still sampled, as an invalid value.
    EXPECT_EQ(first.at("Sim/gone").size(), a.size());
    EXPECT_FALSE(first.at("Sim/gone").front().second.isValid());
    for (size_t i = 1; i < a.size(); ++i)
        EXPECT_GT(a[i].first, a[i - 1].first);
    // Never more often than the period allows (a slow machine samples less).
    EXPECT_LE(a.size(), ms / 20 + 2);
    EXPECT_LE(second.at("Sim/b").size(), ms / sim::MemoryWatcherService::kMinPeriodMs + 2);
    EXPECT_EQ(second.at("Sim/b").front().second, wz::AnyValue("two"));

    // Taken means gone; stopped means no more samples; listeners stay.
    // Sampling and stopping exclude each other on the robot: what the first
    // read leaves is what came after the stop.
    one.watcher.call<void>("stopWatching");
    one.take();
    const auto after = one.take();
    EXPECT_TRUE(after.at("Sim/a").empty());

    one.watcher.call<void>("removeListener", std::string("Sim/gone"));
    one.watcher.call<void>("removeListeners", std::vector<std::string> {"Sim/none"});
    EXPECT_EQ(one.take().size(), 1u);
    one.watcher.call<void>("removeAllListeners");
    EXPECT_TRUE(one.take().empty());
    EXPECT_THROW(one.watcher.call<void>("addListener", std::string("")), std::exception);

    // A client that leaves takes its state along.
    const std::vector<std::string> before = service().clients();
    two.session->close().wait();
    EXPECT_TRUE(test::waitUntil([&] { return service().clients().size() == before.size() - 1; }));
}

} // namespace
