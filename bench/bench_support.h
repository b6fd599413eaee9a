#pragma once

// What the benchmarks that drive the library against the simulated robot
// share: clocks, the median, a wait that keeps this thread's events moving,
// connecting and tearing down a manager, and a windowed event raiser.

#include <connection/connection_manager.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

#include "run_benchmarks.h"

#include <benchmark/benchmark.h>

#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

inline double millis(Clock::duration d)
{
    return std::chrono::duration<double, std::milli>(d).count();
}

// The middle sample (the upper one of an even count).
inline double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Processes this thread's events until `done` holds; false after `ms`. A
// 1 ms timer bounds how late the condition is seen.
inline bool processUntil(const std::function<bool()> &done, int ms)
{
    QDeadlineTimer deadline(ms);
    QTimer wake;
    wake.start(1);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// The same with a real event loop running, as in an application: objects
// that other threads delete later on this one are deleted only by a loop.
// The condition is seen at most 1 ms late.
inline bool processUntilInLoop(const std::function<bool()> &done, int ms)
{
    QDeadlineTimer deadline(ms);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QEventLoop loop;
        QTimer::singleShot(1, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

// Connects `manager` to `robot`; with `andTested`, also waits for the
// two-way test, which holds a pool thread until it ends. False on a time-out.
inline bool connectTo(RK::ConnectionManager &manager, const sim::Robot &robot,
                      bool andTested = false)
{
    bool established = false;
    bool tested = false;
    QObject context;
    QObject::connect(&manager, &RK::ConnectionManager::connectionEstablished, &context,
                     [&established] { established = true; });
    QObject::connect(&manager, &RK::ConnectionManager::connectionTested, &context,
                     [&tested] { tested = true; });
    manager.connectRemoteBroker(robot.url().host(), robot.url().port(), "bench");
    return processUntil([&] { return established && (tested || !andTested); }, 30000);
}

// Disconnects and waits until every worker has closed its session.
inline void disconnectAndWait(RK::ConnectionManager &manager)
{
    manager.disconnectBroker();
    processUntil([&manager] { return !manager.hasActiveWorkers(); }, 30000);
}

// Raises `count` micro events numbered from 0 on the robot, never more than
// `window` ahead of what has been received (the robot drops the oldest beyond
// its own queue, and none may be lost here).
inline std::thread raiser(sim::MemoryService &memory, const std::string &name, int count,
                          const std::atomic<int> &received, const std::atomic<bool> &stop,
                          int window)
{
    return std::thread([&memory, name, count, &received, &stop, window] {
        for (int i = 0; i < count && !stop; ++i) {
            while (i - received.load() >= window && !stop)
                std::this_thread::yield();
            memory.raiseMicroEvent(name, wz::AnyValue(i));
        }
    });
}

// Threads of this process, from /proc.
inline int threadCount()
{
    return static_cast<int>(QDir(QStringLiteral("/proc/self/task"))
                                .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
                                .size());
}

// Resident memory of this process in KiB, -1 if /proc cannot tell.
inline long residentKb()
{
    long pages = 0;
    long resident = 0;
    FILE *f = std::fopen("/proc/self/statm", "r");
    if (!f)
        return -1;
    const int read = std::fscanf(f, "%ld %ld", &pages, &resident);
    std::fclose(f);
    return read == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

// The main() of a benchmark program: a Qt application around the runs, and
// the framework's log down to errors so that it does not mix with the table.
inline int runWithQt(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    wz::log::setLogLevel(wz::LogLevel_Error);
    return bench::runBenchmarks(argc, argv);
}

} // namespace bench
