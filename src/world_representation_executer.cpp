#include "executer_call_p.h"
#include "text_p.h"
#include "world_representation_executer_p.h"

#include "connection_p.h"
#include <connection/platform.h>

#include <QTimer>

#include <wz/log.h>

#include <exception>
#include <stdexcept>

namespace RK {

namespace {

const char *const k_category = "desktop.worldrep";

wz::log::LogStream error(const char *function)
{
    return wz::log::LogStream(wz::LogLevel_Error, k_category, function);
}

} // namespace

WorldRepresentationExecuter::WorldRepresentationExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection), m_timer(new QTimer(this))
{ }

WorldRepresentationExecuter::~WorldRepresentationExecuter() = default;

bool WorldRepresentationExecuter::isPolling() const
{
    return m_timer->isActive();
}

void WorldRepresentationExecuter::startObjectPolling(uint pollPeriodMs)
{
    // Not unique on purpose: a second start without a stop polls twice a
    // tick, and the next stop undoes every one of them.
    connect(m_timer, &QTimer::timeout, this, &WorldRepresentationExecuter::pollObjects);
    m_timer->start(static_cast<int>(pollPeriodMs));
}

void WorldRepresentationExecuter::stopObjectPolling()
{
    disconnect(m_timer, &QTimer::timeout, this, &WorldRepresentationExecuter::pollObjects);
    m_timer->stop();
}

void WorldRepresentationExecuter::stopTimer()
{
    m_timer->stop();
}

// A tick is no operation of its own: a failing poll is told once, as a
// failure of the polling, until a poll succeeds again. A failing poll still
// reports an empty world.
void WorldRepresentationExecuter::pollObjects()
{
    auto call = executerCall(this, m_connection, "startObjectPolling");
    call.log(k_category);
    if (m_pollFailing)
        call.quietly();
    QStringList objects;
    m_pollFailing = !call.attempt(&Connection::worldRepresentation,
                                  [&](VX::VXWorldRepresentationProxy &proxy) {
                                      for (const std::string &name : proxy.getObjectNames())
                                          objects << fromUtf8(name);
                                  });
    emit objectsUpdated(objects);
}

QString WorldRepresentationExecuter::objectCategory(QString name)
{
    return executerCall(this, m_connection, "objectCategory")
        .log(k_category)
        .run(&Connection::worldRepresentation, [&](VX::VXWorldRepresentationProxy &proxy) {
            return fromUtf8(proxy.getObjectCategory(utf8(name)));
        });
}

VX::VXValue WorldRepresentationExecuter::fieldNames(VX::VXWorldRepresentationProxy &proxy,
                                                    const QString &name)
{
    return proxy.getObjectAttributes(utf8(name));
}

QList<VX::VXValue> WorldRepresentationExecuter::fieldValues(VX::VXWorldRepresentationProxy &proxy,
                                                            const QString &name,
                                                            const QString &attribute)
{
    const VX::VXValue values = proxy.getGenericProxy()->call<VX::VXValue>(
        "getObjectAttributeValues", utf8(name), utf8(attribute), 1);
    if (!values.isArray() || values.getSize() < 1 || !values[0].isArray())
        throw CallFailure(ErrorCode::RobotFailed,
                          "Could not parse VXValue returned by "
                          "WorldRepresentation::getObjectLatestAttributes");
    QList<VX::VXValue> result;
    const VX::VXValue &latest = values[0];
    for (int i = 0; i < latest.getSize(); ++i)
        result << latest[i];
    return result;
}

WorldRepresentationExecuter::Fields
WorldRepresentationExecuter::objectDisplayAttributes(QString name)
{
    return executerCall(this, m_connection, "objectDisplayAttributes")
        .log(k_category)
        .run(&Connection::worldRepresentation, [&](VX::VXWorldRepresentationProxy &proxy) {
            Fields result;
            const VX::VXValue attributes = fieldNames(proxy, name);
            if (!attributes.isArray())
                return result;
            for (int i = 0; i < attributes.getSize(); ++i) {
                const VX::VXValue &descriptor = attributes[i];
                const std::string attribute = descriptor[0].toStdString();
                if (attribute != "Display" && attribute != "display")
                    continue;
                const QList<VX::VXValue> values = fieldValues(proxy, name, fromUtf8(attribute));
                const VX::VXValue &fields = descriptor[1];
                if (fields.getSize() != values.size())
                    throw CallFailure(ErrorCode::RobotFailed,
                                      "The size of the fields and the values of the Display "
                                      "attribute do not match.");
                for (int j = 0; j < values.size(); ++j)
                    result.insert(fromUtf8(fields[j][0].toStdString()), values[j]);
                return result;
            }
            return result;
        });
}

WorldRepresentationExecuter::Attributes WorldRepresentationExecuter::objectAttributes(QString name)
{
    return executerCall(this, m_connection, "objectAttributes")
        .log(k_category)
        .run(&Connection::worldRepresentation, [&](VX::VXWorldRepresentationProxy &proxy) {
            Attributes result;
            const VX::VXValue attributes = fieldNames(proxy, name);
            if (!attributes.isArray())
                return result;
            for (int i = 0; i < attributes.getSize(); ++i) {
                const VX::VXValue &descriptor = attributes[i];
                const QString attribute = fromUtf8(descriptor[0].toStdString());
                QStringList fields;
                if (descriptor[1].isArray()) {
                    for (int j = 0; j < descriptor[1].getSize(); ++j)
                        fields << fromUtf8(descriptor[1][j][0].toStdString());
                }
                const QList<VX::VXValue> values = fieldValues(proxy, name, attribute);
                if (fields.size() != values.size()) {
                    // One odd attribute does not spoil the others.
                    error("objectAttributes")
                        << "field size (" << fields.size() << ") and value size "
                        << "(" << values.size() << ") do not match.";
                    continue;
                }
                Fields map;
                for (int j = 0; j < fields.size(); ++j)
                    map.insert(fields[j], values[j]);
                result.insert(attribute, map);
            }
            return result;
        });
}

VX::Math::Displacement WorldRepresentationExecuter::VXValueToDisplacement(const VX::VXValue &value)
{
    const VX::VXValue &t = value[1];
    const VX::Math::Position3D position(t[0].toFloat(), t[1].toFloat(), t[2].toFloat());
    const VX::VXValue &r = value[0];
    const VX::Math::Quaternion rotation(r[0].toFloat(), r[1].toFloat(), r[2].toFloat(),
                                        r[3].toFloat());
    if (!VX::Math::transformFromPosition(position).isTransform(0.0001f))
        throw std::runtime_error("invalid position: " + VX::Math::toSpaceSeparated(position));
    if (!VX::Math::transformFromQuaternion(rotation).isTransform(0.0001f))
        throw std::runtime_error("Invalid rotation: " + VX::Math::toSpaceSeparated(rotation));
    return VX::Math::Displacement(position, rotation);
}

VX::Math::Displacement WorldRepresentationExecuter::position(VX::VXWorldRepresentationProxy &proxy,
                                                             const QString &name,
                                                             const QString &reference)
{
    const VX::VXValue value
        = proxy.getGenericProxy()->call<VX::VXValue>("getPosition", utf8(name), utf8(reference));
    if (!value.isArray())
        return VX::Math::Displacement();
    return VXValueToDisplacement(value);
}

VX::Math::Displacement WorldRepresentationExecuter::objectPosition(QString name, QString reference)
{
    return executerCall(this, m_connection, "objectPosition")
        .log(k_category)
        .run(&Connection::worldRepresentation, [&](VX::VXWorldRepresentationProxy &proxy) {
            return position(proxy, name, reference);
        });
}

// The parent's name stays in the answer when its displacement cannot be had.
WorldRepresentationExecuter::Placement WorldRepresentationExecuter::objectPosition(QString name)
{
    Placement placement;
    executerCall(this, m_connection, "objectPosition")
        .log(k_category)
        .run(&Connection::worldRepresentation, [&](VX::VXWorldRepresentationProxy &proxy) {
            placement.first = fromUtf8(
                proxy.getGenericProxy()->call<std::string>("getObjectParentName", utf8(name)));
            placement.second = position(proxy, name, placement.first);
        });
    return placement;
}

QString WorldRepresentationExecuter::rootName()
{
    return executerCall(this, m_connection, "rootName")
        .log(k_category)
        .run(&Connection::worldRepresentation, [](VX::VXWorldRepresentationProxy &proxy) {
            return fromUtf8(proxy.getGenericProxy()->call<std::string>("getRootName"));
        });
}

// Without a root name the position is asked for in the "" reference; the
// first failure is the one told.
WorldRepresentationExecuter::Placement
WorldRepresentationExecuter::objectAbsolutePosition(QString name)
{
    Placement placement;
    executerCall(this, m_connection, "objectAbsolutePosition")
        .log(k_category)
        .run(&Connection::worldRepresentation,
             [&](VX::VXWorldRepresentationProxy &proxy, Connection &connection) {
                 std::exception_ptr rootFailure;
                 try {
                     placement.first
                         = fromUtf8(proxy.getGenericProxy()->call<std::string>("getRootName"));
                 } catch (const std::exception &e) {
                     if (classifyFailure(&connection, e) == ErrorCode::ConnectionLost)
                         throw;
                     rootFailure = std::current_exception();
                 }
                 try {
                     placement.second = position(proxy, name, placement.first);
                 } catch (const std::exception &e) {
                     if (!rootFailure)
                         throw;
                     error("objectAbsolutePosition")
                         << "Could not get object " << utf8(name) << " position in the"
                         << utf8(placement.first) << " reference: " << e.what();
                 }
                 if (rootFailure)
                     std::rethrow_exception(rootFailure);
             });
    return placement;
}

QStringList WorldRepresentationExecuter::objectsDisplayed()
{
    const std::string key = "VXWorldRepresentation/DisplayRequired";
    return executerCall(this, m_connection, "objectsDisplayed")
        .log(k_category)
        .run(&Connection::worldRepresentation,
             [&](VX::VXWorldRepresentationProxy &, Connection &connection) {
                 QStringList result;
                 const boost::shared_ptr<VX::VXMemoryProxy> memory = connection.memory();
                 if (!memory)
                     throw CallFailure(ErrorCode::ServiceMissing, "the robot has no VXMemory");
                 const VX::VXValue value = memory->getData(key);
                 if (!value.isArray())
                     return result;
                 for (int i = 0; i < value.getSize(); ++i)
                     result << fromUtf8(value[i].toStdString());
                 return result;
             });
}

} // namespace RK
