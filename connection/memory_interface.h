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

/// The application's door to the robot's memory: following keys over time
/// (dataGathered batches) and the catalogue of keys, events and micro events.
/// Every method returns at once. Watching requests are queued to the
/// executer's thread; catalogue requests run on the thread pool and answer by
/// future.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::memoryInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT MemoryInterface : public QObject,
                                      public MorvaneInterface<MemoryExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::memoryInterface().
    explicit MemoryInterface(boost::shared_ptr<Connection> connection);
    /// Ends the executer's thread, which stops watching on the robot as well,
    /// and waits for the calls it started.
    ~MemoryInterface() override;

    /// Adds \p key (a name from getDataList()) to the keys followed; its
    /// values come in dataGathered() once startWatcher() runs. \p period, in
    /// milliseconds, is accepted for compatibility but has no effect: one
    /// sampling period (startWatcher(), setSamplingPeriod()) serves every key,
    /// and the robot's watcher is not even told it. A key watched twice is
    /// one key.
    void watchKey(const QString &key, int period);
    /// watchKey() for each of \p keys, in one remote call; \p period has no
    /// effect either.
    void watchKeys(const QStringList &keys, int period);
    /// Stops following \p key.
    void unwatchKey(const QString &key);
    /// Stops following every key.
    void unwatchAll();
    /// Starts following the watched keys: a value is taken every
    /// \p samplingPeriod milliseconds (by the robot when isRealTimeSupported(),
    /// else by this desktop's timer, stamped with the desktop's clock), and
    /// what was taken is handed over every \p gatherPeriod milliseconds as one
    /// dataGathered(). 0 samples as often as the sampler can (the robot
    /// clamps it to its own floor; this desktop's timer then polls at every
    /// turn of its event loop, so give a period when polling).
    void startWatcher(int gatherPeriod, int samplingPeriod);
    /// startWatcher() with a sampling period of 0.
    void startWatcher(int gatherPeriod);
    /// Stops sampling and gathering; the watched keys stay.
    void stopWatcher();
    /// Milliseconds between two dataGathered().
    void setGatherPeriod(int gatherPeriod);
    /// Milliseconds between two samples of every watched key.
    void setSamplingPeriod(int samplingPeriod);
    /// setSamplingPeriod() with 0.
    void setSamplingPeriod();
    /// Whether the robot samples itself ("VXMemoryWatcher"): true, or false
    /// when this desktop polls. Canceled, with no result, when the connection
    /// has gone. Answered in order with the watching requests above.
    QFuture<bool> isRealTimeSupported();
    /// The same answer as a call of `boolSlot` (a slot's name, without its
    /// signature) on `returnTarget`, on that object's thread; never when the
    /// connection or the object has gone.
    void isRealTimeSupported(QObject *returnTarget, const char *boolSlot);

    /// The robot's type name of \p key's value. Here and below: empty
    /// results when the connection or "VXMemory" is missing or the call
    /// fails (errorOccurred() says which).
    QFuture<QString> getKeyType(const QString &key);
    /// The names of the keys the robot's memory holds now: what watchKey()
    /// can follow.
    QFuture<QStringList> getDataList();
    /// The names of the robot's events.
    QFuture<QStringList> getEventList();
    /// The names of the robot's micro events.
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
    /// One gather's worth of samples: key, then time stamp in seconds since
    /// the epoch (ascending; the robot's clock, or this desktop's when
    /// polling), then the value (see qVariantFromVXValue()).
    /// With the polling fallback and no key watched, each gather still
    /// brings an empty map.
    void dataGathered(const QMap<QString, QMap<double, QVariant>> &);
};

} // namespace RK
