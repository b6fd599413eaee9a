#include <connection/animated_speech_interface.h>
#include <connection/audio_interface.h>
#include <connection/autonomous_life_interface.h>
#include <connection/basic_awareness_interface.h>
#include <connection/battery_interface.h>
#include <connection/behavior_manager_interface.h>
#include <connection/config_interface.h>
#include <connection/dialog_interface.h>
#include <connection/engagement_zones_interface.h>
#include <connection/launcher_interface.h>
#include <connection/log_listener_interface.h>
#include <connection/memory_interface.h>
#include <connection/package_manager_interface.h>
#include <connection/people_perception_interface.h>
#include <connection/platform.h>
#include <connection/recorder_module.h>
#include <connection/resources_interface.h>
#include <connection/robot_posture_interface.h>
#include <connection/robot_state_receiver.h>
#include <connection/sartel_module.h>
#include <connection/video_device_interface.h>
#include <connection/world_representation_interface.h>

#include "connection_p.h"
#include "sartel_almodule_p.h"
#include "service_table_p.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QRegularExpression>
#include <QSemaphore>
#include <QThread>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <wz/log.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <thread>

namespace RK {

namespace {

const char *const k_category = "con.connection";

boost::shared_ptr<VX::VXProxy> makeGenericProxy(wz::Session *session, const std::string &name)
{
    wz::Object object = session->service(name, "").value();
    return boost::make_shared<VX::VXProxy>(object, name);
}

// Clears one interface field and releases what it held before the next one is
// touched. Two workers may tear down the same connection at once, so the field
// is swapped atomically and only one of them gets the object.
template<typename T>
void releaseField(boost::shared_ptr<T> &field)
{
    boost::shared_ptr<T> old = boost::atomic_exchange(&field, boost::shared_ptr<T>());
    old.reset();
}

} // namespace

void destroyOnOwnThread(QObject *object)
{
    QThread *home = object->thread();
    if (home == QThread::currentThread()) {
        delete object;
    } else if (home && home->isRunning()) {
        object->deleteLater();
    } else if (QCoreApplication::instance()
               && QThread::currentThread() == QCoreApplication::instance()->thread()) {
        // The application's thread is never one an object of this library
        // waits for; deleting here leaves no thread behind, which matters when
        // the manager's destructor ends the last connection.
        delete object;
    } else {
        // Its thread has ended, and this one may be a thread the object
        // waits for: it goes on a short thread of its own.
        std::thread([object] { delete object; }).detach();
    }
}

const char *Connection::Interrupted::what() const noexcept
{
    return "the session ended while waiting for the robot";
}

Connection::Connection(wz::Session *session, const QString &address, int port, const QString &name)
    : QObject(nullptr),
      m_proxies(k_serviceCount),
      m_session(session),
      m_address(address),
      m_port(port),
      m_name(name)
{ }

Connection::~Connection()
{
    m_ready = false;
    m_address = QString();
    if (m_recorderModule)
        unregisterServices();
    destroyProxiesConnections();
}

boost::shared_ptr<Connection> Connection::create(wz::Session *session, const QString &name,
                                                 const ConnectionTiming &timing)
{
    return create(session, boost::shared_ptr<wz::Session>(), name, timing);
}

boost::shared_ptr<Connection> Connection::create(const boost::shared_ptr<wz::Session> &session,
                                                 const QString &name,
                                                 const ConnectionTiming &timing)
{
    return create(session.get(), session, name, timing);
}

boost::shared_ptr<Connection> Connection::create(wz::Session *session,
                                                 const boost::shared_ptr<wz::Session> &keep,
                                                 const QString &name,
                                                 const ConnectionTiming &timing)
{
    const wz::Url url = session->url();
    // The last owner may be an executer of one of its interfaces: the
    // connection must still go on its own thread.
    boost::shared_ptr<Connection> connection(new Connection(session,
                                                            QString::fromUtf8(url.host().c_str()),
                                                            static_cast<quint16>(url.port()), name),
                                             [](Connection *c) { destroyOnOwnThread(c); });
    connection->m_sessionOwner = keep;
    connection->m_timing = timing;
    connection->init();
    return connection;
}

void Connection::init()
{
    waitForReadiness();
    initProxiesConnections();
    buildInterfaces();
    connectInterfaceSignals();
    awaitEventSubscriptions();
    readVersion();
    m_ready = true;
}

// The interfaces ask for the robot's events as they are built; the desktop
// module subscribes to them on its own thread, one call each, in order. The
// connection is announced only once they have reached the robot: what it
// raised in between (a start's running list, a package installed) would be
// lost. Bounded, so that a robot that stops answering cannot hold the attempt.
void Connection::awaitEventSubscriptions()
{
    QObject *executer
        = m_sartelModuleInterface ? m_sartelModuleInterface->executerObject() : nullptr;
    if (!executer)
        return;
    const auto passed = std::make_shared<QSemaphore>();
    QMetaObject::invokeMethod(
        executer, [passed] { passed->release(); }, Qt::QueuedConnection);
    if (!passed->tryAcquire(1, m_timing.readinessLimitMs))
        wz::log::LogStream(wz::LogLevel_Warning, k_category, "awaitEventSubscriptions")
            << "the robot's events were not all subscribed in time; some may be missed";
}

void Connection::waitForReadiness()
{
    int waited = 0;
    while (!isReady()) {
        // The session test comes before the time-out, so a session that dies
        // during the last wait is reported as such.
        if (!m_session->isConnected())
            throw Interrupted();
        if (waited >= m_timing.readinessLimitMs)
            throw std::runtime_error("Morvane was not ready yet.");
        // A local loop rather than a sleep: events of this thread keep flowing.
        QEventLoop loop;
        QTimer::singleShot(m_timing.readinessStepMs, &loop, &QEventLoop::quit);
        loop.exec();
        waited += m_timing.readinessStepMs;
    }
}

bool Connection::isReady()
{
    try {
        if (m_memory)
            return m_memory->getData("MorvaneReady").toBool();
        bindService(serviceIndex(ServiceId::Memory));
        return false;
    } catch (const std::exception &) {
        return false;
    }
}

void Connection::initProxiesConnections()
{
    m_hasDCM = false;
    const std::vector<wz::ServiceInfo> services
        = m_session->services(wz::ServiceLocality_All).value();
    for (const wz::ServiceInfo &info : services) {
        if (info.name == "DCM")
            m_hasDCM = true;
    }

    // A failure leaves the row's proxy null and is logged; binding goes on
    // with the next row.
    for (std::size_t row = 0; row < k_serviceCount; ++row) {
        const ServiceRow &service = k_serviceTable[row];
        try {
            bindService(row);
        } catch (const std::exception &e) {
            wz::log::LogStream(service.failureLevel, k_category, "initProxiesConnections")
                << service.failureText << "\n"
                << e.what() << "\n";
            if (service.kind == ProxyKind::Battery)
                wz::log::LogStream(wz::LogLevel_Info, k_category, "initProxiesConnections")
                    << "trying to connect to Sentinel instead...";
        }
    }
}

void Connection::bindService(std::size_t row)
{
    const ServiceRow &service = k_serviceTable[row];
    // The memory proxy may exist already: the readiness wait made it.
    if (service.kind == ProxyKind::Memory && m_memory)
        return;
    if (service.kind == ProxyKind::LogListener) {
        wz::Object logManager = m_session->service(service.name, "").value();
        if (!logManager)
            throw std::runtime_error("This object is null");
        m_logListener = logManager.call<boost::shared_ptr<wz::LogListenerProxy>>("getListener");
        return;
    }

    const boost::shared_ptr<VX::VXProxy> proxy = makeGenericProxy(m_session, service.name);
    switch (service.kind) {
    case ProxyKind::Memory:
        m_memory = boost::make_shared<VX::VXMemoryProxy>(proxy);
        break;
    case ProxyKind::Motion:
        m_motion = boost::make_shared<VX::VXMotionProxy>(proxy);
        break;
    case ProxyKind::Preferences:
        m_preferences = boost::make_shared<VX::VXPreferencesProxy>(proxy);
        break;
    case ProxyKind::WorldRepresentation:
        m_worldRepresentation = boost::make_shared<VX::VXWorldRepresentationProxy>(proxy);
        break;
    case ProxyKind::EngagementZones:
        m_engagementZones = boost::make_shared<VX::VXEngagementZonesProxy>(proxy);
        break;
    case ProxyKind::PeoplePerception:
        m_peoplePerception = boost::make_shared<VX::VXPeoplePerceptionProxy>(proxy);
        break;
    case ProxyKind::BasicAwareness:
        m_basicAwareness = boost::make_shared<VX::VXBasicAwarenessProxy>(proxy);
        break;
    case ProxyKind::Battery:
        // Kept only if it answers; the executer has the fallback.
        proxy->call<void>("getBatteryCharge");
        break;
    case ProxyKind::PackageManager:
        // An older package manager has no file server port of its own: the
        // files then go through the session's port.
        try {
            m_httpTransferPort = proxy->call<int>("_getHttpTransferPort");
        } catch (...) {
            m_httpTransferPort = m_port;
        }
        break;
    case ProxyKind::Generic:
    case ProxyKind::LogListener:
        break;
    }
    m_proxies[row] = proxy;
}

bool Connection::isBound(std::size_t row) const
{
    if (k_serviceTable[row].kind == ProxyKind::LogListener)
        return bool(m_logListener);
    return bool(m_proxies[row]);
}

boost::shared_ptr<VX::VXProxy> Connection::proxyAt(std::size_t row) const
{
    return m_proxies[row];
}

// Most interface objects take only the connection; the two that take more
// are made below.
template<typename T>
boost::shared_ptr<T> Connection::makeInterfaceObject(const boost::shared_ptr<Connection> &self)
{
    return makeInterface<T>(self);
}

// The recorder is also a service of the desktop, registered under its
// object name; a failure to register it fails the connection.
template<>
boost::shared_ptr<VXSartelRecorder>
Connection::makeInterfaceObject<VXSartelRecorder>(const boost::shared_ptr<Connection> &self)
{
    const boost::shared_ptr<VXSartelRecorder> recorder
        = makeInterface<VXSartelRecorder>(m_session, self, nullptr);
    m_recorderServiceId = m_session
                              ->registerService(recorder->objectName().toUtf8().toStdString(),
                                                wz::makeObject(recorder))
                              .value();
    return recorder;
}

// Autonomous life has no proxy row: the session hands out the object itself.
template<>
boost::shared_ptr<AutonomousLifeInterface>
Connection::makeInterfaceObject<AutonomousLifeInterface>(const boost::shared_ptr<Connection> &self)
{
    wz::Object life = m_session->service("VXAutonomousLife", "").value();
    return makeInterface<AutonomousLifeInterface>(self, life);
}

template<typename T>
void Connection::buildInterface(boost::shared_ptr<T> &field, int condition,
                                InterfaceFailure failure, const char *typeName,
                                const boost::shared_ptr<Connection> &self)
{
    if (condition != interface_condition::Always && !isBound(static_cast<std::size_t>(condition)))
        return;
    if (failure == InterfaceFailure::Fails) {
        field = makeInterfaceObject<T>(self);
        return;
    }
    try {
        field = makeInterfaceObject<T>(self);
    } catch (const std::exception &e) {
        if (failure == InterfaceFailure::Logged) {
            // "EngagementZonesInterface" is logged as "EngagementZones interface".
            std::string name(typeName);
            const std::string suffix = "Interface";
            if (name.size() > suffix.size()
                && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
                name.erase(name.size() - suffix.size());
            wz::log::LogStream(wz::LogLevel_Warning, k_category, "buildInterfaces")
                << "Could not initialize " << name << " interface: " << e.what();
        }
        releaseField(field);
    }
}

// In the order of the interface table. Every object receives
// shared_from_this() and is made by makeInterface<T>(), never by
// boost::make_shared.
void Connection::buildInterfaces()
{
    const boost::shared_ptr<Connection> self = shared_from_this();
#define NIMIOB_BUILD_INTERFACE(type, accessor, condition, failure, release) \
    buildInterface<type>(m_##accessor, interface_condition::condition, InterfaceFailure::failure, \
                         #type, self);
    NIMIOB_INTERFACE_TABLE(NIMIOB_BUILD_INTERFACE)
#undef NIMIOB_BUILD_INTERFACE
}

// Only connectionTested is forwarded by the manager; the error signals end
// here, and an application that wants them connects to the interface itself.
void Connection::connectInterfaceSignals()
{
    // [SartelModuleInterface] displayErrorRequested and connectionTested(bool).
    if (m_sartelModuleInterface) {
        connect(m_sartelModuleInterface.get(), &SartelModuleInterface::displayErrorRequested, this,
                &Connection::displayErrorRequested);
        connect(m_sartelModuleInterface.get(), &SartelModuleInterface::connectionTested, this,
                &Connection::connectionTested);
    }
    // [VXSartelRecorder] displayErrorRequested.
    if (m_recorderModule)
        connect(m_recorderModule.get(),
                static_cast<void (VXSartelRecorder::*)(QString, QString, QString, bool)>(
                    &VXSartelRecorder::displayErrorRequested),
                this, &Connection::displayErrorRequested);
    // [BehaviorManagerInterface] displayErrorRequested.
    if (m_behaviorManagerInterface)
        connect(m_behaviorManagerInterface.get(), &BehaviorManagerInterface::displayErrorRequested,
                this, &Connection::displayErrorRequested);
    // [RobotPostureInterface] displayErrorRequested.
    if (m_robotPostureInterface)
        connect(m_robotPostureInterface.get(), &RobotPostureInterface::displayErrorRequested, this,
                &Connection::displayErrorRequested);
}

void Connection::readVersion()
{
    if (!m_memory)
        return;
    try {
        m_version = QString::fromUtf8(m_memory->version().c_str());
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, "Connection", __FUNCTION__)
            << "No proxy on VXMemory cannot check version compatibility"
            << ": " << e.what();
        throw;
    }
}

void Connection::testConnection()
{
    const boost::shared_ptr<SartelModuleInterface> module = sartelModuleInterface();
    if (!module) {
        emit connectionTested(false);
        return;
    }
    module->testConnection();
}

bool Connection::checkMorvaneCompatibility(QString &clientVersion, QString &robotVersion) const
{
    if (m_version.isEmpty())
        return false;
    clientVersion = QCoreApplication::applicationVersion();
    robotVersion = m_version;

    static const QRegularExpression separator(QStringLiteral("[\\.-]"));
    const auto sections
        = [](const QString &version, int last) { return version.section(separator, 0, last); };
    if (sections(clientVersion, 2) == sections(robotVersion, 2))
        return true;
    wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
        << "Client version " << sections(clientVersion, 2).toStdString()
        << " connected to Morvane version " << sections(robotVersion, 2).toStdString();
    return sections(clientVersion, 1) == sections(robotVersion, 1);
}

boost::shared_ptr<VXSartel> Connection::sartelModule() const
{
    const boost::shared_ptr<SartelModuleInterface> module = sartelModuleInterface();
    if (!module)
        return boost::shared_ptr<VXSartel>();
    return module->sartelModule();
}

void Connection::unregisterServices()
{
    // The recorder is a service of this session: it must not outlive its
    // connection in the robot's directory. A robot that does not answer in
    // time drops it anyway when the session closes, so the wait is bounded.
    if (m_recorderServiceId == 0)
        return;
    const unsigned int id = m_recorderServiceId;
    m_recorderServiceId = 0;
    if (!m_session || !m_session->isConnected())
        return;
    try {
        const wz::Future<void> done = m_session->unregisterService(id);
        if (done.wait(std::max(0, m_timing.unregisterLimitMs)) == wz::FutureState_Running) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "The robot did not confirm within " << m_timing.unregisterLimitMs
                << " ms that VXSartelRecorder is gone; closing anyway";
        } else if (done.hasError(0)) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Could not unregister VXSartelRecorder: " << done.error(0);
        }
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "Could not unregister VXSartelRecorder: " << e.what();
    }
}

// In the table's order of release, each object gone before the next is
// touched. Those with no place stay until the connection itself goes.
void Connection::destroyInterfaces()
{
    unregisterServices();
    for (int place = 1; place <= static_cast<int>(k_interfaceCount); ++place) {
#define NIMIOB_RELEASE_INTERFACE(type, accessor, condition, failure, release) \
    if (release == place) \
        releaseField(m_##accessor);
        NIMIOB_INTERFACE_TABLE(NIMIOB_RELEASE_INTERFACE)
#undef NIMIOB_RELEASE_INTERFACE
    }
}

void Connection::destroyProxiesConnections()
{
    std::vector<std::pair<int, boost::shared_ptr<VX::VXProxy>>> proxies;
    for (std::size_t row = 0; row < k_serviceCount; ++row) {
        if (k_serviceTable[row].closePosition > 0 && m_proxies[row])
            proxies.emplace_back(k_serviceTable[row].closePosition, m_proxies[row]);
    }
    std::sort(proxies.begin(), proxies.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });

    m_logListener.reset();
    for (const auto &proxy : proxies) {
        try {
            proxy.second->destroyConnection();
        } catch (const std::exception &) { }
    }
}

QStringList Connection::boundServices() const
{
    QStringList bound;
    for (std::size_t row = 0; row < k_serviceCount; ++row) {
        if (isBound(row))
            bound << QString::fromLatin1(k_serviceTable[row].name);
    }
    return bound;
}

QStringList Connection::missingServices() const
{
    QStringList missing;
    for (std::size_t row = 0; row < k_serviceCount; ++row) {
        if (!isBound(row))
            missing << QString::fromLatin1(k_serviceTable[row].name);
    }
    return missing;
}

QString Connection::missingModulesReport() const
{
    QString required;
    QString optional;
    for (std::size_t row = 0; row < k_serviceCount; ++row) {
        const ServiceRow &service = k_serviceTable[row];
        if (isBound(row) || !service.checkText)
            continue;
        (service.required ? required : optional)
            += QCoreApplication::translate("RK::ConnectionManager", service.checkText)
            + QLatin1Char('\n');
    }
    // Optional services are worth a word only when something required is missing.
    return required.isEmpty() ? QString() : required + optional;
}

#define NIMIOB_GENERIC_ACCESSOR(accessor, id) \
    boost::shared_ptr<VX::VXProxy> Connection::accessor() const \
    { \
        return proxyAt(serviceIndex(ServiceId::id)); \
    }
NIMIOB_GENERIC_ACCESSOR(memoryWatcher, MemoryWatcher)
NIMIOB_GENERIC_ACCESSOR(config, Config)
NIMIOB_GENERIC_ACCESSOR(frameManager, FrameManager)
NIMIOB_GENERIC_ACCESSOR(videoDevice, VideoDevice)
NIMIOB_GENERIC_ACCESSOR(visionRecognition, VisionRecognition)
NIMIOB_GENERIC_ACCESSOR(behaviorManager, BehaviorManager)
NIMIOB_GENERIC_ACCESSOR(robotPosture, RobotPosture)
NIMIOB_GENERIC_ACCESSOR(resourceManager, ResourceManager)
NIMIOB_GENERIC_ACCESSOR(motionRecorder, MotionRecorder)
NIMIOB_GENERIC_ACCESSOR(audioDevice, AudioDevice)
NIMIOB_GENERIC_ACCESSOR(textToSpeech, TextToSpeech)
NIMIOB_GENERIC_ACCESSOR(batteryDevice, Battery)
NIMIOB_GENERIC_ACCESSOR(launcher, Launcher)
NIMIOB_GENERIC_ACCESSOR(dialog, Dialog)
NIMIOB_GENERIC_ACCESSOR(packageManager, PackageManager)
#undef NIMIOB_GENERIC_ACCESSOR

} // namespace RK
