// Perception against the in-process simulated robot. Each figure comes with a
// baseline measured in the same run:
//   polling  200 objects polled every 100 ms: the objectsUpdated lists that
//            reach the application's thread (all 200 names, none missed),
//            and the cost of one poll on the executer's thread against a bare
//            getObjectNames round trip on the same thread;
//   churn    arrivals and departures on the robot, through the people
//            perception interface to the application's thread, against the
//            same signals delivered to a plain framework subscriber that only
//            counts them; the final list must equal the robot's.

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/connection_manager.h>
#include <connection/people_perception_interface.h>
#include <connection/platform.h>
#include <connection/world_representation_interface.h>

#include "world_representation_executer_p.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include <sim/people_perception_service.h>
#include <sim/robot.h>
#include <sim/world_representation_service.h>

#include <wz/log.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

using namespace bench;

// A robot with its scene and autoplay off, and a manager connected to it.
struct Bench
{
    Bench()
    {
        robot.start();
        world().setSceneRunning(false);
        people().setAutoplay(false);
        people().clear();
        established = connectTo(manager, robot);
    }
    ~Bench() { disconnectAndWait(manager); }
    sim::WorldRepresentationService &world()
    {
        return *robot.serviceAs<sim::WorldRepresentationService>("VXWorldRepresentation");
    }
    sim::PeoplePerceptionService &people()
    {
        return *robot.serviceAs<sim::PeoplePerceptionService>("VXPeoplePerception");
    }

    sim::Robot robot;
    RK::ConnectionManager manager;
    bool established = false;
};

void BM_WorldPolling(benchmark::State &state)
{
    const int seconds = int(state.range(0));
    const int periodMs = 100;
    const int objects = 200;
    std::vector<double> tick;
    std::vector<double> bare;
    int updates = 0;
    int complete = 0;
    for (auto _ : state) {
        Bench bench;
        if (!bench.established) {
            state.SkipWithError("no connection to the simulated robot");
            return;
        }
        for (int i = bench.world().objectNames().size(); i < objects; ++i)
            bench.world().addObject("Object" + std::to_string(i), "object", "World");
        const auto world = bench.manager.worldRepresentationInterface();
        QObject receiver;
        QObject::connect(world.get(), &RK::WorldRepresentationInterface::objectsUpdated, &receiver,
                         [&](const QStringList &names) {
                             ++updates;
                             if (names.size() == objects)
                                 ++complete;
                         });
        world->startObjectPolling(periodMs);
        QDeadlineTimer end(seconds * 1000);
        processUntil([&end] { return end.hasExpired(); }, seconds * 1000 + 1000);
        world->stopObjectPolling();
        // The last tick's list may still be on its way.
        QDeadlineTimer drain(300);
        processUntil([&drain] { return drain.hasExpired(); }, 1000);

        const int polled = updates;
        const int polledComplete = complete;

        RK::WorldRepresentationExecuter *executer = world->executer();
        const auto proxy = RK::currentConnection(bench.manager)->worldRepresentation();
        for (int round = 0; round < 50; ++round) {
            QMetaObject::invokeMethod(
                executer,
                [&] {
                    Clock::time_point t0 = Clock::now();
                    benchmark::DoNotOptimize(proxy->getObjectNames());
                    bare.push_back(millis(Clock::now() - t0));
                    t0 = Clock::now();
                    executer->pollObjects();
                    tick.push_back(millis(Clock::now() - t0));
                },
                Qt::BlockingQueuedConnection);
        }
        if (!processUntil([&] { return updates == polled + 50; }, 5000))
            state.SkipWithError("a measured poll did not reach the application");
        updates = polled;
        complete = polledComplete;
    }
    const int expected = seconds * 1000 / periodMs;
    state.counters["updates"] = updates;
    state.counters["expected"] = expected;
    state.counters["complete_lists"] = complete;
    state.counters["tick_ms"] = median(tick);
    state.counters["getObjectNames_ms"] = median(bare);
    state.counters["tick_ratio"] = median(tick) / median(bare);
}

void BM_PeopleChurn(benchmark::State &state)
{
    const int cycles = int(state.range(0)); // arrivals, and as many departures
    std::vector<double> libraryRates;
    std::vector<double> frameworkRates;
    bool listsEqual = true;
    int lost = 0;
    for (auto _ : state) {
        Bench bench;
        if (!bench.established) {
            state.SkipWithError("no connection to the simulated robot");
            return;
        }
        sim::PeoplePerceptionService &people = bench.people();
        // Each person stays while the next three come, so the list is never
        // long and never empty. Returns how many stay at the end.
        const auto churn = [&people](int count) {
            std::vector<int> here;
            for (int i = 0; i < count; ++i) {
                here.push_back(people.arrive({1.0f, 0.0f, 0.0f}));
                if (here.size() > 3) {
                    people.leave(here.front());
                    here.erase(here.begin());
                }
            }
            return int(here.size());
        };
        const auto everyoneLeaves = [&people] {
            const std::vector<int> here = people.people();
            for (int id : here)
                people.leave(id);
            return int(here.size());
        };
        const auto perception = bench.manager.peoplePerceptionInterface();
        // Counted over the whole run, against what the robot was made to do:
        // the interface hears every phase, and a departure's signal may come
        // after the list that already lacks it.
        int arrived = 0;
        int left = 0;
        int arrivals = 0;
        int departures = 0;
        QObject receiver;
        QObject::connect(perception.get(), &RK::PeoplePerceptionInterface::peopleJustArrived,
                         &receiver, [&arrived](int) { ++arrived; });
        QObject::connect(perception.get(), &RK::PeoplePerceptionInterface::peopleJustLeft,
                         &receiver, [&left](int) { ++left; });
        const auto churnCounted = [&](int count) {
            const int stay = churn(count);
            arrivals += count;
            departures += count - stay;
        };
        const auto allHeard = [&] { return arrived == arrivals && left == departures; };
        // Warm-up: threads of the pool, buffers.
        churnCounted(200);
        departures += everyoneLeaves();

        // The counting client stays subscribed through both phases, so that
        // the robot emits to the same two subscribers in each.
        auto session = boost::make_shared<wz::Session>();
        session->connect(bench.robot.url()).value();
        wz::Object object = session->service("VXPeoplePerception").value();
        std::atomic<int> seen {0};
        object.connect("justArrived", [&seen](int) { ++seen; }).value();
        object.connect("justLeft", [&seen](int) { ++seen; }).value();
        // Ids are never reused, so the interface's list equals the robot's
        // only once the last event of a churn has come.
        const auto settled = [&] {
            QList<int> robotList;
            for (int id : people.people())
                robotList << id;
            return perception->peopleList() == robotList;
        };

        for (int round = 0; round < 3; ++round) {
            processUntil(allHeard, 10000);
            seen = 0;
            Clock::time_point t0 = Clock::now();
            std::thread framework([&] { churnCounted(cycles); });
            const int total = 2 * cycles - 3;
            while (seen < total && Clock::now() - t0 < std::chrono::seconds(60))
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            frameworkRates.push_back(seen / (millis(Clock::now() - t0) / 1000));
            framework.join();
            departures += everyoneLeaves();
            processUntil(allHeard, 10000);

            const int before = arrived + left;
            t0 = Clock::now();
            std::thread library([&] { churnCounted(cycles); });
            library.join();
            processUntil(allHeard, 60000);
            libraryRates.push_back((arrived + left - before) / (millis(Clock::now() - t0) / 1000));
            lost += (arrivals + departures) - (arrived + left);
            listsEqual = listsEqual && processUntil(settled, 10000);
            departures += everyoneLeaves();
        }
        processUntil(allHeard, 10000);
        session->close().wait();
    }
    state.counters["gui_events_per_s"] = median(libraryRates);
    state.counters["framework_events_per_s"] = median(frameworkRates);
    state.counters["ratio"] = median(libraryRates) / median(frameworkRates);
    state.counters["lost"] = lost;
    state.counters["final_list_equal"] = listsEqual ? 1 : 0;
}

} // namespace

BENCHMARK(BM_WorldPolling)->Arg(10)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeopleChurn)->Arg(2000)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return bench::runWithQt(argc, argv);
}
