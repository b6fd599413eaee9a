#include <vx/vxproxies.h>

namespace VX {

using Strings = std::vector<std::string>;
using Floats = std::vector<float>;

VXTypedProxy::VXTypedProxy(boost::shared_ptr<VXProxy> proxy) : m_proxy(std::move(proxy))
{
    if (!m_proxy)
        throw VXError("cannot make a typed proxy on a null generic proxy");
}

VXTypedProxy::~VXTypedProxy() = default;

// ---- VXMemory --------------------------------------------------------------

VXMemoryProxy::VXMemoryProxy(boost::shared_ptr<VXProxy> proxy) : VXTypedProxy(std::move(proxy)) { }

VXValue VXMemoryProxy::getData(const std::string &key)
{
    return m_proxy->call<VXValue>("getData", key);
}

VXValue VXMemoryProxy::getListData(const VXValue &keys)
{
    return m_proxy->call<VXValue>("getListData", keys);
}

void VXMemoryProxy::insertData(const std::string &key, const VXValue &value)
{
    m_proxy->call<void>("insertData", key, value);
}

void VXMemoryProxy::removeData(const std::string &key)
{
    m_proxy->call<void>("removeData", key);
}

std::string VXMemoryProxy::getType(const std::string &key)
{
    return m_proxy->call<std::string>("getType", key);
}

Strings VXMemoryProxy::getDataList(const std::string &filter)
{
    return m_proxy->call<Strings>("getDataList", filter);
}

Strings VXMemoryProxy::getEventList()
{
    return m_proxy->call<Strings>("getEventList");
}

Strings VXMemoryProxy::getMicroEventList()
{
    return m_proxy->call<Strings>("getMicroEventList");
}

void VXMemoryProxy::subscribeToEvent(const std::string &name, const std::string &callbackModule,
                                     const std::string &callbackMethod)
{
    m_proxy->call<void>("subscribeToEvent", name, callbackModule, callbackMethod);
}

void VXMemoryProxy::unsubscribeToEvent(const std::string &name, const std::string &callbackModule)
{
    m_proxy->call<void>("unsubscribeToEvent", name, callbackModule);
}

void VXMemoryProxy::subscribeToMicroEvent(const std::string &name,
                                          const std::string &callbackModule,
                                          const std::string &callbackMessage,
                                          const std::string &callbackMethod)
{
    m_proxy->call<void>("subscribeToMicroEvent", name, callbackModule, callbackMessage,
                        callbackMethod);
}

void VXMemoryProxy::unsubscribeToMicroEvent(const std::string &name,
                                            const std::string &callbackModule)
{
    m_proxy->call<void>("unsubscribeToMicroEvent", name, callbackModule);
}

void VXMemoryProxy::raiseEvent(const std::string &name, const VXValue &value)
{
    m_proxy->call<void>("raiseEvent", name, value);
}

void VXMemoryProxy::raiseMicroEvent(const std::string &name, const VXValue &value)
{
    m_proxy->call<void>("raiseMicroEvent", name, value);
}

void VXMemoryProxy::removeMicroEvent(const std::string &name)
{
    m_proxy->call<void>("removeMicroEvent", name);
}

std::string VXMemoryProxy::version()
{
    return m_proxy->call<std::string>("version");
}

// ---- VXMotion --------------------------------------------------------------

VXMotionProxy::VXMotionProxy(boost::shared_ptr<VXProxy> proxy)
    : VXTypedProxy(std::move(proxy)), post(m_proxy)
{ }

Strings VXMotionProxy::getBodyNames(const std::string &name)
{
    return m_proxy->call<Strings>("getBodyNames", name);
}

Strings VXMotionProxy::getJointNames(const std::string &name)
{
    return m_proxy->call<Strings>("getJointNames", name);
}

Floats VXMotionProxy::getAngles(const VXValue &names, bool useSensors)
{
    return m_proxy->call<Floats>("getAngles", names, useSensors);
}

Floats VXMotionProxy::getStiffnesses(const VXValue &names)
{
    return m_proxy->call<Floats>("getStiffnesses", names);
}

bool VXMotionProxy::robotIsWakeUp()
{
    return m_proxy->call<bool>("robotIsWakeUp");
}

Floats VXMotionProxy::getPosition(const std::string &name, int space, bool useSensorValues)
{
    return m_proxy->call<Floats>("getPosition", name, space, useSensorValues);
}

void VXMotionProxy::changeAngles(const VXValue &names, const VXValue &changes,
                                 float fractionMaxSpeed)
{
    m_proxy->call<void>("changeAngles", names, changes, fractionMaxSpeed);
}

void VXMotionProxy::setAngles(const VXValue &names, const VXValue &angles, float fractionMaxSpeed)
{
    m_proxy->call<void>("setAngles", names, angles, fractionMaxSpeed);
}

void VXMotionProxy::angleInterpolationWithSpeed(const VXValue &names, const VXValue &targetAngles,
                                                float maxSpeedFraction)
{
    m_proxy->call<void>("angleInterpolationWithSpeed", names, targetAngles, maxSpeedFraction);
}

void VXMotionProxy::setStiffnesses(const VXValue &names, const VXValue &stiffnesses)
{
    m_proxy->call<void>("setStiffnesses", names, stiffnesses);
}

void VXMotionProxy::stiffnessInterpolation(const VXValue &names, const VXValue &stiffnessLists,
                                           const VXValue &timeLists)
{
    m_proxy->call<void>("stiffnessInterpolation", names, stiffnessLists, timeLists);
}

void VXMotionProxy::rest()
{
    m_proxy->call<void>("rest");
}

void VXMotionProxy::wakeUp()
{
    m_proxy->call<void>("wakeUp");
}

void VXMotionProxy::Post::changeAngles(const VXValue &names, const VXValue &changes,
                                       float fractionMaxSpeed)
{
    m_proxy->pCall("changeAngles", names, changes, fractionMaxSpeed);
}

void VXMotionProxy::Post::angleInterpolationWithSpeed(const VXValue &names,
                                                      const VXValue &targetAngles,
                                                      float maxSpeedFraction)
{
    m_proxy->pCall("angleInterpolationWithSpeed", names, targetAngles, maxSpeedFraction);
}

void VXMotionProxy::Post::stiffnessInterpolation(const VXValue &names,
                                                 const VXValue &stiffnessLists,
                                                 const VXValue &timeLists)
{
    m_proxy->pCall("stiffnessInterpolation", names, stiffnessLists, timeLists);
}

void VXMotionProxy::Post::rest()
{
    m_proxy->pCall("rest");
}

void VXMotionProxy::Post::wakeUp()
{
    m_proxy->pCall("wakeUp");
}

// ---- VXPreferences ---------------------------------------------------------

VXPreferencesProxy::VXPreferencesProxy(boost::shared_ptr<VXProxy> proxy)
    : VXTypedProxy(std::move(proxy))
{ }

VXValue VXPreferencesProxy::readPrefFile(const std::string &fileName, bool ignoreCache)
{
    return m_proxy->call<VXValue>("readPrefFile", fileName, ignoreCache);
}

void VXPreferencesProxy::writePrefFile(const std::string &fileName, const VXValue &preferences,
                                       bool ignoreCache)
{
    m_proxy->call<void>("writePrefFile", fileName, preferences, ignoreCache);
}

// ---- VXWorldRepresentation -------------------------------------------------

VXWorldRepresentationProxy::VXWorldRepresentationProxy(boost::shared_ptr<VXProxy> proxy)
    : VXTypedProxy(std::move(proxy))
{ }

Strings VXWorldRepresentationProxy::getObjectNames()
{
    return m_proxy->call<Strings>("getObjectNames");
}

std::string VXWorldRepresentationProxy::getObjectCategory(const std::string &object)
{
    return m_proxy->call<std::string>("getObjectCategory", object);
}

VXValue VXWorldRepresentationProxy::getObjectAttributes(const std::string &object)
{
    return m_proxy->call<VXValue>("getObjectAttributes", object);
}

VXValue VXWorldRepresentationProxy::getObjectAttributeValues(const std::string &object,
                                                             const std::string &attribute,
                                                             int count)
{
    return m_proxy->call<VXValue>("getObjectAttributeValues", object, attribute, count);
}

VXValue VXWorldRepresentationProxy::getPosition(const std::string &object,
                                                const std::string &reference)
{
    return m_proxy->call<VXValue>("getPosition", object, reference);
}

std::string VXWorldRepresentationProxy::getRootName()
{
    return m_proxy->call<std::string>("getRootName");
}

std::string VXWorldRepresentationProxy::getObjectParentName(const std::string &object)
{
    return m_proxy->call<std::string>("getObjectParentName", object);
}

// ---- VXEngagementZones, VXPeoplePerception, VXBasicAwareness --------------

VXEngagementZonesProxy::VXEngagementZonesProxy(boost::shared_ptr<VXProxy> proxy)
    : VXTypedProxy(std::move(proxy))
{ }

float VXEngagementZonesProxy::getFirstLimitDistance()
{
    return m_proxy->call<float>("getFirstLimitDistance");
}

float VXEngagementZonesProxy::getSecondLimitDistance()
{
    return m_proxy->call<float>("getSecondLimitDistance");
}

float VXEngagementZonesProxy::getLimitAngle()
{
    return m_proxy->call<float>("getLimitAngle");
}

VXPeoplePerceptionProxy::VXPeoplePerceptionProxy(boost::shared_ptr<VXProxy> proxy)
    : VXTypedProxy(std::move(proxy))
{ }

float VXPeoplePerceptionProxy::getMaximumDetectionRange()
{
    return m_proxy->call<float>("getMaximumDetectionRange");
}

VXBasicAwarenessProxy::VXBasicAwarenessProxy(boost::shared_ptr<VXProxy> proxy)
    : VXTypedProxy(std::move(proxy))
{ }

} // namespace VX
