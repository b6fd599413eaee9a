// VXProxy and the typed proxies against objects built with the framework's
// DynamicObjectBuilder, both in process and across two sessions over TCP.
#include "wait_until.h"

#include <vx/vxproxies.h>
#include <vx/vxproxy.h>

#include <wz/object_builder.h>
#include <wz/session.h>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <thread>

using VX::VXError;
using VX::VXProxy;
using VX::VXValue;

namespace {

// What the services saw, for the test to wait on.
struct Recorder
{
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<std::string, VXValue>> posts;
    bool releaseSlow = false;
    int slowStarted = 0;

    void add(const std::string &what, const VXValue &v)
    {
        std::lock_guard<std::mutex> lock(mutex);
        posts.emplace_back(what, v);
        changed.notify_all();
    }

    bool waitForPosts(std::size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, test::patience(), [&] { return posts.size() >= n; });
    }
};

wz::Object makeMemory(const std::shared_ptr<Recorder> &rec)
{
    auto keys = std::make_shared<std::pair<std::mutex, std::map<std::string, VXValue>>>();
    wz::DynamicObjectBuilder b("VXMemory");
    b.advertiseMethod("getData", [keys](const std::string &key) {
        std::lock_guard<std::mutex> lock(keys->first);
        auto it = keys->second.find(key);
        if (it == keys->second.end())
            throw std::runtime_error("key \"" + key + "\" not found");
        return it->second;
    });
    b.advertiseMethod("insertData", [keys](const std::string &key, const VXValue &v) {
        std::lock_guard<std::mutex> lock(keys->first);
        keys->second[key] = v;
    });
    b.advertiseMethod("getType", [keys](const std::string &key) {
        std::lock_guard<std::mutex> lock(keys->first);
        return std::string(VXValue::typeName(keys->second.at(key).getType()));
    });
    b.advertiseMethod("getDataList", [keys](const std::string &filter) {
        std::lock_guard<std::mutex> lock(keys->first);
        std::vector<std::string> out;
        for (const auto &k : keys->second) {
            if (k.first.find(filter) != std::string::npos)
                out.push_back(k.first);
        }
        return out;
    });
    b.advertiseMethod("getListData", [keys](const VXValue &names) {
        std::lock_guard<std::mutex> lock(keys->first);
        VXValue out;
        out.arraySetSize(0);
        for (const std::string &n : names.ToStringArray())
            out.arrayPush(keys->second.count(n) ? keys->second[n] : VXValue());
        return out;
    });
    b.advertiseMethod("raiseMicroEvent", [rec](const std::string &name, const VXValue &v) {
        rec->add("raiseMicroEvent " + name, v);
    });
    b.advertiseMethod("version", []() { return std::string("2.1.4.13"); });
    b.advertiseMethod("echo", [](const VXValue &v) { return v; });
    b.advertiseMethod("add", [](int a, int b) { return a + b; });
    b.advertiseMethod("text", []() { return std::string("not a number"); });
    b.advertiseMethod("fail", []() -> int { throw std::runtime_error("the robot is busy"); });
    b.advertiseMethod("record", [rec](const VXValue &v) { rec->add("record", v); });
    b.advertiseMethod("slow", [rec]() {
        std::unique_lock<std::mutex> lock(rec->mutex);
        ++rec->slowStarted;
        rec->changed.notify_all();
        rec->changed.wait_for(lock, std::chrono::seconds(20), [&] { return rec->releaseSlow; });
    });
    return b.object();
}

wz::Object makeMotion(const std::shared_ptr<Recorder> &rec)
{
    wz::DynamicObjectBuilder b("VXMotion");
    b.advertiseMethod("getBodyNames", [](const std::string &chain) {
        if (chain != "Body")
            throw std::runtime_error("unknown chain " + chain);
        return std::vector<std::string> {"HeadYaw", "HeadPitch"};
    });
    b.advertiseMethod("getAngles", [](const VXValue &names, bool useSensors) {
        return std::vector<float> {useSensors ? 0.5f : 0.25f, static_cast<float>(names.getSize())};
    });
    b.advertiseMethod("robotIsWakeUp", []() { return true; });
    b.advertiseMethod("getPosition", [](const std::string &, int space, bool) {
        return std::vector<float> {1, 2, 3, 0, 0, static_cast<float>(space)};
    });
    b.advertiseMethod("angleInterpolationWithSpeed",
                      [rec](const VXValue &names, const VXValue &angles, float speed) {
                          rec->add("angleInterpolationWithSpeed",
                                   VXValue(std::vector<VXValue> {names, angles, speed}));
                      });
    b.advertiseMethod("stiffnessInterpolation",
                      [rec](const VXValue &names, const VXValue &stiffness, const VXValue &time) {
                          rec->add("stiffnessInterpolation",
                                   VXValue(std::vector<VXValue> {names, stiffness, time}));
                      });
    b.advertiseMethod("rest", [rec]() { rec->add("rest", VXValue()); });
    return b.object();
}

std::string errorOf(const std::function<void()> &f)
{
    try {
        f();
    } catch (const VXError &e) {
        return e.what();
    } catch (const std::exception &e) {
        return std::string("not a VXError: ") + e.what();
    }
    return "no exception";
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

enum class Where { InProcess, OverTcp };

// The two services, reached directly or through a client session connected
// to a listening one.
class VXProxyTest : public ::testing::TestWithParam<Where>
{
protected:
    void SetUp() override
    {
        rec = std::make_shared<Recorder>();
        wz::Object memory = makeMemory(rec);
        wz::Object motion = makeMotion(rec);
        if (GetParam() == Where::InProcess) {
            memoryObject = memory;
            motionObject = motion;
            return;
        }
        server = boost::make_shared<wz::Session>();
        server->listen(wz::Url("tcp://127.0.0.1:0")).value(10000);
        server->registerService("VXMemory", memory).value(10000);
        server->registerService("VXMotion", motion).value(10000);
        client = boost::make_shared<wz::Session>();
        client->connect(server->endpoints().at(0)).value(10000);
        memoryObject = client->service("VXMemory").value(10000);
        motionObject = client->service("VXMotion").value(10000);
    }

    void TearDown() override
    {
        {
            std::lock_guard<std::mutex> lock(rec->mutex);
            rec->releaseSlow = true;
        }
        rec->changed.notify_all();
        memoryObject.reset();
        motionObject.reset();
        client.reset();
        server.reset();
    }

    std::shared_ptr<Recorder> rec;
    boost::shared_ptr<wz::Session> server;
    boost::shared_ptr<wz::Session> client;
    wz::Object memoryObject;
    wz::Object motionObject;
};

} // namespace

TEST_P(VXProxyTest, ValuesOfEveryTypeTravelBothWays)
{
    VXProxy proxy(memoryObject, "VXMemory");
    const std::string bytes(300000, '\xab');
    const std::vector<VXValue> values
        = {VXValue(),
           VXValue(true),
           VXValue(-7),
           VXValue(0.1f),
           VXValue(2.0f), // integral floats stay floats
           VXValue("été"),
           VXValue(static_cast<const void *>(bytes.data()), bytes.size()),
           VXValue(std::vector<VXValue> {1, "two", std::vector<VXValue> {3.5f, false}})};
    for (const VXValue &v : values) {
        const VXValue back = proxy.call<VXValue>("echo", v);
        EXPECT_EQ(back, v) << v.toString(2) << " came back as " << back.toString(2);
        EXPECT_EQ(back.getType(), v.getType());
    }
    EXPECT_EQ(proxy.call<int>("add", 2, 40), 42);
    EXPECT_EQ(proxy.call<std::string>("version"), "2.1.4.13");
    proxy.call<void>("insertData", std::string("k"), VXValue(3));
    EXPECT_EQ(proxy.call<int>("getData", "k"), 3);
}

TEST_P(VXProxyTest, EveryFailureIsAVXErrorThatSaysWhich)
{
    VXProxy proxy(memoryObject, "VXMemory");

    const std::string unknown = errorOf([&] { proxy.call<void>("nope"); });
    EXPECT_TRUE(contains(unknown,
                         "VXMemory.nope: unknown method: "
                         "method \"nope\" with 0 argument(s) not found"))
        << unknown;

    const std::string arity = errorOf([&] { proxy.call<int>("add", 1); });
    EXPECT_TRUE(
        contains(arity, "VXMemory.add: argument mismatch (add takes 2 argument(s), given 1)"))
        << arity;
    EXPECT_TRUE(contains(arity, "not found")) << arity; // the framework's own text follows

    const std::string type = errorOf([&] { proxy.call<int>("add", "one", 2); });
    EXPECT_TRUE(contains(type, "VXMemory.add: argument mismatch: cannot convert String to Int"))
        << type;

    const std::string remote = errorOf([&] { proxy.call<int>("fail"); });
    EXPECT_EQ(remote, "VXMemory.fail: remote exception: the robot is busy");

    const std::string missingKey = errorOf([&] { proxy.call<VXValue>("getData", "absent"); });
    EXPECT_EQ(missingKey, "VXMemory.getData: remote exception: key \"absent\" not found");

    const std::string result = errorOf([&] { proxy.call<int>("text"); });
    EXPECT_TRUE(contains(result, "VXMemory.text: bad result: cannot convert String to Int"))
        << result;
    EXPECT_TRUE(contains(result, "\"not a number\"")) << result;

    // An integer the value cannot hold is refused before anything is sent.
    const std::string argument
        = errorOf([&] { proxy.call<VXValue>("echo", std::numeric_limits<uint64_t>::max()); });
    EXPECT_TRUE(contains(argument, "VXMemory.echo: argument mismatch: argument 1: cannot convert"))
        << argument;

    EXPECT_THROW(VXProxy(wz::Object(), "VXGhost"), VXError);
}

TEST_P(VXProxyTest, DestroyedProxyRefusesCallsAndPosts)
{
    auto proxy = boost::make_shared<VXProxy>(memoryObject, "VXMemory");
    VX::VXMemoryProxy memory(proxy);
    EXPECT_EQ(memory.version(), "2.1.4.13");
    EXPECT_EQ(memory.getGenericProxy(), proxy);
    EXPECT_TRUE(proxy->object());

    proxy->destroyConnection();
    EXPECT_TRUE(proxy->isDestroyed());
    EXPECT_FALSE(proxy->object());
    EXPECT_EQ(errorOf([&] { memory.version(); }), "proxy to VXMemory was destroyed");
    EXPECT_EQ(errorOf([&] { proxy->pCall("record", VXValue(1)); }),
              "proxy to VXMemory was destroyed");
    proxy->destroyConnection(); // twice is harmless
    EXPECT_THROW(VX::VXMemoryProxy(boost::shared_ptr<VXProxy>()), VXError);
}

TEST_P(VXProxyTest, PostedCallsArriveInOrderWithoutAReply)
{
    VXProxy proxy(memoryObject, "VXMemory");
    for (int i = 0; i < 50; ++i)
        proxy.pCall("record", VXValue(i));
    ASSERT_TRUE(rec->waitForPosts(50));
    std::lock_guard<std::mutex> lock(rec->mutex);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(rec->posts[static_cast<std::size_t>(i)].second.toInt(), i);
}

TEST_P(VXProxyTest, TypedProxiesCallByName)
{
    auto memoryGeneric = boost::make_shared<VXProxy>(memoryObject, "VXMemory");
    VX::VXMemoryProxy memory(memoryGeneric);
    memory.insertData("MorvaneReady", true);
    memory.insertData("Device/Joints", std::vector<float> {0.5f, 1.5f});
    EXPECT_TRUE(memory.getData("MorvaneReady").toBool());
    EXPECT_EQ(memory.getType("Device/Joints"), "array");
    EXPECT_EQ(memory.getDataList("Device"), std::vector<std::string> {"Device/Joints"});
    const VXValue list = memory.getListData(std::vector<std::string> {"MorvaneReady", "none"});
    ASSERT_EQ(list.getSize(), 2);
    EXPECT_TRUE(list[0].toBool());
    EXPECT_FALSE(list[1].isValid());
    memory.raiseMicroEvent("SartelConnectionTest", 0);
    ASSERT_TRUE(rec->waitForPosts(1));
    EXPECT_EQ(rec->posts[0].first, "raiseMicroEvent SartelConnectionTest");
    // A method the service lacks: the typed proxy fails as the generic one.
    EXPECT_TRUE(contains(errorOf([&] { memory.removeMicroEvent("x"); }), "unknown method"));

    VX::VXMotionProxy motion(boost::make_shared<VXProxy>(motionObject, "VXMotion"));
    EXPECT_EQ(motion.getBodyNames("Body"), (std::vector<std::string> {"HeadYaw", "HeadPitch"}));
    EXPECT_EQ(motion.getAngles(VXValue("Body"), true), (std::vector<float> {0.5f, 4.0f}));
    EXPECT_TRUE(motion.robotIsWakeUp());
    EXPECT_EQ(motion.getPosition("Torso", 1, true).back(), 1.0f);
    EXPECT_TRUE(contains(errorOf([&] { motion.getBodyNames("Legs"); }), "unknown chain Legs"));

    motion.post.angleInterpolationWithSpeed(std::vector<std::string> {"HeadYaw"},
                                            std::vector<float> {0.3f}, 0.2f);
    motion.post.stiffnessInterpolation("Body", 0.0f, 0.2f);
    motion.post.rest();
    ASSERT_TRUE(rec->waitForPosts(4));
    std::lock_guard<std::mutex> lock(rec->mutex);
    EXPECT_EQ(rec->posts[1].first, "angleInterpolationWithSpeed");
    EXPECT_EQ(rec->posts[1].second.toString(1), "[[\"HeadYaw\"], [0.3], 0.2]");
    EXPECT_EQ(rec->posts[2].second.toString(2), "[string \"Body\", float 0.0, float 0.2]");
    EXPECT_EQ(rec->posts[3].first, "rest");
}

TEST_P(VXProxyTest, ConcurrentCallsAndADestroyRacingThem)
{
    auto proxy = boost::make_shared<VXProxy>(memoryObject, "VXMemory");
    std::atomic<int> ok {0}, destroyed {0}, other {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) {
                try {
                    if (proxy->call<int>("add", t, i) == t + i)
                        ++ok;
                } catch (const VXError &e) {
                    if (std::string(e.what()) == "proxy to VXMemory was destroyed")
                        ++destroyed;
                    else
                        ++other;
                }
            }
        });
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (ok.load() < 50 && other.load() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    proxy->destroyConnection();
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(other.load(), 0);
    EXPECT_EQ(ok.load() + destroyed.load(), 600);
    EXPECT_GE(ok.load(), 50);
}

INSTANTIATE_TEST_SUITE_P(Both, VXProxyTest, ::testing::Values(Where::InProcess, Where::OverTcp),
                         [](const ::testing::TestParamInfo<Where> &info) {
                             return info.param == Where::InProcess ? "InProcess" : "OverTcp";
                         });

// Only a real connection can be lost.
TEST(VXProxyOverTcp, ALostConnectionFailsCallsInFlightAndLater)
{
    auto rec = std::make_shared<Recorder>();
    auto server = boost::make_shared<wz::Session>();
    server->listen(wz::Url("tcp://127.0.0.1:0")).value(10000);
    server->registerService("VXMemory", makeMemory(rec)).value(10000);
    auto client = boost::make_shared<wz::Session>();
    client->connect(server->endpoints().at(0)).value(10000);
    VXProxy proxy(client->service("VXMemory").value(10000), "VXMemory");

    std::future<std::string> inFlight = std::async(
        std::launch::async, [&] { return errorOf([&] { proxy.call<void>("slow"); }); });
    {
        std::unique_lock<std::mutex> lock(rec->mutex);
        ASSERT_TRUE(
            rec->changed.wait_for(lock, test::patience(), [&] { return rec->slowStarted > 0; }));
    }
    server->close().wait(10000);

    const std::string lost = inFlight.get();
    EXPECT_TRUE(contains(lost, "VXMemory.slow: connection lost: disconnected")) << lost;
    const std::string later = errorOf([&] { proxy.call<std::string>("version"); });
    EXPECT_TRUE(contains(later, "VXMemory.version: connection lost: disconnected")) << later;
    const std::string posted = errorOf([&] { proxy.pCall("record", VXValue(1)); });
    EXPECT_TRUE(contains(posted, "VXMemory.record: connection lost: disconnected")) << posted;

    {
        std::lock_guard<std::mutex> lock(rec->mutex);
        rec->releaseSlow = true;
    }
    rec->changed.notify_all();
}
