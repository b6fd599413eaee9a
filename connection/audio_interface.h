#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class AudioExecuter;

// The robot's output volume and mute, and the speech language. Requests are
// queued to the executer's thread; answers come back as signals. Failures
// come out as errorOccurred(), and also as the executer's error(title,
// contents, details).
class NIMIOB_EXPORT AudioInterface : public QObject,
                                     public MorvaneInterface<AudioExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit AudioInterface(boost::shared_ptr<Connection> connection);
    ~AudioInterface() override;

    // Nothing comes back on success: ask getOutputVolume() for the new value.
    // On a robot without mute the flag is ignored.
    void setOutputVolume(int outputVolume, bool muted);
    void getOutputVolume();
    void getCurrentLanguage();
    void getAvailableLanguages();

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void setOutputVolumeRequested(int outputVolume, bool muted);
    void getOutputVolumeRequested();
    void getCurrentLanguageRequested();
    void getAvailableLanguagesRequested();

    void updateOutputVolumeRequested(int outputVolume, bool mute);
    void getCurrentLanguageResult(QString currentLanguage);
    void getAvailableLanguagesResult(QStringList availableLanguages);
    // The value of each "AudioOutputChanged" event, as the robot sent it.
    void audioChanged(VX::VXValue val);
};

} // namespace RK
