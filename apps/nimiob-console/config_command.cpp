#include "commands.h"
#include "console.h"
#include "device_support.h"

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
} // namespace

// The robot's model configuration, its configuration file, or the resource
// preferences with the current owners.
int configCommand(Console &console, const QStringList &arguments)
{
    if (arguments.size() > 1
        || (arguments.size() == 1 && arguments.first() != QLatin1String("--file")
            && arguments.first() != QLatin1String("--resources"))) {
        console.err() << "error: config takes --file or --resources, or nothing" << Qt::endl;
        return ExitUsage;
    }
    const QString mode = arguments.isEmpty() ? QString() : arguments.first();
    QTextStream &out = console.out();
    QObject receiver;
    if (mode == QLatin1String("--resources")) {
        const auto resources = console.manager().resourcesInterface();
        if (!resources)
            return ExitCommandFailed;
        bool got = false;
        QObject::connect(resources.get(), &RK::ResourcesInterface::resourcesReceived, &receiver,
                         [&](const VX::VXValue &v) {
                             printLines(out, "Preferences",
                                        QString::fromUtf8(v.toString(1).c_str()));
                             got = true;
                         });
        resources->getResources();
        drainExecuter(console, resources->executerObject(), 10000);
        if (!got)
            out << "Preferences     none (the robot could not read \"vxresourcemanager\")"
                << Qt::endl;
        const VX::VXValue owners = resources->getOwners().result();
        printLines(out, "Owners",
                   owners.isValid() ? QString::fromUtf8(owners.toString(1).c_str())
                                    : QStringLiteral("unknown"));
        return got ? ExitOk : ExitCommandFailed;
    }

    const auto config = console.manager().configInterface();
    if (!config)
        return ExitCommandFailed;
    bool got = false;
    const auto show = [&](const QString &text) {
        printLines(out, mode.isEmpty() ? "Configuration" : "Config file", text);
        got = true;
    };
    QObject::connect(config.get(), &RK::ConfigInterface::configReceived, &receiver, show);
    QObject::connect(config.get(), &RK::ConfigInterface::configFileReceived, &receiver, show);
    if (mode.isEmpty())
        config->getConfig();
    else
        config->getConfigFile();
    drainExecuter(console, config->executerObject(), 10000);
    if (!got) {
        console.err() << "error: no configuration came back" << Qt::endl;
        return ExitCommandFailed;
    }
    return ExitOk;
}

} // namespace console
