#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <atomic>
#include <mutex>
#include <string>

namespace sim {

// "VXBasicAwareness": the id of the human tracked, -1 for nobody, kept in
// the memory key "VXBasicAwareness/HumanTracked" and announced by the signal
// humanTracked (also when it has not changed).
class SIM_API BasicAwarenessService : public Service
{
public:
    static constexpr const char *kName = "VXBasicAwareness";
    static constexpr const char *kHumanTracked = "VXBasicAwareness/HumanTracked";

    BasicAwarenessService();
    void describe(ServiceBuilder &builder) override;
    void start() override;

    void track(int humanId);
    int tracked() const { return m_tracked; }

private:
    std::mutex m_changes;
    std::atomic<int> m_tracked {-1};
};

} // namespace sim
