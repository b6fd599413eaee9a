#include "kit.h"

#include <connection/config_interface.h>
#include <connection/resources_interface.h>

namespace console {

namespace {

void printLines(QTextStream &out, const char *label, const QString &text)
{
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        if (i == lines.size() - 1 && lines.at(i).isEmpty())
            break;
        out << QString::fromLatin1(i == 0 ? label : "").leftJustified(16) << lines.at(i)
            << Qt::endl;
    }
}

int resources(Console &console)
{
    if (const int status = need(console, {"VXPreferences", "VXResourceManager"}, "config"))
        return status;
    const auto resources = console.manager().resourcesInterface();
    if (!resources)
        return missing(console, "VXPreferences", "config");
    Waiter waiter(console);
    waiter.observe(resources->executerObject(), QStringLiteral("VXPreferences"));
    QObject receiver;
    QString preferences;
    bool got = false;
    QObject::connect(resources.get(), &RK::ResourcesInterface::resourcesReceived, &receiver,
                     [&](const VX::VXValue &v) {
                         preferences = QString::fromUtf8(v.toString(1).c_str());
                         got = true;
                     });
    resources->getResources();
    Outcome outcome
        = waiter.drain(resources->executerObject(), resources.get(), console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the resource preferences"));
    // The library only logs a failed read: no answer is the failure.
    if (!got) {
        console.err() << "error: the robot could not read its preferences \"vxresourcemanager\""
                      << Qt::endl;
        return ExitCommandFailed;
    }
    const QFuture<VX::VXValue> owners = resources->getOwners();
    outcome = waiter.await(owners, console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the resource owners"));
    const VX::VXValue value = owners.result();
    const QString ownersText
        = value.isValid() ? QString::fromUtf8(value.toString(1).c_str()) : QString();
    if (console.json()) {
        printJson(
            console,
            {{QStringLiteral("preferences"), preferences},
             {QStringLiteral("owners"), value.isValid() ? QJsonValue(ownersText) : QJsonValue()}});
        return ExitOk;
    }
    printLines(console.out(), "Preferences", preferences);
    printLines(console.out(), "Owners", value.isValid() ? ownersText : QStringLiteral("unknown"));
    return ExitOk;
}

} // namespace

// The robot's model configuration, its configuration file, or the resource
// preferences with the current owners.
int configCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "config", arguments);
    const bool file = args.flag("file");
    const bool resourcesWanted = args.flag("resources");
    if (file && resourcesWanted)
        args.fail(QStringLiteral("config takes --file or --resources, not both"));
    if (const int status = args.finish())
        return status;
    if (resourcesWanted)
        return resources(console);

    if (const int status = need(console, {"VXRobotModel"}, "config"))
        return status;
    const auto config = console.manager().configInterface();
    if (!config)
        return missing(console, "VXRobotModel", "config");
    Waiter waiter(console);
    waiter.observe(config->executerObject(), QStringLiteral("VXRobotModel"));
    QObject receiver;
    QString text;
    bool got = false;
    const auto take = [&](const QString &received) {
        text = received;
        got = true;
    };
    QObject::connect(config.get(), &RK::ConfigInterface::configReceived, &receiver, take);
    QObject::connect(config.get(), &RK::ConfigInterface::configFileReceived, &receiver, take);
    if (file)
        config->getConfigFile();
    else
        config->getConfig();
    const Outcome outcome
        = waiter.drain(config->executerObject(), config.get(), console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the configuration"));
    // A failed read comes back as nothing, or as an empty file.
    if (!got || text.isEmpty()) {
        console.err() << "error: the robot sent no configuration" << (file ? " file" : "")
                      << " (VXRobotModel failed to read it)" << Qt::endl;
        return ExitCommandFailed;
    }
    if (console.json())
        printJson(console,
                  {{file ? QStringLiteral("file") : QStringLiteral("configuration"), text}});
    else
        printLines(console.out(), file ? "Config file" : "Configuration", text);
    return ExitOk;
}

} // namespace console
