// The robot's log reaching the application: numbered chatter from the
// in-process simulated robot at a fixed rate, received
//   raw  by a framework callback on the listener proxy, counted where it
//        lands (the baseline);
//   gui  through LogListenerInterface (executer gate, two queued hops) to a
//        slot on the application's thread.
// Each phase checks that every message came, in order. A second benchmark
// stalls the application for 30 s under the same flood and prints the
// process's memory each second (see BM_StalledReader). The ratio is the
// rate of the second against the first; the goal is at least 20 000
// messages/s through the interface, none lost, ratio at least 0.5.

#include "connection_p.h"
#include <connection/connection_manager.h>
#include <connection/log_listener_interface.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <sim/device_services.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/log_listener.h>
#include <wz/session.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

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

// The application's thread stalled for the whole run (range(0) seconds) while
// the robot logs 20 000 messages/s: the resident memory is printed each
// second against the memory before the flood, the baseline. The queue to the
// application is bounded, so the memory levels off instead of growing with
// the run; afterwards every message sent is either delivered or counted in
// logMessagesDropped.
void BM_StalledReader(benchmark::State &state)
{
    const int seconds = static_cast<int>(state.range(0));
    const int rate = 20000;
    wz::log::setStderrEnabled(false);
    sim::Robot robot;
    robot.start();
    auto *logManager = robot.serviceAs<sim::LogManagerService>("LogManager");
    uint64_t sent = 0;
    uint64_t delivered = 0;
    uint64_t dropped = 0;
    double baseMb = 0;
    double peakMb = 0;
    double firstHalfMb = 0;
    for (auto _ : state) {
        RK::ConnectionManager manager;
        bench::connectTo(manager, robot);
        const auto logs = manager.logListenerInterface();
        logs->setCategory(QStringLiteral("*"), wz::LogLevel_Silent).waitForFinished();
        logs->setCategory(QString::fromLatin1(k_category), wz::LogLevel_Debug).waitForFinished();
        QObject receiver;
        QObject::connect(logs.get(), &RK::LogListenerInterface::onLogMessageReceived, &receiver,
                         [&](const wz::LogMessage &m) {
                             if (m.category == k_category)
                                 ++delivered;
                         });
        QObject::connect(logs.get(), &RK::LogListenerInterface::logMessagesDropped, &receiver,
                         [&](int count) { dropped += static_cast<uint64_t>(count); });
        // Whatever was queued before the flood is delivered first.
        processUntilInLoop([] { return false; }, 200);
        baseMb = bench::residentKb() / 1024.0;
        peakMb = baseMb;
        const uint64_t first = logManager->sent();
        const auto start = std::chrono::steady_clock::now();
        chatter(robot, rate);
        // The stall: this thread does nothing but read its memory.
        for (int s = 1; s <= seconds; ++s) {
            std::this_thread::sleep_until(start + std::chrono::seconds(s));
            const double mb = bench::residentKb() / 1024.0;
            peakMb = std::max(peakMb, mb);
            if (s == seconds / 2)
                firstHalfMb = peakMb;
            std::printf("stalled %2d s: %8llu sent, resident %7.1f MB (%+6.1f MB)\n", s,
                        static_cast<unsigned long long>(logManager->sent() - first), mb,
                        mb - baseMb);
            std::fflush(stdout);
        }
        chatter(robot, 0);
        sent = logManager->sent() - first;
        processUntilInLoop([&] { return delivered + dropped >= sent; }, 30000);
        manager.disconnectBroker();
        processUntilInLoop([&] { return !manager.hasActiveWorkers(); }, 30000);
    }
    wz::log::setStderrEnabled(true);
    state.counters["sent"] = static_cast<double>(sent);
    state.counters["delivered"] = static_cast<double>(delivered);
    state.counters["dropped_told"] = static_cast<double>(dropped);
    state.counters["accounted"] = delivered + dropped == sent ? 1 : 0;
    state.counters["base_mb"] = baseMb;
    state.counters["peak_mb"] = peakMb;
    state.counters["ratio"] = baseMb > 0 ? peakMb / baseMb : 0;
    // Growth in the second half of the run: near 0 when the queue is bounded.
    state.counters["second_half_growth_mb"] = peakMb - firstHalfMb;
}

BENCHMARK(BM_StalledReader)->Arg(30)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    return bench::runBenchmarks(argc, argv);
}
