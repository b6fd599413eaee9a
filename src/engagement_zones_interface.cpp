#include "people_perception_interface_p.h"
#include "service_table_p.h"

#include <connection/connection.h>
#include <connection/engagement_zones_interface.h>
#include <connection/platform.h>

#include <QMetaObject>

#include <stdexcept>

namespace RK {

namespace {

// On a framework thread: a queued call, if the object is still there.
void queueFloatEmit(const char *method, const CallbackGatePtr &gate, float value)
{
    gate->post([method, value](QObject *target) {
        QMetaObject::invokeMethod(target, method, Qt::QueuedConnection, Q_ARG(float, value));
    });
}

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
    d->zones = session->service(serviceName(ServiceId::EngagementZones)).value();

    struct Limit
    {
        const char *slot;
        const char *getter;
        const char *signal;
    };
    static const Limit limits[3] = {
        {"emitFirstLimitChanged", "getFirstLimitDistance", "firstLimitChanged"},
        {"emitSecondLimitChanged", "getSecondLimitDistance", "secondLimitChanged"},
        {"emitLimitAngleChanged", "getLimitAngle", "limitAngleChanged"},
    };
    const CallbackGatePtr gate = d->gate;
    for (int i = 0; i < 3; ++i) {
        const char *slot = limits[i].slot;
        d->requests[i] = d->zones.async<float>(limits[i].getter);
        d->zones.connect(limits[i].signal, [gate, slot](float v) { queueFloatEmit(slot, gate, v); })
            .value();
    }
    // The first reading takes the road of every later change. A failed one
    // leaves the default in place.
    for (int i = 0; i < 3; ++i) {
        const char *slot = limits[i].slot;
        d->requests[i].connect([gate, slot](const wz::Future<float> &done) {
            if (done.hasValue())
                queueFloatEmit(slot, gate, done.value());
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
