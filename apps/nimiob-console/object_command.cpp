#include "perception_format.h"

#include <connection/world_representation_interface.h>

namespace console {

using namespace perception;

// One object of the robot's world: category, positions and every attribute.
int objectCommand(Console &console, const QStringList &arguments)
{
    if (arguments.size() != 1 || arguments.first().startsWith(QLatin1String("--"))) {
        console.err() << "error: object wants one object name" << Qt::endl;
        return ExitUsage;
    }
    const QString name = arguments.first();
    const boost::shared_ptr<RK::WorldRepresentationInterface> world
        = console.manager().worldRepresentationInterface();
    if (!world)
        return missingService(console, "world representation", "VXWorldRepresentation");
    QTextStream &out = console.out();

    // Every object but the root has a parent; an empty answer means the
    // robot does not know the name (the log line says why).
    const auto relative = await(console, world->objectPosition(name));
    const QString category = await(console, world->objectCategory(name));
    if (relative.first.isEmpty() && category.isEmpty()) {
        console.err() << "error: the robot knows no object \"" << name << "\"" << Qt::endl;
        return ExitCommandFailed;
    }
    const auto absolute = await(console, world->objectAbsolutePosition(name));
    out << "Object     " << name << Qt::endl;
    out << "Category   " << category << Qt::endl;
    out << "Relative   in " << relative.first << ": " << displacementText(relative.second)
        << Qt::endl;
    out << "Absolute   in " << absolute.first << ": " << displacementText(absolute.second)
        << Qt::endl;
    const auto attributes = await(console, world->objectAttributes(name));
    if (attributes.isEmpty())
        out << "Attributes none" << Qt::endl;
    for (auto attribute = attributes.begin(); attribute != attributes.end(); ++attribute) {
        out << "Attribute  " << attribute.key() << Qt::endl;
        for (auto field = attribute.value().begin(); field != attribute.value().end(); ++field)
            out << "  " << field.key().leftJustified(10) << " " << valueText(field.value())
                << Qt::endl;
    }
    return ExitOk;
}

} // namespace console
