#include "commands.h"
#include "console.h"

#include <connection/sartel_module.h>

#include <QCoreApplication>
#include <QMetaObject>
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
    QStringList words;
    bool checkEnable = false;
    for (const QString &arg : arguments) {
        if (arg == QLatin1String("--check"))
            checkEnable = true;
        else
            words << arg;
    }
    if (words.size() < 2) {
        console.err() << "error: call wants MODULE METHOD [VALUE...]" << Qt::endl;
        return ExitUsage;
    }
    if (words.size() > 8) {
        console.err() << "error: a call by name carries at most 6 values" << Qt::endl;
        return ExitUsage;
    }
    const QString moduleName = words.at(0);
    const QString method = words.at(1);
    std::vector<VX::VXValue> values;
    for (int i = 2; i < words.size(); ++i)
        values.push_back(parseValue(words.at(i)));

    RK::ConnectionManager &manager = console.manager();
    const boost::shared_ptr<RK::SartelModuleInterface> module = manager.sartelModuleInterface();
    if (!module) {
        console.err() << "error: the connection has no desktop module" << Qt::endl;
        return ExitCommandFailed;
    }
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
    // and its dialog is on the way here once the module's thread has passed
    // it on.
    QMetaObject::invokeMethod(
        module->executerObject(), [] {}, Qt::BlockingQueuedConnection);
    QMetaObject::invokeMethod(
        module.get(), [] {}, Qt::BlockingQueuedConnection);
    QCoreApplication::processEvents();

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
