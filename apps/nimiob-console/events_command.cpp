#include "kit.h"

#include <connection/sartel_module.h>

#include <QDateTime>
#include <QObject>
#include <QSet>

#include <algorithm>

namespace console {

// Subscribes micro events through the desktop module and prints each one as
// it arrives, until Ctrl-C or --for.
int eventsCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "events", arguments);
    int forMs = 0;
    args.duration("for", forMs);
    const QStringList keys = args.positional();
    if (keys.isEmpty())
        args.fail(QStringLiteral("events wants at least one event name"));
    for (const QString &key : keys) {
        if (key.trimmed().isEmpty())
            args.fail(QStringLiteral("an event name cannot be empty"));
    }
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXMemory"}, "events"))
        return status;
    const boost::shared_ptr<RK::SartelModuleInterface> module
        = console.manager().sartelModuleInterface();
    if (!module)
        return missing(console, "VXSartel", "events");
    QTextStream &out = console.out();
    Waiter waiter(console);
    waiter.observe(module->executerObject(), QStringLiteral("VXMemory"));

    // The module's stream carries every event the desktop follows; only
    // those asked for are printed.
    const QSet<QString> wanted(keys.begin(), keys.end());
    int width = 0;
    for (const QString &key : keys)
        width = std::max(width, int(key.size()));
    int received = 0;
    QObject receiver;
    QObject::connect(module.get(), &RK::SartelModuleInterface::dataSubscribedChanged, &receiver,
                     [&](const QString &name, const VX::VXValue &value) {
                         if (!wanted.contains(name))
                             return;
                         ++received;
                         const QDateTime now = QDateTime::currentDateTime();
                         const QString text = QString::fromUtf8(value.toString(1).c_str());
                         if (console.json()) {
                             printJsonLine(
                                 console,
                                 {{QStringLiteral("time"), now.toMSecsSinceEpoch() / 1000.0},
                                  {QStringLiteral("event"), name},
                                  {QStringLiteral("value"), text}});
                             return;
                         }
                         out << now.toString(QStringLiteral("HH:mm:ss.zzz")) << "  "
                             << name.leftJustified(width) << "  " << text << Qt::endl;
                     });
    bool letGo = false;
    QObject::connect(module.get(), &RK::SartelModuleInterface::disconnectRequested, &receiver,
                     [&] { letGo = true; });

    emit module->subscribeToMicroEventsRequested(keys);
    console.info() << "Following " << keys.join(QStringLiteral(", ")) << "; "
                   << (forMs > 0 ? QStringLiteral("for %1 s").arg(forMs / 1000.0)
                                 : QStringLiteral("Ctrl-C to stop"))
                   << Qt::endl;

    const Outcome outcome = waiter.wait([&] { return letGo; }, forMs > 0 ? forMs : -1);
    if (outcome == Outcome::Done) {
        console.err() << "error: the robot let this desktop go" << Qt::endl;
        return ExitNoConnection;
    }
    if (outcome != Outcome::TimedOut && outcome != Outcome::Interrupted)
        return waiter.fail(outcome, QStringLiteral("events"));
    emit module->unsubscribeToMicroEventsRequested(keys);
    console.info() << (outcome == Outcome::Interrupted ? "Interrupted" : "Done") << " after "
                   << received << " event(s)." << Qt::endl;
    return outcome == Outcome::Interrupted ? ExitInterrupted : ExitOk;
}

} // namespace console
