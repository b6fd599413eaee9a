#pragma once

#include <QList>
#include <QMutex>
#include <QObject>

class QSignalMapper;

namespace RK {

class FutureBase;

// Owns the future wrappers of one interface object. A wrapper that finishes
// is deleted at once; the destructor waits for those still running.
class FutureListWatcher : public QObject
{
    Q_OBJECT

public:
    FutureListWatcher();
    ~FutureListWatcher() override;

    // Takes ownership. May be called from any thread: the wrapper is moved to
    // this object's thread, where it reports.
    void append(FutureBase *future);
    // How many wrappers are still held.
    int count() const;

public slots:
    void onFutureFinished(QObject *object);

private:
    void watch(FutureBase *future);

    QSignalMapper *m_mapper;
    QList<FutureBase *> m_futures;
    // append() comes from the application's thread while wrappers finish on this one.
    mutable QMutex m_mutex;
};

} // namespace RK
