#include <connection/animated_speech_interface.h>
#include <connection/audio_interface.h>
#include <connection/autonomous_life_interface.h>
#include <connection/basic_awareness_interface.h>
#include <connection/battery_interface.h>
#include <connection/behavior_manager_interface.h>
#include <connection/config_interface.h>
#include <connection/connection.h>
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

#include "sartel_almodule_p.h"
#include "service_table_p.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <wz/log.h>

#include <algorithm>
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

template<typename T>
boost::shared_ptr<T> loadField(const boost::shared_ptr<T> &field)
{
    return boost::atomic_load(&field);
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
    readVersion();
    m_ready = true;
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

// Each interface object has its place in this order; a service lands by
// filling in its own marked spot. Every object receives shared_from_this()
// and is made by makeInterface<T>(), never by boost::make_shared.
void Connection::buildInterfaces()
{
    const boost::shared_ptr<Connection> self = shared_from_this();

    // [1 MemoryInterface] always:
    m_memoryInterface = makeInterface<MemoryInterface>(self);

    // [2 SartelModuleInterface] always:
    m_sartelModuleInterface = makeInterface<SartelModuleInterface>(self);

    // [3 VXSartelRecorder] always, then registered under its object name; a
    // failure of the registration fails the connection:
    m_recorderModule = makeInterface<VXSartelRecorder>(m_session, self, nullptr);
    m_recorderServiceId
        = m_session
              ->registerService(m_recorderModule->objectName().toUtf8().toStdString(),
                                wz::makeObject(m_recorderModule))
              .value();

    // [4 RobotStateReceiver] always:
    m_robotStateReceiver = makeInterface<RobotStateReceiver>(self);

    if (videoDevice()) {
        // [5 VideoDeviceInterface] with the camera proxy:
        m_videoDeviceInterface = makeInterface<VideoDeviceInterface>(self);
    }

    // [6 ResourcesInterface] always.
    m_resourcesInterface = makeInterface<ResourcesInterface>(self);
    // [7 BehaviorManagerInterface] always.
    m_behaviorManagerInterface = makeInterface<BehaviorManagerInterface>(self);
    // [8 ConfigInterface] always.
    m_configInterface = makeInterface<ConfigInterface>(self);
    // [9 LogListenerInterface] always.
    m_logListenerInterface = makeInterface<LogListenerInterface>(self);
    // [10 AudioInterface] always.
    m_audioInterface = makeInterface<AudioInterface>(self);
    // [11 AnimatedSpeechInterface] always.
    m_animatedSpeechInterface = makeInterface<AnimatedSpeechInterface>(self);
    // [12 BatteryInterface] always.
    m_batteryInterface = makeInterface<BatteryInterface>(self);
    // [13 LauncherInterface] always.
    m_launcherInterface = makeInterface<LauncherInterface>(self);

    if (robotPosture()) {
        // [14 RobotPostureInterface]
        m_robotPostureInterface = makeInterface<RobotPostureInterface>(self);
    }
    if (dialog()) {
        // [15 DialogInterface]
        m_dialogInterface = makeInterface<DialogInterface>(self);
    }
    if (m_worldRepresentation) {
        // [16 WorldRepresentationInterface]
        m_worldRepresentationInterface = makeInterface<WorldRepresentationInterface>(self);
    }
    if (packageManager()) {
        // [17 PackageManagerInterface]
        m_packageManagerInterface = makeInterface<PackageManagerInterface>(self);
    }

    if (m_engagementZones) {
        try {
            // [18 EngagementZonesInterface]
            m_engagementZonesInterface = makeInterface<EngagementZonesInterface>(self);
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Could not initialize EngagementZones interface: " << e.what();
            releaseField(m_engagementZonesInterface);
        }
    }

    // [19 AutonomousLifeInterface] only if the session gives the service
    // "VXAutonomousLife"; any std::exception clears the field without a word.
    try {
        wz::Object life = m_session->service("VXAutonomousLife", "").value();
        m_autonomousLifeInterface = makeInterface<AutonomousLifeInterface>(self, life);
    } catch (const std::exception &) {
        releaseField(m_autonomousLifeInterface);
    }

    if (m_peoplePerception) {
        try {
            // [20 PeoplePerceptionInterface]
            m_peoplePerceptionInterface = makeInterface<PeoplePerceptionInterface>(self);
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Could not initialize PeoplePerception interface: " << e.what();
            releaseField(m_peoplePerceptionInterface);
        }
    }

    if (m_basicAwareness) {
        try {
            // [21 BasicAwarenessInterface]
            m_basicAwarenessInterface = makeInterface<BasicAwarenessInterface>(self);
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Could not initialize BasicAwareness interface: " << e.what();
            releaseField(m_basicAwarenessInterface);
        }
    }
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

void Connection::destroyInterfaces()
{
    unregisterServices();
    releaseField(m_memoryInterface);
    releaseField(m_sartelModuleInterface);
    releaseField(m_recorderModule);
    releaseField(m_robotStateReceiver);
    releaseField(m_videoDeviceInterface);
    releaseField(m_resourcesInterface);
    releaseField(m_behaviorManagerInterface);
    releaseField(m_configInterface);
    releaseField(m_audioInterface);
    releaseField(m_animatedSpeechInterface);
    releaseField(m_batteryInterface);
    releaseField(m_launcherInterface);
    releaseField(m_robotPostureInterface);
    releaseField(m_dialogInterface);
    releaseField(m_worldRepresentationInterface);
    releaseField(m_packageManagerInterface);
    releaseField(m_autonomousLifeInterface);
    releaseField(m_engagementZonesInterface);
    releaseField(m_peoplePerceptionInterface);
    // The log listener and basic awareness interfaces stay until the
    // connection itself goes.
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

boost::shared_ptr<SartelModuleInterface> Connection::sartelModuleInterface() const
{
    return loadField(m_sartelModuleInterface);
}
boost::shared_ptr<VXSartelRecorder> Connection::recorderModule() const
{
    return loadField(m_recorderModule);
}
boost::shared_ptr<RobotStateReceiver> Connection::robotStateReceiver() const
{
    return loadField(m_robotStateReceiver);
}
boost::shared_ptr<VideoDeviceInterface> Connection::videoDeviceInterface() const
{
    return loadField(m_videoDeviceInterface);
}
boost::shared_ptr<ResourcesInterface> Connection::resourcesInterface() const
{
    return loadField(m_resourcesInterface);
}
boost::shared_ptr<BehaviorManagerInterface> Connection::behaviorManagerInterface() const
{
    return loadField(m_behaviorManagerInterface);
}
boost::shared_ptr<MemoryInterface> Connection::memoryInterface() const
{
    return loadField(m_memoryInterface);
}
boost::shared_ptr<ConfigInterface> Connection::configInterface() const
{
    return loadField(m_configInterface);
}
boost::shared_ptr<LogListenerInterface> Connection::logListenerInterface() const
{
    return loadField(m_logListenerInterface);
}
boost::shared_ptr<AudioInterface> Connection::audioInterface() const
{
    return loadField(m_audioInterface);
}
boost::shared_ptr<AnimatedSpeechInterface> Connection::animatedSpeechInterface() const
{
    return loadField(m_animatedSpeechInterface);
}
boost::shared_ptr<BatteryInterface> Connection::batteryInterface() const
{
    return loadField(m_batteryInterface);
}
boost::shared_ptr<LauncherInterface> Connection::launcherInterface() const
{
    return loadField(m_launcherInterface);
}
boost::shared_ptr<RobotPostureInterface> Connection::robotPostureInterface() const
{
    return loadField(m_robotPostureInterface);
}
boost::shared_ptr<DialogInterface> Connection::dialogInterface() const
{
    return loadField(m_dialogInterface);
}
boost::shared_ptr<WorldRepresentationInterface> Connection::worldRepresentationInterface() const
{
    return loadField(m_worldRepresentationInterface);
}
boost::shared_ptr<PackageManagerInterface> Connection::packageManagerInterface() const
{
    return loadField(m_packageManagerInterface);
}
boost::shared_ptr<AutonomousLifeInterface> Connection::autonomousLifeInterface() const
{
    return loadField(m_autonomousLifeInterface);
}
boost::shared_ptr<EngagementZonesInterface> Connection::engagementZonesInterface() const
{
    return loadField(m_engagementZonesInterface);
}
boost::shared_ptr<PeoplePerceptionInterface> Connection::peoplePerceptionInterface() const
{
    return loadField(m_peoplePerceptionInterface);
}
boost::shared_ptr<BasicAwarenessInterface> Connection::basicAwarenessInterface() const
{
    return loadField(m_basicAwarenessInterface);
}

} // namespace RK
