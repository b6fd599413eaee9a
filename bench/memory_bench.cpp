// The memory watcher's real-time source with 1000 keys sampled every 10 ms:
// one gathered second is 100 000 samples. Each figure comes with a baseline
// measured in the same run:
//   parse  MemoryExecuter::parseHistory of that second into the batch, against
//          a plain walk of the same value that reads every stamp and value and
//          builds nothing;
//   tick   one gather tick on the executer's thread against the in-process
//          simulated robot (getData over TCP, decoding, parsing, emitting),
//          against the getData call alone on the same thread.
// The goal is a parse of at most 100 ms.

#include "connection_manager_p.h"
#include "connection_p.h"
#include "memory_executer_p.h"
#include <connection/connection_manager.h>
#include <connection/memory_interface.h>
#include <connection/platform.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <sim/robot.h>

#include <wz/log.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace bench;

const int k_keys = 1000;
const int k_samplesPerKey = 100; // one second at 10 ms
const double k_samples = double(k_keys) * k_samplesPerKey;

// One second of history as the robot sends it.
wz::AnyValue gatheredSecond()
{
    wz::AnyValue::List entries;
    entries.reserve(k_keys);
    for (int k = 0; k < k_keys; ++k) {
        wz::AnyValue::List history;
        history.reserve(k_samplesPerKey);
        for (int s = 0; s < k_samplesPerKey; ++s) {
            wz::AnyValue::List stamp {wz::AnyValue(1700000000), wz::AnyValue(s * 10000)};
            history.push_back(wz::AnyValue(wz::AnyValue::List {wz::AnyValue(std::move(stamp)),
                                                               wz::AnyValue(float(k + s) / 8)}));
        }
        entries.push_back(wz::AnyValue(wz::AnyValue::List {
            wz::AnyValue("Device/SubDeviceList/Sensor" + std::to_string(k) + "/Value"),
            wz::AnyValue(std::move(history))}));
    }
    return wz::AnyValue(std::move(entries));
}

// The baseline walk: every element read, nothing built.
double walk(const VX::VXValue &data)
{
    double sum = 0;
    for (int i = 0; i < data.getSize(); ++i) {
        const VX::VXValue &history = data[i][1];
        sum += data[i][0].getSize();
        for (int j = 0; j < history.getSize(); ++j) {
            const VX::VXValue &sample = history[j];
            sum += sample[0][0].toInt() + sample[0][1].toInt() / 1e6 + sample[1].toFloat();
        }
    }
    return sum;
}

void BM_ParseGatheredSecond(benchmark::State &state)
{
    const VX::VXValue data = wz::fromAny<VX::VXValue>(gatheredSecond());
    std::vector<double> parse;
    std::vector<double> baseline;
    for (auto _ : state) {
        for (int round = 0; round < state.range(0); ++round) {
            Clock::time_point t0 = Clock::now();
            benchmark::DoNotOptimize(walk(data));
            baseline.push_back(millis(Clock::now() - t0));
            t0 = Clock::now();
            const RK::MemoryExecuter::Batch batch = RK::MemoryExecuter::parseHistory(data);
            parse.push_back(millis(Clock::now() - t0));
            if (batch.size() != k_keys)
                state.SkipWithError("the batch lost keys");
        }
    }
    const double parseMs = median(parse);
    const double baselineMs = median(baseline);
    state.counters["parse_ms"] = parseMs;
    state.counters["walk_ms"] = baselineMs;
    state.counters["parse_ratio"] = parseMs / baselineMs;
    state.counters["samples_per_s"] = k_samples / (parseMs / 1000);
    state.counters["goal_100ms_met"] = parseMs <= 100 ? 1 : 0;
}

void BM_GatherTickOverTcp(benchmark::State &state)
{
    sim::Robot robot;
    const wz::AnyValue second = gatheredSecond();
    robot.scenario().replaceMethod("VXMemoryWatcher", "getData",
                                   [second](const sim::Args &) { return second; });
    robot.start();
    RK::ConnectionManager manager;
    if (!connectTo(manager, robot)) {
        state.SkipWithError("no connection to the simulated robot");
        return;
    }
    const boost::shared_ptr<RK::MemoryInterface> memory = manager.memoryInterface();
    const boost::shared_ptr<VX::VXProxy> watcher = RK::currentConnection(manager)->memoryWatcher();
    RK::MemoryExecuter *executer = memory->executer();
    int batches = 0;
    QObject receiver;
    QObject::connect(memory.get(), &RK::MemoryInterface::dataGathered, &receiver,
                     [&batches](const QMap<QString, QMap<double, QVariant>> &batch) {
                         if (batch.size() == k_keys)
                             ++batches;
                     });

    std::vector<double> tick;
    std::vector<double> call;
    for (auto _ : state) {
        for (int round = 0; round < state.range(0); ++round) {
            // Both on the executer's thread, as the timer would run them.
            QMetaObject::invokeMethod(
                executer,
                [&] {
                    Clock::time_point t0 = Clock::now();
                    benchmark::DoNotOptimize(watcher->call<VX::VXValue>("getData"));
                    call.push_back(millis(Clock::now() - t0));
                    t0 = Clock::now();
                    executer->onGatherTimeout();
                    tick.push_back(millis(Clock::now() - t0));
                },
                Qt::BlockingQueuedConnection);
        }
    }
    processUntil([&] { return batches == int(tick.size()); }, 30000);
    if (batches != int(tick.size()))
        state.SkipWithError("a gather tick did not deliver its batch");
    const double tickMs = median(tick);
    const double callMs = median(call);
    state.counters["tick_ms"] = tickMs;
    state.counters["getData_ms"] = callMs;
    state.counters["tick_ratio"] = tickMs / callMs;
    state.counters["parse_share_ms"] = tickMs - callMs;

    disconnectAndWait(manager);
}

} // namespace

BENCHMARK(BM_ParseGatheredSecond)->Arg(15)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GatherTickOverTcp)->Arg(10)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return bench::runWithQt(argc, argv);
}
