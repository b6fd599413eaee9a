#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vx/vxvalue.h>

#include <memory>
#include <string>
#include <vector>

namespace RK {

class Connection;
class PostedCallWatch;

// The calls of VXSartelRecorder to "VXMotionRecorder", on its ExecuterThread.
class MethodRecorderExecuter : public QObject
{
    Q_OBJECT

public:
    static const char *const recordingKey;
    static const char *const storePositionKey;
    static const char *const currentStepKey;

    explicit MethodRecorderExecuter(boost::shared_ptr<Connection> connection);
    ~MethodRecorderExecuter() override;

    // Kept for a remote call that reports its failure; nothing calls it now.
    void onCallFailed(QString proxy, QString method, VX::VXValue param, QString error);

public slots:
    void onStartPeriodicRecording(std::vector<std::string> jointsToRecord, int nbPoses,
                                  bool extensionAllowed, float timeStep,
                                  std::vector<std::string> jointsToReplay, VX::VXValue replayData);
    void onStartInteractiveRecording(std::vector<std::string> jointsToRecord, int nbPoses,
                                     bool extensionAllowed, int mode);
    void onStopAndGetRecording();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void recordingReceived(VX::VXValue poses);
    void error(QString title, QString contents, QString details);

private:
    void subscribeToMicroEvent(Connection &connection, const char *name);
    template<typename... Args>
    void startRecording(const char *operation, bool interactive, const char *method,
                        const Args &...args);

    boost::weak_ptr<Connection> m_connection;
    std::unique_ptr<PostedCallWatch> m_posted;
};

} // namespace RK
