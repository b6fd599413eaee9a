#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "service_table_p.h"
#include <connection/platform.h>

#include <QMutex>
#include <QMutexLocker>
#include <QThread>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <wz/log.h>

#include <stdexcept>

namespace RK {

namespace {

const char *const k_category = "con.connection";
const char *const a_testEventName = "SartelConnectionTest";
const char *const a_testCallbackName = "_connectionTestCallback";
const int a_testLimitMs = 15000;

// A fresh proxy for each use: the module keeps nothing of the robot's.
boost::shared_ptr<VX::VXMemoryProxy> memoryProxy(wz::Session *session)
{
    if (!session)
        throw std::runtime_error("no wz::Session object provided");
    wz::Object object
        = session->service(serviceName(ServiceId::Memory), "").value(wz::FutureTimeout_Infinite);
    return boost::make_shared<VX::VXMemoryProxy>(
        boost::make_shared<VX::VXProxy>(object, serviceName(ServiceId::Memory)));
}

// A test timer dies on its own thread: a module released elsewhere (the
// framework may hold it last) must not stop a timer across threads. That
// thread may end first, and a deleteLater() posted after its last look at
// its queue would never run: on its way out the thread stops the timer and
// marks it, and a marked timer is deleted wherever it is let go.
boost::shared_ptr<QTimer> makeTestTimer()
{
    struct Home
    {
        QMutex mutex;
        bool ended = false;
    };
    const boost::shared_ptr<Home> home = boost::make_shared<Home>();
    QTimer *timer = new QTimer;
    QObject::connect(
        QThread::currentThread(), &QThread::finished, timer,
        [home, timer] {
            QMutexLocker lock(&home->mutex);
            home->ended = true;
            timer->stop();
        },
        Qt::DirectConnection);
    return boost::shared_ptr<QTimer>(timer, [home](QTimer *timer) {
        QObject::disconnect(timer, nullptr, nullptr, nullptr);
        QMutexLocker lock(&home->mutex);
        if (home->ended) {
            delete timer;
            return;
        }
        if (timer->thread() == QThread::currentThread())
            timer->stop();
        timer->deleteLater();
    });
}

// The remote surface, described once when the library is loaded.
struct ModuleType
{
    ModuleType()
    {
        wz::ObjectTypeBuilder<VXSartel> builder("RK::VXSartel");
        builder.advertiseMethod("dataChanged", &VXSartel::dataChanged);
        builder.advertiseMethod("_connectionTestCallback", &VXSartel::_connectionTestCallback);
        builder.registerType();
        wz::registerObjectFactory("RK::VXSartel", [](const std::vector<wz::AnyValue> &) {
            return wz::makeObject(boost::make_shared<VXSartel>(nullptr, nullptr));
        });
    }
};

const ModuleType s_moduleType;

} // namespace

EventRelay::EventRelay(QObject *target, Deliver deliver)
    : m_target(target), m_deliver(std::move(deliver))
{ }

std::shared_ptr<EventRelay> EventRelay::create(QObject *target, Deliver deliver)
{
    return std::shared_ptr<EventRelay>(new EventRelay(target, std::move(deliver)));
}

void EventRelay::acceptOnly(QStringList names)
{
    QMutexLocker lock(&m_mutex);
    m_filtered = true;
    m_accepted = std::move(names);
}

void EventRelay::push(const QString &name, const VX::VXValue &value)
{
    QMutexLocker lock(&m_mutex);
    if (m_detached || (m_filtered && !m_accepted.contains(name)))
        return;
    const bool first = m_pending.empty();
    m_pending.emplace_back(name, value);
    if (!first)
        return; // a drain is queued already
    // Posted under the lock: detach(), called before the target goes, waits
    // for it, so the target is alive here.
    std::shared_ptr<EventRelay> self = shared_from_this();
    QMetaObject::invokeMethod(
        m_target, [self] { self->drain(); }, Qt::QueuedConnection);
}

void EventRelay::detach()
{
    QMutexLocker lock(&m_mutex);
    m_detached = true;
    m_pending.clear();
}

void EventRelay::drain()
{
    std::vector<std::pair<QString, VX::VXValue>> batch;
    {
        QMutexLocker lock(&m_mutex);
        batch.swap(m_pending);
    }
    for (const auto &event : batch) {
        {
            // A receiver may end the road while a batch is delivered.
            QMutexLocker lock(&m_mutex);
            if (m_detached)
                return;
        }
        m_deliver(event.first, event.second);
    }
}

const QString VXSartel::a_sartelModuleName = QStringLiteral("VXSartel");

VXSartel::VXSartel(wz::Session *session, QObject *parent)
    : QObject(parent), m_session(session), m_testLimitMs(a_testLimitMs), m_answered(false)
{
    setObjectName(a_sartelModuleName);
}

VXSartel::~VXSartel() = default;

void VXSartel::addRelay(std::shared_ptr<EventRelay> relay)
{
    QMutexLocker lock(&m_relaysMutex);
    m_relays.push_back(std::move(relay));
}

void VXSartel::removeRelaysTo(const QObject *target)
{
    std::vector<std::shared_ptr<EventRelay>> removed;
    {
        QMutexLocker lock(&m_relaysMutex);
        for (auto it = m_relays.begin(); it != m_relays.end();) {
            if ((*it)->target() == target) {
                removed.push_back(std::move(*it));
                it = m_relays.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (const auto &relay : removed)
        relay->detach();
}

void VXSartel::dataChanged(const std::string &key, const VX::VXValue &value,
                           const std::string & /*subscriberIdentifier*/)
{
    if (key == "ClientDisconnected" && value.isString() && value.toStdString() == "Sartel") {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "DisconnectRequested by Morvane. Connection is lost.";
        emit disconnectRequested();
    }
    const QString name = QString::fromUtf8(key.data(), static_cast<int>(key.size()));
    {
        QMutexLocker lock(&m_relaysMutex);
        for (const auto &relay : m_relays)
            relay->push(name, value);
    }
    emit dataSubscribedChanged(name, value);
}

void VXSartel::_connectionTestCallback(const std::string & /*key*/, const VX::VXValue & /*value*/,
                                       const std::string & /*subscriberIdentifier*/)
{
    m_answered = true;
    // Late: the time-out has reported the failure and removed the event.
    const int pending = m_testsPending.exchange(0);
    if (pending == 0)
        return;
    try {
        memoryProxy(m_session)->removeMicroEvent(a_testEventName);
    } catch (const std::exception &e) {
        // A connection that closes as the robot answers (a disconnect right
        // after connecting) loses the removal with it: expected, not an error.
        const bool lost = classifyFailureText(e.what()) == ErrorCode::ConnectionLost;
        wz::log::LogStream(lost ? wz::LogLevel_Info : wz::LogLevel_Error, k_category, __FUNCTION__)
            << "Error removing connection test VXMemory entry: " << e.what();
    }
    // The timer keeps running (it belongs to the module's thread): its
    // time-out finds nothing pending and only cleans up.
    report(pending, true);
}

void VXSartel::report(int tests, bool success)
{
    for (int i = 0; i < tests; ++i)
        emit connectionTested(success);
}

void VXSartel::triggerConnectionTest()
{
    // Before the robot can call back. A test still pending shares this one's
    // evidence; each reports.
    ++m_testsPending;
    try {
        const boost::shared_ptr<VX::VXMemoryProxy> memory = memoryProxy(m_session);
        memory->subscribeToMicroEvent(a_testEventName, a_sartelModuleName.toUtf8().toStdString(),
                                      "", a_testCallbackName);
        // A timer left from an earlier test goes with this assignment, and
        // with it that test's time-out.
        m_testTimer = makeTestTimer();
        m_testTimer->setSingleShot(true);
        connect(m_testTimer.get(), &QTimer::timeout, this, &VXSartel::onTimeout);
        m_testTimer->start(m_testLimitMs);
        // The robot now calls this module back over the network.
        memory->raiseMicroEvent(a_testEventName, VX::VXValue(0));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "Two-way connectivity test failed: " << e.what();
        if (m_testTimer) {
            m_testTimer->stop();
            m_testTimer.reset();
        }
        report(m_testsPending.exchange(0), false);
    }
}

void VXSartel::onTimeout()
{
    const int pending = m_testsPending.exchange(0);
    if (pending > 0) {
        try {
            memoryProxy(m_session)->removeMicroEvent(a_testEventName);
        } catch (...) { }
        report(pending, false);
    }
    if (m_testTimer) {
        m_testTimer->stop();
        m_testTimer.reset();
    }
}

} // namespace RK
