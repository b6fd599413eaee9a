#include "commands.h"
#include "console.h"
#include "device_support.h"

#include <connection/audio_interface.h>

namespace console {

// Volume, mute and speech languages; with VOLUME, --mute or --unmute, sets
// them first.
int audioCommand(Console &console, const QStringList &arguments)
{
    int volume = -1;
    int mute = -1; // -1 unchanged, 0 unmute, 1 mute
    for (const QString &arg : arguments) {
        if (arg == QLatin1String("--mute") || arg == QLatin1String("--unmute")) {
            mute = arg == QLatin1String("--mute") ? 1 : 0;
            continue;
        }
        bool ok = false;
        volume = arg.toInt(&ok);
        if (!ok || volume < 0 || volume > 100) {
            console.err() << "error: audio wants a volume from 0 to 100, --mute or --unmute, not "
                          << arg << Qt::endl;
            return ExitUsage;
        }
    }
    const auto audio = console.manager().audioInterface();
    if (!audio) {
        console.err() << "error: the connection has no audio interface" << Qt::endl;
        return ExitCommandFailed;
    }
    ExecuterErrors errors(audio->executerObject());
    QObject receiver;
    int currentVolume = -1;
    bool muted = false;
    QString language;
    QStringList languages;
    QObject::connect(audio.get(), &RK::AudioInterface::updateOutputVolumeRequested, &receiver,
                     [&](int v, bool m) {
                         currentVolume = v;
                         muted = m;
                     });
    QObject::connect(audio.get(), &RK::AudioInterface::getCurrentLanguageResult, &receiver,
                     [&](const QString &l) { language = l; });
    QObject::connect(audio.get(), &RK::AudioInterface::getAvailableLanguagesResult, &receiver,
                     [&](const QStringList &l) { languages = l; });

    audio->getOutputVolume();
    drainExecuter(console, audio->executerObject(), 10000);
    if (volume >= 0 || mute >= 0) {
        if (currentVolume < 0) {
            errors.print(console);
            console.err() << "error: the volume could not be read, so nothing was set" << Qt::endl;
            return ExitCommandFailed;
        }
        audio->setOutputVolume(volume >= 0 ? volume : currentVolume, mute >= 0 ? mute == 1 : muted);
        audio->getOutputVolume();
    }
    audio->getCurrentLanguage();
    audio->getAvailableLanguages();
    drainExecuter(console, audio->executerObject(), 10000);

    QTextStream &out = console.out();
    if (currentVolume >= 0)
        out << "Volume          " << currentVolume << (muted ? " (muted)" : "") << Qt::endl;
    if (!language.isEmpty())
        out << "Language        " << language << Qt::endl;
    if (!languages.isEmpty())
        out << "Languages       " << languages.join(QStringLiteral(", ")) << Qt::endl;
    return errors.print(console) ? ExitCommandFailed : ExitOk;
}

} // namespace console
