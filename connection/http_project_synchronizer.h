#pragma once

#include <connection/project_synchronizer.h>

#include <QMutex>

#include <atomic>

namespace RK {

class SynchronizationThread;

// The synchronizer over the robot's HTTP file server, one transfer thread at
// a time. A busy object refuses new operations with aborted(). The model
// must be left alone until done(), aborted() or the return of wait().
// Destroying it while a transfer runs cancels and waits.
class NIMIOB_EXPORT HttpProjectSynchronizer : public ProjectSynchronizer
{
    Q_OBJECT

public:
    explicit HttpProjectSynchronizer(QObject *parent = nullptr);
    ~HttpProjectSynchronizer() override;

    void push(const std::string &host, int port, wz::project::ProjectModel *model,
              const QString &path, wz::project::ArchiveFormat format) override;
    void pushMerge(const std::string &host, int port, wz::project::ProjectModel *model,
                   const QString &path, wz::project::ArchiveFormat format) override;
    void pull(const std::string &host, int port, const QString &path,
              wz::project::ProjectModel *model, wz::project::ArchiveFormat format) override;
    void remove(const std::string &host, int port, const QString &path,
                wz::project::ArchiveFormat format) override;
    void cancel() override;
    // Blocks until the running operation has ended and gives its error
    // ("cancelled" after a cancel); done() and aborted() are not emitted then.
    // Safe on the object's own thread.
    virtual QString wait();

    bool isBusy() const;
    // How long a transfer may receive no byte before it fails (30 s by default).
    void setNoDataTimeout(int milliseconds);

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
    std::atomic<int> m_latestValue {0};
    std::atomic<bool> m_valuePending {false};
};

} // namespace RK
