#include <sim/resource_manager_service.h>

#include <stdexcept>

namespace sim {

ResourceManagerService::ResourceManagerService() : Service("VXResourceManager")
{
    reset();
}

void ResourceManagerService::describe(ServiceBuilder &b)
{
    b.method("ownersGet", [this]() { return owners(); });
}

void ResourceManagerService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first != "owners" || field.second.kind() != wz::AnyValue::Kind::Map)
            throw std::runtime_error(
                "VXResourceManager takes only {\"owners\": {resource: owner}}");
        std::map<std::string, std::string> owners;
        for (const auto &o : field.second.toMap()) {
            if (o.second.kind() != wz::AnyValue::Kind::String)
                throw std::runtime_error("the owner of \"" + o.first + "\" needs a text");
            owners[o.first] = o.second.toStr();
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_owners.swap(owners);
    }
}

wz::AnyValue ResourceManagerService::owners() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    wz::AnyValue::List out;
    for (const auto &o : m_owners)
        out.push_back(wz::AnyValue::List {o.first, o.second});
    return out;
}

void ResourceManagerService::setOwner(const std::string &resource, const std::string &owner)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_owners[resource] = owner;
}

void ResourceManagerService::release(const std::string &resource)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_owners.erase(resource);
}

void ResourceManagerService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_owners = {{"AudioOut", "VXTextToSpeech"}, {"Head", "VXMotion"}};
}

} // namespace sim
