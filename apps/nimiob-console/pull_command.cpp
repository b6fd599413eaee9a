#include "commands.h"
#include "console.h"

#include <connection/http_project_synchronizer.h>

#include <QDir>
#include <QFileInfo>

#include <functional>

namespace console {

int runTransfer(
    Console &console, const QString &verb,
    const std::function<void(RK::HttpProjectSynchronizer &, const std::string &, int)> &start,
    const std::function<QString(qint64 ms)> &summary, bool byteProgress);

// Fetches a remote project into a new or empty local directory.
int pullCommand(Console &console, const QStringList &arguments)
{
    if (arguments.size() != 2 || arguments[0].startsWith(QLatin1String("--"))) {
        console.err() << "error: pull wants REMOTE DIR" << Qt::endl;
        return ExitUsage;
    }
    wz::project::ProjectModel model;
    try {
        model.createNew(arguments[1]);
    } catch (const std::exception &e) {
        console.err() << "error: " << e.what() << Qt::endl;
        return ExitCommandFailed;
    }
    const QString remote = arguments[0];
    return runTransfer(
        console, QStringLiteral("Pull"),
        [&](RK::HttpProjectSynchronizer &sync, const std::string &host, int port) {
            sync.pull(host, port, remote, &model, wz::project::ArchiveFormat_Plain);
        },
        [&](qint64 ms) {
            const QStringList files = model.getFileList(QString(), true, true, false);
            quint64 bytes = 0;
            for (const QString &f : files)
                bytes += model.fileSize(f);
            return QStringLiteral("Pulled %1 files, %2 MB in %3 s")
                .arg(files.size())
                .arg(bytes / 1e6, 0, 'f', 1)
                .arg(ms / 1000.0, 0, 'f', 1);
        },
        false);
}

} // namespace console
