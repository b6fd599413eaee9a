#pragma once

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
// come out of the executer's error(QString title, QString contents, QString
// details), which this interface does not forward: connect to
// executerObject() for them.
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
