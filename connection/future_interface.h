#pragma once

#include <connection/nimiob_export.h>

#include <QFuture>
#include <QFutureWatcher>
#include <QObject>

namespace RK {

/// A pending asynchronous result of any type, seen through one interface so
/// that an interface object can keep all of its own and wait for them.
/// Applications use the QFuture the interfaces return and need not use this.
///
/// \b Thread: lives on the thread that made it, where finished() is
/// emitted (queued from the thread that finished the future).
class NIMIOB_EXPORT FutureBase : public QObject
{
    Q_OBJECT

public:
    FutureBase() = default;

    /// Whether the future has its result (or was cancelled).
    virtual bool isFinished() const = 0;
    /// Whether the future's work is still running.
    virtual bool isRunning() const = 0;
    /// Asks the future's work to stop; a running call is not interrupted.
    virtual void cancel() const = 0;
    /// Blocks the calling thread until the future finishes; never call it
    /// on the GUI thread for a remote call.
    virtual void waitForFinished() const = 0;

signals:
    /// The future finished.
    void finished();
};

/// Watches one QFuture<T>. Used for void, bool, QString, QStringList,
/// wz::LogLevel, wz::PackageInfo, QVector<wz::PackageInfo>, QImage,
/// QPair<QString, QString>, QPair<QString, VX::Math::Displacement>,
/// QMap<QString, VX::VXValue>, QMap<QString, QMap<QString, VX::VXValue>>,
/// RK::LifeState and VX::VXValue.
/// \tparam T the future's result type.
template<typename T>
class FutureWatcherInterface : public FutureBase
{
public:
    /// Watches \p future from the calling thread.
    explicit FutureWatcherInterface(const QFuture<T> &future)
        : m_watcher(new QFutureWatcher<T>(this))
    {
        m_watcher->setFuture(future);
        connect(m_watcher, &QFutureWatcherBase::finished, this, &FutureBase::finished);
    }

    /// See FutureBase::isFinished().
    bool isFinished() const override { return m_watcher->isFinished(); }
    /// See FutureBase::isRunning().
    bool isRunning() const override { return m_watcher->isRunning(); }
    /// See FutureBase::cancel().
    void cancel() const override { m_watcher->cancel(); }
    /// See FutureBase::waitForFinished().
    void waitForFinished() const override { m_watcher->waitForFinished(); }

private:
    QFutureWatcher<T> *m_watcher;
};

} // namespace RK
