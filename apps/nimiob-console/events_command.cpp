#include "commands.h"
#include "console.h"

#include <connection/sartel_module.h>

#include <QDateTime>
#include <QObject>
#include <QSet>

#include <algorithm>
#include <csignal>

namespace console {

namespace {

volatile std::sig_atomic_t g_eventsInterrupted = 0;

void onEventsInterrupt(int)
{
    g_eventsInterrupted = 1;
}

} // namespace

// Subscribes micro events through the desktop module and prints each one as
// it arrives, until Ctrl-C or --for.
int eventsCommand(Console &console, const QStringList &arguments)
{
    QStringList keys;
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
        } else if (arg.startsWith(QLatin1String("--"))) {
            console.err() << "error: events has no option " << arg << Qt::endl;
            return ExitUsage;
        } else {
            keys << arg;
        }
    }
    if (keys.isEmpty()) {
        console.err() << "error: events wants at least one event name" << Qt::endl;
        return ExitUsage;
    }
    RK::ConnectionManager &manager = console.manager();
    const boost::shared_ptr<RK::SartelModuleInterface> module = manager.sartelModuleInterface();
    if (!module) {
        console.err() << "error: the connection has no desktop module" << Qt::endl;
        return ExitCommandFailed;
    }
    QTextStream &out = console.out();

    // The module's stream carries every event the desktop follows; only
    // those asked for are printed.
    const QSet<QString> wanted(keys.begin(), keys.end());
    int width = 0;
    for (const QString &key : keys)
        width = std::max(width, int(key.size()));
    int received = 0;
    bool lost = false;
    QObject receiver;
    QObject::connect(module.get(), &RK::SartelModuleInterface::dataSubscribedChanged, &receiver,
                     [&](const QString &name, const VX::VXValue &value) {
                         if (!wanted.contains(name))
                             return;
                         ++received;
                         out << QDateTime::currentDateTime().toString(
                             QStringLiteral("HH:mm:ss.zzz"))
                             << "  " << name.leftJustified(width) << "  "
                             << QString::fromUtf8(value.toString(1).c_str()) << Qt::endl;
                     });
    QObject::connect(module.get(), &RK::SartelModuleInterface::disconnectRequested, &receiver,
                     [&out] { out << "The robot let this desktop go." << Qt::endl; });
    QObject::connect(&manager, &RK::ConnectionManager::disconnected, &receiver,
                     [&lost] { lost = true; });

    emit module->subscribeToMicroEventsRequested(keys);
    out << "Following " << keys.join(QStringLiteral(", ")) << "; "
        << (forSeconds > 0 ? QStringLiteral("for %1 s").arg(forSeconds)
                           : QStringLiteral("Ctrl-C to stop"))
        << Qt::endl;

    g_eventsInterrupted = 0;
    const auto previous = std::signal(SIGINT, onEventsInterrupt);
    console.waitUntil([&] { return g_eventsInterrupted != 0 || lost; },
                      forSeconds > 0 ? forSeconds * 1000 : 86400000);
    std::signal(SIGINT, previous);
    if (lost) {
        console.err() << "error: the connection was lost" << Qt::endl;
        return ExitNoConnection;
    }
    emit module->unsubscribeToMicroEventsRequested(keys);
    out << (g_eventsInterrupted ? "Interrupted" : "Done") << " after " << received << " event(s)."
        << Qt::endl;
    return ExitOk;
}

} // namespace console
