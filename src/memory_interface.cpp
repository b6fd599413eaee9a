#include <connection/memory_interface.h>

#include "memory_executer_p.h"
#include "morvane_interface_p.h"

#include <QByteArray>
#include <QFutureWatcher>
#include <QMetaObject>
#include <QMetaType>
#include <QPromise>

#include <wz/log.h>

#include <memory>
#include <optional>

namespace RK {

namespace {

// Queues `call` to the executer's thread, in order with every other request.
// A call still queued when the interface goes is dropped unrun.
template<typename Call>
void queue(MemoryExecuter *executer, Call call)
{
    QMetaObject::invokeMethod(
        executer, [executer, call] { call(*executer); }, Qt::QueuedConnection);
}

} // namespace

MemoryInterface::MemoryInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("MemoryInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<QMap<QString, QMap<double, QVariant>>>(
        "QMap<QString,QMap<double,QVariant> >");
    forward(&MemoryExecuter::dataGathered, this, &MemoryInterface::dataGathered);
    // The timers belong to the executer's thread: they stop there, as it ends.
    MemoryExecuter *e = executer();
    executerThread()->atLoopEnd([e] { e->stopTimers(); });
}

MemoryInterface::~MemoryInterface() = default;

void MemoryInterface::watchKey(const QString &key, int period)
{
    queue(executer(), [key, period](MemoryExecuter &e) { e.watchKey(key, period); });
}

void MemoryInterface::watchKeys(const QStringList &keys, int period)
{
    queue(executer(), [keys, period](MemoryExecuter &e) { e.watchKeys(keys, period); });
}

void MemoryInterface::unwatchKey(const QString &key)
{
    queue(executer(), [key](MemoryExecuter &e) { e.unwatchKey(key); });
}

void MemoryInterface::unwatchAll()
{
    queue(executer(), [](MemoryExecuter &e) { e.unwatchAll(); });
}

void MemoryInterface::startWatcher(int gatherPeriod, int samplingPeriod)
{
    queue(executer(), [gatherPeriod, samplingPeriod](MemoryExecuter &e) {
        e.startWatcher(gatherPeriod, samplingPeriod);
    });
}

void MemoryInterface::startWatcher(int gatherPeriod)
{
    queue(executer(), [gatherPeriod](MemoryExecuter &e) { e.startWatcher(gatherPeriod); });
}

void MemoryInterface::stopWatcher()
{
    queue(executer(), [](MemoryExecuter &e) { e.stopWatcher(); });
}

void MemoryInterface::setGatherPeriod(int gatherPeriod)
{
    queue(executer(), [gatherPeriod](MemoryExecuter &e) { e.setGatherPeriod(gatherPeriod); });
}

void MemoryInterface::setSamplingPeriod(int samplingPeriod)
{
    queue(executer(), [samplingPeriod](MemoryExecuter &e) { e.setSamplingPeriod(samplingPeriod); });
}

void MemoryInterface::setSamplingPeriod()
{
    queue(executer(), [](MemoryExecuter &e) { e.setSamplingPeriod(); });
}

QFuture<bool> MemoryInterface::isRealTimeSupported()
{
    // Shared by the queued call: if that call is dropped unrun (the interface
    // went first), the promise goes with it and cancels the future.
    const auto promise = std::make_shared<QPromise<bool>>();
    promise->start();
    QFuture<bool> future = promise->future();
    queue(executer(), [promise](MemoryExecuter &e) {
        if (const std::optional<bool> supported = e.realTimeSupported())
            promise->addResult(*supported);
        else
            promise->future().cancel();
        promise->finish();
    });
    return future;
}

void MemoryInterface::isRealTimeSupported(QObject *returnTarget, const char *boolSlot)
{
    if (!returnTarget || !boolSlot) {
        wz::log::LogStream(wz::LogLevel_Warning, "desktop.memory", __FUNCTION__)
            << "isRealTimeSupported needs an object and a slot name to answer to";
        return;
    }
    // The answer runs on the target's thread, and not at all once it is gone:
    // a watcher made there as the target's child goes with it. (A
    // continuation with the target as context asserts in Qt 6.4 when the
    // target goes first.)
    const QByteArray slot(boolSlot);
    const QFuture<bool> answer = isRealTimeSupported();
    QMetaObject::invokeMethod(
        returnTarget,
        [returnTarget, slot, answer] {
            auto *watcher = new QFutureWatcher<bool>(returnTarget);
            QObject::connect(
                watcher, &QFutureWatcherBase::finished, watcher, [watcher, returnTarget, slot] {
                    watcher->deleteLater();
                    if (watcher->future().resultCount() == 0)
                        return;
                    if (!QMetaObject::invokeMethod(returnTarget, slot.constData(),
                                                   Qt::DirectConnection,
                                                   Q_ARG(bool, watcher->future().result()))) {
                        wz::log::LogStream(wz::LogLevel_Warning, "desktop.memory",
                                           "isRealTimeSupported")
                            << "cannot answer isRealTimeSupported: "
                            << returnTarget->metaObject()->className() << " has no slot "
                            << slot.constData() << "(bool)";
                    }
                });
            watcher->setFuture(answer);
        },
        Qt::QueuedConnection);
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
