#include <sim/basic_awareness_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

namespace sim {

BasicAwarenessService::BasicAwarenessService() : Service(kName) { }

void BasicAwarenessService::describe(ServiceBuilder &b)
{
    b.signal("humanTracked", 1);
}

void BasicAwarenessService::start()
{
    robot().memory().insertData(kHumanTracked, m_tracked.load());
}

void BasicAwarenessService::track(int humanId)
{
    std::lock_guard<std::mutex> changes(m_changes);
    m_tracked = humanId;
    robot().memory().insertData(kHumanTracked, humanId);
    emitSignal("humanTracked", {humanId});
}

} // namespace sim
