#include <connection/connection.h>
#include <connection/memory_interface.h>
#include <connection/platform.h>
#include <connection/recorder_module.h>
#include <connection/robot_posture_interface.h>
#include <connection/robot_state_receiver.h>
#include <connection/sartel_almodule.h>
#include <connection/sartel_module.h>
#include <connection/video_device_interface.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <wz/log.h>

#include <stdexcept>
#include <thread>

namespace RK {

namespace {

const char *const k_category = "con.connection";
const int a_readinessStepMs = 250;
const int a_readinessLimitMs = 20000;

boost::shared_ptr<VX::VXProxy> makeGenericProxy(wz::Session *session, const std::string &name)
{
    wz::Object object = session->service(name, "").value();
    return boost::make_shared<VX::VXProxy>(object, name);
}

// One row of the binding: a failure leaves the proxy null and is logged, and
// binding goes on with the next row.
template<typename Bind>
void bindRow(wz::LogLevel level, const char *text, Bind bind)
{
    try {
        bind();
    } catch (const std::exception &e) {
        wz::log::LogStream(level, k_category, "initProxiesConnections") << text << "\n"
                                                                        << e.what() << "\n";
    }
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
    : QObject(nullptr), m_session(session), m_address(address), m_port(port), m_name(name)
{ }

Connection::~Connection()
{
    m_ready = false;
    m_address = QString();
    if (m_recorderModule && m_recorderServiceId != 0) {
        if (m_session && m_session->isConnected())
            m_session->unregisterService(m_recorderServiceId).wait();
        m_recorderServiceId = 0;
    }
    destroyProxiesConnections();
}

boost::shared_ptr<Connection> Connection::create(wz::Session *session, const QString &name)
{
    return create(session, boost::shared_ptr<wz::Session>(), name);
}

boost::shared_ptr<Connection> Connection::create(const boost::shared_ptr<wz::Session> &session,
                                                 const QString &name)
{
    return create(session.get(), session, name);
}

boost::shared_ptr<Connection> Connection::create(wz::Session *session,
                                                 const boost::shared_ptr<wz::Session> &keep,
                                                 const QString &name)
{
    const wz::Url url = session->url();
    // The last owner may be an executer of one of its interfaces: the
    // connection must still go on its own thread.
    boost::shared_ptr<Connection> connection(new Connection(session,
                                                            QString::fromUtf8(url.host().c_str()),
                                                            static_cast<quint16>(url.port()), name),
                                             [](Connection *c) { destroyOnOwnThread(c); });
    connection->m_sessionOwner = keep;
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
        if (waited >= a_readinessLimitMs)
            throw std::runtime_error("Morvane was not ready yet.");
        // A local loop rather than a sleep: events of this thread keep flowing.
        QEventLoop loop;
        QTimer::singleShot(a_readinessStepMs, &loop, &QEventLoop::quit);
        loop.exec();
        waited += a_readinessStepMs;
    }
}

bool Connection::isReady()
{
    try {
        if (m_memory)
            return m_memory->getData("MorvaneReady").toBool();
        m_memory = boost::make_shared<VX::VXMemoryProxy>(makeGenericProxy(m_session, "VXMemory"));
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

    wz::Session *session = m_session;
    using wz::LogLevel_Info;
    using wz::LogLevel_Warning;

    bindRow(LogLevel_Warning, "Error while creating proxy to VXMemory:", [&] {
        if (!m_memory)
            m_memory = boost::make_shared<VX::VXMemoryProxy>(makeGenericProxy(session, "VXMemory"));
    });
    bindRow(LogLevel_Warning, "Error while creating proxy to VXFrameManager:", [&] {
        m_frameManager = makeGenericProxy(session, "VXFrameManager");
    });
    bindRow(LogLevel_Warning, "Error while creating proxy to VXBehaviorManager:", [&] {
        m_behaviorManager = makeGenericProxy(session, "VXBehaviorManager");
    });
    bindRow(LogLevel_Warning, "Error while creating proxy to VXRobotModel:", [&] {
        m_config = makeGenericProxy(session, "VXRobotModel");
    });
    bindRow(LogLevel_Warning, "Error while creating proxy to VXMotion:", [&] {
        m_motion = boost::make_shared<VX::VXMotionProxy>(makeGenericProxy(session, "VXMotion"));
    });
    bindRow(LogLevel_Warning, "Error while creating proxy to VXPreferences:", [&] {
        m_preferences = boost::make_shared<VX::VXPreferencesProxy>(
            makeGenericProxy(session, "VXPreferences"));
    });
    bindRow(LogLevel_Warning, "Error while creating proxy to logger service:", [&] {
        wz::Object logManager = session->service("LogManager", "").value();
        if (!logManager)
            throw std::runtime_error("This object is null");
        m_logListener = logManager.call<boost::shared_ptr<wz::LogListenerProxy>>("getListener");
    });
    bindRow(LogLevel_Warning,
            "Error while creating proxy "
            "to VXResourcesManager:",
            [&] { m_resourceManager = makeGenericProxy(session, "VXResourceManager"); });
    bindRow(LogLevel_Warning, "Error while creating proxy to VXMotionRecorder:", [&] {
        m_motionRecorder = makeGenericProxy(session, "VXMotionRecorder");
    });
    bindRow(LogLevel_Info, "Error while creating proxy to VXVideoDevice:", [&] {
        m_videoDevice = makeGenericProxy(session, "VXVideoDevice");
    });
    bindRow(LogLevel_Info, "Error while creating proxy to VXVisionRecognition:", [&] {
        m_visionRecognition = makeGenericProxy(session, "VXVisionRecognition");
    });
    bindRow(LogLevel_Warning, "Error while creating proxy to VXRobotPosture:", [&] {
        m_robotPosture = makeGenericProxy(session, "VXRobotPosture");
    });
    bindRow(LogLevel_Info, "Error while creating proxy to VXMemoryWatcher:", [&] {
        m_memoryWatcher = makeGenericProxy(session, "VXMemoryWatcher");
    });
    bindRow(LogLevel_Info, "Error while creating proxy to VXAudioDevice:", [&] {
        m_audioDevice = makeGenericProxy(session, "VXAudioDevice");
    });
    bindRow(LogLevel_Info, "Error while creating proxy to VXTextToSpeech:", [&] {
        m_textToSpeech = makeGenericProxy(session, "VXTextToSpeech");
    });

    // The battery is kept only if it answers; the executer has the fallback.
    m_batteryDevice.reset();
    try {
        m_batteryDevice = makeGenericProxy(session, "VXBattery");
        m_batteryDevice->call<void>("getBatteryCharge");
    } catch (const std::exception &e) {
        wz::log::LogStream(LogLevel_Info, k_category, __FUNCTION__)
            << "Error while creating proxy to VXBattery:"
            << "\n"
            << e.what() << "\n";
        wz::log::LogStream(LogLevel_Info, k_category, __FUNCTION__)
            << "trying to connect to Sentinel instead...";
        m_batteryDevice.reset();
    }

    bindRow(LogLevel_Info, "Error while creating proxy to VXLauncher:", [&] {
        m_launcher = makeGenericProxy(session, "VXLauncher");
    });
    bindRow(LogLevel_Info, "Error while creating proxy to VXDialog:", [&] {
        m_dialog = makeGenericProxy(session, "VXDialog");
    });
    bindRow(LogLevel_Info,
            "Error while creating proxy to "
            "VXWorldRepresentation:",
            [&] {
                m_worldRepresentation = boost::make_shared<VX::VXWorldRepresentationProxy>(
                    makeGenericProxy(session, "VXWorldRepresentation"));
            });
    bindRow(LogLevel_Warning, "Error while creating proxy to PackageManager:", [&] {
        m_packageManager = makeGenericProxy(session, "PackageManager");
        // An older package manager has no file server port of its own: the
        // files then go through the session's port.
        try {
            m_httpTransferPort = m_packageManager->call<int>("_getHttpTransferPort");
        } catch (...) {
            m_httpTransferPort = m_port;
        }
    });
    bindRow(LogLevel_Info,
            "Error while creating proxy to "
            "VXEngagementZones:",
            [&] {
                m_engagementZones = boost::make_shared<VX::VXEngagementZonesProxy>(
                    makeGenericProxy(session, "VXEngagementZones"));
            });
    bindRow(LogLevel_Info,
            "Error while creating proxy to "
            "VXPeoplePerception:",
            [&] {
                m_peoplePerception = boost::make_shared<VX::VXPeoplePerceptionProxy>(
                    makeGenericProxy(session, "VXPeoplePerception"));
            });
    bindRow(LogLevel_Info,
            "Error while creating proxy to "
            "VXBasicAwareness:",
            [&] {
                m_basicAwareness = boost::make_shared<VX::VXBasicAwarenessProxy>(
                    makeGenericProxy(session, "VXBasicAwareness"));
            });
}

// Each interface object has its place in this order; a service lands by
// filling in its own marked spot. Every object receives shared_from_this()
// and is made by makeInterface<T>(), never by boost::make_shared.
void Connection::buildInterfaces()
{
    const boost::shared_ptr<Connection> self = shared_from_this();
    (void)self;

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

    if (m_videoDevice) {
        // [5 VideoDeviceInterface] with the camera proxy:
        m_videoDeviceInterface = makeInterface<VideoDeviceInterface>(self);
    }

    // [6 ResourcesInterface] always.
    // [7 BehaviorManagerInterface] always.
    // [8 ConfigInterface] always.
    // [9 LogListenerInterface] always.
    // [10 AudioInterface] always.
    // [11 AnimatedSpeechInterface] always.
    // [12 BatteryInterface] always.
    // [13 LauncherInterface] always.

    if (m_robotPosture) {
        // [14 RobotPostureInterface]
        m_robotPostureInterface = makeInterface<RobotPostureInterface>(self);
    }
    if (m_dialog) {
        // [15 DialogInterface]
    }
    if (m_worldRepresentation) {
        // [16 WorldRepresentationInterface]
    }
    if (m_packageManager) {
        // [17 PackageManagerInterface]
    }

    if (m_engagementZones) {
        try {
            // [18 EngagementZonesInterface]
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Could not initialize EngagementZones interface: " << e.what();
            releaseField(m_engagementZonesInterface);
        }
    }

    // [19 AutonomousLifeInterface] only if the session gives the service
    // "VXAutonomousLife"; any std::exception clears the field without a word:
    //   try {
    //       wz::Object life = m_session->service("VXAutonomousLife", "").value();
    //       m_autonomousLifeInterface = makeInterface<AutonomousLifeInterface>(self, life);
    //   } catch (const std::exception &) {
    //       releaseField(m_autonomousLifeInterface);
    //   }

    if (m_peoplePerception) {
        try {
            // [20 PeoplePerceptionInterface]
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Could not initialize PeoplePerception interface: " << e.what();
            releaseField(m_peoplePerceptionInterface);
        }
    }

    if (m_basicAwareness) {
        try {
            // [21 BasicAwarenessInterface]
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

void Connection::destroyInterfaces()
{
    // The recorder is a service of this session: it must not outlive its
    // connection in the robot's directory.
    if (m_recorderServiceId != 0) {
        try {
            if (m_session && m_session->isConnected())
                m_session->unregisterService(m_recorderServiceId).wait();
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Could not unregister VXSartelRecorder: " << e.what();
        }
        m_recorderServiceId = 0;
    }
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
    std::vector<boost::shared_ptr<VX::VXProxy>> proxies;
    const auto add = [&proxies](const boost::shared_ptr<VX::VXProxy> &proxy) {
        if (proxy)
            proxies.push_back(proxy);
    };
    if (m_memory)
        add(m_memory->getGenericProxy());
    add(m_config);
    if (m_preferences)
        add(m_preferences->getGenericProxy());
    if (m_motion)
        add(m_motion->getGenericProxy());
    add(m_frameManager);
    add(m_videoDevice);
    add(m_visionRecognition);
    add(m_behaviorManager);
    add(m_resourceManager);
    add(m_motionRecorder);
    add(m_audioDevice);
    add(m_textToSpeech);
    add(m_batteryDevice);
    add(m_launcher);
    add(m_dialog);
    if (m_worldRepresentation)
        add(m_worldRepresentation->getGenericProxy());
    add(m_packageManager);
    if (m_engagementZones)
        add(m_engagementZones->getGenericProxy());

    m_logListener.reset();
    for (const boost::shared_ptr<VX::VXProxy> &proxy : proxies) {
        try {
            proxy->destroyConnection();
        } catch (const std::exception &) { }
    }
}

QStringList Connection::boundServices() const
{
    QStringList bound;
    const auto add = [&bound](bool present, const char *name) {
        if (present)
            bound << QString::fromLatin1(name);
    };
    add(bool(m_memory), "VXMemory");
    add(bool(m_frameManager), "VXFrameManager");
    add(bool(m_behaviorManager), "VXBehaviorManager");
    add(bool(m_config), "VXRobotModel");
    add(bool(m_motion), "VXMotion");
    add(bool(m_preferences), "VXPreferences");
    add(bool(m_logListener), "LogManager");
    add(bool(m_resourceManager), "VXResourceManager");
    add(bool(m_motionRecorder), "VXMotionRecorder");
    add(bool(m_videoDevice), "VXVideoDevice");
    add(bool(m_visionRecognition), "VXVisionRecognition");
    add(bool(m_robotPosture), "VXRobotPosture");
    add(bool(m_memoryWatcher), "VXMemoryWatcher");
    add(bool(m_audioDevice), "VXAudioDevice");
    add(bool(m_textToSpeech), "VXTextToSpeech");
    add(bool(m_batteryDevice), "VXBattery");
    add(bool(m_launcher), "VXLauncher");
    add(bool(m_dialog), "VXDialog");
    add(bool(m_worldRepresentation), "VXWorldRepresentation");
    add(bool(m_packageManager), "PackageManager");
    add(bool(m_engagementZones), "VXEngagementZones");
    add(bool(m_peoplePerception), "VXPeoplePerception");
    add(bool(m_basicAwareness), "VXBasicAwareness");
    return bound;
}

QStringList Connection::missingServices() const
{
    static const char *const all[] = {"VXMemory",
                                      "VXFrameManager",
                                      "VXBehaviorManager",
                                      "VXRobotModel",
                                      "VXMotion",
                                      "VXPreferences",
                                      "LogManager",
                                      "VXResourceManager",
                                      "VXMotionRecorder",
                                      "VXVideoDevice",
                                      "VXVisionRecognition",
                                      "VXRobotPosture",
                                      "VXMemoryWatcher",
                                      "VXAudioDevice",
                                      "VXTextToSpeech",
                                      "VXBattery",
                                      "VXLauncher",
                                      "VXDialog",
                                      "VXWorldRepresentation",
                                      "PackageManager",
                                      "VXEngagementZones",
                                      "VXPeoplePerception",
                                      "VXBasicAwareness"};
    const QStringList bound = boundServices();
    QStringList missing;
    for (const char *name : all) {
        if (!bound.contains(QLatin1String(name)))
            missing << QString::fromLatin1(name);
    }
    return missing;
}

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
