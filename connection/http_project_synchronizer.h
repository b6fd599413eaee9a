#pragma once

#include <connection/project_synchronizer.h>

#include <QMutex>

#include <atomic>

namespace RK {

class SynchronizationThread;

/// The synchronizer over the robot's HTTP file server (or any HTTP/1.x
/// server that speaks its listing dialect), one transfer thread at a time.
///
/// \b Thread: it lives on the thread that made it, which must run its event
/// loop during a transfer: the signals arrive there. \b Ownership: the
/// caller owns it; it owns its transfer thread. A busy object refuses new
/// operations with aborted(). The model must be left alone until done(),
/// aborted() or the return of wait(). Destroying it while a transfer runs
/// cancels and waits.
///
/// Every operation ends with exactly one done() or aborted(reason) (unless
/// wait() took it); cancel() ends it as aborted("") within a few
/// milliseconds, and a pull then leaves no partial file.
///
/// \b Progress: rangeChanged(0, max) then valueChanged(value) in the same
/// unit, reaching max when the files are through. A push first counts files
/// while it sizes the project, then counts bytes over the whole project
/// (halved until the total fits an int: divide by max to get a fraction);
/// a pull counts thousandths of a file, each file's share advancing with its
/// bytes, since the listing has no sizes.
class NIMIOB_EXPORT HttpProjectSynchronizer : public ProjectSynchronizer
{
    Q_OBJECT

public:
    /// A synchronizer owned by \p parent, if any; no thread runs until an
    /// operation starts.
    explicit HttpProjectSynchronizer(QObject *parent = nullptr);
    /// Cancels a running transfer and waits for its thread.
    ~HttpProjectSynchronizer() override;

    /// See ProjectSynchronizer::push().
    void push(const std::string &host, int port, wz::project::ProjectModel *model,
              const QString &path, wz::project::ArchiveFormat format) override;
    /// See ProjectSynchronizer::pushMerge().
    void pushMerge(const std::string &host, int port, wz::project::ProjectModel *model,
                   const QString &path, wz::project::ArchiveFormat format) override;
    /// See ProjectSynchronizer::pull().
    void pull(const std::string &host, int port, const QString &path,
              wz::project::ProjectModel *model, wz::project::ArchiveFormat format) override;
    /// See ProjectSynchronizer::remove().
    void remove(const std::string &host, int port, const QString &path,
                wz::project::ArchiveFormat format) override;
    /// See ProjectSynchronizer::cancel(); callable from any thread.
    void cancel() override;
    /// Blocks until the running operation has ended and gives its error
    /// (empty for success, "cancelled" after a cancel); done() and aborted()
    /// are not emitted then. Safe on the object's own thread.
    virtual QString wait();

    /// Whether an operation runs. Callable from any thread.
    bool isBusy() const;
    /// How long a transfer may receive no byte before it fails, in
    /// milliseconds (30 000 by default); also the limit of connecting.
    void setNoDataTimeout(int milliseconds);
    /// Fails a transfer averaging fewer than \p bytesPerSecond bytes a second
    /// over any \p windowMilliseconds milliseconds (1024 bytes/s over 60 000
    /// ms by default; 0 turns it off).
    void setSpeedFloor(qint64 bytesPerSecond, int windowMilliseconds);

private slots:
    void onFinished();

private:
    bool begin(SynchronizationThread *thread);

    mutable QMutex m_mutex;
    SynchronizationThread *m_thread = nullptr;
    // The thread a wait() is taking; onFinished leaves it alone.
    SynchronizationThread *m_waitedFor = nullptr;
    bool m_cancelled = false;
    int m_noDataTimeout = 30000;
    qint64 m_speedFloor = 1024;
    int m_speedWindow = 60000;
    std::atomic<int> m_latestValue {0};
    std::atomic<bool> m_valuePending {false};
};

} // namespace RK
