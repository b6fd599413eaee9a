#include "commands.h"
#include "console.h"

#include <connection/behavior_debugger.h>
#include <connection/memory_interface.h>

#include <QElapsedTimer>
#include <QObject>

#include <csignal>

namespace console {

namespace {

volatile std::sig_atomic_t g_debugInterrupted = 0;

void onDebugInterrupt(int)
{
    g_debugInterrupted = 1;
}

} // namespace

// Loads a behaviour in the debugger, watches the inputs and outputs and the
// timeline given (without --io and --timeline, all that the behaviour
// declared), runs it, and prints what fires and the frame until it ends,
// --for runs out or Ctrl-C.
int debugCommand(Console &console, const QStringList &arguments)
{
    QString name;
    QStringList ios;
    QString timeline;
    int forSeconds = 0;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        const bool hasValue = i + 1 < arguments.size();
        if (arg == QLatin1String("--for") && hasValue) {
            bool ok = false;
            forSeconds = arguments.at(++i).toInt(&ok);
            if (!ok || forSeconds < 1 || forSeconds > 86400) {
                console.err() << "error: --for wants a whole number of seconds from 1" << Qt::endl;
                return ExitUsage;
            }
        } else if (arg == QLatin1String("--io") && hasValue) {
            ios << arguments.at(++i).split(QLatin1Char(','), Qt::SkipEmptyParts);
        } else if (arg == QLatin1String("--timeline") && hasValue) {
            timeline = arguments.at(++i);
        } else if (name.isEmpty() && !arg.startsWith(QLatin1String("--"))) {
            name = arg;
        } else {
            console.err() << "error: debug takes NAME [--io BOX__IO,...] [--timeline NAME] "
                             "[--for S]"
                          << Qt::endl;
            return ExitUsage;
        }
    }
    if (name.isEmpty()) {
        console.err() << "error: debug wants a behaviour name" << Qt::endl;
        return ExitUsage;
    }
    QTextStream &out = console.out();
    QElapsedTimer clock;
    clock.start();
    auto stamp
        = [&clock] { return QStringLiteral("%1 s").arg(clock.elapsed() / 1000.0, 7, 'f', 3); };
    RK::BehaviorDebugger debugger(&console.manager());
    // Made after the connection: it hears the robot's events from now on.
    debugger.onConnectionEstablished();
    bool loaded = false;
    bool ended = false;
    bool failed = false;
    int lastFrame = -1;
    using D = RK::BehaviorDebugger;
    QObject::connect(&debugger, &D::behaviorLoading,
                     [&] { out << stamp() << "  loading " << name << Qt::endl; });
    const bool discover = ios.isEmpty() && timeline.isEmpty();
    QObject::connect(&debugger, &D::behaviorLoaded, [&] {
        const QString id = debugger.frameManagerId();
        out << stamp() << "  loaded, id " << id << Qt::endl;
        if (discover && !loaded) {
            // Nothing named: follow every input, output and timeline the
            // loaded behaviour declared under its id.
            if (const auto memory = console.manager().memoryInterface()) {
                const QStringList events = memory->getMicroEventList().result();
                const QStringList data = memory->getDataList().result();
                for (const QString &key : events) {
                    if (key.startsWith(id))
                        ios << key.mid(id.size());
                }
                for (const QString &key : data) {
                    if (key.startsWith(id) && !events.contains(key)) {
                        timeline = key.mid(id.size());
                        break;
                    }
                }
                out << stamp() << "  following " << (ios.isEmpty() ? "-" : ios.join(", "))
                    << (timeline.isEmpty() ? QString() : QStringLiteral(" and ") + timeline)
                    << Qt::endl;
            }
        }
        debugger.setLevel(ios, timeline);
        if (!loaded) {
            loaded = true;
            debugger.startBehavior();
        }
    });
    QObject::connect(&debugger, &D::behaviorStarted,
                     [&] { out << stamp() << "  running" << Qt::endl; });
    QObject::connect(&debugger, &D::behaviorStopped, [&] {
        out << stamp() << "  stopped" << Qt::endl;
        ended = true;
    });
    QObject::connect(&debugger, &D::IOActivated, [&](QString io, QString value) {
        // An output without a value (a bang) arrives as an invalid value.
        const bool bang = value.isEmpty() || value == QLatin1String("<invalid>");
        out << stamp() << "  " << io << (bang ? QString() : QStringLiteral(" = ") + value)
            << Qt::endl;
    });
    QObject::connect(&debugger, &D::currentFrameChanged, [&](int frame) {
        // One line every tenth frame keeps the output readable.
        if (lastFrame < 0 || frame / 10 != lastFrame / 10)
            out << stamp() << "  frame " << frame << Qt::endl;
        lastFrame = frame;
    });
    QObject::connect(&debugger, &D::errorInBox, [&](QString box, QString error) {
        out << stamp() << "  error in box " << box << ": " << error << Qt::endl;
    });
    QObject::connect(&debugger, &D::errorStartingBehavior, [&](QString t, QString m, QString d) {
        out << stamp() << "  " << t << ": " << m << " " << d << Qt::endl;
        failed = true;
    });
    debugger.initialize(name);
    g_debugInterrupted = 0;
    const auto previous = std::signal(SIGINT, onDebugInterrupt);
    const int limitMs = forSeconds > 0 ? forSeconds * 1000 : 86400000;
    console.waitUntil([&] { return g_debugInterrupted != 0 || ended || failed; }, limitMs);
    std::signal(SIGINT, previous);
    if (!ended && debugger.isRunning()) {
        debugger.stopBehavior();
        console.waitUntil([&] { return ended; }, 10000);
    }
    // The robot drops the frame key when the behaviour ends: the last one
    // seen is what tells how far it got.
    out << stamp() << "  done, last frame " << lastFrame << Qt::endl;
    return failed || !loaded ? ExitCommandFailed : ExitOk;
}

} // namespace console
