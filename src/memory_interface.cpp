#include <connection/memory_interface.h>

#include "memory_executer_p.h"
#include "morvane_interface_p.h"

#include <QMetaObject>
#include <QMetaType>

namespace RK {

MemoryInterface::MemoryInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("MemoryInterface"))
{
    // isRealTimeSupported carries the slot's name through a queued call.
    qRegisterMetaType<const char *>("const char*");
    qRegisterMetaType<QMap<QString, QMap<double, QVariant>>>(
        "QMap<QString,QMap<double,QVariant> >");
    forward(&MemoryExecuter::dataGathered, this, &MemoryInterface::dataGathered);
}

MemoryInterface::~MemoryInterface() = default;

void MemoryInterface::watchKey(const QString &key, int period)
{
    QMetaObject::invokeMethod(executer(), "watchKey", Qt::QueuedConnection, Q_ARG(QString, key),
                              Q_ARG(int, period));
}

void MemoryInterface::watchKeys(const QStringList &keys, int period)
{
    QMetaObject::invokeMethod(executer(), "watchKeys", Qt::QueuedConnection,
                              Q_ARG(QStringList, keys), Q_ARG(int, period));
}

void MemoryInterface::unwatchKey(const QString &key)
{
    QMetaObject::invokeMethod(executer(), "unwatchKey", Qt::QueuedConnection, Q_ARG(QString, key));
}

void MemoryInterface::unwatchAll()
{
    QMetaObject::invokeMethod(executer(), "unwatchAll", Qt::QueuedConnection);
}

void MemoryInterface::startWatcher(int gatherPeriod, int samplingPeriod)
{
    QMetaObject::invokeMethod(executer(), "startWatcher", Qt::QueuedConnection,
                              Q_ARG(int, gatherPeriod), Q_ARG(int, samplingPeriod));
}

void MemoryInterface::startWatcher(int gatherPeriod)
{
    QMetaObject::invokeMethod(executer(), "startWatcher", Qt::QueuedConnection,
                              Q_ARG(int, gatherPeriod));
}

void MemoryInterface::stopWatcher()
{
    QMetaObject::invokeMethod(executer(), "stopWatcher", Qt::QueuedConnection);
}

void MemoryInterface::setGatherPeriod(int gatherPeriod)
{
    QMetaObject::invokeMethod(executer(), "setGatherPeriod", Qt::QueuedConnection,
                              Q_ARG(int, gatherPeriod));
}

void MemoryInterface::setSamplingPeriod(int samplingPeriod)
{
    QMetaObject::invokeMethod(executer(), "setSamplingPeriod", Qt::QueuedConnection,
                              Q_ARG(int, samplingPeriod));
}

void MemoryInterface::setSamplingPeriod()
{
    QMetaObject::invokeMethod(executer(), "setSamplingPeriod", Qt::QueuedConnection);
}

void MemoryInterface::isRealTimeSupported(QObject *returnTarget, const char *boolSlot)
{
    QMetaObject::invokeMethod(executer(), "isRealTimeSupported", Qt::QueuedConnection,
                              Q_ARG(QObject *, returnTarget), Q_ARG(const char *, boolSlot));
}

QFuture<QString> MemoryInterface::getKeyType(const QString &key)
{
    return run(&MemoryExecuter::getKeyType, key);
}

QFuture<QStringList> MemoryInterface::getDataList()
{
    return run(&MemoryExecuter::getDataList);
}

QFuture<QStringList> MemoryInterface::getEventList()
{
    return run(&MemoryExecuter::getEventList);
}

QFuture<QStringList> MemoryInterface::getMicroEventList()
{
    return run(&MemoryExecuter::getMicroEventList);
}

} // namespace RK
