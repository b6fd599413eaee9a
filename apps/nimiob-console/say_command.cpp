#include "kit.h"

#include <connection/animated_speech_interface.h>

#include <QElapsedTimer>

namespace console {

// Has the robot say a text, plainly or as a narration with gestures, and
// waits until it has finished.
int sayCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "say", arguments);
    const bool animated = args.flag("animated");
    const QString text = args.positional().join(QLatin1Char(' '));
    if (text.trimmed().isEmpty())
        args.fail(QStringLiteral("say wants a text"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXTextToSpeech"}, "say"))
        return status;
    const auto speech = console.manager().animatedSpeechInterface();
    if (!speech)
        return missing(console, animated ? "VXAnimatedSpeech" : "VXTextToSpeech", "say");
    Waiter waiter(console);
    waiter.observe(speech->executerObject(), QStringLiteral("VXTextToSpeech"));
    if (animated) {
        const QFuture<QStringList> tags = speech->getTagList();
        const Outcome outcome = waiter.await(tags, console.options().answerMs);
        if (outcome != Outcome::Done)
            return waiter.fail(outcome, QStringLiteral("the gesture tags"));
        if (!tags.result().isEmpty())
            console.out() << "Tags            " << tags.result().join(QStringLiteral(", "))
                          << Qt::endl;
        speech->interpretText(text);
    } else {
        speech->startTest(text);
    }
    console.out() << (animated ? "Narrating       " : "Saying          ") << text << Qt::endl;
    QElapsedTimer elapsed;
    elapsed.start();
    // Speaking holds the executer until the robot has finished.
    const Outcome outcome = waiter.drain(speech->executerObject(), speech.get(), -1);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the end of the speech"));
    console.out() << "Done in         " << QString::number(elapsed.elapsed() / 1000.0, 'f', 2)
                  << " s" << Qt::endl;
    return ExitOk;
}

} // namespace console
