#pragma once

#include <connection/operation_error.h>

#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class MemoryExecuter;

// The application's door to the robot's memory: following keys over time
// (dataGathered batches) and the catalogue of keys, events and micro events.
// Every method returns at once. Watching requests are queued to the
// executer's thread; catalogue requests run on the thread pool and answer by
// future.
class NIMIOB_EXPORT MemoryInterface : public QObject,
                                      public MorvaneInterface<MemoryExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit MemoryInterface(boost::shared_ptr<Connection> connection);
    // Ends the executer's thread, which stops watching on the robot as well.
    ~MemoryInterface() override;

    void watchKey(const QString &key, int period);
    void watchKeys(const QStringList &keys, int period);
    void unwatchKey(const QString &key);
    void unwatchAll();
    // Gather and sampling periods in milliseconds; sampling 0 when left out.
    void startWatcher(int gatherPeriod, int samplingPeriod);
    void startWatcher(int gatherPeriod);
    void stopWatcher();
    void setGatherPeriod(int gatherPeriod);
    void setSamplingPeriod(int samplingPeriod);
    void setSamplingPeriod();
    // Whether the robot samples itself ("VXMemoryWatcher"): true, or false
    // when this desktop polls. Canceled, with no result, when the connection
    // has gone. Answered in order with the watching requests above.
    QFuture<bool> isRealTimeSupported();
    // The same answer as a call of `boolSlot` (a slot's name, without its
    // signature) on `returnTarget`, on that object's thread; never when the
    // connection or the object has gone.
    void isRealTimeSupported(QObject *returnTarget, const char *boolSlot);

    // Empty results when the connection or "VXMemory" is missing or the call fails.
    QFuture<QString> getKeyType(const QString &key);
    QFuture<QStringList> getDataList();
    QFuture<QStringList> getEventList();
    QFuture<QStringList> getMicroEventList();

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    // Key, then time stamp in seconds (ascending), then value.
    void dataGathered(const QMap<QString, QMap<double, QVariant>> &);
};

} // namespace RK
