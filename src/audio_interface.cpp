#include "audio_executer_p.h"
#include "morvane_interface_p.h"

#include <connection/audio_interface.h>

namespace RK {

// Every member of the frame, for tests and diagnostics that reach them.
template class MorvaneInterface<AudioExecuter, ExecuterThread>;

AudioInterface::AudioInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("AudioInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    request(this, &AudioInterface::setOutputVolumeRequested, &AudioExecuter::onSetOutputVolume);
    request(this, &AudioInterface::getOutputVolumeRequested, &AudioExecuter::onGetOutputVolume);
    request(this, &AudioInterface::getCurrentLanguageRequested,
            &AudioExecuter::getCurrentLanguageRequested);
    request(this, &AudioInterface::getAvailableLanguagesRequested,
            &AudioExecuter::getAvailableLanguagesRequested);
    forward(&AudioExecuter::updateOutputVolumeRequested, this,
            &AudioInterface::updateOutputVolumeRequested);
    forward(&AudioExecuter::getCurrentLanguageResult, this,
            &AudioInterface::getCurrentLanguageResult);
    forward(&AudioExecuter::getAvailableLanguagesResult, this,
            &AudioInterface::getAvailableLanguagesResult);
    forward(&AudioExecuter::audioChanged, this, &AudioInterface::audioChanged);
}

AudioInterface::~AudioInterface() = default;

void AudioInterface::setOutputVolume(int outputVolume, bool muted)
{
    emit setOutputVolumeRequested(outputVolume, muted);
}

void AudioInterface::getOutputVolume()
{
    emit getOutputVolumeRequested();
}

void AudioInterface::getCurrentLanguage()
{
    emit getCurrentLanguageRequested();
}

void AudioInterface::getAvailableLanguages()
{
    emit getAvailableLanguagesRequested();
}

} // namespace RK
