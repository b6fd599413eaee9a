#include "transfer.h"

#include <QFileInfo>

namespace console {

// Sends a local directory as a project; --merge keeps what stands remotely.
int pushCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "push", arguments);
    const bool merge = args.flag("merge");
    const QStringList words = args.positional();
    QString why;
    if (words.size() != 2)
        args.fail(QStringLiteral("push wants DIR REMOTE"));
    else if (!QFileInfo(words[0]).isDir())
        args.fail(words[0] + QStringLiteral(" is not a directory"));
    else if (!checkRemotePath(words[1], why))
        args.fail(why);
    if (const int status = args.finish())
        return status;
    wz::project::ProjectModel model;
    try {
        model.open(words[0]);
    } catch (const std::exception &e) {
        console.err() << "error: " << e.what() << Qt::endl;
        return ExitCommandFailed;
    }
    const QStringList files = model.getFileList(QString(), true, true, false);
    quint64 bytes = 0;
    for (const QString &f : files)
        bytes += model.fileSize(f);
    const QString remote = words[1];
    Transfer transfer;
    transfer.verb = QStringLiteral("Push");
    transfer.byteProgress = true;
    transfer.start = [&](RK::HttpProjectSynchronizer &sync, const std::string &host, int port) {
        if (merge)
            sync.pushMerge(host, port, &model, remote, wz::project::ArchiveFormat_Plain);
        else
            sync.push(host, port, &model, remote, wz::project::ArchiveFormat_Plain);
    };
    transfer.summary = [&](qint64 ms) {
        return QStringLiteral("Pushed %1 files, %2 MB in %3 s")
            .arg(files.size())
            .arg(bytes / 1e6, 0, 'f', 1)
            .arg(ms / 1000.0, 0, 'f', 1);
    };
    return runTransfer(console, transfer);
}

} // namespace console
