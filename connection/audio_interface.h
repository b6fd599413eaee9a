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

/// The robot's output volume and mute, and the speech language. Requests are
/// queued to the executer's thread; answers come back as signals. Failures
/// come out as errorOccurred(), and also as the executer's error(title,
/// contents, details).
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::audioInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT AudioInterface : public QObject,
                                     public MorvaneInterface<AudioExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::audioInterface().
    explicit AudioInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~AudioInterface() override;

    /// Nothing comes back on success: ask getOutputVolume() for the new value.
    /// On a robot without mute the flag is ignored.
    void setOutputVolume(int outputVolume, bool muted);
    /// Asks for the volume; updateOutputVolumeRequested() answers.
    void getOutputVolume();
    /// Asks for text to speech's language; getCurrentLanguageResult() answers.
    void getCurrentLanguage();
    /// Asks for the languages text to speech knows;
    /// getAvailableLanguagesResult() answers.
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
    /// Carries setOutputVolume() to the executer's thread.
    void setOutputVolumeRequested(int outputVolume, bool muted);
    /// Carries getOutputVolume() to the executer's thread.
    void getOutputVolumeRequested();
    /// Carries getCurrentLanguage() to the executer's thread.
    void getCurrentLanguageRequested();
    /// Carries getAvailableLanguages() to the executer's thread.
    void getAvailableLanguagesRequested();

    /// The output volume, 0 to 100 percent, and whether the output is muted
    /// (always false on a robot without mute).
    void updateOutputVolumeRequested(int outputVolume, bool mute);
    /// Text to speech's language, by the robot's name for it ("English", ...).
    void getCurrentLanguageResult(QString currentLanguage);
    /// The languages text to speech knows, by the robot's names for them.
    void getAvailableLanguagesResult(QStringList availableLanguages);
    /// The value of each "AudioOutputChanged" event, as the robot sent it.
    void audioChanged(VX::VXValue val);
};

} // namespace RK
