// 20 cycles of: the simulated robot killed, a new one started on the same
// port, and the reconnection manager (10 ms tick, so a first delay of 300 ms)
// reconnecting by itself. Each reconnection, counted from the loss, must come
// within the connect time (measured first, in the same run) plus one delay.
// Threads and resident memory are compared before and after the cycles:
// no thread left behind, at most 2 MB of growth.

#include <connection/connection_manager.h>
#include <connection/reconnection_manager.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <sim/robot.h>

#include <wz/log.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace {

using bench::processUntilInLoop;

const int k_cycles = 20;
const int k_tickMs = 10;

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

void BM_KillRestartReconnect(benchmark::State &state)
{
    auto robot = std::make_unique<sim::Robot>();
    robot->start();
    const std::string url = robot->url().str();
    const std::string host = robot->url().host();
    const int port = robot->url().port();

    RK::ConnectionManager manager;
    RK::ReconnectionManager *reconnection = manager.reconnectionManager();
    RK::ConnectionTiming timing;
    timing.reconnectionTickMs = k_tickMs;
    manager.setTiming(timing);
    int established = 0;
    int lost = 0;
    int failedAttempts = 0;
    QObject::connect(reconnection, &RK::ReconnectionManager::reconnectionFailed,
                     [&failedAttempts] { ++failedAttempts; });
    QElapsedTimer sinceLoss;
    QObject::connect(&manager, &RK::ConnectionManager::connectionLost, [&] {
        ++lost;
        sinceLoss.start();
        reconnection->startReconnectionProcess(host, port, "bench");
    });
    QObject::connect(&manager, &RK::ConnectionManager::connectionEstablished, [&] {
        ++established;
        reconnection->cancelReconnectionProcess();
    });

    // Connect time, as the baseline of each reconnection.
    std::vector<double> connects;
    for (int i = 0; i < 3; ++i) {
        QElapsedTimer t;
        t.start();
        manager.connectRemoteBroker(host, port, "bench");
        processUntilInLoop([&] { return established == i + 1; }, 30000);
        connects.push_back(t.nsecsElapsed() / 1e6);
        if (i < 2) {
            manager.disconnectBroker();
            processUntilInLoop([&] { return !manager.hasActiveWorkers(); }, 30000);
        }
    }
    const double connectMs = median(connects);
    // The attempt comes on the tick after the countdown reaches 0: 31 ticks.
    const double delayMs = 31.0 * k_tickMs;
    processUntilInLoop([] { return false; }, 300);
    const int threadsBefore = bench::threadCount();
    const long rssBefore = bench::residentKb();

    std::vector<double> reconnects;
    int late = 0;
    int failed = 0;
    for (auto _ : state) {
        for (int i = 0; i < k_cycles; ++i) {
            const int before = established;
            const int lostBefore = lost;
            robot.reset();
            if (!processUntilInLoop([&] { return lost > lostBefore; }, 10000)) {
                ++failed;
                break;
            }
            sim::RobotOptions options;
            options.listenUrl = url;
            robot = std::make_unique<sim::Robot>(options);
            robot->start();
            if (!processUntilInLoop([&] { return established > before; }, 30000)) {
                ++failed;
                break;
            }
            const double ms = sinceLoss.nsecsElapsed() / 1e6;
            reconnects.push_back(ms);
            // Timer jitter on a loaded machine: a few ticks.
            if (ms > connectMs + delayMs + 3 * k_tickMs)
                ++late;
        }
    }
    manager.disconnectBroker();
    processUntilInLoop([&] { return !manager.hasActiveWorkers(); }, 30000);
    // Idle framework threads end by themselves after a while.
    processUntilInLoop([threadsBefore] { return bench::threadCount() <= threadsBefore; }, 10000);
    const int threadsAfter = bench::threadCount();
    const long rssAfter = bench::residentKb();

    state.counters["cycles"] = static_cast<double>(reconnects.size());
    state.counters["failed"] = failed;
    state.counters["connect_ms"] = connectMs;
    state.counters["delay_ms"] = delayMs;
    state.counters["reconnect_median_ms"] = median(reconnects);
    state.counters["reconnect_max_ms"]
        = reconnects.empty() ? 0 : *std::max_element(reconnects.begin(), reconnects.end());
    state.counters["ratio_to_limit"] = median(reconnects) / (connectMs + delayMs);
    state.counters["late"] = late;
    state.counters["failed_attempts"] = failedAttempts;
    state.counters["threads_before"] = threadsBefore;
    state.counters["threads_after"] = threadsAfter;
    state.counters["rss_growth_kb"] = rssAfter - rssBefore;
}

BENCHMARK(BM_KillRestartReconnect)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    return bench::runWithQt(argc, argv);
}
