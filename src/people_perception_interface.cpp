#include "executer_call_p.h"
#include "morvane_interface_p.h"
#include "people_perception_interface_p.h"
#include "service_table_p.h"

#include "connection_p.h"
#include <connection/people_perception_interface.h>
#include <connection/platform.h>

#include <QMetaObject>
#include <QMutexLocker>

#include <wz/log.h>

#include <stdexcept>

namespace RK {

namespace {

const char *const k_category = "desktop.peoplepercept";

wz::log::LogStream log(wz::LogLevel level, const char *function)
{
    return wz::log::LogStream(level, k_category, function);
}

// A reading cut short by the connection's end is no error of its own: the
// connection tells its loss, and a teardown fails every pending call at once.
bool worthLogging(const std::exception &e)
{
    return classifyFailureText(e.what()) != ErrorCode::ConnectionLost;
}

// The callbacks below run on framework threads: they touch their arguments
// and the gate only, and end in a queued call. Once the gate is closed (the
// object is going) they do nothing, not even read a canceled future, so a
// teardown logs no error.

void queueOnMaximumDetectionRangeChange(const CallbackGatePtr &gate, float distance)
{
    queueSlot(gate, &PeoplePerceptionInterface::onMaximumDetectionRangeChanged, distance);
}

void tryCatchFutureFloatMaxDetectionRangeChange(const wz::Future<float> &future,
                                                const CallbackGatePtr &gate)
{
    if (!gate->isOpen())
        return;
    try {
        queueOnMaximumDetectionRangeChange(gate, future.value(wz::FutureTimeout_Infinite));
    } catch (const std::exception &e) {
        if (worthLogging(e))
            log(wz::LogLevel_Error, __FUNCTION__)
                << "Could not get maximum detection range: " << e.what();
    }
}

void queueSetPeopleList(const wz::Future<VX::VXValue> &future, const CallbackGatePtr &gate)
{
    if (!gate->isOpen())
        return;
    try {
        queueSlot(gate, &PeoplePerceptionInterface::setPeopleList,
                  future.value(wz::FutureTimeout_Infinite));
    } catch (const std::exception &e) {
        if (worthLogging(e))
            log(wz::LogLevel_Error, __FUNCTION__) << "Could not get people list: " << e.what();
    }
}

// The failure of an operation, told at once on the calling thread while the
// object is there: its own thread may have ended with the connection.
void reportFailure(const CallbackGatePtr &gate, const char *operation, const std::string &text)
{
    OperationError failure;
    failure.operation = QString::fromLatin1(operation);
    failure.code = classifyFailureText(text);
    failure.title = QString::fromLatin1(serviceName(ServiceId::PeoplePerception));
    failure.contents = QStringLiteral("Failed to call %1").arg(failure.operation);
    failure.details = QString::fromUtf8(text.c_str());
    gate->post([&failure](QObject *target) {
        emit static_cast<PeoplePerceptionInterface *>(target)->errorOccurred(failure);
    });
}

void queueOnPeoplePositionUpdated(const wz::Future<VX::VXValue> &future,
                                  const CallbackGatePtr &gate, int id)
{
    if (!gate->isOpen())
        return;
    try {
        queueSlot(gate, &PeoplePerceptionInterface::onPeoplePositionUpdated, id,
                  future.value(wz::FutureTimeout_Infinite));
    } catch (const std::exception &e) {
        if (worthLogging(e))
            log(wz::LogLevel_Error, __FUNCTION__) << "People update failed: " << e.what();
        reportFailure(gate, "requestPeoplePosition", e.what());
    }
}

} // namespace

const char *const PeoplePerceptionInterface::a_peopleListKey = "PeoplePerception/PeopleList";

QString PeoplePerceptionInterface::positionKey(int peopleId)
{
    return QStringLiteral("PeoplePerception/Person/%1/PositionInTorsoFrame").arg(peopleId);
}

struct PeoplePerceptionInterface::Remote
{
    wz::Object people;
    wz::Object memory;
    wz::Future<float> rangeRequest;
    wz::Future<VX::VXValue> listRequest;
    // Written on the object's thread (pruning) and the caller's (requests).
    QMutex positionMutex;
    QList<wz::Future<VX::VXValue>> positionRequests;
    CallbackGatePtr gate;
};

PeoplePerceptionInterface::PeoplePerceptionInterface(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), d(new Remote)
{
    qRegisterMetaType<VX::Math::Position3D>("VX::Math::Position3D");
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    d->gate = std::make_shared<CallbackGate>(this);

    wz::Session *session = connection ? connection->session() : nullptr;
    if (!session || !session->isConnected())
        throw std::runtime_error("PeoplePerceptionInterface created while session not connected");
    watchConnectionEnd(connection.get(), this, &PeoplePerceptionInterface::connectionEnded);
    d->people = session->service(serviceName(ServiceId::PeoplePerception)).value();
    d->memory = session->service(serviceName(ServiceId::Memory)).value();

    d->rangeRequest = d->people.async<float>("getMaximumDetectionRange");

    const CallbackGatePtr gate = d->gate;
    d->people
        .connect("maximumDetectionRangeChanged",
                 [gate](float distance) { queueOnMaximumDetectionRangeChange(gate, distance); })
        .value();
    d->people
        .connect("justArrived",
                 [gate](int id) {
                     queueSlot(gate, &PeoplePerceptionInterface::onPeopleJustArrived, id);
                 })
        .value();
    d->people
        .connect(
            "justLeft",
            [gate](int id) { queueSlot(gate, &PeoplePerceptionInterface::onPeopleJustLeft, id); })
        .value();

    d->listRequest = d->memory.async<VX::VXValue>("getData", std::string(a_peopleListKey));

    d->rangeRequest.connect([gate](const wz::Future<float> &done) {
        tryCatchFutureFloatMaxDetectionRangeChange(done, gate);
    });
    d->listRequest.connect(
        [gate](const wz::Future<VX::VXValue> &done) { queueSetPeopleList(done, gate); });
}

PeoplePerceptionInterface::~PeoplePerceptionInterface()
{
    // First: no callback may post to this object from now on.
    d->gate->close();
    try {
        if (d->rangeRequest.isRunning())
            d->rangeRequest.cancel();
        unsubscribe();
        QMutexLocker locker(&d->positionMutex);
        for (wz::Future<VX::VXValue> &request : d->positionRequests) {
            if (request.isRunning())
                request.cancel();
        }
    } catch (const std::exception &e) {
        log(wz::LogLevel_Warning, __FUNCTION__)
            << "Problem occurred cancelling pending tasks: " << e.what();
    }
}

QList<int> PeoplePerceptionInterface::peopleList() const
{
    QMutexLocker locker(&m_listMutex);
    return m_peopleList;
}

int PeoplePerceptionInterface::pendingPositionRequests() const
{
    QMutexLocker locker(&d->positionMutex);
    return d->positionRequests.size();
}

void PeoplePerceptionInterface::onMaximumDetectionRangeChanged(float distance)
{
    m_range = distance;
    emit maximumDetectionRangeChanged(distance);
}

void PeoplePerceptionInterface::onPeopleJustArrived(int peopleId)
{
    {
        QMutexLocker locker(&m_listMutex);
        m_peopleList.append(peopleId);
    }
    emit peopleJustArrived(peopleId);
}

void PeoplePerceptionInterface::onPeopleJustLeft(int peopleId)
{
    {
        QMutexLocker locker(&m_listMutex);
        m_peopleList.removeAll(peopleId);
    }
    emit peopleJustLeft(peopleId);
}

void PeoplePerceptionInterface::setPeopleList(VX::VXValue peopleList)
{
    QList<int> ids;
    if (peopleList.isArray()) {
        try {
            for (float id : peopleList.ToFloatArray())
                ids.append(static_cast<int>(id));
        } catch (const std::exception &e) {
            log(wz::LogLevel_Error, __FUNCTION__)
                << "Could not parse VXValue returned by "
                << "getData(\"PeoplePerception/PeopleList\"): " << e.what();
        }
    }
    QMutexLocker locker(&m_listMutex);
    m_peopleList = ids;
}

void PeoplePerceptionInterface::onPeoplePositionUpdated(int peopleId, VX::VXValue value)
{
    VX::Math::Position3D position;
    try {
        if (value.isArray() && value.getSize() == 3) {
            position.x = value[0].toFloat();
            position.y = value[1].toFloat();
            position.z = value[2].toFloat();
        }
    } catch (const std::exception &e) {
        log(wz::LogLevel_Error, __FUNCTION__) << "Could not parse received VXValue for position of "
                                              << "people: " << peopleId << ": " << e.what();
    }
    emit peoplePositionUpdated(peopleId, position);

    QMutexLocker locker(&d->positionMutex);
    for (auto it = d->positionRequests.begin(); it != d->positionRequests.end();) {
        if (it->isFinished())
            it = d->positionRequests.erase(it);
        else
            ++it;
    }
}

void PeoplePerceptionInterface::requestPeoplePosition(int peopleId)
{
    try {
        QMutexLocker locker(&d->positionMutex);
        // Failed reads never reach onPeoplePositionUpdated, so finished ones
        // are dropped here as well: the list cannot grow without bound.
        for (auto it = d->positionRequests.begin(); it != d->positionRequests.end();) {
            if (it->isFinished())
                it = d->positionRequests.erase(it);
            else
                ++it;
        }
        wz::Future<VX::VXValue> request
            = d->memory.async<VX::VXValue>("getData", positionKey(peopleId).toStdString());
        d->positionRequests.append(request);
        const CallbackGatePtr gate = d->gate;
        request.connect([gate, peopleId](const wz::Future<VX::VXValue> &done) {
            queueOnPeoplePositionUpdated(done, gate, peopleId);
        });
    } catch (const std::exception &e) {
        log(wz::LogLevel_Error, __FUNCTION__)
            << "Could not setup call to get position value of person " << peopleId << ": "
            << e.what();
        reportFailure(d->gate, "requestPeoplePosition", e.what());
    }
}

void PeoplePerceptionInterface::subscribe()
{
    if (!d->memory) {
        reportFailure(d->gate, "subscribe", "the robot has no VXMemory");
        return;
    }
    try {
        d->memory.call<void>("subscribeToEvent", std::string(a_peopleListKey),
                             std::string("VXSartel"), std::string("dataChanged"));
        m_subscribed = true;
    } catch (const std::exception &e) {
        log(wz::LogLevel_Warning, __FUNCTION__)
            << "Problem occurred for subscribeToEvent call to event " << a_peopleListKey << ": "
            << e.what();
        m_subscribed = false;
        reportFailure(d->gate, "subscribe", e.what());
    }
}

void PeoplePerceptionInterface::unsubscribe()
{
    if (!m_subscribed || !d->memory)
        return;
    try {
        d->memory.call<void>("unsubscribeToEvent", std::string(a_peopleListKey),
                             std::string("VXSartel"));
        m_subscribed = false;
    } catch (const std::exception &e) {
        log(wz::LogLevel_Warning, __FUNCTION__)
            << "Problem occurred for unsubscribeToEvent call to event " << a_peopleListKey << ": "
            << e.what();
        reportFailure(d->gate, "unsubscribe", e.what());
    }
}

} // namespace RK
