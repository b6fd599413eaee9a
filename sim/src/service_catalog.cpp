#include <sim/animated_speech_service.h>
#include <sim/audio_device_service.h>
#include <sim/basic_awareness_service.h>
#include <sim/behavior_manager_service.h>
#include <sim/device_services.h>
#include <sim/dialog_service.h>
#include <sim/engagement_zones_service.h>
#include <sim/frame_manager_service.h>
#include <sim/launcher_service.h>
#include <sim/memory_service.h>
#include <sim/memory_watcher_service.h>
#include <sim/motion_recorder_service.h>
#include <sim/motion_service.h>
#include <sim/people_perception_service.h>
#include <sim/preferences_service.h>
#include <sim/resource_manager_service.h>
#include <sim/robot_model_service.h>
#include <sim/robot_posture_service.h>
#include <sim/service.h>
#include <sim/text_to_speech_service.h>
#include <sim/video_device_service.h>
#include <sim/world_representation_service.h>

namespace sim {

namespace {
template<typename T>
ServiceEntry entry(const char *name)
{
    return ServiceEntry {name, []() -> std::unique_ptr<Service> { return std::make_unique<T>(); }};
}

ServiceEntry placeholder(const char *name)
{
    return ServiceEntry {name, [name]() -> std::unique_ptr<Service> {
                             return std::make_unique<PlaceholderService>(name);
                         }};
}
} // namespace

// One line per service, in the order a client binds them. A new service is a
// class in its own file and its line here in place of the placeholder.
std::vector<ServiceEntry> defaultServices()
{
    return {
        entry<MemoryService>("VXMemory"),
        entry<FrameManagerService>("VXFrameManager"),
        entry<BehaviorManagerService>("VXBehaviorManager"),
        entry<RobotModelService>("VXRobotModel"),
        entry<MotionService>("VXMotion"),
        entry<PreferencesService>("VXPreferences"),
        entry<LogManagerService>("LogManager"),
        entry<ResourceManagerService>("VXResourceManager"),
        entry<MotionRecorderService>("VXMotionRecorder"),
        entry<VideoDeviceService>("VXVideoDevice"),
        placeholder("VXVisionRecognition"),
        entry<RobotPostureService>("VXRobotPosture"),
        entry<MemoryWatcherService>("VXMemoryWatcher"),
        entry<AudioDeviceService>("VXAudioDevice"),
        entry<TextToSpeechService>("VXTextToSpeech"),
        entry<BatteryService>("VXBattery"),
        entry<LauncherService>("VXLauncher"),
        entry<DialogService>("VXDialog"),
        entry<WorldRepresentationService>("VXWorldRepresentation"),
        entry<PackageManagerService>("PackageManager"),
        entry<EngagementZonesService>("VXEngagementZones"),
        entry<PeoplePerceptionService>("VXPeoplePerception"),
        entry<BasicAwarenessService>("VXBasicAwareness"),
        entry<AutonomousLifeService>("VXAutonomousLife"),
        // Not bound by a client: asked for by name at each use.
        entry<AnimatedSpeechService>("VXAnimatedSpeech"),
        placeholder("DCM"),
    };
}

} // namespace sim
