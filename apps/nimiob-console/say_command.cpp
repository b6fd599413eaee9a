#include "commands.h"
#include "console.h"
#include "device_support.h"

#include <connection/animated_speech_interface.h>

#include <QElapsedTimer>

namespace console {

// Has the robot say a text, plainly or as a narration with gestures, and
// waits until it has finished.
int sayCommand(Console &console, const QStringList &arguments)
{
    bool animated = false;
    QStringList words;
    for (const QString &arg : arguments) {
        if (arg == QLatin1String("--animated"))
            animated = true;
        else
            words << arg;
    }
    const QString text = words.join(QLatin1Char(' '));
    if (text.trimmed().isEmpty()) {
        console.err() << "error: say wants a text" << Qt::endl;
        return ExitUsage;
    }
    const auto speech = console.manager().animatedSpeechInterface();
    if (!speech) {
        console.err() << "error: the connection has no speech interface" << Qt::endl;
        return ExitCommandFailed;
    }
    ExecuterErrors errors(speech->executerObject());
    if (animated) {
        const QStringList tags = speech->getTagList().result();
        if (!tags.isEmpty())
            console.out() << "Tags            " << tags.join(QStringLiteral(", ")) << Qt::endl;
        speech->interpretText(text);
    } else {
        speech->startTest(text);
    }
    console.out() << (animated ? "Narrating       " : "Saying          ") << text << Qt::endl;
    QElapsedTimer elapsed;
    elapsed.start();
    // Speaking holds the executer until the robot has finished.
    if (!drainExecuter(console, speech->executerObject(), 120000)) {
        console.err() << "error: the robot was still speaking after 120 s" << Qt::endl;
        return ExitCommandFailed;
    }
    if (errors.print(console))
        return ExitCommandFailed;
    console.out() << "Done in         " << QString::number(elapsed.elapsed() / 1000.0, 'f', 2)
                  << " s" << Qt::endl;
    return ExitOk;
}

} // namespace console
