#include "kit.h"

#include <connection/dialog_interface.h>

namespace console {

// Hands a sentence to the robot's dialog engine and prints its reply.
int tellCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "tell", arguments);
    const QString sentence = args.positional().join(QLatin1Char(' '));
    if (sentence.trimmed().isEmpty())
        args.fail(QStringLiteral("tell wants a sentence"));
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXDialog"}, "tell"))
        return status;
    const auto dialog = console.manager().dialogInterface();
    if (!dialog)
        return missing(console, "VXDialog", "tell");
    Waiter waiter(console);
    waiter.observe(dialog->executerObject(), QStringLiteral("VXDialog"));
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
    const Outcome outcome = waiter.wait([&] { return answered; }, 30000);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the robot's reply"));
    // A reply and a failure come the same way; the platform's text of a
    // lost connection is the one told apart.
    if (Waiter::tellsOfLoss(reply))
        return waiter.fail(Outcome::Lost, QStringLiteral("the robot's reply"));
    console.out() << "Robot           " << reply << Qt::endl;
    return ExitOk;
}

} // namespace console
