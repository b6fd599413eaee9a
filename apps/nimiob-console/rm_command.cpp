#include "transfer.h"

namespace console {

// Deletes a remote project.
int rmCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "rm", arguments);
    const QStringList words = args.positional();
    QString why;
    if (words.size() != 1)
        args.fail(QStringLiteral("rm wants REMOTE"));
    else if (!checkRemotePath(words[0], why))
        args.fail(why);
    if (const int status = args.finish())
        return status;
    const QString remote = words[0];
    Transfer transfer;
    transfer.verb = QStringLiteral("Remove");
    transfer.start = [&](RK::HttpProjectSynchronizer &sync, const std::string &host, int port) {
        sync.remove(host, port, remote, wz::project::ArchiveFormat_Plain);
    };
    transfer.summary = [&](qint64 ms) {
        return QStringLiteral("Removed %1 in %2 s").arg(remote).arg(ms / 1000.0, 0, 'f', 1);
    };
    return runTransfer(console, transfer);
}

} // namespace console
