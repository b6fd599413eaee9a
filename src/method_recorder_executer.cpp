#include "executer_call_p.h"
#include "method_recorder_executer_p.h"

#include "connection_p.h"
#include <connection/recorder_module.h>

#include <vx/vxproxies.h>
#include <vx/vxproxy.h>
#include <wz/log.h>

namespace RK {

const char *const MethodRecorderExecuter::recordingKey = "VXMotionRecorder/Recording";
const char *const MethodRecorderExecuter::storePositionKey
    = "VXMotionRecorder/StorePositionRequested";
const char *const MethodRecorderExecuter::currentStepKey = "VXMotionRecorder/CurrentFrame";

MethodRecorderExecuter::MethodRecorderExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr),
      m_connection(connection),
      m_posted(
          std::make_unique<PostedCallWatch>([this](const OperationError &failure, bool withSignal) {
              if (withSignal)
                  emit error(failure.title, failure.contents, failure.details);
              emit errorOccurred(failure);
          }))
{ }

MethodRecorderExecuter::~MethodRecorderExecuter() = default;

// The recorder's events come to the desktop's recorder module: without them
// the application would wait for a recording that never reports, so a
// failure here fails the start.
void MethodRecorderExecuter::subscribeToMicroEvent(Connection &connection, const char *name)
{
    const boost::shared_ptr<VXSartelRecorder> recorder = connection.recorderModule();
    if (!recorder)
        throw CallFailure(ErrorCode::ConnectionLost, "the recorder module has gone");
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection.memory();
    if (!memory)
        throw CallFailure(ErrorCode::ServiceMissing, "the robot has no VXMemory");
    memory->subscribeToMicroEvent(name, recorder->objectName().toUtf8().toStdString(), "",
                                  "dataChanged");
}

template<typename... Args>
void MethodRecorderExecuter::startRecording(const char *operation, bool interactive,
                                            const char *method, const Args &...args)
{
    auto call = executerCall(this, m_connection, operation);
    call.log("con.recorderE").signal(tr("Call Failed"), tr("Failed to call %1").arg(method));
    call.run(&Connection::motionRecorder, [&](VX::VXProxy &recorder, Connection &connection) {
        subscribeToMicroEvent(connection, currentStepKey);
        // A periodic recording ends by motionRecorderStopped instead.
        if (interactive)
            subscribeToMicroEvent(connection, recordingKey);
        m_posted->post(recorder, operation, call.report(), method, {wz::toAny(args)...});
    });
}

void MethodRecorderExecuter::onStartInteractiveRecording(std::vector<std::string> jointsToRecord,
                                                         int nbPoses, bool extensionAllowed,
                                                         int mode)
{
    startRecording("startToRecordInteractively", true, "startInteractiveRecording", jointsToRecord,
                   nbPoses, extensionAllowed, mode);
}

void MethodRecorderExecuter::onStartPeriodicRecording(std::vector<std::string> jointsToRecord,
                                                      int nbPoses, bool extensionAllowed,
                                                      float timeStep,
                                                      std::vector<std::string> jointsToReplay,
                                                      VX::VXValue replayData)
{
    startRecording("startToRecordPeriodically", false, "startPeriodicRecording", jointsToRecord,
                   nbPoses, extensionAllowed, timeStep, jointsToReplay, replayData);
}

void MethodRecorderExecuter::onStopAndGetRecording()
{
    executerCall(this, m_connection, "stopRecording")
        .log("con.recorderE")
        .signal(tr("Call Failed"),
                tr("Failed to call %1").arg(QStringLiteral("stopAndGetRecording")))
        .run(&Connection::motionRecorder, [this](VX::VXProxy &recorder) {
            emit recordingReceived(recorder.call<VX::VXValue>("stopAndGetRecording"));
        });
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
