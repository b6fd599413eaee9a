// morvane-sim: the simulated robot as a program.
#include <sim/behavior_manager_service.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <pthread.h>

namespace {

void usage(FILE *out)
{
    std::fprintf(out,
                 "usage: morvane-sim [--listen tcp://127.0.0.1:9559] [--scenario FILE] "
                 "[--behaviors DIR] [--verbose]\n");
}

} // namespace

int main(int argc, char **argv)
{
    sim::RobotOptions options;
    options.listenUrl = "tcp://127.0.0.1:9559";
    options.lively = true;
    std::string scenarioFile;
    std::string behaviorDir;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--listen" || arg == "--scenario") && i + 1 < argc) {
            (arg == "--listen" ? options.listenUrl : scenarioFile) = argv[++i];
        } else if (arg == "--behaviors" && i + 1 < argc) {
            behaviorDir = argv[++i];
        } else if (arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        } else {
            std::fprintf(stderr, "morvane-sim: unexpected argument \"%s\"\n", arg.c_str());
            usage(stderr);
            return 2;
        }
    }

    // Blocked before any thread starts, so that every thread inherits the
    // mask and only sigwait below sees Ctrl-C and SIGTERM.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    wz::log::setLogLevel(options.verbose ? wz::LogLevel_Verbose : wz::LogLevel_Info);
    try {
        sim::Robot robot(options);
        if (!behaviorDir.empty()) {
            auto *behaviors
                = robot.serviceAs<sim::BehaviorManagerService>(sim::BehaviorManagerService::kName);
            if (behaviors)
                behaviors->installDirectory(behaviorDir);
        }
        if (!scenarioFile.empty())
            robot.scenario().loadFile(scenarioFile);
        robot.start();
        std::printf("morvane-sim listening on %s\n", robot.url().str().c_str());
        std::fflush(stdout);

        int received = 0;
        sigwait(&stopSignals, &received);
        wz::log::LogStream(wz::LogLevel_Info, "sim", __FUNCTION__)
            << "stopping on " << (received == SIGINT ? "SIGINT" : "SIGTERM");
        robot.stop();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "morvane-sim: %s\n", e.what());
        return 1;
    }
    return 0;
}
