#include "commands.h"
#include "console.h"

#include <connection/behavior_instance_manager.h>

#include <QElapsedTimer>
#include <QObject>

#include <csignal>

namespace console {

namespace {

volatile std::sig_atomic_t g_runInterrupted = 0;

void onRunInterrupt(int)
{
    g_runInterrupted = 1;
}

const char *stateName(RK::BehaviorInstanceManager::State state)
{
    static const char *const names[]
        = {"Missing", "Preloading", "Preloaded", "Starting", "Running", "Stopping", "Stopped"};
    const int i = static_cast<int>(state);
    return i >= 0 && i < 7 ? names[i] : "?";
}

} // namespace

// Runs a behaviour and prints its states as they change, with times, until it
// ends, --for runs out (then it is stopped) or Ctrl-C (which stops it).
int runCommand(Console &console, const QStringList &arguments)
{
    QString name;
    int forSeconds = 0;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        if (arg == QLatin1String("--for")) {
            bool ok = false;
            forSeconds = i + 1 < arguments.size() ? arguments.at(i + 1).toInt(&ok) : 0;
            if (!ok || forSeconds < 1 || forSeconds > 86400) {
                console.err() << "error: --for wants a whole number of seconds from 1" << Qt::endl;
                return ExitUsage;
            }
            ++i;
        } else if (name.isEmpty() && !arg.startsWith(QLatin1String("--"))) {
            name = arg;
        } else {
            console.err() << "error: run takes NAME [--for S]" << Qt::endl;
            return ExitUsage;
        }
    }
    if (name.isEmpty()) {
        console.err() << "error: run wants a behaviour name" << Qt::endl;
        return ExitUsage;
    }
    using Instance = RK::BehaviorInstanceManager;
    QTextStream &out = console.out();
    QElapsedTimer clock;
    clock.start();
    auto stamp
        = [&clock] { return QStringLiteral("%1 s").arg(clock.elapsed() / 1000.0, 7, 'f', 3); };
    Instance instance(&console.manager(), name, QString(), false);
    bool started = false;
    bool ended = false;
    bool failed = false;
    QObject::connect(&instance, &Instance::stateChanged, [&](Instance::State s) {
        out << stamp() << "  " << stateName(s) << Qt::endl;
        if (s == Instance::Stopped && !started) {
            started = true;
            instance.playBehavior();
        } else if (s == Instance::Stopped || s == Instance::Missing) {
            ended = true;
        }
    });
    QObject::connect(&instance, &Instance::errorInBox, [&](QString box, QString error) {
        out << stamp() << "  error in box " << (box.isEmpty() ? QStringLiteral("?") : box) << ": "
            << error << Qt::endl;
    });
    QObject::connect(&instance, &Instance::errorStartingBehavior,
                     [&](QString title, QString message, QString details) {
                         out << stamp() << "  " << title << ": " << message << " " << details
                             << Qt::endl;
                         failed = true;
                     });
    g_runInterrupted = 0;
    const auto previous = std::signal(SIGINT, onRunInterrupt);
    const int limitMs = forSeconds > 0 ? forSeconds * 1000 : 86400000;
    console.waitUntil([&] { return g_runInterrupted != 0 || ended || failed; }, limitMs);
    std::signal(SIGINT, previous);
    if (!ended && !failed && instance.state() != Instance::Missing) {
        instance.stopBehavior();
        console.waitUntil([&] { return ended; }, 10000);
    }
    out << stamp() << "  done (" << stateName(instance.state()) << ")" << Qt::endl;
    return failed || !started ? ExitCommandFailed : ExitOk;
}

} // namespace console
