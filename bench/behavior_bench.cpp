// Behaviours against the in-process simulated robot over loopback TCP. Each
// figure comes with a baseline measured in the same run:
//   io      box output events raised on the robot, through the desktop
//           module and the debugger, to IOActivated on this (the
//           application's) thread; against events of another name on the
//           same road that stop at dataSubscribedChanged. Goal: at least 0.8
//           of the baseline and 20 000 events/s, none lost, in order.
//   start   from a preloaded behaviour's playBehavior to Running; against a
//           bare startBehavior call plus the "BehaviorsRun" event it causes,
//           seen at dataSubscribedChanged. Goal: at most 3 times, median of 50.

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/behavior_debugger.h>
#include <connection/behavior_instance_manager.h>
#include <connection/behavior_manager_interface.h>
#include <connection/connection_manager.h>
#include <connection/sartel_module.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <sim/behavior_manager_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <vx/vxproxy.h>
#include <wz/log.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

using namespace bench;

const int k_window = 4000;

const char *const k_behavior = "length forever\nbox Say in go out said\n";

// The application: a manager and a debugger made before the connection.
class Desktop
{
public:
    explicit Desktop(const sim::Robot &robot) : debugger(&manager)
    {
        // The two-way test holds a pool thread until it ends; measured calls
        // wait for it, so that they do not queue behind it.
        connectTo(manager, robot, true);
        module = manager.sartelModuleInterface();
    }
    ~Desktop()
    {
        module.reset();
        disconnectAndWait(manager);
    }

    RK::ConnectionManager manager;
    RK::BehaviorDebugger debugger;
    boost::shared_ptr<RK::SartelModuleInterface> module;
};

void BM_BoxOutputsToIOActivated(benchmark::State &state)
{
    const int count = int(state.range(0));
    sim::Robot robot;
    auto *behaviors = robot.serviceAs<sim::BehaviorManagerService>("VXBehaviorManager");
    behaviors->install("bench", k_behavior);
    robot.start();
    sim::MemoryService &memory = robot.memory();
    Desktop desktop(robot);
    bool loaded = false;
    QObject::connect(&desktop.debugger, &RK::BehaviorDebugger::behaviorLoaded,
                     [&loaded] { loaded = true; });
    desktop.debugger.initialize("bench");
    if (!desktop.module || !processUntil([&] { return loaded; }, 10000)) {
        state.SkipWithError("the behaviour did not load");
        return;
    }
    desktop.debugger.setLevel({"Say__said"}, QString());
    const std::string event = desktop.debugger.frameManagerId().toStdString() + "Say__said";
    processUntil([&] { return !memory.subscribers(event).empty(); }, 10000);

    std::atomic<int> received {0};
    bool inOrder = true;
    QObject receiver;
    QObject::connect(&desktop.debugger, &RK::BehaviorDebugger::IOActivated, &receiver,
                     [&](const QString &, const QString &value) {
                         if (value.toInt() != received.load())
                             inOrder = false;
                         ++received;
                     });
    std::atomic<int> baselineReceived {0};
    bool baselineInOrder = true;
    QObject::connect(desktop.module.get(), &RK::SartelModuleInterface::dataSubscribedChanged,
                     &receiver, [&](const QString &name, const VX::VXValue &value) {
                         if (name != QLatin1String("Bench/Plain"))
                             return;
                         if (value.toInt() != baselineReceived.load())
                             baselineInOrder = false;
                         ++baselineReceived;
                     });
    emit desktop.module->subscribeToMicroEventRequested(QStringLiteral("Bench/Plain"));
    processUntil([&] { return !memory.subscribers("Bench/Plain").empty(); }, 10000);

    std::vector<double> rates;
    std::vector<double> baselineRates;
    for (auto _ : state) {
        std::atomic<bool> stop {false};
        baselineReceived = 0;
        Clock::time_point t0 = Clock::now();
        std::thread b = raiser(memory, "Bench/Plain", count, baselineReceived, stop, k_window);
        processUntil([&] { return baselineReceived == count; }, 120000);
        baselineRates.push_back(baselineReceived / seconds(Clock::now() - t0));
        stop = true;
        b.join();

        stop = false;
        received = 0;
        t0 = Clock::now();
        std::thread r = raiser(memory, event, count, received, stop, k_window);
        processUntil([&] { return received == count; }, 120000);
        rates.push_back(received / seconds(Clock::now() - t0));
        stop = true;
        r.join();
        if (received != count || baselineReceived != count || !inOrder || !baselineInOrder)
            state.SkipWithError("events were lost or reordered");
    }
    const double rate = median(rates);
    const double baseline = median(baselineRates);
    state.counters["io_per_s"] = rate;
    state.counters["data_per_s"] = baseline;
    state.counters["ratio"] = rate / baseline;
    state.counters["lost"] = double(count - received);
    state.counters["goal_met"] = rate >= 20000 && rate / baseline >= 0.8 ? 1 : 0;
}

void BM_StartToRunning(benchmark::State &state)
{
    const int runs = int(state.range(0));
    sim::Robot robot;
    auto *behaviors = robot.serviceAs<sim::BehaviorManagerService>("VXBehaviorManager");
    behaviors->install("bench", k_behavior);
    robot.start();
    Desktop desktop(robot);
    if (!desktop.module) {
        state.SkipWithError("no connection to the simulated robot");
        return;
    }
    const boost::shared_ptr<VX::VXProxy> proxy
        = RK::currentConnection(desktop.manager)->behaviorManager();
    using Instance = RK::BehaviorInstanceManager;
    Instance instance(&desktop.manager, "bench", QString(), true);
    // Baseline: the start call and the running list it causes, seen where
    // every event arrives.
    bool listed = false;
    QObject receiver;
    QObject::connect(desktop.module.get(), &RK::SartelModuleInterface::dataSubscribedChanged,
                     &receiver, [&](const QString &name, const VX::VXValue &value) {
                         if (name == QLatin1String("BehaviorsRun") && value.getSize() > 0)
                             listed = true;
                     });
    // Empty running lists as the interface tells them. A stop is over once
    // its list has come and the instance, which takes the list by its own
    // road and may do so a moment later, says Stopped.
    int emptyLists = 0;
    QObject::connect(desktop.manager.behaviorManagerInterface().get(),
                     &RK::BehaviorManagerInterface::runningBehaviorsUpdated, &receiver,
                     [&emptyLists](const QStringList &l) { emptyLists += l.isEmpty() ? 1 : 0; });
    auto stopAndSettle = [&] {
        const int before = emptyLists;
        behaviors->stopBehavior("bench");
        return processUntil(
            [&] { return emptyLists > before && instance.state() == Instance::Stopped; }, 10000);
    };
    std::vector<double> starts;
    std::vector<double> baselines;
    bool complete = true;
    for (auto _ : state) {
        for (int i = 0; i < runs + 1 && complete; ++i) {
            listed = false;
            Clock::time_point t0 = Clock::now();
            proxy->call<void>("startBehavior", std::string("bench"));
            complete = processUntil([&] { return listed; }, 10000);
            const double baseline = seconds(Clock::now() - t0);
            complete = complete && stopAndSettle();

            instance.preloadBehavior();
            complete = complete
                && processUntil([&] { return instance.state() == Instance::Preloaded; }, 10000);
            t0 = Clock::now();
            instance.playBehavior();
            complete = complete
                && processUntil([&] { return instance.state() == Instance::Running; }, 10000);
            const double start = seconds(Clock::now() - t0);
            complete = complete && stopAndSettle();
            // The first start also asks for the nature; it is left out.
            if (i > 0) {
                starts.push_back(start * 1000);
                baselines.push_back(baseline * 1000);
            }
        }
    }
    if (!complete || starts.empty()) {
        fprintf(stderr, "stopped after %zu start(s), instance state %d\n", starts.size(),
                int(instance.state()));
        state.SkipWithError("a start did not reach Running");
        return;
    }
    const double startMs = median(starts);
    const double baselineMs = median(baselines);
    state.counters["start_ms"] = startMs;
    state.counters["call_and_event_ms"] = baselineMs;
    state.counters["ratio"] = startMs / baselineMs;
    state.counters["goal_3x_met"] = startMs / baselineMs <= 3 ? 1 : 0;
}

} // namespace

BENCHMARK(BM_BoxOutputsToIOActivated)->Arg(100000)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StartToRunning)->Arg(50)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return bench::runWithQt(argc, argv);
}
