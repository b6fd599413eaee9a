// Every operation that reaches the robot, under the three faults an
// application meets: the service missing, the robot failing the call, the
// link lost while the call is in progress. Each cell must end in exactly one
// outcome of the right kind within a deadline: never none, never two.
#include "robot_fixture.h"

#include "connection_p.h"
#include <connection/animated_speech_interface.h>
#include <connection/audio_interface.h>
#include <connection/autonomous_life_interface.h>
#include <connection/battery_interface.h>
#include <connection/behavior_manager_interface.h>
#include <connection/config_interface.h>
#include <connection/dialog_interface.h>
#include <connection/launcher_interface.h>
#include <connection/log_listener_interface.h>
#include <connection/memory_interface.h>
#include <connection/package_manager_interface.h>
#include <connection/people_perception_interface.h>
#include <connection/recorder_module.h>
#include <connection/resources_interface.h>
#include <connection/robot_posture_interface.h>
#include <connection/robot_state_receiver.h>
#include <connection/sartel_module.h>
#include <connection/video_device_interface.h>
#include <connection/world_representation_interface.h>

#include <QFutureWatcher>
#include <QImage>
#include <QMetaObject>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using RK::ErrorCode;
using namespace std::chrono_literals;

enum class Fault { Omitted, Failing, LinkLost };

const char *faultName(Fault fault)
{
    switch (fault) {
    case Fault::Omitted:
        return "service omitted";
    case Fault::Failing:
        return "method failing";
    case Fault::LinkLost:
        return "link lost";
    }
    return "";
}

template<typename T, typename = void>
struct HasExecuter : std::false_type
{
};
template<typename T>
struct HasExecuter<T, std::void_t<decltype(std::declval<T &>().executerObject())>> : std::true_type
{
};

// What one started operation has told the application so far. Results are
// the operation's own answers; errors are errorOccurred() for its name.
class Probe : public QObject
{
public:
    template<typename Interface>
    bool attach(const boost::shared_ptr<Interface> &interface, const char *operation)
    {
        if (!interface)
            return false;
        m_keep = interface;
        m_operation = QString::fromLatin1(operation);
        if constexpr (HasExecuter<Interface>::value)
            executer = interface->executerObject();
        QObject::connect(interface.get(), &Interface::errorOccurred, this,
                         [this](const RK::OperationError &error) {
                             if (error.operation == m_operation)
                                 errors.push_back(error);
                         });
        return true;
    }

    // Each emission of `signal` counts as a result when `counts` says so.
    template<typename Sender, typename... Args, typename Filter>
    void result(Sender *sender, void (Sender::*signal)(Args...), Filter counts)
    {
        QObject::connect(sender, signal, this, [this, counts](Args... args) {
            if (counts(args...))
                ++results;
        });
    }
    template<typename Sender, typename... Args>
    void result(Sender *sender, void (Sender::*signal)(Args...))
    {
        QObject::connect(sender, signal, this, [this] { ++results; });
    }

    // A future always finishes; it is the outcome when no error came.
    template<typename T>
    void future(const QFuture<T> &future)
    {
        isFuture = true;
        auto *watcher = new QFutureWatcher<T>(this);
        QObject::connect(watcher, &QFutureWatcherBase::finished, this,
                         [this] { futureFinished = true; });
        watcher->setFuture(future);
    }

    int outcomes() const
    {
        const int answered = isFuture ? (futureFinished && errors.empty() ? 1 : 0) : results;
        return answered + static_cast<int>(errors.size());
    }
    bool settled() const
    {
        return !errors.empty() ? (!isFuture || futureFinished) : outcomes() > 0;
    }

    QObject *executer = nullptr;
    int results = 0;
    bool isFuture = false;
    bool futureFinished = false;
    std::vector<RK::OperationError> errors;

private:
    boost::shared_ptr<void> m_keep;
    QString m_operation;
};

// What a cell must end in: an error of that code, or the operation's result.
struct Expect
{
    bool error = true;
    ErrorCode code = ErrorCode::RobotFailed;
};

struct Row
{
    const char *name;
    const char *service;
    // The remote methods the operation may call: all fail, or all are held.
    std::vector<const char *> methods;
    // Starts the operation; false when the connection has no such interface.
    std::function<bool(RK::ConnectionManager &, Probe &)> start;
    // Puts the robot in the state the operation needs (a timeline loaded...).
    std::function<void(RK::ConnectionManager &)> prepare;
    // Which faults apply, and what each must end in when not an error of the
    // fault's own code.
    std::set<Fault> skip;
    std::map<Fault, Expect> expect;
    // Rows that share an operation's name run in a second round when the
    // link is lost, so that each error is counted for its own row.
    int round = 0;
    // Waits for the robot's answer on the calling thread: the link cannot
    // be cut under it from there.
    bool blocking = false;
};

const RobotPose k_pose {{QStringLiteral("NeckYaw"), 0.1}};
const std::vector<std::string> k_joints {"NeckYaw"};

boost::shared_ptr<RK::ProtectedBuffer> buffer()
{
    return RK::makeProtectedBuffer(4u * 640 * 480);
}

// A row names only the fields it needs; the rest keep their defaults.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
// clang-format off
std::vector<Row> rows()
{
    using M = RK::ConnectionManager;
    const std::set<Fault> onlyOmitted {Fault::Failing, Fault::LinkLost};
    // Interfaces that exist only with their service, and operations on
    // VXMemory, which no robot lacks (readiness is read there): nothing to
    // omit, so only the other two faults apply.
    const std::set<Fault> noOmission {Fault::Omitted};
    return {
        // Audio and speech.
        {"AudioInterface::setOutputVolume", "VXAudioDevice", {"setOutputVolume"},
         [](M &m, Probe &p) { auto i = m.audioInterface(); if (!p.attach(i, "setOutputVolume")) return false;
             i->setOutputVolume(30, false); return true; }},
        {"AudioInterface::getOutputVolume", "VXAudioDevice", {"getOutputVolume"},
         [](M &m, Probe &p) { auto i = m.audioInterface(); if (!p.attach(i, "getOutputVolume")) return false;
             p.result(i.get(), &RK::AudioInterface::updateOutputVolumeRequested); i->getOutputVolume(); return true; }},
        {"AudioInterface::getCurrentLanguage", "VXTextToSpeech", {"getLanguage"},
         [](M &m, Probe &p) { auto i = m.audioInterface(); if (!p.attach(i, "getCurrentLanguage")) return false;
             p.result(i.get(), &RK::AudioInterface::getCurrentLanguageResult); i->getCurrentLanguage(); return true; }},
        {"AudioInterface::getAvailableLanguages", "VXTextToSpeech", {"getAvailableLanguages"},
         [](M &m, Probe &p) { auto i = m.audioInterface(); if (!p.attach(i, "getAvailableLanguages")) return false;
             p.result(i.get(), &RK::AudioInterface::getAvailableLanguagesResult); i->getAvailableLanguages(); return true; }},
        {"BatteryInterface::getBatteryLevel", "VXBattery", {"getBatteryCharge", "getBatteryLevel"},
         [](M &m, Probe &p) { auto i = m.batteryInterface(); if (!p.attach(i, "getBatteryLevel")) return false;
             p.result(i.get(), &RK::BatteryInterface::updateBatteryLevelRequested); i->getBatteryLevel(); return true; }},
        {"AnimatedSpeechInterface::interpretText", "VXAnimatedSpeech", {"interpretText"},
         [](M &m, Probe &p) { auto i = m.animatedSpeechInterface(); if (!p.attach(i, "interpretText")) return false;
             i->interpretText(QStringLiteral("^wave Hello")); return true; }},
        {"AnimatedSpeechInterface::stopAllInterpretation", "VXAnimatedSpeech", {"stopAllInterpretations"},
         [](M &m, Probe &p) { auto i = m.animatedSpeechInterface(); if (!p.attach(i, "stopAllInterpretation")) return false;
             i->stopAllInterpretation(); return true; }},
        {"AnimatedSpeechInterface::startTest", "VXTextToSpeech", {"say"},
         [](M &m, Probe &p) { auto i = m.animatedSpeechInterface(); if (!p.attach(i, "startTest")) return false;
             i->startTest(QStringLiteral("Hello")); return true; }},
        {"AnimatedSpeechInterface::stopTest", "VXTextToSpeech", {"stopAll"},
         [](M &m, Probe &p) { auto i = m.animatedSpeechInterface(); if (!p.attach(i, "stopTest")) return false;
             i->stopTest(); return true; }},
        {"AnimatedSpeechInterface::getTagList", "VXTextToSpeech", {"_getTagList"},
         [](M &m, Probe &p) { auto i = m.animatedSpeechInterface(); if (!p.attach(i, "getTagList")) return false;
             p.future(i->getTagList()); return true; }},
        {"DialogInterface::tell", "VXDialog", {"tell"},
         [](M &m, Probe &p) { auto i = m.dialogInterface(); if (!p.attach(i, "tell")) return false;
             p.result(i.get(), &RK::DialogInterface::tellFinished); i->tell(QStringLiteral("hello")); return true; },
         {}, noOmission},
        // Configuration, resources, launcher, log listener.
        {"ConfigInterface::getConfig", "VXRobotModel", {"getConfig"},
         [](M &m, Probe &p) { auto i = m.configInterface(); if (!p.attach(i, "getConfig")) return false;
             p.result(i.get(), &RK::ConfigInterface::configReceived); i->getConfig(); return true; }},
        {"ConfigInterface::getConfigFile", "VXRobotModel", {"getConfigFile"},
         [](M &m, Probe &p) { auto i = m.configInterface(); if (!p.attach(i, "getConfigFile")) return false;
             p.result(i.get(), &RK::ConfigInterface::configFileReceived); i->getConfigFile(); return true; }},
        {"ResourcesInterface::getResources", "VXPreferences", {"readPrefFile"},
         [](M &m, Probe &p) { auto i = m.resourcesInterface(); if (!p.attach(i, "getResources")) return false;
             p.result(i.get(), &RK::ResourcesInterface::resourcesReceived); i->getResources(); return true; }},
        {"ResourcesInterface::getOwners", "VXResourceManager", {"ownersGet"},
         [](M &m, Probe &p) { auto i = m.resourcesInterface(); if (!p.attach(i, "getOwners")) return false;
             p.future(i->getOwners()); return true; }},
        {"LauncherInterface::launchWait", "VXLauncher", {"_launchWait"},
         [](M &m, Probe &p) { auto i = m.launcherInterface(); if (!p.attach(i, "launchWait")) return false;
             p.result(i.get(), &RK::LauncherInterface::launchWaitFinished); i->launchWait(QStringLiteral("true"), {}); return true; }},
        // The log listener is an object the robot hands out, not a service
        // whose methods a scenario reaches: only its absence is testable.
        {"LogListenerInterface::logLevel", "LogManager", {},
         [](M &m, Probe &p) { auto i = m.logListenerInterface(); if (!p.attach(i, "logLevel")) return false;
             p.future(i->logLevel()); return true; }, {}, onlyOmitted},
        {"LogListenerInterface::setLogLevel", "LogManager", {},
         [](M &m, Probe &p) { auto i = m.logListenerInterface(); if (!p.attach(i, "setLogLevel")) return false;
             p.future(i->setLogLevel(wz::LogLevel_Info)); return true; }, {}, onlyOmitted},
        {"LogListenerInterface::setCategory", "LogManager", {},
         [](M &m, Probe &p) { auto i = m.logListenerInterface(); if (!p.attach(i, "setCategory")) return false;
             p.future(i->setCategory(QStringLiteral("*"), wz::LogLevel_Info)); return true; }, {}, onlyOmitted},
        {"LogListenerInterface::clearFilters", "LogManager", {},
         [](M &m, Probe &p) { auto i = m.logListenerInterface(); if (!p.attach(i, "clearFilters")) return false;
             p.future(i->clearFilters()); return true; }, {}, onlyOmitted},
        // Memory: watching goes to VXMemoryWatcher, the catalogue to VXMemory.
        {"MemoryInterface::watchKey", "VXMemoryWatcher", {"addListener"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "watchKey")) return false;
             i->watchKey(QStringLiteral("Matrix/k"), 100); return true; }, {}, noOmission},
        {"MemoryInterface::watchKeys", "VXMemoryWatcher", {"addListeners"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "watchKeys")) return false;
             i->watchKeys({QStringLiteral("Matrix/k")}, 100); return true; }, {}, noOmission},
        {"MemoryInterface::unwatchKey", "VXMemoryWatcher", {"removeListener"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "unwatchKey")) return false;
             i->unwatchKey(QStringLiteral("Matrix/k")); return true; }, {}, noOmission},
        {"MemoryInterface::unwatchAll", "VXMemoryWatcher", {"removeAllListeners"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "unwatchAll")) return false;
             i->unwatchAll(); return true; }, {}, noOmission},
        {"MemoryInterface::startWatcher", "VXMemoryWatcher", {"setPeriodMs", "startWatching"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "startWatcher")) return false;
             i->startWatcher(1000, 100); return true; }, {}, noOmission},
        {"MemoryInterface::stopWatcher", "VXMemoryWatcher", {"stopWatching"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "stopWatcher")) return false;
             i->stopWatcher(); return true; }, {}, noOmission},
        {"MemoryInterface::setSamplingPeriod", "VXMemoryWatcher", {"setPeriodMs"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "setSamplingPeriod")) return false;
             i->setSamplingPeriod(50); return true; }, {}, noOmission, {}, 1},
        {"MemoryInterface::getKeyType", "VXMemory", {"getType"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "getKeyType")) return false;
             p.future(i->getKeyType(QStringLiteral("MorvaneReady"))); return true; }, {}, noOmission},
        {"MemoryInterface::getDataList", "VXMemory", {"getDataList"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "getDataList")) return false;
             p.future(i->getDataList()); return true; }, {}, noOmission},
        {"MemoryInterface::getEventList", "VXMemory", {"getEventList"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "getEventList")) return false;
             p.future(i->getEventList()); return true; }, {}, noOmission},
        {"MemoryInterface::getMicroEventList", "VXMemory", {"getMicroEventList"},
         [](M &m, Probe &p) { auto i = m.memoryInterface(); if (!p.attach(i, "getMicroEventList")) return false;
             p.future(i->getMicroEventList()); return true; }, {}, noOmission},
        // Posture, motion, video.
        {"RobotPostureInterface::goToPose", "VXRobotPosture", {"goToPosture"},
         [](M &m, Probe &p) { auto i = m.robotPostureInterface(); if (!p.attach(i, "goToPose")) return false;
             p.result(i.get(), &RK::RobotPostureInterface::robotPoseReached); i->goToPose(QStringLiteral("Stand"), 1.0f); return true; },
         {}, noOmission},
        {"RobotPostureInterface::setPose", "VXRobotPosture", {"applyPosture"},
         [](M &m, Probe &p) { auto i = m.robotPostureInterface(); if (!p.attach(i, "setPose")) return false;
             p.result(i.get(), &RK::RobotPostureInterface::robotPoseReached); i->setPose(QStringLiteral("Stand"), 1.0f); return true; },
         {}, noOmission},
        {"RobotPostureInterface::postureFamily", "VXRobotPosture", {"getPostureFamily"},
         [](M &m, Probe &p) { auto i = m.robotPostureInterface(); if (!p.attach(i, "postureFamily")) return false;
             p.future(i->postureFamily()); return true; }, {}, noOmission},
        {"RobotStateReceiver::changeMotorAngles", "VXMotion", {"changeAngles"},
         [](M &m, Probe &p) { auto i = m.robotStateReceiver(); if (!p.attach(i, "changeMotorAngles")) return false;
             i->changeMotorAngles(k_pose, 0.5f); return true; }},
        {"RobotStateReceiver::sendMotorAngles (posted)", "VXMotion", {"angleInterpolationWithSpeed"},
         [](M &m, Probe &p) { auto i = m.robotStateReceiver(); if (!p.attach(i, "sendMotorAngles")) return false;
             i->sendMotorAngles(k_pose, 0.5f); return true; }},
        {"RobotStateReceiver::sendMotorAnglesBlocking", "VXMotion", {"angleInterpolationWithSpeed"},
         [](M &m, Probe &p) { auto i = m.robotStateReceiver(); if (!p.attach(i, "sendMotorAnglesBlocking")) return false;
             i->sendMotorAnglesBlocking(k_pose, 0.5f); return true; }, {}, {}, {}, 0, true},
        {"RobotStateReceiver::rest (posted)", "VXMotion", {"rest"},
         [](M &m, Probe &p) { auto i = m.robotStateReceiver(); if (!p.attach(i, "rest")) return false;
             i->rest(); return true; }},
        {"RobotStateReceiver::wakeUp (posted)", "VXMotion", {"wakeUp"},
         [](M &m, Probe &p) { auto i = m.robotStateReceiver(); if (!p.attach(i, "wakeUp")) return false;
             i->wakeUp(); return true; }},
        {"RobotStateReceiver::setStiffness (posted)", "VXMotion", {"stiffnessInterpolation"},
         [](M &m, Probe &p) { auto i = m.robotStateReceiver(); if (!p.attach(i, "setStiffness")) return false;
             p.future(i->setStiffness(QStringLiteral("NeckYaw"), true)); return true; }},
        {"VideoDeviceInterface::startVideo", "VXVideoDevice", {"subscribeCamera", "subscribe"},
         [](M &m, Probe &p) { auto i = m.videoDeviceInterface(); if (!p.attach(i, "startVideo")) return false;
             p.result(i.get(), &RK::VideoDeviceInterface::imageReceived);
             i->startVideo(1000, 2, buffer(), buffer()); return true; },
         {}, noOmission},
        {"VideoDeviceInterface::setResolution", "VXVideoDevice", {"setResolution"},
         [](M &m, Probe &p) { auto i = m.videoDeviceInterface(); if (!p.attach(i, "setResolution")) return false;
             i->setResolution(1); return true; }, {}, noOmission},
        {"VideoDeviceInterface::stopVideo", "VXVideoDevice", {"unsubscribe"},
         [](M &m, Probe &p) { auto i = m.videoDeviceInterface(); if (!p.attach(i, "stopVideo")) return false;
             p.result(i.get(), &RK::VideoDeviceInterface::acquisitionStopped, [](bool ok) { return ok; });
             i->stopVideo(); return true; },
         [](M &m) { m.videoDeviceInterface()->startVideo(100000, 2, buffer(), buffer()); }, noOmission, {}, 1},
        // World representation.
        {"WorldRepresentationInterface::startObjectPolling", "VXWorldRepresentation", {"getObjectNames"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "startObjectPolling")) return false;
             // A failing poll still reports an empty world: only a list counts.
             p.result(i.get(), &RK::WorldRepresentationInterface::objectsUpdated,
                      [](const QStringList &objects) { return !objects.isEmpty(); });
             i->startObjectPolling(10); return true; }, {}, noOmission},
        {"WorldRepresentationInterface::objectsDisplayed", "VXMemory", {"getData"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "objectsDisplayed")) return false;
             p.future(i->objectsDisplayed()); return true; }, {}, noOmission, {}, 1},
        {"WorldRepresentationInterface::objectAttributes", "VXWorldRepresentation", {"getObjectAttributes"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "objectAttributes")) return false;
             p.future(i->objectAttributes(QStringLiteral("Cup"))); return true; }, {}, noOmission},
        {"WorldRepresentationInterface::objectDisplayAttributes", "VXWorldRepresentation", {"getObjectAttributes"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "objectDisplayAttributes")) return false;
             p.future(i->objectDisplayAttributes(QStringLiteral("Cup"))); return true; }, {}, noOmission},
        {"WorldRepresentationInterface::objectCategory", "VXWorldRepresentation", {"getObjectCategory"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "objectCategory")) return false;
             p.future(i->objectCategory(QStringLiteral("Cup"))); return true; }, {}, noOmission},
        {"WorldRepresentationInterface::rootName", "VXWorldRepresentation", {"getRootName"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "rootName")) return false;
             p.future(i->rootName()); return true; }, {}, noOmission},
        {"WorldRepresentationInterface::objectPosition", "VXWorldRepresentation", {"getObjectParentName"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "objectPosition")) return false;
             p.future(i->objectPosition(QStringLiteral("Cup"))); return true; }, {}, noOmission},
        {"WorldRepresentationInterface::objectAbsolutePosition", "VXWorldRepresentation", {"getRootName"},
         [](M &m, Probe &p) { auto i = m.worldRepresentationInterface(); if (!p.attach(i, "objectAbsolutePosition")) return false;
             p.future(i->objectAbsolutePosition(QStringLiteral("Cup"))); return true; }, {}, noOmission, {}, 1},
        // Packages.
        {"PackageManagerInterface::getPackages", "PackageManager", {"getPackages"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "getPackages")) return false;
             p.future(i->getPackages()); return true; }, {}, noOmission},
        {"PackageManagerInterface::getPackage", "PackageManager", {"getPackage"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "getPackage")) return false;
             p.future(i->getPackage(QStringLiteral("wave-7"))); return true; }, {}, noOmission},
        {"PackageManagerInterface::getPackageIcon", "PackageManager", {"packageIcon", "getPackageIcon"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "getPackageIcon")) return false;
             p.future(i->getPackageIcon(QStringLiteral("wave-7"))); return true; }, {}, noOmission},
        {"PackageManagerInterface::openFileTransferSession", "PackageManager", {"_openFileTransferSession"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "openFileTransferSession")) return false;
             p.future(i->openFileTransferSession(QStringLiteral("matrix"))); return true; }, {}, noOmission},
        {"PackageManagerInterface::closeFileTransferSession", "PackageManager", {"_closeFileTransferSession"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "closeFileTransferSession")) return false;
             p.future(i->closeFileTransferSession(QStringLiteral("no-such-key"))); return true; }, {}, noOmission},
        {"PackageManagerInterface::install", "PackageManager", {"installCheckMd5", "install"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "install")) return false;
             p.future(i->install(QStringLiteral("/sessions/none/a.pkg"), QString(), QString())); return true; }, {}, noOmission},
        {"PackageManagerInterface::remove", "PackageManager", {"removePkg", "remove"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "remove")) return false;
             p.future(i->remove(QStringLiteral("wave-7"))); return true; }, {}, noOmission},
        {"PackageManagerInterface::removeSeveral", "PackageManager", {"remove"},
         [](M &m, Probe &p) { auto i = m.packageManagerInterface(); if (!p.attach(i, "removeSeveral")) return false;
             p.future(i->removeSeveral({QStringLiteral("wave-7")})); return true; }, {}, noOmission, {}, 1},
        // Behaviours.
        {"BehaviorManagerInterface::requestBehaviors", "VXBehaviorManager", {"getInstalledBehaviors", "getBehaviorNames"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "requestBehaviors")) return false;
             p.result(i.get(), &RK::BehaviorManagerInterface::behaviorsReceived); i->requestBehaviors(); return true; }},
        {"BehaviorManagerInterface::isBehaviorPresent", "VXBehaviorManager", {"isBehaviorInstalled"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "isBehaviorPresent")) return false;
             p.result(i.get(), &RK::BehaviorManagerInterface::behaviorPresent); i->isBehaviorPresent(QStringLiteral("User/wave")); return true; }},
        {"BehaviorManagerInterface::requestRunningBehaviors", "VXBehaviorManager", {"getRunningBehaviors"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "requestRunningBehaviors")) return false;
             p.result(i.get(), &RK::BehaviorManagerInterface::runningBehaviorsUpdated); i->requestRunningBehaviors(); return true; }},
        {"BehaviorManagerInterface::requestDefaultBehaviors", "VXBehaviorManager", {"getDefaultBehaviors"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "requestDefaultBehaviors")) return false;
             p.result(i.get(), &RK::BehaviorManagerInterface::defaultBehaviorsReceived); i->requestDefaultBehaviors(); return true; }},
        {"BehaviorManagerInterface::requestInstalledBoxLibraries", "VXBehaviorManager", {"_getInstalledBoxLibraries"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "requestInstalledBoxLibraries")) return false;
             p.result(i.get(), &RK::BehaviorManagerInterface::installedBoxLibrariesReceived); i->requestInstalledBoxLibraries(); return true; }},
        {"BehaviorManagerInterface::requestBehaviorFrameManagerID", "VXBehaviorManager", {"_getBehaviorFrameManagerId"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "requestBehaviorFrameManagerID")) return false;
             p.result(i.get(), &RK::BehaviorManagerInterface::behaviorFrameManagerIDReceived);
             i->requestBehaviorFrameManagerID(QStringLiteral("User/wave")); return true; }},
        {"BehaviorManagerInterface::stopBehavior", "VXBehaviorManager", {"stopBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "stopBehavior")) return false;
             p.future(i->stopBehavior(QStringLiteral("User/wave"))); return true; }},
        {"BehaviorManagerInterface::setBehaviorDefaultFlag", "VXBehaviorManager", {"addDefaultBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "changeBehaviorDefaultFlag")) return false;
             p.future(i->setBehaviorDefaultFlag(QStringLiteral("User/wave"), true)); return true; }},
        {"BehaviorManagerInterface::isBehaviorRunning", "VXBehaviorManager", {"isBehaviorRunning"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "isBehaviorRunning")) return false;
             p.future(i->isBehaviorRunning(QStringLiteral("User/wave"))); return true; }},
        {"BehaviorManagerInterface::installBehavior(name)", "VXBehaviorManager", {"installBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "installBehavior")) return false;
             p.future(i->installBehavior(QStringLiteral("/home/a.behavior"))); return true; }},
        {"BehaviorManagerInterface::installBehavior(path, name, overwrite)", "VXBehaviorManager", {"installBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "installBehavior")) return false;
             p.future(i->installBehavior(QStringLiteral("/home/a.behavior"), QStringLiteral("a"), true)); return true; },
         {}, {}, {}, 1},
        {"BehaviorManagerInterface::behaviorNature", "VXBehaviorManager", {"getBehaviorNature"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "behaviorNature")) return false;
             p.future(i->behaviorNature(QStringLiteral("User/wave"))); return true; }},
        {"BehaviorManagerInterface::behaviorsInstalled", "VXBehaviorManager", {"getInstalledBehaviors"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "behaviorsInstalled")) return false;
             p.future(i->behaviorsInstalled()); return true; }, {}, {}, {}, 1},
        {"BehaviorManagerInterface::behaviorTags", "VXBehaviorManager", {"getTagList"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "behaviorTags")) return false;
             p.future(i->behaviorTags()); return true; }},
        {"BehaviorManagerInterface::preloadBehavior", "VXBehaviorManager", {"preloadBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "preloadBehavior")) return false;
             p.future(i->preloadBehavior(QStringLiteral("User/wave"))); return true; }},
        {"BehaviorManagerInterface::playBehavior", "VXBehaviorManager", {"startBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "playBehavior")) return false;
             i->playBehavior(QStringLiteral("User/wave")); return true; }},
        {"BehaviorManagerInterface::deleteBehavior", "VXBehaviorManager", {"removeBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "deleteBehavior")) return false;
             i->deleteBehavior(QStringLiteral("User/none")); return true; }},
        {"BehaviorManagerInterface::changeBehaviorDefaultFlag", "VXBehaviorManager", {"removeDefaultBehavior"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "changeBehaviorDefaultFlag")) return false;
             i->changeBehaviorDefaultFlag(QStringLiteral("User/wave"), false); return true; }, {}, {}, {}, 1},
        {"BehaviorManagerInterface::stopAll", "VXBehaviorManager", {"stopAllBehaviors"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "stopAll")) return false;
             i->stopAll(); return true; }},
        {"BehaviorManagerInterface::deleteBoxLibrary", "VXBehaviorManager", {"_removeBoxLibrary"},
         [](M &m, Probe &p) { auto i = m.behaviorManagerInterface(); if (!p.attach(i, "deleteBoxLibrary")) return false;
             i->deleteBoxLibrary(QStringLiteral("Dialog")); return true; }, {}, {}, {}, 1},
        // The desktop module: calls by name, events, timelines.
        {"SartelModuleInterface::callProxy", "VXDialog", {"tell"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "callProxy")) return false;
             emit i->callProxyRequested(QStringLiteral("VXDialog"), QStringLiteral("tell"), VX::VXValue(std::string("hi")), false, false);
             return true; }},
        {"SartelModuleInterface::callProxy (six values)", "VXDialog", {"tell"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "callProxy")) return false;
             emit i->callProxyRequested(QStringLiteral("VXDialog"), false, true, QStringLiteral("tell"), VX::VXValue(std::string("hi")),
                                        VX::VXValue(), VX::VXValue(), VX::VXValue(), VX::VXValue(), VX::VXValue());
             return true; }, {}, {}, {}, 1},
        {"SartelModuleInterface::subscribeToMicroEvent", "VXMemory", {"subscribeToMicroEvent"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "subscribeToMicroEvent")) return false;
             emit i->subscribeToMicroEventRequested(QStringLiteral("Matrix/event")); return true; }, {}, noOmission, {}, 1},
        {"SartelModuleInterface::unsubscribeToMicroEvent", "VXMemory", {"unsubscribeToMicroEvent"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "unsubscribeToMicroEvent")) return false;
             emit i->unsubscribeToMicroEventRequested(QStringLiteral("Matrix/event")); return true; }, {}, noOmission, {}, 1},
        {"SartelModuleInterface::raiseEvent", "VXMemory", {"raiseEvent"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "raiseEvent")) return false;
             i->raiseEvent(QStringLiteral("Matrix/event"), VX::VXValue(1)); return true; }, {}, noOmission, {}, 1},
        {"SartelModuleInterface::createTimeline", "VXFrameManager", {"createTimeline"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "createTimeline")) return false;
             emit i->createTimelineRequested(QStringLiteral("frames 10")); return true; }, {}, {}, {}, 1},
        {"SartelModuleInterface::playCurrentTimeline", "VXFrameManager", {"playTimeline"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "playCurrentTimeline")) return false;
             emit i->playCurrentTimelineRequested(); return true; },
         [](M &m) { emit m.sartelModuleInterface()->createTimelineRequested(QStringLiteral("frames 10")); }},
        {"SartelModuleInterface::pauseCurrentTimeline", "VXFrameManager", {"stopTimeline"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "pauseCurrentTimeline")) return false;
             emit i->pauseCurrentTimelineRequested(); return true; },
         [](M &m) { emit m.sartelModuleInterface()->createTimelineRequested(QStringLiteral("frames 10")); }},
        {"SartelModuleInterface::gotoFrameCurrentTimeline", "VXFrameManager", {"gotoAndStop"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "gotoFrameCurrentTimeline")) return false;
             emit i->gotoFrameCurrentTimelineRequested(3); return true; },
         [](M &m) { emit m.sartelModuleInterface()->createTimelineRequested(QStringLiteral("frames 10")); }},
        // Stopping forgets the timeline whatever the robot says: only the
        // robot's lack of a frame manager is an error.
        {"SartelModuleInterface::stopCurrentTimeline", "VXFrameManager", {"deleteBehavior"},
         [](M &m, Probe &p) { auto i = m.sartelModuleInterface(); if (!p.attach(i, "stopCurrentTimeline")) return false;
             emit i->stopCurrentTimelineRequested(); return true; }, {}, onlyOmitted},
        // Motion recording.
        {"VXSartelRecorder::startToRecordInteractively (posted)", "VXMotionRecorder", {"startInteractiveRecording"},
         [](M &m, Probe &p) { auto i = m.recorderModule(); if (!p.attach(i, "startToRecordInteractively")) return false;
             i->startToRecordInteractively(k_joints, 3, RK::VXSartelRecorder::ModeDefault); return true; }},
        {"VXSartelRecorder::startToRecordPeriodically (posted)", "VXMotionRecorder", {"startPeriodicRecording"},
         [](M &m, Probe &p) { auto i = m.recorderModule(); if (!p.attach(i, "startToRecordPeriodically")) return false;
             i->startToRecordPeriodically(k_joints, {}, VX::VXValue(std::vector<float>{}), 3); return true; }},
        {"VXSartelRecorder::stopRecording", "VXMotionRecorder", {"stopAndGetRecording"},
         [](M &m, Probe &p) { auto i = m.recorderModule(); if (!p.attach(i, "stopRecording")) return false;
             p.result(i.get(), &RK::VXSartelRecorder::recordingReceived); i->stopRecording(); return true; },
         // The robot is asked only for a recording this object started.
         [](M &m) { m.recorderModule()->startToRecordInteractively(k_joints, 3, RK::VXSartelRecorder::ModeDefault); }},
        // Autonomous life and people perception have no executer.
        {"AutonomousLifeInterface::state", "VXAutonomousLife", {"getState"},
         [](M &m, Probe &p) { auto i = m.autonomousLifeInterface(); if (!p.attach(i, "state")) return false;
             p.future(i->state()); return true; }, {}, noOmission},
        {"AutonomousLifeInterface::setState", "VXAutonomousLife", {"setState"},
         [](M &m, Probe &p) { auto i = m.autonomousLifeInterface(); if (!p.attach(i, "setState")) return false;
             p.future(i->setState(RK::LifeStateSolitary)); return true; }, {}, noOmission},
        {"AutonomousLifeInterface::switchFocus", "VXAutonomousLife", {"switchFocus"},
         [](M &m, Probe &p) { auto i = m.autonomousLifeInterface(); if (!p.attach(i, "switchFocus")) return false;
             p.future(i->switchFocus(QStringLiteral("User/wave"))); return true; }, {}, noOmission},
        {"PeoplePerceptionInterface::requestPeoplePosition", "VXMemory", {"getData"},
         [](M &m, Probe &p) { auto i = m.peoplePerceptionInterface(); if (!p.attach(i, "requestPeoplePosition")) return false;
             p.result(i.get(), &RK::PeoplePerceptionInterface::peoplePositionUpdated); i->requestPeoplePosition(1); return true; },
         {}, noOmission, {}, 1},
        {"PeoplePerceptionInterface::subscribe", "VXMemory", {"subscribeToEvent"},
         [](M &m, Probe &p) { auto i = m.peoplePerceptionInterface(); if (!p.attach(i, "subscribe")) return false;
             i->subscribe(); return true; }, {}, {Fault::Omitted, Fault::LinkLost}, {}, 0, true},
        {"PeoplePerceptionInterface::unsubscribe", "VXMemory", {"unsubscribeToEvent"},
         [](M &m, Probe &p) { auto i = m.peoplePerceptionInterface(); if (!p.attach(i, "unsubscribe")) return false;
             i->unsubscribe(); return true; },
         [](M &m) { m.peoplePerceptionInterface()->subscribe(); }, {Fault::Omitted, Fault::LinkLost}, {}, 0, true},
    };
}
// clang-format on
#pragma GCC diagnostic pop

Expect expected(const Row &row, Fault fault)
{
    const auto it = row.expect.find(fault);
    if (it != row.expect.end())
        return it->second;
    switch (fault) {
    case Fault::Omitted:
        return {true, ErrorCode::ServiceMissing};
    case Fault::Failing:
        return {true, ErrorCode::RobotFailed};
    case Fault::LinkLost:
        return {true, ErrorCode::ConnectionLost};
    }
    return {};
}

// Everything the executer of the probe's interface has emitted, and every
// call queued to this thread before now, has been delivered: after this, an
// outcome that has not arrived was never sent. False when the executer's
// thread did not get there within the deadline.
bool barrier(const Probe &probe)
{
    return test::barrier(probe.executer ? probe.executer : QCoreApplication::instance());
}

// Every executer has run what was queued to it, and its answers are in.
void settleAll(RK::ConnectionManager &manager)
{
    const std::vector<QObject *> executers {
        manager.audioInterface() ? manager.audioInterface()->executerObject() : nullptr,
        manager.sartelModuleInterface() ? manager.sartelModuleInterface()->executerObject()
                                        : nullptr,
        manager.recorderModule() ? manager.recorderModule()->executerObject() : nullptr,
        manager.videoDeviceInterface() ? manager.videoDeviceInterface()->executerObject() : nullptr,
        manager.robotStateReceiver() ? manager.robotStateReceiver()->executerObject() : nullptr,
    };
    for (QObject *executer : executers) {
        Probe probe;
        probe.executer = executer;
        barrier(probe);
    }
}

struct Tally
{
    int cells = 0;
    int silent = 0;
    int doubled = 0;
    int wrong = 0;
    int stuck = 0;
    int notApplicable = 0;
    int atTheRobot = 0;
};

class OutcomeMatrixTest : public test::RobotTest
{
protected:
    // Checks one cell whose operation has been started; the outcome must
    // already be on its way or come within the deadline.
    void check(const Row &row, Fault fault, Probe &probe, Tally &tally)
    {
        const Expect expect = expected(row, fault);
        ++tally.cells;
        const bool came = test::waitUntil([&probe] { return probe.settled(); }, test::patience());
        barrier(probe);
        const std::string cell = std::string(row.name) + " / " + faultName(fault);
        if (!came) {
            ++tally.silent;
            ADD_FAILURE() << cell << ": no outcome within " << test::patience().count() << " ms";
            return;
        }
        if (probe.outcomes() != 1) {
            ++tally.doubled;
            ADD_FAILURE() << cell << ": " << probe.outcomes() << " outcomes ("
                          << probe.errors.size() << " errors)";
            return;
        }
        if (expect.error != !probe.errors.empty()
            || (expect.error && probe.errors.front().code != expect.code)) {
            ++tally.wrong;
            ADD_FAILURE() << cell << ": "
                          << (probe.errors.empty()
                                  ? std::string("a result")
                                  : RK::errorCodeName(probe.errors.front().code).toStdString()
                                      + " (" + probe.errors.front().details.toStdString() + ")")
                          << " instead of "
                          << (expect.error ? RK::errorCodeName(expect.code).toStdString()
                                           : std::string("a result"));
        }
    }

    // One cell at a time on one connection: the robot fails the row's
    // methods (or lacks its service) while the row runs.
    void runOneByOne(Fault fault, RK::ConnectionManager &manager, Tally &tally)
    {
        for (const Row &row : rows()) {
            if (row.skip.count(fault)) {
                ++tally.notApplicable;
                continue;
            }
            if (row.prepare) {
                row.prepare(manager);
                settleAll(manager);
            }
            if (fault == Fault::Failing) {
                for (const char *method : row.methods)
                    robot().scenario().failMethod(row.service, method, "matrix says no");
            }
            Probe probe;
            if (!row.start(manager, probe)) {
                ++tally.notApplicable;
                ADD_FAILURE() << row.name << ": no interface under " << faultName(fault);
                continue;
            }
            check(row, fault, probe, tally);
            // Leave nothing polling into the next cells.
            if (const auto world = manager.worldRepresentationInterface())
                world->stopObjectPolling();
            for (const char *method : row.methods)
                robot().scenario().restoreMethod(row.service, method);
        }
    }
};

TEST_F(OutcomeMatrixTest, EveryOperationEndsInExactlyOneOutcomeUnderEveryFault)
{
    Tally tally;

    // The robot lacks every service but the memory, which readiness needs.
    {
        sim::Robot bare;
        for (const std::string &service : bare.serviceNames()) {
            if (service != "VXMemory")
                bare.scenario().omitService(service);
        }
        bare.start();
        test::Recorder recorder;
        ASSERT_TRUE(recorder.connectAndWait(bare));
        runOneByOne(Fault::Omitted, *recorder.manager, tally);
        ASSERT_TRUE(recorder.disconnectAndWait());
    }

    // Every method the robot fails, one row at a time.
    {
        test::Recorder recorder;
        ASSERT_TRUE(recorder.connectAndWait(robot()));
        runOneByOne(Fault::Failing, *recorder.manager, tally);
        ASSERT_TRUE(recorder.disconnectAndWait());
    }

    // The link cut while the calls are held by the robot: every row of a
    // round started at once, on one connection, and cut with one drop. A
    // row queued behind a held call on the same thread is in progress too,
    // as the application sees it, and must end the same way.
    for (int round = 0; round < 2; ++round) {
        test::Recorder recorder;
        ASSERT_TRUE(recorder.connectAndWait(robot()));
        RK::ConnectionManager &manager = *recorder.manager;
        std::vector<const Row *> chosen;
        const std::vector<Row> all = rows();
        for (const Row &row : all) {
            if (row.round != round)
                continue;
            if (row.skip.count(Fault::LinkLost) || row.blocking) {
                ++tally.notApplicable;
                continue;
            }
            chosen.push_back(&row);
        }
        for (const Row *row : chosen) {
            if (row->prepare)
                row->prepare(manager);
        }
        // The preparations' own answers are in before anything is held.
        settleAll(manager);
        for (const Row *row : chosen) {
            for (const char *method : row->methods)
                robot().scenario().holdMethod(row->service, method);
        }
        std::vector<std::unique_ptr<Probe>> probes;
        for (const Row *row : chosen) {
            probes.push_back(std::make_unique<Probe>());
            ASSERT_TRUE(row->start(manager, *probes.back())) << row->name;
        }
        // Every thread's first held call has reached the robot: the first
        // row of each executer, and the future rows the pool has started.
        std::set<QObject *> leading;
        std::vector<const Row *> leads;
        for (size_t i = 0; i < chosen.size(); ++i) {
            QObject *executer = probes[i]->executer;
            if (executer && !probes[i]->isFuture && leading.insert(executer).second)
                leads.push_back(chosen[i]);
        }
        for (const Row *lead : leads) {
            ASSERT_TRUE(test::waitUntil(
                [&] {
                    for (const char *method : lead->methods) {
                        if (robot().scenario().callCount(lead->service, method) > 0)
                            return true;
                    }
                    return false;
                },
                test::patience()))
                << lead->name << " never reached the robot";
        }
        for (const Row *row : chosen) {
            for (const char *method : row->methods) {
                if (robot().scenario().callCount(row->service, method) > 0) {
                    ++tally.atTheRobot;
                    break;
                }
            }
        }
        robot().scenario().dropClients();
        for (size_t i = 0; i < chosen.size(); ++i)
            check(*chosen[i], Fault::LinkLost, *probes[i], tally);
        robot().scenario().reset();
        ASSERT_TRUE(recorder.waitFor(QStringLiteral("connectionLost")));
    }

    std::printf("outcome matrix: %d cells (%zu operations x 3 faults, %d not applicable): "
                "%d silent, %d doubled, %d of the wrong kind, %d stuck; %d link-lost cells had "
                "their call at the robot when the link went\n",
                tally.cells, rows().size(), tally.notApplicable, tally.silent, tally.doubled,
                tally.wrong, tally.stuck, tally.atTheRobot);
    EXPECT_EQ(tally.silent, 0);
    EXPECT_EQ(tally.doubled, 0);
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_EQ(tally.stuck, 0);
    EXPECT_EQ(tally.cells + tally.notApplicable, static_cast<int>(rows().size()) * 3);
}

TEST_F(OutcomeMatrixTest, AnInterfaceKeptPastItsConnectionSaysSoOnceAndFailsEveryRequestAtOnce)
{
    boost::shared_ptr<RK::BatteryInterface> battery;
    boost::shared_ptr<RK::AnimatedSpeechInterface> speech;
    boost::shared_ptr<RK::AutonomousLifeInterface> life;
    std::map<std::string, int> ended;
    QObject context;
    {
        test::Recorder recorder;
        ASSERT_TRUE(recorder.connectAndWait(robot()));
        battery = recorder.manager->batteryInterface();
        speech = recorder.manager->animatedSpeechInterface();
        life = recorder.manager->autonomousLifeInterface();
        ASSERT_TRUE(battery && speech && life);
        QObject::connect(battery.get(), &RK::BatteryInterface::connectionEnded, &context,
                         [&] { ++ended["battery"]; });
        QObject::connect(speech.get(), &RK::AnimatedSpeechInterface::connectionEnded, &context,
                         [&] { ++ended["speech"]; });
        QObject::connect(life.get(), &RK::AutonomousLifeInterface::connectionEnded, &context,
                         [&] { ++ended["life"]; });
        ASSERT_TRUE(recorder.disconnectAndWait());
    }
    ASSERT_TRUE(test::waitUntil([&] { return ended.size() == 3; }));

    const uint64_t charges = robot().scenario().callCount("VXBattery", "getBatteryCharge");
    const uint64_t tags = robot().scenario().callCount("VXTextToSpeech", "_getTagList");
    Probe level;
    ASSERT_TRUE(level.attach(battery, "getBatteryLevel"));
    level.result(battery.get(), &RK::BatteryInterface::updateBatteryLevelRequested);
    battery->getBatteryLevel();
    Probe tagList;
    ASSERT_TRUE(tagList.attach(speech, "getTagList"));
    tagList.future(speech->getTagList());
    Probe state;
    ASSERT_TRUE(state.attach(life, "state"));
    state.future(life->state());
    for (Probe *probe : {&level, &tagList, &state}) {
        ASSERT_TRUE(test::waitUntil([probe] { return probe->settled(); }));
        ASSERT_TRUE(barrier(*probe));
        ASSERT_EQ(probe->outcomes(), 1);
        ASSERT_EQ(probe->errors.size(), 1u);
        EXPECT_EQ(probe->errors.front().code, ErrorCode::ConnectionLost);
    }
    EXPECT_EQ(tagList.futureFinished, true);
    // Nothing was sent, and the end was told once.
    EXPECT_EQ(robot().scenario().callCount("VXBattery", "getBatteryCharge"), charges);
    EXPECT_EQ(robot().scenario().callCount("VXTextToSpeech", "_getTagList"), tags);
    EXPECT_EQ(ended, (std::map<std::string, int> {{"battery", 1}, {"life", 1}, {"speech", 1}}));
}

} // namespace
