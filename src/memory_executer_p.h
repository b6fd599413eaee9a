#pragma once

#include <connection/operation_error.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <wz/log.h>

#include <optional>
#include <string>

class QTimer;

namespace VX {
class VXValue;
class VXMemoryProxy;
} // namespace VX

namespace RK {

class Connection;
template<typename Executer>
class ExecuterCall;

// Follows keys of the robot's memory over time and answers what keys exist.
//
// Watching runs on the executer's thread (its slots and two timers) from one
// of two sources, chosen afresh at every operation by the proxies the
// connection offers at that moment: the robot's "VXMemoryWatcher", which
// samples on the robot and hands over its history at each gather tick, or,
// without it, "VXMemory" polled by the sample timer and stamped with this
// machine's clock. Either way every gather tick emits one dataGathered batch:
// key, then time stamp in seconds, then value.
//
// The catalogue (getKeyType, the lists, micro-event subscription) runs on
// pool threads and touches only the connection and its proxies.
class MemoryExecuter : public QObject
{
    Q_OBJECT

public:
    using History = QMap<double, QVariant>;
    using Batch = QMap<QString, QMap<double, QVariant>>;

    explicit MemoryExecuter(boost::shared_ptr<Connection> connection);
    // Stops watching, on the robot as well.
    ~MemoryExecuter() override;

    // Catalogue of "VXMemory". Without a connection or the proxy, or when the
    // call fails (logged), the result is empty.
    QString getKeyType(QString key);
    QStringList getDataList();
    QStringList getEventList();
    QStringList getMicroEventList();

    // Micro events delivered to the desktop module's "dataChanged".
    void subscribeToMicroEvent(const QString &key);
    void unsubscribeToMicroEvent(const QString &key);

    // Reads a "VXMemoryWatcher" history into a batch. Throws
    // std::runtime_error with the text of the first rule the value breaks,
    // and whatever the value throws for a stamp that is not a number.
    static Batch parseHistory(const VX::VXValue &data);

    // What the executer holds locally, for diagnostics (executer's thread).
    QMap<QString, int> localWatchedKeys() const { return m_watchedKeys; }
    int gatherInterval() const;
    int sampleInterval() const;
    bool isGathering() const;
    bool isSampling() const;

public slots:
    void watchKey(QString key, int period);
    void watchKeys(QStringList keys, int period);
    void unwatchKey(QString key);
    void unwatchKeys(QStringList keys);
    void unwatchAll();
    void startWatcher(int gatherPeriod, int samplingPeriod);
    void startWatcher(int gatherPeriod);
    void stopWatcher();
    void setGatherPeriod(int gatherPeriod);
    void setSamplingPeriod(int samplingPeriod);
    void setSamplingPeriod();
    void onGatherTimeout();
    void onSampleTimeout();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void dataGathered(const QMap<QString, QMap<double, QVariant>> &);

public:
    // Whether the robot samples itself ("VXMemoryWatcher" is bound); no
    // answer once the connection has gone. On the executer's thread, in
    // order with the watching requests.
    std::optional<bool> realTimeSupported() const;
    // Stops the timers; on the executer's thread, at the latest as it ends.
    void stopTimers();

private:
    // Every call of this executer logs its failure in the executer's category.
    ExecuterCall<MemoryExecuter> call(const char *operation, std::string logText,
                                      wz::LogLevel level = wz::LogLevel_Warning);
    static std::string moduleName(Connection &connection);

    boost::weak_ptr<Connection> m_connection;
    QTimer *m_gatherTimer;
    QTimer *m_sampleTimer;
    // Polling fallback: the keys (with the period given, which is kept but
    // not used: one sampling period serves all) and what the sample ticks
    // gathered since the last gather tick.
    QMap<QString, int> m_watchedKeys;
    Batch m_accumulated;
    // A failing getData is reported once, not at every tick.
    bool m_getDataFailing = false;
    bool m_destroying = false;
};

} // namespace RK
