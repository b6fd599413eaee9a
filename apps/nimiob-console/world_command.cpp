#include "perception_format.h"

#include <connection/world_representation_interface.h>

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
    Arguments args(console, "world", arguments);
    int forMs = 0;
    int periodMs = 500;
    args.duration("for", forMs);
    args.number("period", periodMs, 1, 86400000);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXWorldRepresentation"}, "world"))
        return status;
    const boost::shared_ptr<RK::WorldRepresentationInterface> world
        = console.manager().worldRepresentationInterface();
    if (!world)
        return missing(console, "VXWorldRepresentation", "world");
    QTextStream &out = console.out();
    const bool json = console.json();
    const int answerMs = console.options().answerMs;
    Waiter waiter(console);
    waiter.observe(world->executerObject(), QStringLiteral("VXWorldRepresentation"));
    const auto change = [&](const char *kind, const QString &name, const QString &text,
                            const QJsonObject &fields) {
        if (json) {
            QJsonObject line = fields;
            line.insert(QStringLiteral("change"), QLatin1String(kind));
            if (!name.isEmpty())
                line.insert(QStringLiteral("object"), name);
            printJsonLine(console, line);
        } else {
            out << QString::fromLatin1(kind).leftJustified(9) << ' ' << text << Qt::endl;
        }
    };

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
                                 change("added", name, name, {});
                         }
                         for (const QString &name : known) {
                             if (!objects.contains(name))
                                 change("removed", name, name, {});
                         }
                         known = objects;
                     });
    world->startObjectPolling(unsigned(periodMs));
    Outcome outcome = waiter.wait([&first] { return !first; }, answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the object list"));

    // Answers are awaited with the loop running, and polls may change `known`
    // meanwhile: the table is of the first list.
    const QStringList listed = known;
    const auto ask = [&](const auto &future) { return answer(waiter, outcome, future, answerMs); };
    const QString root = ask(world->rootName());
    QJsonArray objects;
    QStringList rows;
    for (const QString &name : listed) {
        const QString category = ask(world->objectCategory(name));
        const auto position = ask(world->objectPosition(name));
        const auto display = ask(world->objectDisplayAttributes(name));
        objects.append(QJsonObject {{QStringLiteral("name"), name},
                                    {QStringLiteral("category"), category},
                                    {QStringLiteral("parent"), position.first},
                                    {QStringLiteral("position"), positionJson(position.second.P)},
                                    {QStringLiteral("display"), displayLabel(display)}});
        rows << QStringLiteral("%1 %2 %3 %4 %5")
                    .arg(name, -12)
                    .arg(category, -11)
                    .arg(position.first, -10)
                    .arg(positionText(position.second.P), -26)
                    .arg(displayLabel(display));
    }
    const QStringList displayed = ask(world->objectsDisplayed());
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the objects' details"));
    if (json) {
        printJsonLine(console,
                      {{QStringLiteral("root"), root},
                       {QStringLiteral("periodMs"), periodMs},
                       {QStringLiteral("objects"), objects},
                       {QStringLiteral("displayed"), jsonList(displayed)}});
    } else {
        out << "World \"" << root << "\": " << listed.size() << " object(s), polled every "
            << periodMs << " ms" << Qt::endl;
        out << QStringLiteral("%1 %2 %3 %4 %5")
                   .arg("Object", -12)
                   .arg("Category", -11)
                   .arg("Parent", -10)
                   .arg("Position", -26)
                   .arg("Display")
            << Qt::endl;
        for (const QString &row : rows)
            out << row << Qt::endl;
        out << "Displayed: "
            << (displayed.isEmpty() ? QStringLiteral("none") : displayed.join(", ")) << Qt::endl;
    }

    QObject::connect(world.get(), &RK::WorldRepresentationInterface::positionChanged, &receiver,
                     [&](const QString &name, const VX::Math::Displacement &d) {
                         change("moved", name, name + " to " + positionText(d.P),
                                {{QStringLiteral("position"), positionJson(d.P)}});
                     });
    QObject::connect(world.get(), &RK::WorldRepresentationInterface::objectsDisplayedChanged,
                     &receiver, [&](const QStringList &names) {
                         change("displayed", QString(),
                                names.isEmpty() ? QStringLiteral("none") : names.join(", "),
                                {{QStringLiteral("objects"), jsonList(names)}});
                     });
    QObject::connect(world.get(), &RK::WorldRepresentationInterface::attributeChanged, &receiver,
                     [&](const QString &name, const QString &attribute, const VX::VXValue &v) {
                         change("attribute", name, name + " " + attribute + " " + valueText(v),
                                {{QStringLiteral("attribute"), attribute},
                                 {QStringLiteral("value"), valueText(v)}});
                     });
    console.info() << (forMs > 0 ? QStringLiteral("Changes for %1 s:").arg(forMs / 1000.0)
                                 : QStringLiteral("Changes (Ctrl-C to stop):"))
                   << Qt::endl;
    const int status = follow(waiter, forMs, "the world's changes");
    if (status != ExitNoConnection)
        world->stopObjectPolling();
    if (status == ExitOk)
        console.info() << "Done." << Qt::endl;
    return status;
}

} // namespace console
