#include "kit.h"

#include <connection/behavior_debugger.h>
#include <connection/behavior_manager_interface.h>
#include <connection/memory_interface.h>

#include <QElapsedTimer>
#include <QObject>

#include <algorithm>

namespace console {

// Loads a behaviour in the debugger, watches the inputs and outputs and the
// timeline given (without --io and --timeline, all that the behaviour
// declared), runs it, and prints what fires and the frame until it ends,
// --for runs out or Ctrl-C.
int debugCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "debug", arguments);
    int forMs = 0;
    args.duration("for", forMs);
    QStringList ios;
    QString text;
    while (args.option("io", text))
        ios << text.split(QLatin1Char(','), Qt::SkipEmptyParts);
    QString timeline;
    args.option("timeline", timeline);
    const QStringList words = args.positional();
    if (words.size() != 1)
        args.fail(QStringLiteral("debug wants one behaviour name"));
    if (const int status = args.finish())
        return status;
    const QString name = words.first();
    if (const int status = need(console, {"VXBehaviorManager", "VXFrameManager"}, "debug"))
        return status;
    const auto behaviors = console.manager().behaviorManagerInterface();
    if (!behaviors)
        return missing(console, "VXBehaviorManager", "debug");
    Waiter waiter(console);
    waiter.observe(behaviors->executerObject(), QStringLiteral("VXBehaviorManager"));
    const bool json = console.json();
    QTextStream &out = console.out();
    QElapsedTimer clock;
    clock.start();
    auto stamp
        = [&clock] { return QStringLiteral("%1 s").arg(clock.elapsed() / 1000.0, 7, 'f', 3); };
    // One line of the trace: words on a terminal or in a log, one JSON
    // object for a script.
    const auto trace = [&](const char *kind, const QString &text, QJsonObject fields) {
        if (json) {
            fields.insert(QStringLiteral("time"), clock.elapsed() / 1000.0);
            fields.insert(QStringLiteral("event"), QLatin1String(kind));
            printJsonLine(console, fields);
        } else {
            out << stamp() << "  " << text << Qt::endl;
        }
    };
    RK::BehaviorDebugger debugger(&console.manager());
    // Made after the connection: it hears the robot's events from now on.
    debugger.onConnectionEstablished();
    bool loaded = false;
    bool started = false;
    bool ended = false;
    bool failed = false;
    QStringList problems;
    int lastFrame = -1;
    using D = RK::BehaviorDebugger;
    QObject::connect(&debugger, &D::behaviorLoading, [&] {
        trace("loading", QStringLiteral("loading ") + name, {{QStringLiteral("behavior"), name}});
    });
    const bool discover = ios.isEmpty() && timeline.isEmpty();
    QObject::connect(&debugger, &D::behaviorLoaded, [&] {
        const QString id = debugger.frameManagerId();
        trace("loaded", QStringLiteral("loaded, id ") + id, {{QStringLiteral("id"), id}});
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
                trace("following",
                      QStringLiteral("following ")
                          + (ios.isEmpty() ? QStringLiteral("-") : ios.join(", "))
                          + (timeline.isEmpty() ? QString() : QStringLiteral(" and ") + timeline),
                      {{QStringLiteral("ios"), jsonList(ios)},
                       {QStringLiteral("timeline"), timeline}});
            }
        }
        debugger.setLevel(ios, timeline);
        if (!loaded) {
            loaded = true;
            debugger.startBehavior();
        }
    });
    QObject::connect(&debugger, &D::behaviorStarted, [&] {
        started = true;
        trace("running", QStringLiteral("running"), {});
    });
    QObject::connect(&debugger, &D::behaviorStopped, [&] {
        trace("stopped", QStringLiteral("stopped"), {});
        ended = true;
    });
    QObject::connect(&debugger, &D::IOActivated, [&](QString io, QString value) {
        // An output without a value (a bang) arrives as an invalid value.
        const bool bang = value.isEmpty() || value == QLatin1String("<invalid>");
        trace("io", io + (bang ? QString() : QStringLiteral(" = ") + value),
              {{QStringLiteral("io"), io},
               {QStringLiteral("value"), bang ? QJsonValue() : QJsonValue(value)}});
    });
    QObject::connect(&debugger, &D::currentFrameChanged, [&](int frame) {
        // One line every tenth frame keeps the output readable.
        if (lastFrame < 0 || frame / 10 != lastFrame / 10)
            trace("frame", QStringLiteral("frame %1").arg(frame),
                  {{QStringLiteral("frame"), frame}});
        lastFrame = frame;
    });
    QObject::connect(&debugger, &D::errorInBox, [&](QString box, QString error) {
        trace("boxError", QStringLiteral("error in box %1: %2").arg(box, error),
              {{QStringLiteral("box"), box}, {QStringLiteral("error"), error}});
        problems << box + ": " + error;
    });
    // A failure ends the wait; `problem` is what the last line gives.
    auto fail = [&](const char *kind, const QString &t, const QString &m, const QString &d,
                    const QString &problem) {
        trace(kind, t + ": " + m + " " + d,
              {{QStringLiteral("title"), t},
               {QStringLiteral("message"), m},
               {QStringLiteral("details"), d}});
        failed = true;
        problems << problem;
    };
    QObject::connect(&debugger, &D::errorStartingBehavior, [&](QString t, QString m, QString d) {
        fail("startError", t, m, d, t + ": " + m);
    });
    // Start failures come as errorStartingBehavior above; a load without
    // an id only here.
    QObject::connect(&debugger, &D::errorOccurred, [&](const RK::OperationError &e) {
        if (e.operation == QLatin1String("loadBehavior"))
            fail("loadError", e.title, e.contents, e.details, e.contents + " " + e.details);
    });
    debugger.initialize(name);
    const Options &options = console.options();
    Outcome outcome = waiter.wait([&] { return started || ended || failed; },
                                  options.answerMs + options.startMs);
    if (outcome == Outcome::Done && started && !ended && !failed)
        outcome = waiter.wait([&] { return ended || failed; },
                              forMs > 0 ? std::max(1, forMs - int(clock.elapsed())) : -1);
    if (outcome == Outcome::Lost)
        return waiter.fail(outcome, QStringLiteral("the behaviour to end"));
    if (!ended && debugger.isRunning()) {
        debugger.stopBehavior();
        console.waitUntil([&] { return ended || !console.manager().isConnected(); },
                          options.answerMs);
    }
    // The robot drops the frame key when the behaviour ends: the last one
    // seen is what tells how far it got.
    trace("done", QStringLiteral("done, last frame %1").arg(lastFrame),
          {{QStringLiteral("lastFrame"), lastFrame}});
    if (outcome == Outcome::Interrupted)
        return ExitInterrupted;
    if (outcome == Outcome::Failed)
        return waiter.fail(outcome, QStringLiteral("the behaviour"));
    if (!loaded || !started) {
        console.err() << "error: the robot did not " << (loaded ? "start " : "load ") << name
                      << (problems.isEmpty() ? QString() : QStringLiteral(": ") + problems.first())
                      << Qt::endl;
        return ExitCommandFailed;
    }
    if (!problems.isEmpty()) {
        console.err() << "error: " << name << " ran with " << problems.size()
                      << " error(s): " << problems.first() << Qt::endl;
        return ExitCommandFailed;
    }
    return ExitOk;
}

} // namespace console
