#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <map>
#include <mutex>
#include <string>

namespace sim {

// "VXResourceManager": who holds which resource. `ownersGet` answers
// [[resource, owner], ...] sorted by resource.
class SIM_API ResourceManagerService : public Service
{
public:
    ResourceManagerService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"owners": {RESOURCE: OWNER, ...}} replacing the owners.
    void configure(const wz::AnyValue &settings) override;

    wz::AnyValue owners() const;
    void setOwner(const std::string &resource, const std::string &owner);
    void release(const std::string &resource);
    void reset();

private:
    mutable std::mutex m_mutex;
    std::map<std::string, std::string> m_owners;
};

} // namespace sim
