#include "morvane_interface_p.h"
#include "people_perception_interface_p.h"
#include "service_table_p.h"

#include "connection_p.h"
#include <connection/engagement_zones_interface.h>
#include <connection/platform.h>

#include <QMetaObject>

#include <stdexcept>

namespace RK {

namespace {

using LimitSlot = void (EngagementZonesInterface::*)(float);

} // namespace

struct EngagementZonesInterface::Remote
{
    wz::Object zones;
    wz::Future<float> requests[3];
    CallbackGatePtr gate;
};

EngagementZonesInterface::EngagementZonesInterface(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), d(new Remote)
{
    d->gate = std::make_shared<CallbackGate>(this);
    wz::Session *session = connection ? connection->session() : nullptr;
    if (!session || !session->isConnected())
        throw std::runtime_error("EngagementZonesInterface created while session not connected");
    watchConnectionEnd(connection.get(), this, &EngagementZonesInterface::connectionEnded);
    d->zones = session->service(serviceName(ServiceId::EngagementZones)).value();

    struct Limit
    {
        LimitSlot slot;
        const char *getter;
        const char *signal;
    };
    static const Limit limits[3] = {
        {&EngagementZonesInterface::emitFirstLimitChanged, "getFirstLimitDistance",
         "firstLimitChanged"},
        {&EngagementZonesInterface::emitSecondLimitChanged, "getSecondLimitDistance",
         "secondLimitChanged"},
        {&EngagementZonesInterface::emitLimitAngleChanged, "getLimitAngle", "limitAngleChanged"},
    };
    const CallbackGatePtr gate = d->gate;
    for (int i = 0; i < 3; ++i) {
        const LimitSlot slot = limits[i].slot;
        d->requests[i] = d->zones.async<float>(limits[i].getter);
        d->zones.connect(limits[i].signal, [gate, slot](float v) { queueSlot(gate, slot, v); })
            .value();
    }
    // The first reading takes the road of every later change. A failed one
    // leaves the default in place.
    for (int i = 0; i < 3; ++i) {
        const LimitSlot slot = limits[i].slot;
        d->requests[i].connect([gate, slot](const wz::Future<float> &done) {
            if (done.hasValue())
                queueSlot(gate, slot, done.value());
        });
    }
}

EngagementZonesInterface::~EngagementZonesInterface()
{
    d->gate->close();
    for (wz::Future<float> &request : d->requests) {
        try {
            if (request.isRunning())
                request.cancel();
        } catch (const std::exception &) {
            // Nothing is left to tell: the answer is dropped either way.
        }
    }
}

void EngagementZonesInterface::emitFirstLimitChanged(float distance)
{
    m_firstLimit = distance;
    emit firstLimitChanged(distance);
}

void EngagementZonesInterface::emitSecondLimitChanged(float distance)
{
    m_secondLimit = distance;
    emit secondLimitChanged(distance);
}

void EngagementZonesInterface::emitLimitAngleChanged(float angle)
{
    m_limitAngle = angle;
    emit limitAngleChanged(angle);
}

} // namespace RK
