// The log listener: a server object fed by this process's log sink, and the
// client proxy over it, in process and across two sessions over TCP.
#include "wait_until.h"

#include <vx/vxproxy.h>

#include <wz/log.h>
#include <wz/log_listener.h>
#include <wz/object_builder.h>
#include <wz/session.h>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace {

const char *const kCat = "test.listener";

// Messages of the test's own categories, in arrival order.
struct Inbox
{
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<wz::LogMessage> messages;

    void add(const wz::LogMessage &m)
    {
        if (m.category.rfind("test.", 0) != 0)
            return;
        std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(m);
        arrived.notify_all();
    }

    // Waits for a message whose text is `marker`; returns the texts received
    // since the last call, marker included.
    std::vector<std::string> until(const std::string &marker)
    {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, test::patience(), [&] {
            for (const auto &m : messages) {
                if (m.message == marker)
                    return true;
            }
            return false;
        });
        std::vector<std::string> out;
        for (const auto &m : messages)
            out.push_back(m.message);
        messages.clear();
        return out;
    }
};

void say(wz::LogLevel level, const std::string &text, const char *category = kCat)
{
    wz::log::LogStream(level, category, __FUNCTION__) << text;
}

enum class Where { InProcess, OverTcp };

class LogListenerTest : public ::testing::TestWithParam<Where>
{
protected:
    void SetUp() override
    {
        previousLevel = wz::log::logLevel();
        wz::log::setLogLevel(wz::LogLevel_Debug);
        wz::log::setStderrEnabled(false);

        wz::DynamicObjectBuilder manager("LogManager");
        manager.advertiseMethod("getListener", []() { return wz::makeLogListenerObject(); });
        wz::Object managerObject = manager.object();
        if (GetParam() == Where::OverTcp) {
            server = boost::make_shared<wz::Session>();
            server->listen(wz::Url("tcp://127.0.0.1:0")).value(10000);
            server->registerService("LogManager", managerObject).value(10000);
            client = boost::make_shared<wz::Session>();
            client->connect(server->endpoints().at(0)).value(10000);
            managerObject = client->service("LogManager").value(10000);
        }
        VX::VXProxy proxy(managerObject, "LogManager");
        listener = proxy.call<boost::shared_ptr<wz::LogListenerProxy>>("getListener");
        ASSERT_TRUE(listener);
        ASSERT_TRUE(listener->object());
        listener->onLogMessage.connect([this](const wz::LogMessage &m) { inbox.add(m); })
            .value(10000);
    }

    void TearDown() override
    {
        listener.reset();
        client.reset();
        server.reset();
        wz::log::setLogLevel(previousLevel);
        wz::log::setStderrEnabled(true);
    }

    wz::LogLevel previousLevel = wz::LogLevel_Warning;
    boost::shared_ptr<wz::Session> server;
    boost::shared_ptr<wz::Session> client;
    boost::shared_ptr<wz::LogListenerProxy> listener;
    Inbox inbox;
};

} // namespace

TEST_P(LogListenerTest, DeliversRecordsWithTheirFields)
{
    say(wz::LogLevel_Warning, "hello from the robot");
    say(wz::LogLevel_Info, "marker");
    inbox.until("marker");
    // until() cleared the list; the fields are checked on a fresh message.
    say(wz::LogLevel_Error, "with fields", "test.fields");
    std::unique_lock<std::mutex> lock(inbox.mutex);
    ASSERT_TRUE(
        inbox.arrived.wait_for(lock, test::patience(), [&] { return !inbox.messages.empty(); }));
    const wz::LogMessage m = inbox.messages.front();
    EXPECT_EQ(m.message, "with fields");
    EXPECT_EQ(m.category, "test.fields");
    EXPECT_EQ(m.level, wz::LogLevel_Error);
    EXPECT_EQ(m.source, "say");
    EXPECT_EQ(m.location, "local");
    EXPECT_GT(m.timestampUs, 0);
    EXPECT_GT(m.id, 0u);
}

TEST_P(LogListenerTest, VerbosityAndFiltersDecideWhatIsSent)
{
    EXPECT_EQ(listener->verbosity.get().value(10000), wz::LogLevel_Info);
    say(wz::LogLevel_Info, "a1");
    say(wz::LogLevel_Debug, "a2 (above verbosity)");
    say(wz::LogLevel_Info, "end a");
    EXPECT_EQ(inbox.until("end a"), (std::vector<std::string> {"a1", "end a"}));

    // A pattern lets debug through for the categories it matches only.
    listener->setCategory("test.*", wz::LogLevel_Debug).value(10000);
    say(wz::LogLevel_Debug, "b1");
    say(wz::LogLevel_Debug, "b2 (other category)", "other.cat");
    say(wz::LogLevel_Info, "end b");
    EXPECT_EQ(inbox.until("end b"), (std::vector<std::string> {"b1", "end b"}));

    // An exact name beats the pattern; a longer pattern beats a shorter one.
    listener->setCategory("test.listener", wz::LogLevel_Error).value(10000);
    listener->setCategory("test.q*", wz::LogLevel_Silent).value(10000);
    say(wz::LogLevel_Warning, "c1 (exact filter says error)");
    say(wz::LogLevel_Error, "c2");
    say(wz::LogLevel_Fatal, "c3 (silenced)", "test.quiet");
    say(wz::LogLevel_Debug, "c4", "test.loud");
    say(wz::LogLevel_Error, "end c");
    EXPECT_EQ(inbox.until("end c"), (std::vector<std::string> {"c2", "c4", "end c"}));

    // "*" is the level of everything, verbosity notwithstanding.
    listener->clearFilters().value(10000);
    listener->setCategory("*", wz::LogLevel_Debug).value(10000);
    say(wz::LogLevel_Debug, "d1");
    say(wz::LogLevel_Info, "end d");
    EXPECT_EQ(inbox.until("end d"), (std::vector<std::string> {"d1", "end d"}));
    EXPECT_EQ(listener->verbosity.get().value(10000), wz::LogLevel_Info);

    listener->clearFilters().value(10000);
    listener->verbosity.set(wz::LogLevel_Warning).value(10000);
    EXPECT_EQ(listener->verbosity.get().value(10000), wz::LogLevel_Warning);
    say(wz::LogLevel_Info, "e1 (below verbosity)");
    say(wz::LogLevel_Warning, "end e");
    EXPECT_EQ(inbox.until("end e"), std::vector<std::string> {"end e"});
}

TEST_P(LogListenerTest, BadSettingsAreRefused)
{
    // A level out of range does not travel.
    EXPECT_THROW(listener->setCategory("x", static_cast<wz::LogLevel>(7)), wz::TypeError);
    // A verbosity of the wrong kind set by some other client: the listener
    // falls back to info and says so, and keeps working.
    listener->object().setProperty("verbosity", std::string("loud")).wait(10000);
    say(wz::LogLevel_Debug, "f1");
    say(wz::LogLevel_Info, "end f");
    EXPECT_EQ(inbox.until("end f"), std::vector<std::string> {"end f"});
}

INSTANTIATE_TEST_SUITE_P(Both, LogListenerTest, ::testing::Values(Where::InProcess, Where::OverTcp),
                         [](const ::testing::TestParamInfo<Where> &info) {
                             return info.param == Where::InProcess ? "InProcess" : "OverTcp";
                         });

TEST(LogListenerProxy, MalformedMessagesAreDroppedWithALogLine)
{
    // A peer that sends something else than a log message on the signal.
    wz::DynamicObjectBuilder b("FakeListener");
    b.advertiseSignal("onLogMessage", 1);
    wz::Object fake = b.object();
    wz::LogListenerProxy proxy(fake);
    std::vector<wz::LogMessage> got;
    std::mutex mutex;
    proxy.onLogMessage
        .connect([&](const wz::LogMessage &m) {
            std::lock_guard<std::mutex> lock(mutex);
            got.push_back(m);
        })
        .value(10000);

    wz::log::LogCapture capture;
    fake->emitSignal("onLogMessage", {wz::AnyValue(12)});
    fake->emitSignal("onLogMessage",
                     {wz::AnyValue(wz::AnyValue::Map {{"message", wz::AnyValue("x")},
                                                      {"level", wz::AnyValue(42)}})});
    fake->emitSignal("onLogMessage",
                     {wz::AnyValue(wz::AnyValue::Map {{"message", wz::AnyValue("fine")}})});
    EXPECT_TRUE(capture.contains("wz.log", "malformed log message dropped: cannot read a Int"));
    EXPECT_TRUE(capture.contains("wz.log", "log level 42 out of range"));
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].message, "fine");
    EXPECT_EQ(got[0].level, wz::LogLevel_Silent);

    // A null listener says so rather than crash.
    wz::LogListenerProxy empty {wz::Object()};
    try {
        empty.clearFilters();
        FAIL() << "no exception";
    } catch (const std::runtime_error &e) {
        EXPECT_STREQ(e.what(), "This object is null");
    }
    EXPECT_THROW(empty.verbosity.get(), std::runtime_error);
    EXPECT_FALSE(wz::fromAny<boost::shared_ptr<wz::LogListenerProxy>>(wz::AnyValue()));
}

TEST(LogListenerProxy, MessageConversionRoundTrip)
{
    wz::LogMessage m;
    m.source = "f";
    m.level = wz::LogLevel_Verbose;
    m.timestampUs = 1700000000123456;
    m.category = "c";
    m.location = "robot";
    m.message = "text\nwith line";
    m.id = 99;
    const wz::LogMessage back = wz::fromAny<wz::LogMessage>(wz::toAny(m));
    EXPECT_EQ(back.source, m.source);
    EXPECT_EQ(back.level, m.level);
    EXPECT_EQ(back.timestampUs, m.timestampUs);
    EXPECT_EQ(back.category, m.category);
    EXPECT_EQ(back.location, m.location);
    EXPECT_EQ(back.message, m.message);
    EXPECT_EQ(back.id, m.id);
    EXPECT_THROW(wz::fromAny<wz::LogLevel>(wz::AnyValue(-1)), wz::TypeError);
    EXPECT_THROW(wz::fromAny<wz::LogLevel>(wz::AnyValue("debug")), wz::TypeError);
    EXPECT_THROW(wz::fromAny<wz::LogMessage>(
                     wz::AnyValue(wz::AnyValue::Map {{"category", wz::AnyValue(3)}})),
                 wz::TypeError);
}
