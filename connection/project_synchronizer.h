#pragma once

#include <connection/nimiob_export.h>

#include <wz/project/project_model.h>

#include <QObject>
#include <QString>

#include <string>

namespace RK {

/// Moves a project between desktop and robot: send it (push), merge it in
/// (pushMerge), fetch it (pull), delete it (remove). HttpProjectSynchronizer
/// is the one the library gives.
///
/// A project on the desktop is a local directory opened as a
/// wz::project::ProjectModel (<wz/project/project_model.h>, installed with
/// the library). The robot's side is named by \c host and \c port, which
/// ConnectionManager::getCurrentConnectionHttp() gives for the connected
/// robot (its file server; port 0 when the robot has no package manager, and
/// then nothing can be moved), and by a remote path in the robot's project
/// store ("/projects/hello"), resolved before anything is sent.
///
/// \b Thread: lives on the thread that made it, which must run its event
/// loop during a transfer; its signals arrive there, and its slots are called
/// from there. \b Ownership: the application's (or \p parent's); it does not
/// depend on the connection and may live across connections. The model
/// passed to an operation stays the caller's, and must be left alone (and
/// alive) until done() or aborted().
///
/// \code
/// std::string host;
/// int port = 0;
/// if (!manager.getCurrentConnectionHttp(host, port) || port <= 0)
///     return;                                   // not connected, or no file transfer
/// model->open(localDirectory);                  // throws with the reason
/// connect(&sync, &RK::ProjectSynchronizer::rangeChanged, bar, &QProgressBar::setRange);
/// connect(&sync, &RK::ProjectSynchronizer::valueChanged, bar, &QProgressBar::setValue);
/// sync.push(host, port, model, "/projects/hello", wz::project::ArchiveFormat_Plain);
/// \endcode
class NIMIOB_EXPORT ProjectSynchronizer : public QObject
{
    Q_OBJECT

public:
    /// A synchronizer owned by \p parent, if any.
    explicit ProjectSynchronizer(QObject *parent = nullptr);
    ~ProjectSynchronizer() override;

signals:
    /// The robot's file server could not be reached, or the link broke
    /// during the transfer; aborted() follows with the reason.
    void connectionLost();
    /// The stage the operation is at, in words for the user ("Computing
    /// project size", "Sending behavior files (...)", ...); each stage
    /// comes with its own rangeChanged().
    void stateChanged(const QString &text);
    /// The progress's range for the stage that begins; valueChanged() counts
    /// in the same unit (see HttpProjectSynchronizer for the units).
    void rangeChanged(int minimum, int maximum);
    /// The progress within the current range.
    void valueChanged(int value);
    /// The operation ended well.
    void done();
    /// Failed, refused or cancelled: \p reason says why, in words for the
    /// user; a cancel with no error gives an empty reason.
    void aborted(const QString &reason);

public slots:
    /// Sends the project of \p model to \p path on the robot at \p host and
    /// \p port. What stands at \p path is deleted first, so that no stale
    /// file stays under the new project (pushMerge() keeps it). \p format
    /// is kept for callers that name one: files always travel one by one,
    /// as they are.
    virtual void push(const std::string &host, int port, wz::project::ProjectModel *model,
                      const QString &path, wz::project::ArchiveFormat format)
        = 0;
    /// Like push(), without deleting what stands at \p path: files of the
    /// same name are replaced, the others stay.
    virtual void pushMerge(const std::string &host, int port, wz::project::ProjectModel *model,
                           const QString &path, wz::project::ArchiveFormat format)
        = 0;
    /// Fetches the project at \p path into \p model's directory. Only files
    /// travel: empty directories do not come back.
    virtual void pull(const std::string &host, int port, const QString &path,
                      wz::project::ProjectModel *model, wz::project::ArchiveFormat format)
        = 0;
    /// Deletes the project at \p path on the robot; a path naming the whole
    /// store ("/", "/.", "/a/..") is refused.
    virtual void remove(const std::string &host, int port, const QString &path,
                        wz::project::ArchiveFormat format)
        = 0;
    /// Stops the running operation; it ends with aborted("").
    virtual void cancel() = 0;
};

} // namespace RK
