#include "transfer.h"

#include <QElapsedTimer>
#include <QObject>

namespace console {

bool checkRemotePath(const QString &path, QString &why)
{
    if (path.isEmpty()) {
        why = QStringLiteral("the remote path is empty");
        return false;
    }
    if (path.startsWith(QLatin1Char('/'))) {
        why = QStringLiteral("the remote path is relative to the robot's store; \"%1\" is not")
                  .arg(path);
        return false;
    }
    for (const QString &part : path.split(QLatin1Char('/'))) {
        if (part == QLatin1String("..") || part == QLatin1String(".") || part.isEmpty()) {
            why = QStringLiteral("the remote path \"%1\" has a \"%2\" part; name the project "
                                 "itself")
                      .arg(path, part.isEmpty() ? QStringLiteral("empty") : part);
            return false;
        }
    }
    return true;
}

int runTransfer(Console &console, const Transfer &transfer)
{
    if (const int status = need(console, {}, transfer.verb.toLower().toLatin1().constData()))
        return status;
    std::string host;
    int port = 0;
    if (!console.manager().getCurrentConnectionHttp(host, port)) {
        console.err() << "error: the robot has no file server to " << transfer.verb.toLower()
                      << Qt::endl;
        return ExitCommandFailed;
    }
    Waiter waiter(console);
    RK::HttpProjectSynchronizer sync;
    Progress progress(console.out(), console.options().terminal);
    int minimum = 0, maximum = 0, value = 0;
    QString state;
    bool ended = false, ok = false, lost = false;
    QString reason;
    auto draw = [&] {
        QString detail;
        double percent = -1;
        if (maximum > minimum) {
            percent = 100.0 * (value - minimum) / (maximum - minimum);
            detail = transfer.byteProgress
                ? QStringLiteral("%1 / %2 MB")
                      .arg(value / 1e6, 0, 'f', 1)
                      .arg(maximum / 1e6, 0, 'f', 1)
                : QStringLiteral("%1 / %2 files").arg(value).arg(maximum);
        }
        progress.show(state, detail, percent);
    };
    QObject receiver;
    QObject::connect(&sync, &RK::ProjectSynchronizer::stateChanged, &receiver,
                     [&](const QString &text) {
                         state = text;
                         draw();
                     });
    QObject::connect(&sync, &RK::ProjectSynchronizer::rangeChanged, &receiver, [&](int lo, int hi) {
        minimum = lo;
        maximum = hi;
    });
    QObject::connect(&sync, &RK::ProjectSynchronizer::valueChanged, &receiver, [&](int v) {
        value = v;
        draw();
    });
    QObject::connect(&sync, &RK::ProjectSynchronizer::connectionLost, &receiver,
                     [&] { lost = true; });
    QObject::connect(&sync, &RK::ProjectSynchronizer::done, &receiver, [&] { ended = ok = true; });
    QObject::connect(&sync, &RK::ProjectSynchronizer::aborted, &receiver, [&](const QString &r) {
        ended = true;
        reason = r;
    });

    QElapsedTimer timer;
    timer.start();
    transfer.start(sync, host, port);
    const Outcome outcome = waiter.wait([&] { return ended || lost; });
    if (outcome == Outcome::Interrupted) {
        sync.cancel();
        // The synchronizer's thread may sit in a read: it gets the
        // cancellation limit to confirm, and the command ends regardless.
        console.waitUntil([&] { return ended; }, console.options().cancelMs);
        progress.clear();
        console.err() << transfer.verb << " cancelled"
                      << (ended ? "" : " (the robot had not confirmed yet)") << '.' << Qt::endl;
        return ExitInterrupted;
    }
    progress.clear();
    if (outcome == Outcome::Lost && !ended) {
        sync.cancel();
        return waiter.fail(outcome, transfer.verb.toLower() + QStringLiteral(" to end"));
    }
    if (lost && !ok) {
        console.err() << "error: " << transfer.verb << " failed: the connection to the file server "
                      << "was lost" << (reason.isEmpty() ? QString() : ": " + reason) << Qt::endl;
        return ExitNoConnection;
    }
    if (!ok) {
        console.err() << "error: " << transfer.verb << " failed: "
                      << (reason.isEmpty() ? QStringLiteral("no reason given") : reason)
                      << Qt::endl;
        return ExitCommandFailed;
    }
    console.out() << transfer.summary(timer.elapsed()) << Qt::endl;
    return ExitOk;
}

} // namespace console
