#include "commands.h"
#include "console.h"

#include <connection/http_project_synchronizer.h>

#include <functional>

namespace console {

int runTransfer(
    Console &console, const QString &verb,
    const std::function<void(RK::HttpProjectSynchronizer &, const std::string &, int)> &start,
    const std::function<QString(qint64 ms)> &summary, bool byteProgress);

// Deletes a remote project.
int rmCommand(Console &console, const QStringList &arguments)
{
    if (arguments.size() != 1 || arguments[0].startsWith(QLatin1String("--"))) {
        console.err() << "error: rm wants REMOTE" << Qt::endl;
        return ExitUsage;
    }
    const QString remote = arguments[0];
    return runTransfer(
        console, QStringLiteral("Remove"),
        [&](RK::HttpProjectSynchronizer &sync, const std::string &host, int port) {
            sync.remove(host, port, remote, wz::project::ArchiveFormat_Plain);
        },
        [&](qint64 ms) {
            return QStringLiteral("Removed %1 in %2 s").arg(remote).arg(ms / 1000.0, 0, 'f', 1);
        },
        false);
}

} // namespace console
