// The road of robot events and the watched-key poll of the desktop module,
// against the in-process simulated robot over loopback TCP. Each figure comes
// with a baseline measured in the same run:
//   events  micro events raised on the robot, through the module's
//           dataChanged, its dataSubscribedChanged and the interface, to a
//           slot on this (the application's) thread; against the same events
//           delivered by the robot to a plain module of the framework that
//           only counts them. Goal: 50 000 events/s sustained, none lost.
//   poll    one polling tick with 100 watched keys (one getData each) on the
//           executer's thread; against 100 getData calls made on that same
//           thread through the same proxy, with nothing emitted. Goal: within
//           the 60 ms period.

#include "connection_manager_p.h"
#include "connection_p.h"
#include "sartel_executer_p.h"
#include <connection/connection_manager.h>
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace bench;

// Events raised and not yet received, at most: the robot keeps 10 000 for a
// subscriber before it drops the oldest, and none may be lost here.
const int k_window = 4000;
const int k_keys = 100;

// A connection made by the manager, torn down at the end.
class Desktop
{
public:
    explicit Desktop(const sim::Robot &robot)
    {
        connectTo(manager, robot);
        module = manager.sartelModuleInterface();
    }
    ~Desktop()
    {
        module.reset();
        disconnectAndWait(manager);
    }

    RK::ConnectionManager manager;
    boost::shared_ptr<RK::SartelModuleInterface> module;
};

void BM_MicroEventsToApplication(benchmark::State &state)
{
    const int count = int(state.range(0));
    sim::Robot robot;
    robot.start();
    sim::MemoryService &memory = robot.memory();
    Desktop desktop(robot);
    if (!desktop.module) {
        state.SkipWithError("no connection to the simulated robot");
        return;
    }

    // Baseline: a plain module of another client, counting what reaches it.
    auto baselineSession = boost::make_shared<wz::Session>();
    baselineSession->connect(robot.url()).value(10000);
    std::atomic<int> baselineReceived {0};
    std::atomic<bool> baselineInOrder {true};
    wz::DynamicObjectBuilder builder("BenchModule");
    builder.advertiseMethod(
        "dataChanged", [&](const std::string &, const wz::AnyValue &value, const std::string &) {
            if (value.toInt() != baselineReceived.load())
                baselineInOrder = false;
            ++baselineReceived;
        });
    baselineSession->registerService("BenchModule", builder.object()).value(10000);
    memory.subscribe("Bench/Baseline", "BenchModule", "", "dataChanged", true);

    // The library's road, ending in a slot on this thread.
    std::atomic<int> received {0};
    bool inOrder = true;
    QObject receiver;
    QObject::connect(desktop.module.get(), &RK::SartelModuleInterface::dataSubscribedChanged,
                     &receiver, [&](const QString &name, const VX::VXValue &value) {
                         if (name != QLatin1String("Bench/Event"))
                             return;
                         if (value.toInt() != received.load())
                             inOrder = false;
                         ++received;
                     });
    emit desktop.module->subscribeToMicroEventRequested(QStringLiteral("Bench/Event"));
    processUntil([&] { return !memory.subscribers("Bench/Event").empty(); }, 10000);

    std::vector<double> rates;
    std::vector<double> baselineRates;
    for (auto _ : state) {
        std::atomic<bool> stop {false};
        baselineReceived = 0;
        Clock::time_point t0 = Clock::now();
        std::thread b = raiser(memory, "Bench/Baseline", count, baselineReceived, stop, k_window);
        while (baselineReceived < count && seconds(Clock::now() - t0) < 120)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        baselineRates.push_back(baselineReceived / seconds(Clock::now() - t0));
        stop = baselineReceived < count;
        b.join();

        received = 0;
        t0 = Clock::now();
        std::thread r = raiser(memory, "Bench/Event", count, received, stop, k_window);
        processUntil([&] { return received == count; }, 120000);
        rates.push_back(received / seconds(Clock::now() - t0));
        stop = true;
        r.join();
        if (received != count || baselineReceived != count || !inOrder || !baselineInOrder)
            state.SkipWithError("events were lost or reordered");
    }
    const double rate = median(rates);
    const double baseline = median(baselineRates);
    state.counters["events_per_s"] = rate;
    state.counters["framework_events_per_s"] = baseline;
    state.counters["ratio"] = rate / baseline;
    state.counters["lost"] = double(count - received);
    state.counters["goal_met"] = rate >= 100000 && rate >= 0.8 * baseline ? 1 : 0;
    baselineSession->close().wait(10000);
}

void BM_PollTick100Keys(benchmark::State &state)
{
    sim::Robot robot;
    robot.start();
    for (int i = 0; i < k_keys; ++i)
        robot.scenario().setKey("Bench/Key" + std::to_string(i), wz::AnyValue(i));
    Desktop desktop(robot);
    if (!desktop.module) {
        state.SkipWithError("no connection to the simulated robot");
        return;
    }
    RK::VXSartelExecuter *executer = desktop.module->executer();
    const boost::shared_ptr<VX::VXMemoryProxy> memory
        = RK::currentConnection(desktop.manager)->memory();
    std::vector<std::string> keys;
    for (int i = 0; i < k_keys; ++i) {
        keys.push_back("Bench/Key" + std::to_string(i));
        emit desktop.module->addWatchedDataRequested(QString::fromStdString(keys.back()));
    }
    // Counted on the executer's thread, as each key is emitted.
    int emitted = 0;
    QObject::connect(
        executer, &RK::VXSartelExecuter::dataSubscribedChanged, executer,
        [&emitted](const QString &, const VX::VXValue &) { ++emitted; }, Qt::DirectConnection);

    std::vector<double> ticks;
    std::vector<double> baselines;
    bool complete = true;
    for (auto _ : state) {
        for (int round = 0; round < state.range(0); ++round) {
            QMetaObject::invokeMethod(
                executer,
                [&] {
                    Clock::time_point t0 = Clock::now();
                    for (const std::string &key : keys)
                        benchmark::DoNotOptimize(memory->getData(key));
                    baselines.push_back(millis(Clock::now() - t0));
                    emitted = 0;
                    t0 = Clock::now();
                    executer->updateDataPolled();
                    ticks.push_back(millis(Clock::now() - t0));
                    complete = complete && emitted == k_keys;
                },
                Qt::BlockingQueuedConnection);
        }
    }
    if (!complete)
        state.SkipWithError("a tick did not read every key");
    const double tickMs = median(ticks);
    const double baselineMs = median(baselines);
    state.counters["tick_ms"] = tickMs;
    state.counters["per_key_us"] = tickMs * 1000 / k_keys;
    state.counters["getData_x100_ms"] = baselineMs;
    state.counters["ratio"] = tickMs / baselineMs;
    state.counters["period_share"] = tickMs / 60.0;
    state.counters["goal_60ms_met"] = *std::max_element(ticks.begin(), ticks.end()) < 60 ? 1 : 0;
}

} // namespace

BENCHMARK(BM_MicroEventsToApplication)->Arg(200000)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PollTick100Keys)->Arg(30)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return bench::runWithQt(argc, argv);
}
