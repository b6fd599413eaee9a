#include "gate_interface.h"
#include "wait_until.h"

#include "connection_p.h"
#include "future_list_watcher_p.h"
#include <connection/future_interface.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFutureSynchronizer>
#include <QPointer>
#include <QSignalSpy>
#include <QThread>
#include <QTimer>
#include <QtConcurrentRun>

#include <boost/make_shared.hpp>

#include <QImage>
#include <QMap>
#include <QPair>
#include <QStringList>
#include <QVector>

#include <gtest/gtest.h>

#include <vx/vxmath.h>
#include <vx/vxvalue.h>
#include <wz/log.h>
#include <wz/package_info.h>

#include <memory>
#include <stdexcept>
#include <thread>

namespace {

// A connection that was never connected: the frame only needs something to
// hold weakly, and the gate's work is local.
boost::shared_ptr<RK::Connection> placeHolder()
{
    return boost::make_shared<RK::Connection>(nullptr, QString(), 0, QStringLiteral("frame"));
}

// Opens the gate `count` times once the executer has entered it `count` times,
// from a thread of its own, so that a blocked destructor can be released.
std::thread openGateLater(test::GateExecuter *executer, int count)
{
    return std::thread([gate = executer->gate, entered = executer->entered, count] {
        entered->acquire(count);
        QThread::msleep(50);
        gate->release(count);
    });
}

TEST(Frame, ThreadIsNamedAfterTheInterfaceAndHostsTheExecuter)
{
    auto connection = placeHolder();
    test::GateInterface named(connection, QStringLiteral("GateInterface"));
    EXPECT_EQ(named.executerThread()->objectName(), QStringLiteral("GateInterface thread"));
    EXPECT_TRUE(named.executerThread()->isRunning());
    EXPECT_EQ(named.executer()->thread(), named.executerThread());

    test::GateInterface unnamed(connection, QString());
    EXPECT_EQ(unnamed.executerThread()->objectName(), QStringLiteral("ExecuterThread"));

    // A request reaches the slot on the executer's thread and the answer
    // comes back here through the interface's own signal.
    QSignalSpy knocked(&named, &test::GateInterface::knocked);
    named.executer()->gate->release();
    named.knock();
    ASSERT_TRUE(knocked.wait(5000));
    EXPECT_EQ(knocked.at(0).at(0).toInt(), 1);
    EXPECT_EQ(named.executer()->slotThread.load(), named.executerThread());
}

TEST(Frame, TeardownWaitsForRunningPoolCalls)
{
    auto connection = placeHolder();
    auto iface = std::make_unique<test::GateInterface>(connection, QStringLiteral("GateInterface"));
    QFuture<int> first = iface->pass();
    QFuture<int> second = iface->pass();
    EXPECT_EQ(iface->pendingFutures(), 2);

    std::thread opener = openGateLater(iface->executer(), 2);
    iface.reset(); // returns only once both calls went through the gate
    opener.join();

    // Nothing was cancelled: both calls ran to their end.
    ASSERT_TRUE(first.isFinished());
    ASSERT_TRUE(second.isFinished());
    EXPECT_FALSE(first.isCanceled());
    EXPECT_EQ(first.result(), 7);
    EXPECT_EQ(second.result(), 7);
}

TEST(Frame, RequestsQueuedBehindARunningSlotAreDropped)
{
    auto connection = placeHolder();
    auto iface = std::make_unique<test::GateInterface>(connection, QStringLiteral("GateInterface"));
    test::GateExecuter *executer = iface->executer();
    const std::shared_ptr<std::atomic<int>> slotRuns = executer->slotRuns;

    // Hold the executer's thread, so that what follows is queued together
    // and would be delivered in one go.
    auto holding = std::make_shared<QSemaphore>();
    auto held = std::make_shared<QSemaphore>();
    QMetaObject::invokeMethod(
        executer,
        [holding, held] {
            held->release();
            holding->acquire();
        },
        Qt::QueuedConnection);
    held->acquire();
    QMetaObject::invokeMethod(
        executer,
        [gate = executer->gate, entered = executer->entered] {
            entered->release();
            gate->acquire();
        },
        Qt::QueuedConnection);
    iface->knock();
    iface->knock();
    holding->release();
    executer->entered->acquire(); // a call is running, the requests wait behind it

    // Opened only after the teardown has begun, with enough permits for every
    // request, so that any request that still ran would not block.
    std::thread opener([gate = executer->gate] {
        QThread::msleep(50);
        gate->release(3);
    });
    iface.reset();
    opener.join();
    EXPECT_EQ(slotRuns->load(), 0);
}

TEST(Frame, WithoutConnectionCallsEndQuietly)
{
    auto connection = placeHolder();
    test::GateInterface iface(connection, QStringLiteral("GateInterface"));
    connection.reset(); // the interface holds it weakly: it is gone now

    QSignalSpy knocked(&iface, &test::GateInterface::knocked);
    iface.knock();
    // The default answer, without waiting at the gate.
    EXPECT_EQ(iface.pass().result(), -1);
    // Let the slot's turn pass, then any answer it sent.
    QMetaObject::invokeMethod(
        iface.executer(), [] {}, Qt::BlockingQueuedConnection);
    QCoreApplication::processEvents();
    EXPECT_EQ(knocked.count(), 0);
    EXPECT_EQ(iface.executer()->slotRuns->load(), 0);
}

// An executer whose module cannot start (its name taken on the robot, say).
class RefusingExecuter : public QObject
{
public:
    explicit RefusingExecuter(boost::shared_ptr<RK::Connection>)
    {
        throw std::runtime_error("name taken");
    }
};

class RefusingInterface : public QObject,
                          public RK::MorvaneInterface<RefusingExecuter, RK::ExecuterThread>
{
public:
    explicit RefusingInterface(boost::shared_ptr<RK::Connection> connection)
        : MorvaneInterface(connection, QStringLiteral("RefusingInterface"))
    { }
};

// The failure reaches whoever builds the interface, and leaves nothing
// behind (the sanitizer build checks the memory).
TEST(Frame, AnExecuterThatThrowsFailsItsInterface)
{
    auto connection = placeHolder();
    EXPECT_THROW(RefusingInterface {connection}, std::runtime_error);
    EXPECT_EQ(connection.use_count(), 1);
}

// Executers take their interface for one call at a time; if the application
// lets go meanwhile, the executer's copy is the last one, and the interface
// must not be destroyed there: its destructor waits for that very thread.
TEST(Frame, AnInterfaceReleasedLastByItsExecuterGoesOnItsOwnThread)
{
    auto connection = placeHolder();
    boost::shared_ptr<test::GateInterface> iface
        = RK::makeInterface<test::GateInterface>(connection, QStringLiteral("GateInterface"));
    QPointer<test::GateInterface> alive(iface.get());
    QThread *executerThread = iface->executerThread();

    auto inCall = std::make_shared<QSemaphore>();
    auto endCall = std::make_shared<QSemaphore>();
    QMetaObject::invokeMethod(
        iface->executer(),
        [copy = iface, inCall, endCall]() mutable {
            inCall->release();
            endCall->acquire();
            copy.reset();
        },
        Qt::QueuedConnection);
    inCall->acquire();
    iface.reset(); // the executer's copy is now the last one
    endCall->release();

    ASSERT_TRUE(test::waitUntil([&] { return alive.isNull(); }));
    (void)executerThread;
}

// A wrapper of each result type that interfaces hand out reports its end.
template<typename T>
void expectWrapperReports(const QFuture<T> &future)
{
    RK::FutureWatcherInterface<T> wrapper(future);
    QSignalSpy finished(&wrapper, &RK::FutureBase::finished);
    wrapper.waitForFinished();
    EXPECT_FALSE(wrapper.isRunning());
    EXPECT_TRUE(test::waitUntil([&] { return finished.count() == 1; }));
    EXPECT_TRUE(wrapper.isFinished());
}

template<typename T>
void expectWrapperReports(T value)
{
    expectWrapperReports(QtConcurrent::run([value] { return value; }));
}

TEST(FutureWatcherInterface, EveryResultTypeOfTheInterfaces)
{
    expectWrapperReports(QtConcurrent::run([] {}));
    expectWrapperReports(true);
    expectWrapperReports(QStringLiteral("text"));
    expectWrapperReports(QStringList {QStringLiteral("a"), QStringLiteral("b")});
    expectWrapperReports(wz::LogLevel_Info);
    expectWrapperReports(wz::PackageInfo());
    expectWrapperReports(QVector<wz::PackageInfo>(2));
    expectWrapperReports(QImage(4, 4, QImage::Format_RGB888));
    expectWrapperReports(qMakePair(QStringLiteral("key"), QStringLiteral("value")));
    expectWrapperReports(qMakePair(QStringLiteral("head"), VX::Math::Displacement()));
    QMap<QString, VX::VXValue> values {{QStringLiteral("k"), VX::VXValue(1)}};
    expectWrapperReports(values);
    expectWrapperReports(QMap<QString, QMap<QString, VX::VXValue>> {{QStringLiteral("m"), values}});
    expectWrapperReports(VX::VXValue(std::string("v")));
}

TEST(FutureListWatcher, FinishedWrappersAreDeletedFromAnyThread)
{
    // The watcher lives on another thread, as an interface's does on its
    // connection worker, while futures are appended from this one.
    QThread owner;
    owner.start();
    auto *watcher = new RK::FutureListWatcher;
    watcher->moveToThread(&owner);

    QList<QPointer<RK::FutureBase>> wrappers;
    QFutureSynchronizer<int> all;
    for (int i = 0; i < 20; ++i) {
        QFuture<int> f = QtConcurrent::run([i] {
            QThread::msleep(i % 3);
            return i;
        });
        auto *wrapper = new RK::FutureWatcherInterface<int>(f);
        wrappers << wrapper;
        watcher->append(wrapper);
        all.addFuture(f);
    }
    all.waitForFinished();
    EXPECT_TRUE(test::waitUntil([&] { return watcher->count() == 0; }));
    for (const auto &w : wrappers)
        EXPECT_TRUE(test::waitUntil([&] { return w.isNull(); }));

    // A queued deleteLater could be left behind by the quit; finished() is
    // the thread's last word, and its deferred deletes still run.
    QObject::connect(&owner, &QThread::finished, watcher, &QObject::deleteLater);
    owner.quit();
    owner.wait();
}

TEST(FutureListWatcher, DestructorWaitsForRunningFutures)
{
    std::atomic<bool> done {false};
    QSemaphore started;
    auto *watcher = new RK::FutureListWatcher;
    QFuture<void> f = QtConcurrent::run([&] {
        started.release();
        QThread::msleep(100);
        done = true;
    });
    watcher->append(new RK::FutureWatcherInterface<void>(f));
    started.acquire();
    delete watcher;
    EXPECT_TRUE(done.load());
}

} // namespace
