#include "world_representation_executer_p.h"

#include <connection/connection.h>
#include <connection/platform.h>

#include <QTimer>

#include <wz/log.h>

#include <stdexcept>

namespace RK {

namespace {

const char *const k_category = "desktop.worldrep";

std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

wz::log::LogStream error(const char *function)
{
    return wz::log::LogStream(wz::LogLevel_Error, k_category, function);
}

} // namespace

WorldRepresentationExecuter::WorldRepresentationExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection), m_timer(new QTimer(this))
{ }

WorldRepresentationExecuter::~WorldRepresentationExecuter() = default;

boost::shared_ptr<VX::VXWorldRepresentationProxy> WorldRepresentationExecuter::worldRepProxy() const
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection) {
        error(__FUNCTION__) << "Connection of WorldRepresentation not valid";
        return boost::shared_ptr<VX::VXWorldRepresentationProxy>();
    }
    boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = connection->worldRepresentation();
    if (!proxy)
        error(__FUNCTION__) << "Proxy to WorldRepresentation module unavailable";
    return proxy;
}

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

void WorldRepresentationExecuter::pollObjects()
{
    const boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = worldRepProxy();
    if (!proxy)
        return;
    QStringList objects;
    try {
        for (const std::string &name : proxy->getObjectNames())
            objects << fromUtf8(name);
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not fetch objects from worldRepresentation module: "
                            << e.what();
    }
    emit objectsUpdated(objects);
}

QString WorldRepresentationExecuter::objectCategory(QString name)
{
    const boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = worldRepProxy();
    if (!proxy)
        return QString();
    try {
        return fromUtf8(proxy->getObjectCategory(utf8(name)));
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not fetch object " << utf8(name) << " category: " << e.what();
        return QString();
    }
}

VX::VXValue WorldRepresentationExecuter::objectAttributeFieldNames(QString name) const
{
    const boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = worldRepProxy();
    if (!proxy)
        return VX::VXValue();
    try {
        return proxy->getObjectAttributes(utf8(name));
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not fetch attribute fields of object " << utf8(name) << ": "
                            << e.what();
        return VX::VXValue();
    }
}

QList<VX::VXValue> WorldRepresentationExecuter::objectAttributeFieldValues(QString name,
                                                                           QString attribute)
{
    const boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = worldRepProxy();
    if (!proxy)
        return QList<VX::VXValue>();
    VX::VXValue values;
    try {
        values = proxy->getGenericProxy()->call<VX::VXValue>("getObjectAttributeValues", utf8(name),
                                                             utf8(attribute), 1);
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not fetch object " << utf8(name) << " attribute "
                            << utf8(attribute) << " values, reason: " << e.what();
    }
    QList<VX::VXValue> result;
    try {
        if (!values.isArray() || values.getSize() < 1 || !values[0].isArray()) {
            error(__FUNCTION__) << "Could not parse VXValue returned by"
                                << " WorldRepresentation::getObjectLatestAttributes";
            return result;
        }
        const VX::VXValue &latest = values[0];
        for (int i = 0; i < latest.getSize(); ++i)
            result << latest[i];
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not parse VXValue returned by"
                            << " WorldRepresentation::getObjectLatestAttributes: " << e.what();
        return QList<VX::VXValue>();
    }
    return result;
}

WorldRepresentationExecuter::Fields
WorldRepresentationExecuter::objectDisplayAttributes(QString name)
{
    Fields result;
    const VX::VXValue attributes = objectAttributeFieldNames(name);
    if (!attributes.isArray())
        return result;
    try {
        for (int i = 0; i < attributes.getSize(); ++i) {
            const VX::VXValue &descriptor = attributes[i];
            const std::string attribute = descriptor[0].toStdString();
            if (attribute != "Display" && attribute != "display")
                continue;
            const QList<VX::VXValue> values = objectAttributeFieldValues(name, fromUtf8(attribute));
            if (values.isEmpty())
                return result;
            const VX::VXValue &fields = descriptor[1];
            if (fields.getSize() != values.size()) {
                error(__FUNCTION__) << "The size of the fields and the values of the Display "
                                    << "attribute do not match.";
                return result;
            }
            for (int j = 0; j < values.size(); ++j)
                result.insert(fromUtf8(fields[j][0].toStdString()), values[j]);
            return result;
        }
    } catch (const std::exception &e) {
        // A descriptor of the wrong shape: what was read is dropped.
        error(__FUNCTION__) << "Could not parse VXValue returned by"
                            << " WorldRepresentation::getObjectAttributes: " << e.what();
        return Fields();
    }
    return result;
}

WorldRepresentationExecuter::Attributes WorldRepresentationExecuter::objectAttributes(QString name)
{
    Attributes result;
    const VX::VXValue attributes = objectAttributeFieldNames(name);
    if (!attributes.isArray())
        return result;
    try {
        for (int i = 0; i < attributes.getSize(); ++i) {
            const VX::VXValue &descriptor = attributes[i];
            const QString attribute = fromUtf8(descriptor[0].toStdString());
            QStringList fields;
            if (descriptor[1].isArray()) {
                for (int j = 0; j < descriptor[1].getSize(); ++j)
                    fields << fromUtf8(descriptor[1][j][0].toStdString());
            }
            const QList<VX::VXValue> values = objectAttributeFieldValues(name, attribute);
            if (fields.size() != values.size()) {
                error(__FUNCTION__) << "field size (" << fields.size() << ") and value size "
                                    << "(" << values.size() << ") do not match.";
                continue;
            }
            Fields map;
            for (int j = 0; j < fields.size(); ++j)
                map.insert(fields[j], values[j]);
            result.insert(attribute, map);
        }
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not parse VXValue returned by"
                            << "WorldRepresentation::getObjectAttributes: " << e.what();
    }
    return result;
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

VX::Math::Displacement WorldRepresentationExecuter::objectPosition(QString name, QString reference)
{
    const boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = worldRepProxy();
    if (!proxy)
        return VX::Math::Displacement();
    VX::VXValue value;
    try {
        value = proxy->getGenericProxy()->call<VX::VXValue>("getPosition", utf8(name),
                                                            utf8(reference));
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not get object " << utf8(name) << " position in the"
                            << utf8(reference) << " reference: " << e.what();
        return VX::Math::Displacement();
    }
    if (!value.isArray())
        return VX::Math::Displacement();
    try {
        return VXValueToDisplacement(value);
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not parse VXValue returned by"
                            << " WorldRepresentation::getObjectPosition: " << e.what();
        return VX::Math::Displacement();
    }
}

WorldRepresentationExecuter::Placement WorldRepresentationExecuter::objectPosition(QString name)
{
    const boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = worldRepProxy();
    if (!proxy)
        return Placement();
    QString parent;
    try {
        parent = fromUtf8(
            proxy->getGenericProxy()->call<std::string>("getObjectParentName", utf8(name)));
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not fetch object " << utf8(name) << " position: " << e.what();
        return Placement();
    }
    return Placement(parent, objectPosition(name, parent));
}

QString WorldRepresentationExecuter::rootName()
{
    const boost::shared_ptr<VX::VXWorldRepresentationProxy> proxy = worldRepProxy();
    if (!proxy)
        return QString();
    try {
        return fromUtf8(proxy->getGenericProxy()->call<std::string>("getRootName"));
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not get root name: " << e.what();
        return QString();
    }
}

WorldRepresentationExecuter::Placement
WorldRepresentationExecuter::objectAbsolutePosition(QString name)
{
    const QString root = rootName();
    return Placement(root, objectPosition(name, root));
}

QStringList WorldRepresentationExecuter::objectsDisplayed()
{
    QStringList result;
    if (!worldRepProxy())
        return result;
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return result;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!memory)
        return result;
    const std::string key = "VXWorldRepresentation/DisplayRequired";
    VX::VXValue value;
    try {
        value = memory->getData(key);
    } catch (const std::exception &e) {
        error(__FUNCTION__) << "Could not getData " << key << ": " << e.what();
    }
    if (!value.isArray())
        return result;
    try {
        for (int i = 0; i < value.getSize(); ++i)
            result << fromUtf8(value[i].toStdString());
    } catch (const std::exception &e) {
        error(__FUNCTION__) << key << " data not formatted as "
                            << "expected: " << e.what();
    }
    return result;
}

} // namespace RK
