#include <sim/basic_awareness_service.h>
#include <sim/behavior_manager_service.h>
#include <sim/device_services.h>
#include <sim/engagement_zones_service.h>
#include <sim/frame_manager_service.h>
#include <sim/memory_service.h>
#include <sim/memory_watcher_service.h>
#include <sim/motion_service.h>
#include <sim/people_perception_service.h>
#include <sim/service.h>
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
        placeholder("VXRobotModel"),
        entry<MotionService>("VXMotion"),
        placeholder("VXPreferences"),
        entry<LogManagerService>("LogManager"),
        placeholder("VXResourceManager"),
        placeholder("VXMotionRecorder"),
        placeholder("VXVideoDevice"),
        placeholder("VXVisionRecognition"),
        placeholder("VXRobotPosture"),
        entry<MemoryWatcherService>("VXMemoryWatcher"),
        placeholder("VXAudioDevice"),
        placeholder("VXTextToSpeech"),
        entry<BatteryService>("VXBattery"),
        placeholder("VXLauncher"),
        placeholder("VXDialog"),
        entry<WorldRepresentationService>("VXWorldRepresentation"),
        entry<PackageManagerService>("PackageManager"),
        entry<EngagementZonesService>("VXEngagementZones"),
        entry<PeoplePerceptionService>("VXPeoplePerception"),
        entry<BasicAwarenessService>("VXBasicAwareness"),
        entry<AutonomousLifeService>("VXAutonomousLife"),
        placeholder("DCM"),
    };
}

} // namespace sim
