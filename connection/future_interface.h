#pragma once

#include <connection/nimiob_export.h>

#include <QFuture>
#include <QFutureWatcher>
#include <QObject>

namespace RK {

// A pending asynchronous result of any type, seen through one interface so
// that an interface object can keep all of its own and wait for them.
class NIMIOB_EXPORT FutureBase : public QObject
{
    Q_OBJECT

public:
    FutureBase() = default;

    virtual bool isFinished() const = 0;
    virtual bool isRunning() const = 0;
    virtual void cancel() const = 0;
    virtual void waitForFinished() const = 0;

signals:
    void finished();
};

// Watches one QFuture<T>. Used for void, bool, QString, QStringList,
// wz::LogLevel, wz::PackageInfo, QVector<wz::PackageInfo>, QImage,
// QPair<QString, QString>, QPair<QString, VX::Math::Displacement>,
// QMap<QString, VX::VXValue>, QMap<QString, QMap<QString, VX::VXValue>>,
// RK::LifeState and VX::VXValue.
template<typename T>
class FutureWatcherInterface : public FutureBase
{
public:
    explicit FutureWatcherInterface(const QFuture<T> &future)
        : m_watcher(new QFutureWatcher<T>(this))
    {
        m_watcher->setFuture(future);
        connect(m_watcher, &QFutureWatcherBase::finished, this, &FutureBase::finished);
    }

    bool isFinished() const override { return m_watcher->isFinished(); }
    bool isRunning() const override { return m_watcher->isRunning(); }
    void cancel() const override { m_watcher->cancel(); }
    void waitForFinished() const override { m_watcher->waitForFinished(); }

private:
    QFutureWatcher<T> *m_watcher;
};

} // namespace RK
