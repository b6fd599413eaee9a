#include "morvane_interface_p.h"
#include "people_perception_interface_p.h"
#include "service_table_p.h"

#include "connection_p.h"
#include <connection/basic_awareness_interface.h>
#include <connection/platform.h>

#include <QMetaObject>

#include <stdexcept>

namespace RK {

namespace {

// On framework threads: a queued call, if the object is still there.
void queueHumanTrackedChangeInt(const CallbackGatePtr &gate, int humanId)
{
    queueSlot(gate, &BasicAwarenessInterface::onHumanTrackedChanged, humanId);
}

void queueHumanTrackedChangeVXValue(const CallbackGatePtr &gate, const VX::VXValue &value)
{
    queueHumanTrackedChangeInt(gate, value.toInt());
}

} // namespace

const char *const BasicAwarenessInterface::a_humanTrackedKey = "VXBasicAwareness/HumanTracked";

struct BasicAwarenessInterface::Remote
{
    wz::Object awareness;
    wz::Object memory;
    wz::Future<VX::VXValue> firstReading;
    CallbackGatePtr gate;
};

BasicAwarenessInterface::BasicAwarenessInterface(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), d(new Remote)
{
    d->gate = std::make_shared<CallbackGate>(this);
    wz::Session *session = connection ? connection->session() : nullptr;
    if (!session || !session->isConnected())
        throw std::runtime_error("BasicAwarenessInterface created while session not connected");
    watchConnectionEnd(connection.get(), this, &BasicAwarenessInterface::connectionEnded);
    const CallbackGatePtr gate = d->gate;
    d->awareness = session->service(serviceName(ServiceId::BasicAwareness)).value();
    d->awareness.connect("humanTracked", [gate](int id) { queueHumanTrackedChangeInt(gate, id); })
        .value();
    d->memory = session->service(serviceName(ServiceId::Memory)).value();
    d->firstReading = d->memory.async<VX::VXValue>("getData", std::string(a_humanTrackedKey));
    // A failed or unreadable first reading leaves -1 in place.
    d->firstReading.connect([gate](const wz::Future<VX::VXValue> &done) {
        if (!done.hasValue())
            return;
        try {
            queueHumanTrackedChangeVXValue(gate, done.value());
        } catch (const std::exception &) { }
    });
}

BasicAwarenessInterface::~BasicAwarenessInterface()
{
    d->gate->close();
    try {
        if (d->firstReading.isRunning())
            d->firstReading.cancel();
    } catch (const std::exception &) {
        // The answer is dropped either way.
    }
}

void BasicAwarenessInterface::onHumanTrackedChanged(int humanId)
{
    if (humanId == m_humanTracked)
        return;
    m_humanTracked = humanId;
    emit humanTrackedChanged(humanId);
}

} // namespace RK
