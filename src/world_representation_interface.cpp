#include <connection/world_representation_interface.h>

#include "connection_p.h"
#include "text_p.h"
#include <connection/sartel_module.h>

#include "morvane_interface_p.h"
#include "world_representation_executer_p.h"

#include <QMetaObject>
#include <QMetaType>

#include <wz/log.h>

#include <stdexcept>

namespace RK {

namespace {
const char *const k_category = "desktop.worldrep";

} // namespace

const QString WorldRepresentationInterface::a_worldRepDisplayRequiredKey
    = QStringLiteral("VXWorldRepresentation/DisplayRequired");
const QString WorldRepresentationInterface::a_worldRepAttributeChangedKey
    = QStringLiteral("VXWorldRepresentation/AttributeChanged");
const QString WorldRepresentationInterface::a_worldRepPositionChangedKey
    = QStringLiteral("VXWorldRepresentation/PositionChanged");

WorldRepresentationInterface::WorldRepresentationInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("WorldRepresentationInterface"))
{
    forwardFailures(this);
    // positionChanged crosses threads with it.
    qRegisterMetaType<VX::Math::Displacement>("VX::Math::Displacement");
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    forward(&WorldRepresentationExecuter::objectsUpdated, this,
            &WorldRepresentationInterface::objectsUpdated);
    // The timer belongs to the executer's thread and must stop there, before
    // the thread is gone.
    WorldRepresentationExecuter *executer = this->executer();
    executerThread()->atLoopEnd([executer] { executer->stopTimer(); });

    if (connection) {
        if (const boost::shared_ptr<SartelModuleInterface> module
            = connection->sartelModuleInterface()) {
            emit module->subscribeToMicroEventRequested(a_worldRepDisplayRequiredKey);
            emit module->subscribeToMicroEventRequested(a_worldRepAttributeChangedKey);
            emit module->subscribeToMicroEventRequested(a_worldRepPositionChangedKey);
            connect(module.get(), &SartelModuleInterface::dataSubscribedChanged, this,
                    &WorldRepresentationInterface::onDataChanged);
        }
    }
}

WorldRepresentationInterface::~WorldRepresentationInterface() = default;

void WorldRepresentationInterface::startObjectPolling(unsigned int pollPeriodMs)
{
    WorldRepresentationExecuter *e = executer();
    QMetaObject::invokeMethod(
        e, [e, pollPeriodMs] { e->startObjectPolling(pollPeriodMs); }, Qt::QueuedConnection);
}

void WorldRepresentationInterface::stopObjectPolling()
{
    WorldRepresentationExecuter *e = executer();
    QMetaObject::invokeMethod(
        e, [e] { e->stopObjectPolling(); }, Qt::QueuedConnection);
}

QFuture<QStringList> WorldRepresentationInterface::objectsDisplayed()
{
    return run(&WorldRepresentationExecuter::objectsDisplayed);
}

QFuture<WorldRepresentationInterface::Attributes>
WorldRepresentationInterface::objectAttributes(const QString &name)
{
    return run(&WorldRepresentationExecuter::objectAttributes, name);
}

QFuture<WorldRepresentationInterface::Fields>
WorldRepresentationInterface::objectDisplayAttributes(const QString &name)
{
    return run(&WorldRepresentationExecuter::objectDisplayAttributes, name);
}

QFuture<QString> WorldRepresentationInterface::objectCategory(const QString &name)
{
    return run(&WorldRepresentationExecuter::objectCategory, name);
}

QFuture<QString> WorldRepresentationInterface::rootName()
{
    return run(&WorldRepresentationExecuter::rootName);
}

QFuture<WorldRepresentationInterface::Placement>
WorldRepresentationInterface::objectPosition(const QString &name)
{
    return run(qOverload<QString>(&WorldRepresentationExecuter::objectPosition), name);
}

QFuture<WorldRepresentationInterface::Placement>
WorldRepresentationInterface::objectAbsolutePosition(const QString &name)
{
    return run(&WorldRepresentationExecuter::objectAbsolutePosition, name);
}

void WorldRepresentationInterface::onDataChanged(QString dataName, VX::VXValue dataValue)
{
    if (dataName == a_worldRepAttributeChangedKey || dataName == a_worldRepPositionChangedKey) {
        // A malformed event from the robot is reported and dropped: it must
        // not leave a slot that Qt's event loop runs.
        try {
            if (dataName == a_worldRepAttributeChangedKey) {
                const QString object = fromUtf8(dataValue[0].toStdString());
                const QString attribute = fromUtf8(dataValue[1].toStdString());
                const VX::VXValue fields = dataValue[2];
                emit attributeChanged(object, attribute, fields);
            } else {
                const QString object = fromUtf8(dataValue[0].toStdString());
                VX::VXValue rest = dataValue;
                rest.arrayPopFront();
                const VX::Math::Displacement position
                    = WorldRepresentationExecuter::VXValueToDisplacement(rest);
                emit positionChanged(object, position);
            }
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
                << dataName.toStdString() << " data not formatted as expected: " << e.what();
        }
    } else if (dataName == a_worldRepDisplayRequiredKey) {
        QStringList objects;
        try {
            if (dataValue.isArray()) {
                for (int i = 0; i < dataValue.getSize(); ++i)
                    objects << fromUtf8(dataValue[i].toStdString());
            }
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
                << dataName.toStdString() << " data not formatted as expected: " << e.what();
            return;
        }
        emit objectsDisplayedChanged(objects);
    }
}

} // namespace RK
