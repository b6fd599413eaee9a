#include "method_recorder_executer_p.h"

#include <connection/connection.h>
#include <connection/recorder_module.h>

#include <vx/vxproxies.h>
#include <wz/log.h>

namespace RK {

const char *const MethodRecorderExecuter::recordingKey = "VXMotionRecorder/Recording";
const char *const MethodRecorderExecuter::storePositionKey
    = "VXMotionRecorder/StorePositionRequested";
const char *const MethodRecorderExecuter::currentStepKey = "VXMotionRecorder/CurrentFrame";

MethodRecorderExecuter::MethodRecorderExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

MethodRecorderExecuter::~MethodRecorderExecuter() = default;

void MethodRecorderExecuter::subscribeToMicroEvent(const char *name)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VXSartelRecorder> recorder = connection->recorderModule();
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!recorder || !memory)
        return;
    try {
        memory->subscribeToMicroEvent(name, recorder->objectName().toUtf8().toStdString(), "",
                                      "dataChanged");
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, "con.recorderE", __FUNCTION__)
            << "VXMemory::subscribeToMicroEvent on " << name << " call failed : " << e.what();
    }
}

void MethodRecorderExecuter::onStartInteractiveRecording(std::vector<std::string> jointsToRecord,
                                                         int nbPoses, bool extensionAllowed,
                                                         int mode)
{
    subscribeToMicroEvent(currentStepKey);
    subscribeToMicroEvent(recordingKey);
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXProxy> recorder
        = connection ? connection->motionRecorder() : nullptr;
    if (!recorder)
        return;
    try {
        recorder->pCall("startInteractiveRecording", jointsToRecord, nbPoses, extensionAllowed,
                        mode);
    } catch (const std::exception &) {
        // The application waits for events that will not come.
    }
}

void MethodRecorderExecuter::onStartPeriodicRecording(std::vector<std::string> jointsToRecord,
                                                      int nbPoses, bool extensionAllowed,
                                                      float timeStep,
                                                      std::vector<std::string> jointsToReplay,
                                                      VX::VXValue replayData)
{
    // Only the step: a periodic recording ends by motionRecorderStopped.
    subscribeToMicroEvent(currentStepKey);
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXProxy> recorder
        = connection ? connection->motionRecorder() : nullptr;
    if (!recorder)
        return;
    try {
        recorder->pCall("startPeriodicRecording", jointsToRecord, nbPoses, extensionAllowed,
                        timeStep, jointsToReplay, replayData);
    } catch (const std::exception &) {
        // The application waits for events that will not come.
    }
}

void MethodRecorderExecuter::onStopAndGetRecording()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXProxy> recorder
        = connection ? connection->motionRecorder() : nullptr;
    if (!recorder)
        return;
    try {
        emit recordingReceived(recorder->call<VX::VXValue>("stopAndGetRecording"));
    } catch (const std::exception &) { }
}

void MethodRecorderExecuter::onCallFailed(QString proxy, QString method, VX::VXValue param,
                                          QString error)
{
    emit this->error(
        tr("Call Failed"), tr("Connection to MotionRecorder module seems not to be working"),
        tr("Tried to call:\n%1::%2(%3)\n\nError:\n%4")
            .arg(proxy, method, QString::fromLatin1(param.toString(1).c_str()), error));
}

} // namespace RK
