// The source of the memory watcher is chosen at every operation from the
// proxies the connection offers at that moment. A connection's proxies appear
// as it is built: none on a place holder, "VXMemory" after the first
// readiness test, every service after init().

#include "memory_test_support.h"
#include "robot_fixture.h"

#include "connection_p.h"
#include "memory_executer_p.h"
#include <connection/memory_interface.h>
#include <connection/platform.h>

#include <QMetaObject>

#include <sim/memory_watcher_service.h>

#include <boost/make_shared.hpp>

#include <memory>
#include <set>
#include <string>

namespace {

class MemorySourceTest : public test::RobotTest
{
};

TEST_F(MemorySourceTest, ModulesAppearingBetweenCallsSwitchTheSourceAndKeysStayBehind)
{
    auto *service = robot().serviceAs<sim::MemoryWatcherService>("VXMemoryWatcher");
    robot().scenario().setKey("Switch/a", 1);
    robot().scenario().setKey("Switch/b", 2);

    auto session = boost::make_shared<wz::Session>();
    session->connect(robot().url()).value();
    auto connection = boost::make_shared<RK::Connection>(session.get(), QStringLiteral("127.0.0.1"),
                                                         robotPort(), QStringLiteral("switching"));
    auto memory = std::make_unique<RK::MemoryInterface>(connection);
    test::BatchCollector collector(memory.get());
    test::AnswerReceiver receiver;
    const auto sync = [&memory] {
        QMetaObject::invokeMethod(
            memory->executer(), [] {}, Qt::BlockingQueuedConnection);
    };

    // No proxy at all: nothing is kept, nothing starts, and the answer is no.
    memory->watchKey(QStringLiteral("Switch/a"), 10);
    memory->startWatcher(20, 10);
    memory->isRealTimeSupported(&receiver, "onRealTimeSupported");
    sync();
    EXPECT_TRUE(memory->executer()->localWatchedKeys().isEmpty());
    EXPECT_FALSE(memory->executer()->isGathering());
    ASSERT_TRUE(test::waitUntil([&] { return receiver.answers.size() == 1; }));
    EXPECT_FALSE(receiver.answers.back());

    // "VXMemory" appears: polling, with the keys on the desktop.
    EXPECT_FALSE(connection->isReady());
    ASSERT_TRUE(connection->memory());
    memory->watchKey(QStringLiteral("Switch/a"), 10);
    memory->startWatcher(20, 10);
    ASSERT_TRUE(test::waitUntil([&] { return !collector.samplesOf("Switch/a").isEmpty(); }));
    memory->stopWatcher();
    sync();
    EXPECT_EQ(robot().scenario().callCount("VXMemoryWatcher", "addListener"), 0u);

    // "VXMemoryWatcher" appears: the robot samples, and it never heard of
    // the desktop's key.
    connection->init();
    ASSERT_TRUE(connection->memoryWatcher());
    collector.batches.clear();
    memory->watchKey(QStringLiteral("Switch/b"), 10);
    memory->startWatcher(20, 20);
    memory->isRealTimeSupported(&receiver, "onRealTimeSupported");
    ASSERT_TRUE(test::waitUntil([&] { return collector.samplesOf("Switch/b").size() >= 2; }));
    ASSERT_EQ(receiver.answers.size(), 2u);
    EXPECT_TRUE(receiver.answers.back());
    EXPECT_TRUE(collector.samplesOf("Switch/a").isEmpty());
    const std::vector<std::string> peers = robot().scenario().clients();
    ASSERT_EQ(peers.size(), 1u);
    EXPECT_EQ(service->clientState(peers.front()).listeners, std::set<std::string> {"Switch/b"});
    // The desktop's own key stays where it was, unused.
    sync();
    EXPECT_EQ(memory->executer()->localWatchedKeys().keys(), QStringList {"Switch/a"});
    EXPECT_FALSE(memory->executer()->isSampling());

    memory.reset();
    EXPECT_FALSE(service->clientState(peers.front()).watching);
    connection->destroyInterfaces();
    connection.reset();
    session->close().wait();
}

} // namespace
