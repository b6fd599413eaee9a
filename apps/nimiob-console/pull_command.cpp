#include "transfer.h"

namespace console {

// Fetches a remote project into a new or empty local directory.
int pullCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "pull", arguments);
    const QStringList words = args.positional();
    QString why;
    if (words.size() != 2)
        args.fail(QStringLiteral("pull wants REMOTE DIR"));
    else if (!checkRemotePath(words[0], why))
        args.fail(why);
    if (const int status = args.finish())
        return status;
    wz::project::ProjectModel model;
    try {
        model.createNew(words[1]);
    } catch (const std::exception &e) {
        console.err() << "error: " << e.what() << Qt::endl;
        return ExitCommandFailed;
    }
    const QString remote = words[0];
    Transfer transfer;
    transfer.verb = QStringLiteral("Pull");
    transfer.start = [&](RK::HttpProjectSynchronizer &sync, const std::string &host, int port) {
        sync.pull(host, port, remote, &model, wz::project::ArchiveFormat_Plain);
    };
    transfer.summary = [&](qint64 ms) {
        const QStringList files = model.getFileList(QString(), true, true, false);
        quint64 bytes = 0;
        for (const QString &f : files)
            bytes += model.fileSize(f);
        return QStringLiteral("Pulled %1 files, %2 MB in %3 s")
            .arg(files.size())
            .arg(bytes / 1e6, 0, 'f', 1)
            .arg(ms / 1000.0, 0, 'f', 1);
    };
    return runTransfer(console, transfer);
}

} // namespace console
