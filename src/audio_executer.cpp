#include "audio_executer_p.h"
#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include "service_table_p.h"

#include "connection_p.h"
#include <connection/audio_interface.h>
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <wz/log.h>

#include <string>
#include <vector>

namespace RK {

const QString AudioExecuter::a_audioChangedKey = QStringLiteral("AudioOutputChanged");

AudioExecuter::AudioExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> audio = connection->audioDevice()) {
        try {
            audio->call<bool>("isAudioOutMuted");
            m_hasMute = true;
        } catch (const std::exception &) {
            // An older audio device without mute: the flag stays false.
        }
    }
    if (const boost::shared_ptr<SartelModuleInterface> module
        = connection->sartelModuleInterface()) {
        try {
            m_events = relayModuleEvents(*module, this, {a_audioChangedKey},
                                         [this](const QString &name, const VX::VXValue &value) {
                                             onDataChanged(name, value);
                                         });
            emit module->subscribeToMicroEventRequested(a_audioChangedKey);
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Error, "con.audioE", __FUNCTION__)
                << "Could not subscribe to " << a_audioChangedKey.toStdString()
                << " event, reason: " << e.what();
        }
    }
}

AudioExecuter::~AudioExecuter()
{
    if (m_events)
        m_events->detach();
}

void AudioExecuter::onSetOutputVolume(int outputVolume, bool muted)
{
    executerCall(this, m_connection, "setOutputVolume")
        .signal(QString::fromLatin1(serviceName(ServiceId::AudioDevice)), tr("Failed to call"))
        .run(&Connection::audioDevice, [&](VX::VXProxy &audio) {
            audio.call<void>("setOutputVolume", outputVolume);
            if (m_hasMute)
                audio.call<void>("muteAudioOut", muted);
        });
}

void AudioExecuter::onGetOutputVolume()
{
    executerCall(this, m_connection, "getOutputVolume")
        .signal(QString::fromLatin1(serviceName(ServiceId::AudioDevice)), tr("Failed to call"))
        .run(&Connection::audioDevice, [&](VX::VXProxy &audio) {
            const int volume = audio.call<int>("getOutputVolume");
            const bool muted = m_hasMute && audio.call<bool>("isAudioOutMuted");
            emit updateOutputVolumeRequested(volume, muted);
        });
}

void AudioExecuter::getCurrentLanguageRequested()
{
    executerCall(this, m_connection, "getCurrentLanguage")
        .signal(QStringLiteral("TextToSpeech"), tr("Failed to call"))
        .run(&Connection::textToSpeech, [&](VX::VXProxy &speech) {
            emit getCurrentLanguageResult(
                QString::fromUtf8(speech.call<std::string>("getLanguage").c_str()));
        });
}

void AudioExecuter::getAvailableLanguagesRequested()
{
    executerCall(this, m_connection, "getAvailableLanguages")
        .signal(QStringLiteral("TextToSpeech"), tr("Failed to call"))
        .run(&Connection::textToSpeech, [&](VX::VXProxy &speech) {
            QStringList languages;
            for (const std::string &l :
                 speech.call<std::vector<std::string>>("getAvailableLanguages"))
                languages << QString::fromUtf8(l.c_str());
            emit getAvailableLanguagesResult(languages);
        });
}

void AudioExecuter::onDataChanged(QString name, VX::VXValue val) const
{
    if (name == a_audioChangedKey)
        emit audioChanged(val);
}

} // namespace RK
