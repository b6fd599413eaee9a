#include "kit.h"

#include <connection/audio_interface.h>

namespace console {

// Volume, mute and speech languages; with VOLUME, --mute or --unmute, sets
// them first.
int audioCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "audio", arguments);
    int mute = -1; // -1 unchanged, 0 unmute, 1 mute
    if (args.flag("mute"))
        mute = 1;
    if (args.flag("unmute"))
        mute = mute == 1 ? -2 : 0;
    if (mute == -2)
        args.fail(QStringLiteral("--mute and --unmute exclude each other"));
    int volume = -1;
    const QStringList words = args.positional();
    if (words.size() > 1)
        args.fail(QStringLiteral("audio takes one volume"));
    if (words.size() == 1) {
        bool ok = false;
        volume = words.first().toInt(&ok);
        if (!ok || volume < 0 || volume > 100)
            args.fail(QStringLiteral("the volume is a whole number from 0 to 100, not \"%1\"")
                          .arg(words.first()));
    }
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXAudioDevice", "VXTextToSpeech"}, "audio"))
        return status;
    const auto audio = console.manager().audioInterface();
    if (!audio)
        return missing(console, "VXAudioDevice", "audio");
    Waiter waiter(console);
    waiter.observe(audio->executerObject(), QStringLiteral("VXAudioDevice"));
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

    const int answerMs = console.options().answerMs;
    audio->getOutputVolume();
    Outcome outcome = waiter.drain(audio->executerObject(), audio.get(), answerMs);
    if (outcome == Outcome::Done && currentVolume < 0) {
        console.err() << "error: VXAudioDevice gave no volume" << Qt::endl;
        return ExitCommandFailed;
    }
    if (outcome == Outcome::Done && (volume >= 0 || mute >= 0)) {
        audio->setOutputVolume(volume >= 0 ? volume : currentVolume, mute >= 0 ? mute == 1 : muted);
        audio->getOutputVolume();
    }
    if (outcome == Outcome::Done) {
        audio->getCurrentLanguage();
        audio->getAvailableLanguages();
        outcome = waiter.drain(audio->executerObject(), audio.get(), answerMs);
    }
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the robot's audio settings"));
    if (volume >= 0 && currentVolume != volume) {
        console.err() << "error: the volume is " << currentVolume << " after setting " << volume
                      << Qt::endl;
        return ExitCommandFailed;
    }
    if (console.json()) {
        printJson(console,
                  {{QStringLiteral("volume"), currentVolume},
                   {QStringLiteral("muted"), muted},
                   {QStringLiteral("language"), language},
                   {QStringLiteral("languages"), jsonList(languages)}});
        return ExitOk;
    }
    QTextStream &out = console.out();
    out << "Volume          " << currentVolume << (muted ? " (muted)" : "") << Qt::endl;
    out << "Language        " << (language.isEmpty() ? QStringLiteral("unknown") : language)
        << Qt::endl;
    out << "Languages       "
        << (languages.isEmpty() ? QStringLiteral("none") : languages.join(QStringLiteral(", ")))
        << Qt::endl;
    return ExitOk;
}

} // namespace console
