#include "kit.h"

#include <connection/sartel_module.h>

#include "connection_manager_p.h"
#include "connection_p.h"

#include <QObject>

#include <vector>

namespace console {

namespace {

// true and false, whole numbers, numbers with a point or an exponent, and
// text otherwise; "quotes" keep a word as text.
VX::VXValue parseValue(const QString &text)
{
    if (text == QLatin1String("true") || text == QLatin1String("false"))
        return VX::VXValue(text == QLatin1String("true"));
    bool ok = false;
    const int integer = text.toInt(&ok);
    if (ok)
        return VX::VXValue(integer);
    const float number = text.toFloat(&ok);
    if (ok)
        return VX::VXValue(number);
    QString word = text;
    if (word.size() >= 2 && word.startsWith(QLatin1Char('"')) && word.endsWith(QLatin1Char('"')))
        word = word.mid(1, word.size() - 2);
    return VX::VXValue(word.toUtf8().toStdString());
}

} // namespace

// A fire-and-forget call by name through the desktop module. The module's
// own failures (no such module, a box that is disabled) come back as the
// dialog texts; the method's own result or failure is never seen.
int callCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "call", arguments);
    const bool checkEnable = args.flag("check");
    const QStringList words = args.positional();
    if (words.size() < 2)
        args.fail(QStringLiteral("call wants MODULE METHOD [VALUE...]"));
    if (words.size() > 8)
        args.fail(QStringLiteral("a call by name carries at most 6 values"));
    if (const int status = args.finish())
        return status;
    const QString moduleName = words.at(0);
    const QString method = words.at(1);
    std::vector<VX::VXValue> values;
    for (int i = 2; i < words.size(); ++i)
        values.push_back(parseValue(words.at(i)));

    if (const int status = need(console, {}, "call"))
        return status;
    // A service of the library's table that the robot lacks is known at
    // once; any other name is for the robot to judge.
    const boost::shared_ptr<RK::Connection> connection = RK::currentConnection(console.manager());
    if (connection && connection->missingServices().contains(moduleName)) {
        console.err() << "error: the robot offers no " << moduleName << Qt::endl;
        return ExitCommandFailed;
    }
    const boost::shared_ptr<RK::SartelModuleInterface> module
        = console.manager().sartelModuleInterface();
    if (!module)
        return missing(console, "VXSartel", "call");
    Waiter waiter(console);
    waiter.observe(module->executerObject(), moduleName);
    std::vector<Console::Error> dialogs;
    QObject receiver;
    QObject::connect(module.get(), &RK::SartelModuleInterface::displayErrorRequested, &receiver,
                     [&dialogs](const QString &title, const QString &contents,
                                const QString &details, bool check) {
                         dialogs.push_back({title, contents, details, check});
                     });

    // No value: one empty value, as a box input without data is called.
    if (values.empty()) {
        emit module->callProxyRequested(moduleName, method, VX::VXValue(), checkEnable, true);
    } else {
        values.resize(6);
        emit module->callProxyRequested(moduleName, checkEnable, true, method, values[0], values[1],
                                        values[2], values[3], values[4], values[5]);
    }
    // The request has run once the executer's thread gets to the next one,
    // and its dialog is here once the module's thread has passed it on.
    const Outcome outcome
        = waiter.drain(module->executerObject(), module.get(), console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the call to be posted"));

    QStringList shown;
    for (const VX::VXValue &v : values) {
        if (v.isValid())
            shown << QString::fromUtf8(v.toString(1).c_str());
    }
    const QString call = QStringLiteral("%1.%2(%3)").arg(moduleName, method, shown.join(", "));
    if (!dialogs.empty()) {
        for (const Console::Error &dialog : dialogs)
            console.printError(dialog);
        return ExitCommandFailed;
    }
    console.out() << "Posted " << call << Qt::endl;
    return ExitOk;
}

} // namespace console
