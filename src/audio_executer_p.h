#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <memory>

namespace RK {

class Connection;
class EventRelay;

// Blocking calls to "VXAudioDevice" and "VXTextToSpeech" for AudioInterface,
// on its own thread.
class AudioExecuter : public QObject
{
    Q_OBJECT

public:
    static const QString a_audioChangedKey;

    explicit AudioExecuter(boost::shared_ptr<Connection> connection);
    ~AudioExecuter() override;
    bool hasMute() const { return m_hasMute; }

public slots:
    void onSetOutputVolume(int outputVolume, bool muted);
    void onGetOutputVolume();
    void getCurrentLanguageRequested();
    void getAvailableLanguagesRequested();
    void onDataChanged(QString name, VX::VXValue val) const;

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void updateOutputVolumeRequested(int outputVolume, bool mute);
    void getCurrentLanguageResult(QString currentLanguage);
    void getAvailableLanguagesResult(QStringList availableLanguages);
    void audioChanged(VX::VXValue val) const;
    void error(QString title, QString contents, QString details);

private:
    boost::weak_ptr<Connection> m_connection;
    std::shared_ptr<EventRelay> m_events;
    // Whether the robot's audio device knows the mute methods; probed once.
    bool m_hasMute = false;
};

} // namespace RK
