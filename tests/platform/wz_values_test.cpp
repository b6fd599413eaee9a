// Values, futures, signals, local objects, URLs and the wire codec, without a network.

#include "wait_until.h"

#include <wz/detail/decode.h>
#include <wz/wz.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

using wz::AnyValue;

namespace {

TEST(WzAnyValue, ConversionsAndMismatchTexts)
{
    EXPECT_EQ(AnyValue(42).toInt(), 42);
    EXPECT_DOUBLE_EQ(AnyValue(42).toDouble(), 42.0); // Int accepted as a float
    EXPECT_DOUBLE_EQ(AnyValue(1.5f).toDouble(), 1.5);
    EXPECT_EQ(AnyValue("x").toStr(), "x");
    EXPECT_TRUE(AnyValue(true).toBool());
    EXPECT_FALSE(AnyValue().isValid());

    try {
        AnyValue("text").toInt();
        FAIL() << "no TypeError";
    } catch (const wz::TypeError &e) {
        EXPECT_STREQ(e.what(), "cannot convert String to Int");
    }
    EXPECT_THROW(AnyValue(1.5).toInt(), wz::TypeError);
    EXPECT_THROW(AnyValue(1).toBool(), wz::TypeError);
    EXPECT_THROW(AnyValue(1).toObject(), wz::TypeError);
    EXPECT_THROW(AnyValue(uint64_t(1) << 63), wz::TypeError);
    EXPECT_EQ(AnyValue(std::numeric_limits<int64_t>::min()).toInt(),
              std::numeric_limits<int64_t>::min());

    AnyValue rec(AnyValue::Map {{"name", AnyValue("a")}, {"n", AnyValue(3)}});
    ASSERT_NE(rec.find("n"), nullptr);
    EXPECT_EQ(rec.find("n")->toInt(), 3);
    EXPECT_EQ(rec.find("missing"), nullptr);
    EXPECT_EQ(AnyValue(3).find("n"), nullptr);
}

TEST(WzAnyValue, ReprIsStableAndReadable)
{
    AnyValue v(AnyValue::List {AnyValue(1), AnyValue("a\"b"), AnyValue(2.0), AnyValue(true),
                               AnyValue(), AnyValue(wz::Buffer(std::string(5, 'x'))),
                               AnyValue(AnyValue::Map {{"k", AnyValue(AnyValue::List {})}})});
    EXPECT_EQ(v.repr(), "[1, \"a\\\"b\", 2.0, true, <invalid>, <binary 5 bytes>, {\"k\": []}]");
}

TEST(WzAnyValue, EqualityAndSharedBuffers)
{
    wz::Buffer big(std::string(1 << 20, 'z'));
    AnyValue a(big);
    AnyValue b = a;
    EXPECT_EQ(a.toBinary().data(), b.toBinary().data()) << "copies must share the bytes";
    EXPECT_EQ(a, AnyValue(wz::Buffer(std::string(1 << 20, 'z'))));
    EXPECT_NE(AnyValue(1), AnyValue(1.0));
    EXPECT_NE(AnyValue(AnyValue::List {AnyValue(1)}), AnyValue(AnyValue::List {AnyValue(2)}));
}

TEST(WzTypeConverter, RangeChecksAndContainers)
{
    EXPECT_EQ(wz::fromAny<int8_t>(AnyValue(-128)), -128);
    EXPECT_THROW(wz::fromAny<int8_t>(AnyValue(128)), wz::TypeError);
    EXPECT_THROW(wz::fromAny<unsigned>(AnyValue(-1)), wz::TypeError);
    EXPECT_THROW(wz::fromAny<uint16_t>(AnyValue(70000)), wz::TypeError);
    EXPECT_THROW(wz::toAny(std::numeric_limits<uint64_t>::max()), wz::TypeError);
    EXPECT_FLOAT_EQ(wz::fromAny<float>(AnyValue(3)), 3.0f);

    std::map<std::string, std::vector<std::pair<int, std::string>>> m {{"a", {{1, "x"}, {2, "y"}}},
                                                                       {"b", {}}};
    EXPECT_EQ((wz::fromAny<decltype(m)>(wz::toAny(m))), m);

    try {
        wz::fromAny<std::pair<int, int>>(AnyValue(AnyValue::List {AnyValue(1)}));
        FAIL();
    } catch (const wz::TypeError &e) {
        EXPECT_NE(std::string(e.what()).find("pair"), std::string::npos);
    }
    EXPECT_THROW(wz::fromAny<std::vector<int>>(AnyValue(AnyValue::List {AnyValue("s")})),
                 wz::TypeError);
}

TEST(WzFuture, ValueErrorCancelAndBrokenPromise)
{
    wz::Promise<int> p;
    wz::Future<int> f = p.future();
    EXPECT_TRUE(f.isRunning());
    EXPECT_EQ(f.wait(10), wz::FutureState_Running);
    try {
        f.value(10);
        FAIL();
    } catch (const wz::FutureError &e) {
        EXPECT_NE(std::string(e.what()).find("timeout"), std::string::npos);
    }
    p.setValue(5);
    p.setError("too late"); // the first result wins
    EXPECT_EQ(f.value(), 5);
    EXPECT_FALSE(f.hasError());

    wz::Future<void> failed = wz::makeFutureError<void>("boom");
    EXPECT_TRUE(failed.hasError());
    try {
        failed.value();
        FAIL();
    } catch (const wz::FutureError &e) {
        EXPECT_STREQ(e.what(), "boom");
    }

    wz::Promise<std::string> c;
    wz::Future<std::string> cf = c.future();
    cf.cancel();
    EXPECT_TRUE(cf.isCanceled());
    EXPECT_EQ(cf.error(), "canceled");
    EXPECT_THROW(cf.value(), wz::FutureError);

    wz::Future<int> orphan;
    {
        wz::Promise<int> gone;
        orphan = gone.future();
    }
    EXPECT_TRUE(orphan.hasError());
    EXPECT_FALSE(wz::Future<int>().isValid());
    EXPECT_THROW(wz::Future<int>().value(), wz::FutureError);
}

// A waiter spins a little before it sleeps, and a framework thread waiting
// for work does too. A result that comes before the wait, during the spin or
// after the waiter fell asleep must each wake it, whatever the waits before
// taught the spin; a lost wake shows as a timeout here.
TEST(WzFuture, EveryHandOverWakesItsWaiter)
{
    using Clock = std::chrono::steady_clock;
    std::mt19937 rng(17);
    const int delaysUs[] = {0, 3, 30, 120, 600};
    for (int i = 0; i < 1500; ++i) {
        const int delay = delaysUs[rng() % 5];
        wz::Promise<int> p;
        wz::Future<int> f = p.future();
        wz::detail::runOnFrameworkThread([p, delay, i]() mutable {
            const auto until = Clock::now() + std::chrono::microseconds(delay);
            while (Clock::now() < until) { }
            p.setValue(i);
        });
        ASSERT_EQ(f.wait(5000), wz::FutureState_FinishedWithValue) << "round " << i;
        ASSERT_EQ(f.value(), i);
    }

    // Tasks posted from several threads at once all run, however the
    // workers were waiting.
    std::atomic<int> ran {0};
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&ran] {
            for (int i = 0; i < 50; ++i)
                wz::detail::runOnFrameworkThread([&ran] { ++ran; });
        });
    }
    for (auto &t : posters)
        t.join();
    EXPECT_TRUE(test::waitUntil([&ran] { return ran.load() == 200; })) << ran.load();

    // A time limit still ends a wait that nothing answers.
    wz::Promise<int> never;
    const auto t0 = Clock::now();
    EXPECT_EQ(never.future().wait(30), wz::FutureState_Running);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(30));

    // ... and a wake that comes just as a sleeping waiter gave up (one that
    // may stay in its pipe) neither ends the next wait early nor is lost.
    for (int i = 0; i < 50; ++i) {
        wz::Promise<int> late;
        wz::detail::runOnFrameworkThread([late]() mutable {
            std::this_thread::sleep_for(std::chrono::microseconds(900));
            late.setValue(1);
        });
        late.future().wait(1);
        wz::Promise<int> next;
        wz::Future<int> f = next.future();
        wz::detail::runOnFrameworkThread([next]() mutable {
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            next.setValue(2);
        });
        ASSERT_EQ(f.wait(5000), wz::FutureState_FinishedWithValue) << "round " << i;
        EXPECT_EQ(f.value(), 2);
    }
}

TEST(WzFuture, CancelHandlerDecides)
{
    std::atomic<int> asked {0};
    wz::Promise<int> p([&](wz::Promise<int> &self) {
        ++asked;
        self.setValue(-1); // the producer may still answer
    });
    wz::Future<int> f = p.future();
    f.cancel();
    f.cancel();
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(f.value(), -1);
}

TEST(WzFuture, ContinuationsRunOnFrameworkThreads)
{
    wz::Promise<int> p;
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> otherThread {false};
    wz::Future<std::string> chained = p.future().then([&](const wz::Future<int> &f) {
        otherThread = std::this_thread::get_id() != caller;
        return std::to_string(f.value() * 2);
    });
    wz::Future<void> thrown = chained.then([](const wz::Future<std::string> &) -> void {
        throw std::runtime_error("continuation failed");
    });
    p.setValue(21);
    EXPECT_EQ(chained.value(), "42");
    EXPECT_TRUE(otherThread);
    EXPECT_EQ(thrown.error(), "continuation failed");

    // Canceling the derived future cancels the source.
    wz::Promise<int> src;
    wz::Future<int> srcf = src.future();
    auto derived = srcf.then([](const wz::Future<int> &f) { return f.value(); });
    derived.cancel();
    EXPECT_TRUE(srcf.isCanceled());
    EXPECT_EQ(derived.wait(5000), wz::FutureState_FinishedWithError);

    std::atomic<int> called {0};
    wz::makeReadyFuture(1).connect([&](const wz::Future<int> &) { ++called; });
    for (int i = 0; i < 500 && called == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(called, 1);
}

TEST(WzFuture, FutureSyncWaitsOnDestruction)
{
    std::atomic<bool> done {false};
    wz::Promise<void> p;
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        done = true;
        p.setValue();
    });
    {
        wz::FutureSync<void> sync = p.future();
    }
    EXPECT_TRUE(done);
    producer.join();
}

struct Sensor
{
    int scale(int v, int by) const { return v * by; }
    void fail() { throw std::runtime_error("sensor jammed"); }
    std::string name() { return "s1"; }
    wz::Signal<int, std::string> reading;
    wz::Property<double> gain {1.0};
};

TEST(WzSignal, CallbacksRunAndFailuresAreIsolated)
{
    wz::Signal<int> sig;
    std::vector<int> got;
    wz::log::LogCapture capture;
    sig.connect([](int) { throw std::runtime_error("subscriber broke"); });
    const wz::SignalLink link = sig.connect([&](int v) { got.push_back(v); });
    EXPECT_NE(link, wz::SignalBase::invalidSignalLink);
    sig(1);
    EXPECT_TRUE(sig.disconnect(link));
    EXPECT_FALSE(sig.disconnect(link));
    sig(2);
    EXPECT_EQ(got, std::vector<int> {1});
    EXPECT_TRUE(capture.contains("wz.signal", "subscriber broke"));
    EXPECT_THROW(sig.emitAny({AnyValue("not an int")}), wz::TypeError);
    EXPECT_THROW(sig.emitAny({}), wz::TypeError);
}

TEST(WzObject, TypedBuilderServesMethodsSignalsProperties)
{
    wz::ObjectTypeBuilder<Sensor> b("Sensor");
    b.advertiseMethod("scale", &Sensor::scale);
    b.advertiseMethod("fail", &Sensor::fail);
    b.advertiseMethod("name", &Sensor::name);
    b.advertiseSignal("reading", &Sensor::reading);
    b.advertiseProperty("gain", &Sensor::gain);
    const unsigned id = b.registerType();
    EXPECT_EQ(b.registerType(), id);

    auto sensor = boost::make_shared<Sensor>();
    wz::Object o = wz::makeObject(sensor);
    EXPECT_FALSE(o->isRemote());
    EXPECT_EQ(o.call<int>("scale", 6, 7), 42);
    EXPECT_EQ(o.call<std::string>("name"), "s1");
    try {
        o.call<void>("fail");
        FAIL();
    } catch (const wz::FutureError &e) {
        EXPECT_STREQ(e.what(), "sensor jammed");
    }
    try {
        o.call<int>("scale", 1);
        FAIL();
    } catch (const wz::FutureError &e) {
        EXPECT_STREQ(e.what(), "method \"scale\" with 1 argument(s) not found on \"Sensor\"");
    }
    EXPECT_THROW(o.call<int>("scale", "a", 2), wz::FutureError);
    EXPECT_THROW(o.call<int>("name"), wz::TypeError);

    std::vector<std::string> seen;
    o.connect("reading", [&](int v, std::string unit) {
         seen.push_back(std::to_string(v) + unit);
     }).value();
    sensor->reading(3, "mm");
    o->emitSignal("reading", {AnyValue(4), AnyValue("cm")});
    EXPECT_EQ(seen, (std::vector<std::string> {"3mm", "4cm"}));
    EXPECT_THROW(o->emitSignal("reading", {AnyValue(4)}), wz::TypeError);
    EXPECT_THROW(o->emitSignal("nothing", {}), std::runtime_error);

    std::vector<double> gains;
    o.connect("gain", [&](double g) { gains.push_back(g); }).value();
    o.setProperty("gain", 2.5).value();
    EXPECT_DOUBLE_EQ(sensor->gain.get(), 2.5);
    EXPECT_DOUBLE_EQ(o.property<double>("gain").value(), 2.5);
    EXPECT_EQ(gains, std::vector<double> {2.5});
    EXPECT_TRUE(o.setProperty("gain", "loud").hasError());
    EXPECT_EQ(o.property("volume").error(), "property \"volume\" not found on \"Sensor\"");

    struct Unregistered
    {
    };
    EXPECT_THROW(wz::makeObject(boost::make_shared<Unregistered>()), std::runtime_error);
}

TEST(WzObject, DynamicBuilderOverloadsAndFactories)
{
    wz::DynamicObjectBuilder b("Shape");
    b.advertiseMethod("area", [](double side) { return side * side; });
    b.advertiseMethod("area", [](double w, double h) { return w * h; });
    b.advertiseMethod("raw", 1, [](const std::vector<AnyValue> &args) { return args[0]; });
    b.advertiseSignal("moved", 2);
    b.advertiseProperty("color", AnyValue("red"));
    EXPECT_THROW(
        b.advertiseMethod("raw", 1, [](const std::vector<AnyValue> &) { return AnyValue(); }),
        std::invalid_argument);
    wz::Object o = b.object();
    EXPECT_EQ(o.metaObject().findMethod("area").size(), 2u);
    EXPECT_DOUBLE_EQ(o.call<double>("area", 3.0), 9.0);
    EXPECT_DOUBLE_EQ(o.call<double>("area", 2.0, 4.0), 8.0);
    EXPECT_EQ(o.property<std::string>("color").value(), "red");
    EXPECT_NE(b.object(), o) << "each object() is a new object";

    // The registry is process-wide: a fresh name per run keeps --gtest_repeat honest.
    static int run = 0;
    const std::string name = "wz_test.Shape" + std::to_string(run++);
    ASSERT_TRUE(wz::registerObjectFactory(name, [](const std::vector<AnyValue> &args) {
        wz::DynamicObjectBuilder sb("Shape");
        const int sides = args.empty() ? 4 : static_cast<int>(args[0].toInt());
        sb.advertiseMethod("sides", [sides]() { return sides; });
        return sb.object();
    }));
    EXPECT_FALSE(wz::registerObjectFactory(name, nullptr));
    const auto names = wz::listObjectFactories();
    EXPECT_NE(std::find(names.begin(), names.end(), name), names.end());
    EXPECT_EQ(wz::createObject(name).call<int>("sides"), 4);
    EXPECT_EQ(wz::createObject(name, {AnyValue(6)}).call<int>("sides"), 6);
    EXPECT_THROW(wz::createObject("wz_test.Nothing"), std::runtime_error);
}

TEST(WzUrl, ParsesAndExplainsErrors)
{
    wz::Url u("tcp://127.0.0.1:9559");
    ASSERT_TRUE(u.isValid()) << u.error();
    EXPECT_EQ(u.protocol(), "tcp");
    EXPECT_EQ(u.host(), "127.0.0.1");
    EXPECT_EQ(u.port(), 9559);
    EXPECT_EQ(u.str(), "tcp://127.0.0.1:9559");
    EXPECT_EQ(wz::Url("127.0.0.1", "tcp", 0).str(), "tcp://127.0.0.1:0");
    for (const char *bad : {"", "127.0.0.1:80", "udp://127.0.0.1:80", "tcp://127.0.0.1",
                            "tcp://127.0.0.1:70000", "tcp://:80", "tcp://127.0.0.1:8x"}) {
        wz::Url b(bad);
        EXPECT_FALSE(b.isValid()) << bad;
        EXPECT_FALSE(b.error().empty()) << bad;
    }
    EXPECT_FALSE(wz::Url().isValid());
}

// ---- codec ------------------------------------------------------------------------------

std::string decodeError(const std::string &bytes)
{
    AnyValue ignored;
    return wz::detail::checkValue(bytes.data(), bytes.size(), ignored);
}

TEST(WzCodec, EveryKindRoundTrips)
{
    const AnyValue v(AnyValue::List {
        AnyValue(), AnyValue(false), AnyValue(-5), AnyValue(int64_t(1) << 40), AnyValue(0.25),
        AnyValue(2.0), AnyValue(-3.0f), AnyValue(1e300), // integral floats stay floats
        AnyValue(std::string("h\0llo", 5)), AnyValue(wz::Buffer(std::string(100000, '\x01'))),
        AnyValue(AnyValue::Map {{"nested", AnyValue(AnyValue::List {AnyValue(1)})}})});
    const std::string bytes = wz::detail::encodeValueForTest(v);
    AnyValue back;
    ASSERT_EQ(wz::detail::checkValue(bytes.data(), bytes.size(), back), "");
    EXPECT_EQ(back, v);
}

TEST(WzCodec, RefusesHostileValues)
{
    // Nesting: 64 levels pass, 65 do not.
    EXPECT_EQ(decodeError(std::string(63, '\x91') + '\x90'), "");
    EXPECT_NE(decodeError(std::string(64, '\x91') + '\x90').find("nesting"), std::string::npos);
    // An array32 announcing four billion elements in a few bytes.
    EXPECT_NE(decodeError(std::string("\xdd\xff\xff\xff\xff\x01\x02", 7)).find("announces"),
              std::string::npos);
    // Many small arrays each announcing more than what remains altogether.
    EXPECT_NE(decodeError(std::string("\x92\x9f\x9f", 3)).find("announces"), std::string::npos);
    EXPECT_NE(decodeError(std::string("\xc4\x10zz", 4)), ""); // bin longer than the data
    EXPECT_NE(decodeError(std::string("\x01\x02", 2)).find("after the value"), std::string::npos);
    EXPECT_NE(decodeError(std::string("\x81\x01\x02", 3)).find("key"), std::string::npos);
    EXPECT_NE(decodeError(std::string("\xcf\xff\xff\xff\xff\xff\xff\xff\xff", 9)).find("range"),
              std::string::npos);
    EXPECT_NE(decodeError(std::string("\xd4\x07\x00", 3)).find("extension"), std::string::npos);
    EXPECT_NE(decodeError(std::string("\xc1", 1)), ""); // never-used byte
}

TEST(WzCodec, RefusesHostileFrames)
{
    using wz::detail::checkFrame;
    using wz::detail::frameForTest;
    const std::string ok = frameForTest(std::string("\x92\x10\x00", 3)); // heartbeat
    EXPECT_EQ(checkFrame(ok.data(), ok.size()), "");

    std::string big = ok.substr(0, 8);
    big[4] = '\x7f'; // about 2 GiB announced
    big += std::string(16, '\0');
    EXPECT_NE(checkFrame(big.data(), big.size()).find("64 MiB"), std::string::npos);

    const std::string unknown = frameForTest(std::string("\x92\x63\x00", 3));
    EXPECT_NE(checkFrame(unknown.data(), unknown.size()).find("unknown message kind 99"),
              std::string::npos);
    const std::string shortCall = frameForTest(std::string("\x93\x01\x01\x05", 4));
    EXPECT_NE(checkFrame(shortCall.data(), shortCall.size()).find("expected 5"), std::string::npos);
    std::string badMagic = ok;
    badMagic[0] = 'X';
    EXPECT_NE(checkFrame(badMagic.data(), badMagic.size()).find("magic"), std::string::npos);

    // Random bytes, with and without a valid header: refused or accepted, never a crash.
    std::mt19937 rng(1234);
    for (int i = 0; i < 3000; ++i) {
        std::string body(1 + rng() % 64, '\0');
        for (char &c : body)
            c = static_cast<char>(rng());
        const std::string framed = i % 2 ? frameForTest(body) : body;
        checkFrame(framed.data(), framed.size());
        AnyValue out;
        wz::detail::checkValue(body.data(), body.size(), out);
    }
}

} // namespace
