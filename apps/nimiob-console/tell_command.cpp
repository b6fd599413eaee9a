#include "commands.h"
#include "console.h"

#include <connection/dialog_interface.h>

namespace console {

// Hands a sentence to the robot's dialog engine and prints its reply.
int tellCommand(Console &console, const QStringList &arguments)
{
    const QString sentence = arguments.join(QLatin1Char(' '));
    if (sentence.trimmed().isEmpty()) {
        console.err() << "error: tell wants a sentence" << Qt::endl;
        return ExitUsage;
    }
    const auto dialog = console.manager().dialogInterface();
    if (!dialog) {
        console.err() << "error: the robot has no VXDialog" << Qt::endl;
        return ExitCommandFailed;
    }
    bool answered = false;
    QString reply;
    QObject receiver;
    QObject::connect(dialog.get(), &RK::DialogInterface::tellFinished, &receiver,
                     [&](const QString &text) {
                         reply = text;
                         answered = true;
                     });
    console.out() << "You             " << sentence << Qt::endl;
    dialog->tell(sentence);
    if (!console.waitUntil([&] { return answered; }, 30000)) {
        console.err() << "error: no answer within 30 s" << Qt::endl;
        return ExitCommandFailed;
    }
    // A reply and a failure come the same way; only the text tells them apart.
    console.out() << "Robot           " << reply << Qt::endl;
    return ExitOk;
}

} // namespace console
