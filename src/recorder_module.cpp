#include "method_recorder_executer_p.h"
#include "service_table_p.h"

#include "executer_thread_p.h"
#include "morvane_interface_p.h"
#include <connection/platform.h>
#include <connection/recorder_module.h>

#include <QMutexLocker>

#include <boost/make_shared.hpp>

#include <wz/log.h>

namespace RK {

namespace {

// The remote surface, described once when the library is loaded.
struct RecorderType
{
    RecorderType()
    {
        wz::ObjectTypeBuilder<VXSartelRecorder> builder("RK::VXSartelRecorder");
        builder.advertiseMethod("dataChanged", &VXSartelRecorder::dataChanged);
        builder.advertiseMethod("sendReplayedToStep", &VXSartelRecorder::sendReplayedToStep);
        builder.advertiseMethod("motionRecorderStopped", &VXSartelRecorder::motionRecorderStopped);
        builder.registerType();
        wz::registerObjectFactory("RK::VXSartelRecorder", [](const std::vector<wz::AnyValue> &) {
            return wz::makeObject(boost::make_shared<VXSartelRecorder>(
                nullptr, boost::shared_ptr<Connection>(), nullptr));
        });
    }
};

const RecorderType s_recorderType;

} // namespace

const QString VXSartelRecorder::a_recorderModuleName = QStringLiteral("VXSartelRecorder");

VXSartelRecorder::VXSartelRecorder(wz::Session *session, boost::shared_ptr<Connection> connection,
                                   QObject *parent)
    : QObject(parent), MorvaneInterface(connection, a_recorderModuleName), m_session(session)
{
    forwardFailures(this);
    setObjectName(a_recorderModuleName);
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    qRegisterMetaType<std::vector<std::string>>("std::vector<std::string>");

    using E = MethodRecorderExecuter;
    using I = VXSartelRecorder;
    request(this, &I::startPeriodicRecording, &E::onStartPeriodicRecording);
    request(this, &I::startInteractiveRecording, &E::onStartInteractiveRecording);
    request(this, &I::stopAndGetRecording, &E::onStopAndGetRecording);
    QObject::connect(executer(), &E::recordingReceived, this, &I::onRecordingReceived);
    QObject::connect(executer(), &E::error, this, &I::displayErrorDialog);

    // Subscribed before the service is registered: the robot looks the
    // module up when it delivers.
    try {
        if (!m_session)
            throw std::runtime_error("no wz::Session object provided");
        wz::Object object = m_session->service(serviceName(ServiceId::Memory), "")
                                .value(wz::FutureTimeout_Infinite);
        VX::VXMemoryProxy memory(
            boost::make_shared<VX::VXProxy>(object, serviceName(ServiceId::Memory)));
        memory.subscribeToMicroEvent(E::storePositionKey, objectName().toUtf8().toStdString(), "",
                                     "dataChanged");
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, "con.recorderE", __FUNCTION__) << e.what();
    }
}

VXSartelRecorder::~VXSartelRecorder() = default;

void VXSartelRecorder::setTimeExtensionAllowed(bool allowed)
{
    m_timeExtensionAllowed = allowed;
}

void VXSartelRecorder::setTimeStep(double seconds)
{
    m_timeStep = seconds;
}

void VXSartelRecorder::setRecordingMode(Mode mode)
{
    m_mode = mode;
}

void VXSartelRecorder::setJoints(const std::vector<std::string> &joints)
{
    QMutexLocker lock(&m_jointsMutex);
    m_jointsToRecord.clear();
    for (const std::string &joint : joints)
        m_jointsToRecord.insert(QString::fromUtf8(joint.c_str()));
}

bool VXSartelRecorder::startToRecordInteractively(std::vector<std::string> jointsToRecord,
                                                  int nbPoses, Mode mode)
{
    setJoints(jointsToRecord);
    m_interactive = true;
    emit startInteractiveRecording(jointsToRecord, nbPoses, m_timeExtensionAllowed,
                                   static_cast<int>(mode));
    m_recording = true;
    return true;
}

bool VXSartelRecorder::startToRecordPeriodically(std::vector<std::string> jointsToRecord,
                                                 std::vector<std::string> jointsToReplay,
                                                 VX::VXValue replayData, int nbPoses)
{
    setJoints(jointsToRecord);
    // The subscription an earlier interactive recording made stays.
    m_interactive = false;
    emit startPeriodicRecording(jointsToRecord, nbPoses, m_timeExtensionAllowed,
                                static_cast<float>(m_timeStep), jointsToReplay, replayData);
    m_recording = true;
    return true;
}

void VXSartelRecorder::stopRecording()
{
    setJoints({});
    if (m_recording) {
        m_recording = false;
        emit stopAndGetRecording();
    }
}

QSet<QString> VXSartelRecorder::jointsToRecord() const
{
    QMutexLocker lock(&m_jointsMutex);
    return m_jointsToRecord;
}

void VXSartelRecorder::sendReplayedToStep(int stepIndex)
{
    emit sendReplayedToStepRequested(stepIndex);
}

void VXSartelRecorder::motionRecorderStopped()
{
    setJoints({});
    emit recordingStopped();
}

void VXSartelRecorder::dataChanged(const std::string &key, const VX::VXValue &value,
                                   const std::string & /*subscriberIdentifier*/)
{
    try {
        if (key == MethodRecorderExecuter::currentStepKey) {
            emit stepReceived(value.toInt());
            return;
        }
        if (key == MethodRecorderExecuter::recordingKey) {
            if (m_interactive && !value.toBool())
                emit recordingStopped();
            return;
        }
        if (key == MethodRecorderExecuter::storePositionKey)
            emit storePositionRequested();
    } catch (const std::exception &e) {
        // A framework thread must not see it.
        wz::log::LogStream(wz::LogLevel_Warning, "con.recorderE", __FUNCTION__)
            << key << " data not formatted as expected: " << e.what();
    }
}

void VXSartelRecorder::onRecordingReceived(VX::VXValue poses)
{
    emit recordingReceived(poses);
}

void VXSartelRecorder::displayErrorDialog(QString title, QString contents, QString details)
{
    emit displayErrorRequested(title, contents, details, false);
}

} // namespace RK
