#include "perception_format.h"

#include <connection/world_representation_interface.h>

namespace console {

using namespace perception;

// One object of the robot's world: category, positions and every attribute.
int objectCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "object", arguments);
    const QStringList words = args.positional();
    if (words.size() != 1)
        args.fail(QStringLiteral("object wants one object name"));
    if (const int status = args.finish())
        return status;
    const QString name = words.first();
    if (const int status = need(console, {"VXWorldRepresentation"}, "object"))
        return status;
    const boost::shared_ptr<RK::WorldRepresentationInterface> world
        = console.manager().worldRepresentationInterface();
    if (!world)
        return missing(console, "VXWorldRepresentation", "object");
    Waiter waiter(console);
    waiter.observe(world->executerObject(), QStringLiteral("VXWorldRepresentation"));
    const int answerMs = console.options().answerMs;
    Outcome outcome = Outcome::Done;
    const auto ask = [&](const auto &future) { return answer(waiter, outcome, future, answerMs); };

    // Every object but the root has a parent; an empty answer means the
    // robot does not know the name (the log line says why).
    const auto relative = ask(world->objectPosition(name));
    const QString category = ask(world->objectCategory(name));
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the object"));
    if (relative.first.isEmpty() && category.isEmpty()) {
        // The robot's reason comes by the executer's error signal, which may
        // follow the empty answers: let it arrive, and tell it.
        const Outcome drained = waiter.drain(world->executerObject(), world.get(), answerMs);
        if (drained != Outcome::Done && drained != Outcome::Failed)
            return waiter.fail(drained, QStringLiteral("the object"));
        if (!waiter.printFailures())
            console.err() << "error: the robot knows no object \"" << name << "\"" << Qt::endl;
        return ExitCommandFailed;
    }
    const auto absolute = ask(world->objectAbsolutePosition(name));
    const auto attributes = ask(world->objectAttributes(name));
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the object"));

    if (console.json()) {
        QJsonObject attributesJson;
        for (auto attribute = attributes.begin(); attribute != attributes.end(); ++attribute) {
            QJsonObject fields;
            for (auto field = attribute.value().begin(); field != attribute.value().end(); ++field)
                fields.insert(field.key(), valueText(field.value()));
            attributesJson.insert(attribute.key(), fields);
        }
        QJsonObject relativeJson = displacementJson(relative.second);
        relativeJson.insert(QStringLiteral("in"), relative.first);
        QJsonObject absoluteJson = displacementJson(absolute.second);
        absoluteJson.insert(QStringLiteral("in"), absolute.first);
        printJson(console,
                  {{QStringLiteral("name"), name},
                   {QStringLiteral("category"), category},
                   {QStringLiteral("relative"), relativeJson},
                   {QStringLiteral("absolute"), absoluteJson},
                   {QStringLiteral("attributes"), attributesJson}});
        return ExitOk;
    }
    QTextStream &out = console.out();
    out << "Object     " << name << Qt::endl;
    out << "Category   " << category << Qt::endl;
    out << "Relative   in " << relative.first << ": " << displacementText(relative.second)
        << Qt::endl;
    out << "Absolute   in " << absolute.first << ": " << displacementText(absolute.second)
        << Qt::endl;
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
