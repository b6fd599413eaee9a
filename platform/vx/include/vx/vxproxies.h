#pragma once

#include <vx/api.h>
#include <vx/vxproxy.h>
#include <vx/vxvalue.h>

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

// Typed proxies: thin wrappers that call the service's methods by name
// through a VXProxy, with the argument and result types the services use.
// Each throws what VXProxy throws (VXError). Each is built on a non-null
// generic proxy (VXError otherwise) and hands it back by getGenericProxy().
namespace VX {

class VX_API VXTypedProxy
{
public:
    explicit VXTypedProxy(boost::shared_ptr<VXProxy> proxy);
    virtual ~VXTypedProxy();
    boost::shared_ptr<VXProxy> getGenericProxy() const { return m_proxy; }

protected:
    boost::shared_ptr<VXProxy> m_proxy;
};

// "VXMemory": keys, events and micro events.
class VX_API VXMemoryProxy : public VXTypedProxy
{
public:
    explicit VXMemoryProxy(boost::shared_ptr<VXProxy> proxy);

    VXValue getData(const std::string &key);
    // One value per key, in the order of `keys` (an array of strings).
    VXValue getListData(const VXValue &keys);
    void insertData(const std::string &key, const VXValue &value);
    void removeData(const std::string &key);
    std::string getType(const std::string &key);
    std::vector<std::string> getDataList(const std::string &filter);
    std::vector<std::string> getEventList();
    std::vector<std::string> getMicroEventList();

    // The memory service calls `callbackMethod(key, value, message)` on the
    // service named `callbackModule`.
    void subscribeToEvent(const std::string &name, const std::string &callbackModule,
                          const std::string &callbackMethod);
    void unsubscribeToEvent(const std::string &name, const std::string &callbackModule);
    void subscribeToMicroEvent(const std::string &name, const std::string &callbackModule,
                               const std::string &callbackMessage,
                               const std::string &callbackMethod);
    void unsubscribeToMicroEvent(const std::string &name, const std::string &callbackModule);
    void raiseEvent(const std::string &name, const VXValue &value);
    void raiseMicroEvent(const std::string &name, const VXValue &value);
    void removeMicroEvent(const std::string &name);

    std::string version();
};

// "VXMotion": joints, stiffness, postures of the whole body.
class VX_API VXMotionProxy : public VXTypedProxy
{
public:
    explicit VXMotionProxy(boost::shared_ptr<VXProxy> proxy);

    std::vector<std::string> getBodyNames(const std::string &name);
    std::vector<std::string> getJointNames(const std::string &name);
    std::vector<float> getAngles(const VXValue &names, bool useSensors);
    std::vector<float> getStiffnesses(const VXValue &names);
    bool robotIsWakeUp();
    std::vector<float> getPosition(const std::string &name, int space, bool useSensorValues);

    // Blocking forms: they return when the robot has finished the motion.
    void changeAngles(const VXValue &names, const VXValue &changes, float fractionMaxSpeed);
    void setAngles(const VXValue &names, const VXValue &angles, float fractionMaxSpeed);
    void angleInterpolationWithSpeed(const VXValue &names, const VXValue &targetAngles,
                                     float maxSpeedFraction);
    void setStiffnesses(const VXValue &names, const VXValue &stiffnesses);
    void stiffnessInterpolation(const VXValue &names, const VXValue &stiffnessLists,
                                const VXValue &timeLists);
    void rest();
    void wakeUp();

    // Posted forms: they return at once and let the motion run on the robot.
    class VX_API Post
    {
    public:
        explicit Post(boost::shared_ptr<VXProxy> proxy) : m_proxy(std::move(proxy)) { }
        void changeAngles(const VXValue &names, const VXValue &changes, float fractionMaxSpeed);
        void angleInterpolationWithSpeed(const VXValue &names, const VXValue &targetAngles,
                                         float maxSpeedFraction);
        void stiffnessInterpolation(const VXValue &names, const VXValue &stiffnessLists,
                                    const VXValue &timeLists);
        void rest();
        void wakeUp();

    private:
        boost::shared_ptr<VXProxy> m_proxy;
    };
    Post post;
};

// "VXPreferences": preference files of the robot.
class VX_API VXPreferencesProxy : public VXTypedProxy
{
public:
    explicit VXPreferencesProxy(boost::shared_ptr<VXProxy> proxy);

    VXValue readPrefFile(const std::string &fileName, bool ignoreCache);
    void writePrefFile(const std::string &fileName, const VXValue &preferences, bool ignoreCache);
};

// "VXWorldRepresentation": the tree of known objects.
class VX_API VXWorldRepresentationProxy : public VXTypedProxy
{
public:
    explicit VXWorldRepresentationProxy(boost::shared_ptr<VXProxy> proxy);

    std::vector<std::string> getObjectNames();
    std::string getObjectCategory(const std::string &object);
    VXValue getObjectAttributes(const std::string &object);
    VXValue getObjectAttributeValues(const std::string &object, const std::string &attribute,
                                     int count);
    VXValue getPosition(const std::string &object, const std::string &reference);
    std::string getRootName();
    std::string getObjectParentName(const std::string &object);
};

// "VXEngagementZones": the limits of the zones around the robot.
class VX_API VXEngagementZonesProxy : public VXTypedProxy
{
public:
    explicit VXEngagementZonesProxy(boost::shared_ptr<VXProxy> proxy);

    float getFirstLimitDistance();
    float getSecondLimitDistance();
    float getLimitAngle();
};

// "VXPeoplePerception": who the robot sees.
class VX_API VXPeoplePerceptionProxy : public VXTypedProxy
{
public:
    explicit VXPeoplePerceptionProxy(boost::shared_ptr<VXProxy> proxy);

    float getMaximumDetectionRange();
};

// "VXBasicAwareness": the desktop only follows its signal `humanTracked`,
// through the object itself (getGenericProxy()->object()).
class VX_API VXBasicAwarenessProxy : public VXTypedProxy
{
public:
    explicit VXBasicAwarenessProxy(boost::shared_ptr<VXProxy> proxy);
};

} // namespace VX
