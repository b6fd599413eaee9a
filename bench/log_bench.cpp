// The robot's log reaching the application: numbered chatter from the
// in-process simulated robot at a fixed rate, received
//   raw  by a framework callback on the listener proxy, counted where it
//        lands (the baseline);
//   gui  through LogListenerInterface (executer gate, two queued hops) to a
//        slot on the application's thread.
// Each phase checks that every message came, in order. The ratio is the
// rate of the second against the first; the goal is at least 20 000
// messages/s through the interface, none lost, ratio at least 0.5.

#include <connection/connection.h>
#include <connection/connection_manager.h>
#include <connection/log_listener_interface.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#pragma push_macro("signals")
#undef signals
#include <sim/device_services.h>
#include <sim/robot.h>
#pragma pop_macro("signals")

#include <wz/log.h>
#include <wz/log_listener.h>
#include <wz/session.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>

namespace {

using bench::processUntilInLoop;

const int k_messages = 40000;
const int k_rate = 25000;
const char *const k_category = "bench.chatter";

// Counts numbered messages of the bench's category: how many, whether any
// came out of order or went missing, and the time from first to last.
struct Tally
{
    uint64_t first = 0;
    int count = 0;
    bool inOrder = true;
    QElapsedTimer clock;
    double spanMs = 0;

    void add(const std::string &text)
    {
        const uint64_t n = std::stoull(text.substr(text.find(' ') + 1));
        if (count == 0) {
            first = n;
            clock.start();
        } else if (n != first + static_cast<uint64_t>(count)) {
            inOrder = false;
        }
        ++count;
        spanMs = clock.nsecsElapsed() / 1e6;
    }
    double perSecond() const { return spanMs > 0 ? (count - 1) / (spanMs / 1000) : 0; }
};

void chatter(sim::Robot &robot, int rate)
{
    robot.serviceAs<sim::LogManagerService>("LogManager")
        ->setChatter({rate, k_category, wz::LogLevel_Warning});
}

void BM_LogMessages(benchmark::State &state)
{
    wz::log::setStderrEnabled(false);
    sim::Robot robot;
    robot.start();
    Tally raw;
    Tally gui;
    for (auto _ : state) {
        // Baseline: the listener's framework callback.
        {
            auto session = boost::make_shared<wz::Session>();
            session->connect(robot.url()).value(10000);
            auto listener = session->service("LogManager")
                                .value(10000)
                                .call<boost::shared_ptr<wz::LogListenerProxy>>("getListener");
            std::mutex mutex;
            std::atomic<int> seen {0};
            listener->onLogMessage
                .connect([&](const wz::LogMessage &m) {
                    if (m.category != k_category || seen >= k_messages)
                        return;
                    std::lock_guard<std::mutex> lock(mutex);
                    raw.add(m.message);
                    ++seen;
                })
                .value(10000);
            chatter(robot, k_rate);
            processUntilInLoop([&] { return seen >= k_messages; }, 10000);
            chatter(robot, 0);
            session->close().wait(10000);
        }
        // Through the interface to this thread.
        {
            RK::ConnectionManager manager;
            bool up = false;
            QObject::connect(&manager, &RK::ConnectionManager::connectionEstablished,
                             [&up] { up = true; });
            manager.connectRemoteBroker(robot.url().host(), robot.url().port(), "bench");
            processUntilInLoop([&] { return up; }, 20000);
            auto logs = manager.logListenerInterface();
            QObject receiver;
            QObject::connect(logs.get(), &RK::LogListenerInterface::onLogMessageReceived, &receiver,
                             [&](const wz::LogMessage &m) {
                                 if (m.category == k_category && gui.count < k_messages)
                                     gui.add(m.message);
                             });
            chatter(robot, k_rate);
            processUntilInLoop([&] { return gui.count >= k_messages; }, 10000);
            chatter(robot, 0);
            manager.disconnectBroker();
            processUntilInLoop([] { return false; }, 300);
        }
    }
    wz::log::setStderrEnabled(true);
    state.counters["offered_per_s"] = k_rate;
    state.counters["raw_per_s"] = raw.perSecond();
    state.counters["gui_per_s"] = gui.perSecond();
    state.counters["ratio"] = raw.perSecond() > 0 ? gui.perSecond() / raw.perSecond() : 0;
    state.counters["raw_lost"] = k_messages - raw.count;
    state.counters["gui_lost"] = k_messages - gui.count;
    state.counters["in_order"] = raw.inOrder && gui.inOrder ? 1 : 0;
    state.counters["goal_met"] = gui.perSecond() >= 20000 && gui.count == k_messages && gui.inOrder
        && gui.perSecond() >= 0.5 * raw.perSecond();
}

BENCHMARK(BM_LogMessages)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    return bench::runBenchmarks(argc, argv);
}
