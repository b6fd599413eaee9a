#include "commands.h"
#include "console.h"

#include <connection/http_project_synchronizer.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QObject>

#include <csignal>
#include <functional>

namespace console {

namespace {

volatile std::sig_atomic_t g_transferInterrupted = 0;

void onTransferInterrupt(int)
{
    g_transferInterrupted = 1;
}

} // namespace

// Runs one synchronizer operation with a progress line; Ctrl-C cancels it.
// `bytes` and `files` describe what moves, for the progress and the summary.
int runTransfer(
    Console &console, const QString &verb,
    const std::function<void(RK::HttpProjectSynchronizer &, const std::string &, int)> &start,
    const std::function<QString(qint64 ms)> &summary, bool byteProgress)
{
    std::string host;
    int port = 0;
    if (!console.manager().getCurrentConnectionHttp(host, port)) {
        console.err() << "error: no connection" << Qt::endl;
        return ExitNoConnection;
    }
    QTextStream &out = console.out();
    RK::HttpProjectSynchronizer sync;
    int minimum = 0, maximum = 0, value = 0;
    QString state;
    bool ended = false, ok = false, lost = false;
    QString reason;
    auto draw = [&] {
        QString line = state;
        if (maximum > minimum) {
            const double percent = 100.0 * (value - minimum) / (maximum - minimum);
            line += byteProgress ? QStringLiteral("  %1 / %2 MB  %3%")
                                       .arg(value / 1e6, 0, 'f', 1)
                                       .arg(maximum / 1e6, 0, 'f', 1)
                                       .arg(percent, 0, 'f', 0)
                                 : QStringLiteral("  %1 / %2 files  %3%")
                                       .arg(value)
                                       .arg(maximum)
                                       .arg(percent, 0, 'f', 0);
        }
        out << '\r' << line.left(100).leftJustified(100) << Qt::flush;
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

    g_transferInterrupted = 0;
    const auto previous = std::signal(SIGINT, onTransferInterrupt);
    QElapsedTimer timer;
    timer.start();
    start(sync, host, port);
    bool cancelled = false;
    while (!ended) {
        console.waitUntil([&] { return ended || g_transferInterrupted != 0; }, 86400000);
        if (g_transferInterrupted && !cancelled) {
            cancelled = true;
            sync.cancel();
        }
    }
    std::signal(SIGINT, previous);
    out << '\r' << QString().leftJustified(100) << '\r' << Qt::flush;
    if (cancelled) {
        out << verb << " cancelled." << Qt::endl;
        return 130;
    }
    if (!ok) {
        console.err() << "error: " << verb << " failed: " << reason
                      << (lost ? " (connection lost)" : "") << Qt::endl;
        return ExitCommandFailed;
    }
    out << summary(timer.elapsed()) << Qt::endl;
    return ExitOk;
}

// Sends a local directory as a project; --merge keeps what stands remotely.
int pushCommand(Console &console, const QStringList &arguments)
{
    QStringList positional;
    bool merge = false;
    for (const QString &arg : arguments) {
        if (arg == QLatin1String("--merge"))
            merge = true;
        else if (arg.startsWith(QLatin1String("--"))) {
            console.err() << "error: push has no option " << arg << Qt::endl;
            return ExitUsage;
        } else
            positional << arg;
    }
    if (positional.size() != 2) {
        console.err() << "error: push wants DIR REMOTE" << Qt::endl;
        return ExitUsage;
    }
    if (!QFileInfo(positional[0]).isDir()) {
        console.err() << "error: " << positional[0] << " is not a directory" << Qt::endl;
        return ExitUsage;
    }
    wz::project::ProjectModel model;
    try {
        model.open(positional[0]);
    } catch (const std::exception &e) {
        console.err() << "error: " << e.what() << Qt::endl;
        return ExitCommandFailed;
    }
    const QStringList files = model.getFileList(QString(), true, true, false);
    quint64 bytes = 0;
    for (const QString &f : files)
        bytes += model.fileSize(f);
    const QString remote = positional[1];
    return runTransfer(
        console, QStringLiteral("Push"),
        [&](RK::HttpProjectSynchronizer &sync, const std::string &host, int port) {
            if (merge)
                sync.pushMerge(host, port, &model, remote, wz::project::ArchiveFormat_Plain);
            else
                sync.push(host, port, &model, remote, wz::project::ArchiveFormat_Plain);
        },
        [&](qint64 ms) {
            return QStringLiteral("Pushed %1 files, %2 MB in %3 s")
                .arg(files.size())
                .arg(bytes / 1e6, 0, 'f', 1)
                .arg(ms / 1000.0, 0, 'f', 1);
        },
        true);
}

} // namespace console
