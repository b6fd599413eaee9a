#include "perception_format.h"

#include <connection/world_representation_interface.h>

#include <QSet>

namespace console {

using namespace perception;

namespace {

QString displayLabel(const QMap<QString, VX::VXValue> &fields)
{
    if (fields.isEmpty())
        return QStringLiteral("-");
    if (fields.contains(QStringLiteral("label")) && fields["label"].isString())
        return QString::fromStdString(fields["label"].toStdString());
    QStringList parts;
    for (auto it = fields.begin(); it != fields.end(); ++it)
        parts << it.key() + "=" + valueText(it.value());
    return parts.join(QStringLiteral(", "));
}

} // namespace

// The objects the robot knows, then what changes, until --for or Ctrl-C.
int worldCommand(Console &console, const QStringList &arguments)
{
    FollowOptions options;
    if (!parseFollow("world", arguments, true, options, console.err()))
        return ExitUsage;
    const boost::shared_ptr<RK::WorldRepresentationInterface> world
        = console.manager().worldRepresentationInterface();
    if (!world)
        return missingService(console, "world representation", "VXWorldRepresentation");
    QTextStream &out = console.out();

    QStringList known;
    bool first = true;
    QObject receiver;
    QObject::connect(world.get(), &RK::WorldRepresentationInterface::objectsUpdated, &receiver,
                     [&](const QStringList &objects) {
                         if (first) {
                             first = false;
                             known = objects;
                             return;
                         }
                         for (const QString &name : objects) {
                             if (!known.contains(name))
                                 out << "added     " << name << Qt::endl;
                         }
                         for (const QString &name : known) {
                             if (!objects.contains(name))
                                 out << "removed   " << name << Qt::endl;
                         }
                         known = objects;
                     });
    world->startObjectPolling(unsigned(options.periodMs));
    if (!console.waitUntil([&first] { return !first; }, 10000)) {
        console.err() << "error: no object list from the robot" << Qt::endl;
        return ExitCommandFailed;
    }

    // Answers are awaited with the loop running, and polls may change `known`
    // meanwhile: the table is of the first list.
    const QStringList listed = known;
    const QString root = await(console, world->rootName());
    out << "World \"" << root << "\": " << listed.size() << " object(s), polled every "
        << options.periodMs << " ms" << Qt::endl;
    out << QStringLiteral("%1 %2 %3 %4 %5")
               .arg("Object", -12)
               .arg("Category", -11)
               .arg("Parent", -10)
               .arg("Position", -26)
               .arg("Display")
        << Qt::endl;
    for (const QString &name : listed) {
        const QString category = await(console, world->objectCategory(name));
        const auto position = await(console, world->objectPosition(name));
        const auto display = await(console, world->objectDisplayAttributes(name));
        out << QStringLiteral("%1 %2 %3 %4 %5")
                   .arg(name, -12)
                   .arg(category, -11)
                   .arg(position.first, -10)
                   .arg(positionText(position.second.P), -26)
                   .arg(displayLabel(display))
            << Qt::endl;
    }
    const QStringList displayed = await(console, world->objectsDisplayed());
    out << "Displayed: " << (displayed.isEmpty() ? QStringLiteral("none") : displayed.join(", "))
        << Qt::endl;

    QObject::connect(world.get(), &RK::WorldRepresentationInterface::positionChanged, &receiver,
                     [&](const QString &name, const VX::Math::Displacement &d) {
                         out << "moved     " << name << " to " << positionText(d.P) << Qt::endl;
                     });
    QObject::connect(world.get(), &RK::WorldRepresentationInterface::objectsDisplayedChanged,
                     &receiver, [&](const QStringList &names) {
                         out << "displayed " << (names.isEmpty() ? "none" : names.join(", "))
                             << Qt::endl;
                     });
    QObject::connect(world.get(), &RK::WorldRepresentationInterface::attributeChanged, &receiver,
                     [&](const QString &name, const QString &attribute, const VX::VXValue &v) {
                         out << "attribute " << name << " " << attribute << " " << valueText(v)
                             << Qt::endl;
                     });
    out << (options.forSeconds > 0 ? QStringLiteral("Changes for %1 s:").arg(options.forSeconds)
                                   : QStringLiteral("Changes (Ctrl-C to stop):"))
        << Qt::endl;
    if (follow(console, options.forSeconds))
        return ExitNoConnection;
    world->stopObjectPolling();
    out << "Done." << Qt::endl;
    return ExitOk;
}

} // namespace console
