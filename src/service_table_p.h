#pragma once

// The remote services a connection binds: one row each, in binding order.
// The rows drive binding, closing, the module check and the bound/missing
// lists; adding a service is adding a row.

#include <QtGlobal>

#include <wz/log.h>

#include <cstddef>

namespace RK {

// How a row's proxy is made. Typed kinds wrap the generic proxy; the log
// listener is an object handed out by its service; the battery is kept only
// if it answers a trial call; the package manager also reads the port of
// the file server.
enum class ProxyKind {
    Generic,
    Memory,
    Motion,
    Preferences,
    WorldRepresentation,
    EngagementZones,
    PeoplePerception,
    BasicAwareness,
    LogListener,
    Battery,
    PackageManager,
};

// X(id, remote name, kind, failure level, failure log text, module check
//   text (nullptr: never reported), required by the module check,
//   position when closing (0: not closed one by one))
// clang-format off
#define NIMIOB_SERVICE_TABLE(X) \
    X(Memory,              "VXMemory",              Memory,              Warning, "Error while creating proxy to VXMemory:",              QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXMemory: Behaviors are not going to work..."), true, 1) \
    X(FrameManager,        "VXFrameManager",        Generic,             Warning, "Error while creating proxy to VXFrameManager:",        QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXFrameManager: Behaviors cannot be executed."), true, 5) \
    X(BehaviorManager,     "VXBehaviorManager",     Generic,             Warning, "Error while creating proxy to VXBehaviorManager:",     QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXBehaviorManager: Behaviors cannot be executed."), true, 8) \
    X(Config,              "VXRobotModel",          Generic,             Warning, "Error while creating proxy to VXRobotModel:",          QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXRobotModel: The motion module may not work as expected."), true, 2) \
    X(Motion,              "VXMotion",              Motion,              Warning, "Error while creating proxy to VXMotion:",              QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXMotion: The robot will not move..."), true, 4) \
    X(Preferences,         "VXPreferences",         Preferences,         Warning, "Error while creating proxy to VXPreferences:",         QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXPreferences"), true, 3) \
    X(LogListener,         "LogManager",            LogListener,         Warning, "Error while creating proxy to logger service:",        QT_TRANSLATE_NOOP("RK::ConnectionManager", "- LogManager"), true, 0) \
    X(ResourceManager,     "VXResourceManager",     Generic,             Warning, "Error while creating proxy to VXResourcesManager:",    QT_TRANSLATE_NOOP("RK::ConnectionManager", " - VXResourceManager: The resource explorer will not work as expected."), true, 9) \
    X(MotionRecorder,      "VXMotionRecorder",      Generic,             Warning, "Error while creating proxy to VXMotionRecorder:",      QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXMotionRecorder (optional): Recording mode will not work."), false, 10) \
    X(VideoDevice,         "VXVideoDevice",         Generic,             Info,    "Error while creating proxy to VXVideoDevice:",         QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXVideoDevice (optional): Video Monitor won't work."), false, 6) \
    X(VisionRecognition,   "VXVisionRecognition",   Generic,             Info,    "Error while creating proxy to VXVisionRecognition:",   nullptr, false, 7) \
    X(RobotPosture,        "VXRobotPosture",        Generic,             Warning, "Error while creating proxy to VXRobotPosture:",        QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXRobotPosture (optional): Pose Library will not work properly."), false, 0) \
    X(MemoryWatcher,       "VXMemoryWatcher",       Generic,             Info,    "Error while creating proxy to VXMemoryWatcher:",       QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXMemoryWatcher (optional): Sampling period for data watching cannot be set below 200 ms."), false, 0) \
    X(AudioDevice,         "VXAudioDevice",         Generic,             Info,    "Error while creating proxy to VXAudioDevice:",         QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXAudioDevice (optional): You will not be able to use it..."), false, 11) \
    X(TextToSpeech,        "VXTextToSpeech",        Generic,             Info,    "Error while creating proxy to VXTextToSpeech:",        QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXTextToSpeech (optional): You will not be able to use it..."), false, 12) \
    X(Battery,             "VXBattery",             Battery,             Info,    "Error while creating proxy to VXBattery:",             QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXBattery (optional): You will not be able to use it..."), false, 13) \
    X(Launcher,            "VXLauncher",            Generic,             Info,    "Error while creating proxy to VXLauncher:",            QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXLauncher (optional): You will not be able to flash your Pelvon..."), false, 14) \
    X(Dialog,              "VXDialog",              Generic,             Info,    "Error while creating proxy to VXDialog:",              QT_TRANSLATE_NOOP("RK::ConnectionManager", "- VXDialog (optional): You will not be able to simulate speech recognition using Dialog widget..."), false, 15) \
    X(WorldRepresentation, "VXWorldRepresentation", WorldRepresentation, Info,    "Error while creating proxy to VXWorldRepresentation:", nullptr, false, 16) \
    X(PackageManager,      "PackageManager",        PackageManager,      Warning, "Error while creating proxy to PackageManager:",        QT_TRANSLATE_NOOP("RK::ConnectionManager", "- PackageManager: You will not be able to send application to the robot..."), true, 17) \
    X(EngagementZones,     "VXEngagementZones",     EngagementZones,     Info,    "Error while creating proxy to VXEngagementZones:",     nullptr, false, 18) \
    X(PeoplePerception,    "VXPeoplePerception",    PeoplePerception,    Info,    "Error while creating proxy to VXPeoplePerception:",    nullptr, false, 0) \
    X(BasicAwareness,      "VXBasicAwareness",      BasicAwareness,      Info,    "Error while creating proxy to VXBasicAwareness:",      nullptr, false, 0)
// clang-format on

enum class ServiceId {
#define NIMIOB_SERVICE_ID(id, ...) id,
    NIMIOB_SERVICE_TABLE(NIMIOB_SERVICE_ID)
#undef NIMIOB_SERVICE_ID
};

struct ServiceRow
{
    ServiceId id;
    const char *name;
    ProxyKind kind;
    wz::LogLevel failureLevel;
    const char *failureText;
    const char *checkText;
    bool required;
    int closePosition;
};

inline constexpr ServiceRow k_serviceTable[] = {
#define NIMIOB_SERVICE_ROW(id, name, kind, level, failure, check, required, close) \
    {ServiceId::id, name, ProxyKind::kind, wz::LogLevel_##level, failure, check, required, close},
    NIMIOB_SERVICE_TABLE(NIMIOB_SERVICE_ROW)
#undef NIMIOB_SERVICE_ROW
};

inline constexpr std::size_t k_serviceCount = sizeof(k_serviceTable) / sizeof(k_serviceTable[0]);

inline constexpr std::size_t serviceIndex(ServiceId id)
{
    return static_cast<std::size_t>(id);
}

// The remote name of a service, for code that looks one up by itself.
inline constexpr const char *serviceName(ServiceId id)
{
    return k_serviceTable[serviceIndex(id)].name;
}

// The interface objects a connection builds: one row each, in building
// order. The rows make the connection's fields and accessors, the manager's
// accessors, building and release; adding a service is a row here beside its
// row above (and its accessor declared in connection_manager.h, where the
// compiler checks it against this table).
//
// X(type, accessor, condition, failure, release)
//   condition: the service row whose proxy it needs, or Always;
//   failure:   what a std::exception while building it does: Fails the
//              connection, is Logged at warning level and leaves it null, or
//              leaves it null Silently;
//   release:   its place when the interfaces are released one by one (0: it
//              stays until the connection itself goes, as the log listener
//              and basic awareness do: their last events still arrive).
// clang-format off
#define NIMIOB_INTERFACE_TABLE(X) \
    X(MemoryInterface,              memoryInterface,              Always,              Fails,  1) \
    X(SartelModuleInterface,        sartelModuleInterface,        Always,              Fails,  2) \
    X(VXSartelRecorder,             recorderModule,               Always,              Fails,  3) \
    X(RobotStateReceiver,           robotStateReceiver,           Always,              Fails,  4) \
    X(VideoDeviceInterface,         videoDeviceInterface,         VideoDevice,         Fails,  5) \
    X(ResourcesInterface,           resourcesInterface,           Always,              Fails,  6) \
    X(BehaviorManagerInterface,     behaviorManagerInterface,     Always,              Fails,  7) \
    X(ConfigInterface,              configInterface,              Always,              Fails,  8) \
    X(LogListenerInterface,         logListenerInterface,         Always,              Fails,  0) \
    X(AudioInterface,               audioInterface,               Always,              Fails,  9) \
    X(AnimatedSpeechInterface,      animatedSpeechInterface,      Always,              Fails, 10) \
    X(BatteryInterface,             batteryInterface,             Always,              Fails, 11) \
    X(LauncherInterface,            launcherInterface,            Always,              Fails, 12) \
    X(RobotPostureInterface,        robotPostureInterface,        RobotPosture,        Fails, 13) \
    X(DialogInterface,              dialogInterface,              Dialog,              Fails, 14) \
    X(WorldRepresentationInterface, worldRepresentationInterface, WorldRepresentation, Fails, 15) \
    X(PackageManagerInterface,      packageManagerInterface,      PackageManager,      Fails, 16) \
    X(EngagementZonesInterface,     engagementZonesInterface,     EngagementZones,     Logged, 18) \
    X(AutonomousLifeInterface,      autonomousLifeInterface,      Always,              Silent, 17) \
    X(PeoplePerceptionInterface,    peoplePerceptionInterface,    PeoplePerception,    Logged, 19) \
    X(BasicAwarenessInterface,      basicAwarenessInterface,      BasicAwareness,      Logged,  0)
// clang-format on

// The condition column: a service row's index, or Always.
namespace interface_condition {
inline constexpr int Always = -1;
#define NIMIOB_SERVICE_CONDITION(id, ...) inline constexpr int id = static_cast<int>(ServiceId::id);
NIMIOB_SERVICE_TABLE(NIMIOB_SERVICE_CONDITION)
#undef NIMIOB_SERVICE_CONDITION
} // namespace interface_condition

enum class InterfaceFailure { Fails, Logged, Silent };

// Positions of release, in table order.
inline constexpr int k_interfaceRelease[] = {
#define NIMIOB_INTERFACE_RELEASE(type, accessor, condition, failure, release) release,
    NIMIOB_INTERFACE_TABLE(NIMIOB_INTERFACE_RELEASE)
#undef NIMIOB_INTERFACE_RELEASE
};

inline constexpr std::size_t k_interfaceCount = sizeof(k_interfaceRelease) / sizeof(int);

// Every released row has a place of its own, and the places run from 1 with
// no gap: release walks them in order.
inline constexpr bool releaseOrderIsComplete()
{
    int released = 0;
    for (std::size_t i = 0; i < k_interfaceCount; ++i) {
        if (k_interfaceRelease[i] < 0)
            return false;
        if (k_interfaceRelease[i] > 0)
            ++released;
    }
    for (int place = 1; place <= released; ++place) {
        int holders = 0;
        for (std::size_t i = 0; i < k_interfaceCount; ++i)
            holders += k_interfaceRelease[i] == place ? 1 : 0;
        if (holders != 1)
            return false;
    }
    return true;
}
static_assert(releaseOrderIsComplete(), "each released interface needs a place of its own");

} // namespace RK
