// Connection lifecycle against the in-process simulated robot offering every
// service. Each figure is printed with a baseline measured in the same run:
//   connect   from connectRemoteBroker to connectionEstablished, against the
//             fixed 250 ms readiness step (a local event loop of 250 ms);
//   teardown  from disconnectBroker until the worker has closed the session
//             and gone, against closing a bare connected session;
//   cycles    50 connect/disconnect cycles: threads and resident memory
//             before and after.

#include "connection_threads_manager_p.h"
#include <connection/connection_manager.h>
#include <connection/platform.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <sim/robot.h>

#include <wz/log.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

using bench::processUntil;

sim::Robot *g_robot = nullptr;

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

int workers(RK::ConnectionManager &manager)
{
    return manager.findChild<RK::ConnectionThreadsManager *>()->threads().size();
}

// Connects and returns the milliseconds until connectionEstablished.
double connectOnce(RK::ConnectionManager &manager)
{
    bool established = false;
    bool failed = false;
    const auto ok = QObject::connect(&manager, &RK::ConnectionManager::connectionEstablished,
                                     [&] { established = true; });
    const auto ko
        = QObject::connect(&manager, &RK::ConnectionManager::disconnected, [&] { failed = true; });
    QElapsedTimer t;
    t.start();
    manager.connectRemoteBroker(g_robot->url().host(), g_robot->url().port(), "bench");
    processUntil([&] { return established || failed; }, 30000);
    const double ms = t.nsecsElapsed() / 1e6;
    QObject::disconnect(ok);
    QObject::disconnect(ko);
    if (!established)
        throw std::runtime_error("the connection failed");
    return ms;
}

// Disconnects and returns the milliseconds until the worker is gone.
double disconnectOnce(RK::ConnectionManager &manager)
{
    QElapsedTimer t;
    t.start();
    manager.disconnectBroker();
    if (!processUntil([&] { return workers(manager) == 0; }, 30000))
        throw std::runtime_error("the worker did not close");
    return t.nsecsElapsed() / 1e6;
}

double readinessStepMs()
{
    QElapsedTimer t;
    t.start();
    QEventLoop loop;
    QTimer::singleShot(250, &loop, &QEventLoop::quit);
    loop.exec();
    return t.nsecsElapsed() / 1e6;
}

void BM_Connect(benchmark::State &state)
{
    RK::ConnectionManager manager;
    std::vector<double> connect;
    std::vector<double> baseline;
    for (auto _ : state) {
        baseline.push_back(readinessStepMs());
        const double ms = connectOnce(manager);
        connect.push_back(ms);
        state.SetIterationTime(ms / 1000);
        state.PauseTiming();
        disconnectOnce(manager);
        state.ResumeTiming();
    }
    const double m = median(connect);
    const double b = median(baseline);
    state.counters["connect_ms"] = m;
    state.counters["step_ms"] = b;
    state.counters["ratio"] = m / b;
    state.counters["target_ms"] = 300;
}

void BM_Teardown(benchmark::State &state)
{
    RK::ConnectionManager manager;
    std::vector<double> teardown;
    std::vector<double> baseline;
    for (auto _ : state) {
        state.PauseTiming();
        // Baseline: a bare session to the same robot, connected and closed.
        {
            auto bare = boost::make_shared<wz::Session>();
            bare->connect(g_robot->url()).value();
            QElapsedTimer t;
            t.start();
            bare->close().value();
            baseline.push_back(t.nsecsElapsed() / 1e6);
        }
        connectOnce(manager);
        state.ResumeTiming();
        const double ms = disconnectOnce(manager);
        teardown.push_back(ms);
        state.SetIterationTime(ms / 1000);
    }
    const double m = median(teardown);
    const double b = median(baseline);
    state.counters["teardown_ms"] = m;
    state.counters["bare_close_ms"] = b;
    state.counters["ratio"] = b > 0 ? m / b : 0;
    state.counters["target_ms"] = 100;
}

void BM_Cycles(benchmark::State &state)
{
    RK::ConnectionManager manager;
    // Warm up: pools and caches that live for the process are made here.
    for (int i = 0; i < 3; ++i) {
        connectOnce(manager);
        disconnectOnce(manager);
    }
    processUntil([] { return false; }, 200);
    const int threadsBefore = bench::threadCount();
    const long rssBefore = bench::residentKb();
    double total = 0;
    for (auto _ : state) {
        QElapsedTimer t;
        t.start();
        for (int i = 0; i < 50; ++i) {
            connectOnce(manager);
            disconnectOnce(manager);
        }
        total = t.nsecsElapsed() / 1e6;
        state.SetIterationTime(total / 1000);
    }
    // Idle framework threads end by themselves after a while: a thread that
    // is still there after 10 s has leaked.
    QElapsedTimer settle;
    settle.start();
    processUntil([threadsBefore] { return bench::threadCount() <= threadsBefore; }, 10000);
    const double settleMs = settle.nsecsElapsed() / 1e6;
    const int threadsAfter = bench::threadCount();
    const long rssAfter = bench::residentKb();
    state.counters["cycles"] = 50;
    state.counters["per_cycle_ms"] = total / 50;
    state.counters["threads_before"] = threadsBefore;
    state.counters["threads_after"] = threadsAfter;
    state.counters["threads_settle_ms"] = settleMs;
    state.counters["rss_before_kb"] = rssBefore;
    state.counters["rss_after_kb"] = rssAfter;
    state.counters["rss_growth_kb"] = rssAfter - rssBefore;
    state.counters["rss_limit_kb"] = 2048;
}

BENCHMARK(BM_Connect)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Teardown)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cycles)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    wz::log::setLogLevel(wz::LogLevel_Error);
    sim::Robot robot;
    robot.start();
    g_robot = &robot;
    const int result = bench::runBenchmarks(argc, argv);
    g_robot = nullptr;
    return result;
}
