#include "perception_format.h"

#include <connection/people_perception_interface.h>

#include <QTimer>

namespace console {

using namespace perception;

namespace {

QStringList idTexts(const QList<int> &ids)
{
    QStringList texts;
    for (int id : ids)
        texts << QString::number(id);
    return texts;
}

QJsonArray idJson(const QList<int> &ids)
{
    QJsonArray array;
    for (int id : ids)
        array.append(id);
    return array;
}

} // namespace

// Who the robot sees, then arrivals, departures and positions, until --for
// or Ctrl-C.
int peopleCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "people", arguments);
    int forMs = 0;
    args.duration("for", forMs);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXPeoplePerception"}, "people"))
        return status;
    const boost::shared_ptr<RK::PeoplePerceptionInterface> people
        = console.manager().peoplePerceptionInterface();
    if (!people)
        return missing(console, "VXPeoplePerception", "people");
    QTextStream &out = console.out();
    const bool json = console.json();
    Waiter waiter(console);
    const auto event = [&](const char *kind, int id, const QString &text, QJsonObject fields) {
        if (json) {
            fields.insert(QStringLiteral("change"), QLatin1String(kind));
            if (id >= 0)
                fields.insert(QStringLiteral("person"), id);
            printJsonLine(console, fields);
        } else {
            out << QString::fromLatin1(kind).leftJustified(9) << ' ' << text << Qt::endl;
        }
    };

    QObject receiver;
    QObject::connect(people.get(), &RK::PeoplePerceptionInterface::peoplePositionUpdated, &receiver,
                     [&](int id, const VX::Math::Position3D &p) {
                         event("position", id,
                               QStringLiteral("%1 at %2").arg(id).arg(positionText(p)),
                               {{QStringLiteral("position"), positionJson(p)}});
                     });
    // The first readings may still be on their way (the list follows the
    // range); a robot whose range is the default only costs the wait.
    Outcome outcome
        = waiter.wait([&people] { return people->maximumDetectionRange() != 3.5f; }, 500);
    if (outcome == Outcome::Done || outcome == Outcome::TimedOut)
        outcome = waiter.wait([] { return false; }, 100);
    if (outcome != Outcome::TimedOut)
        return waiter.fail(outcome, QStringLiteral("the people the robot sees"));
    const QList<int> present = people->peopleList();
    if (json) {
        printJsonLine(console,
                      {{QStringLiteral("range"), double(people->maximumDetectionRange())},
                       {QStringLiteral("present"), idJson(present)}});
    } else {
        out << "Detection range " << number(people->maximumDetectionRange()) << " m" << Qt::endl;
        out << "Present: "
            << (present.isEmpty() ? QStringLiteral("nobody") : idTexts(present).join(", "))
            << Qt::endl;
    }
    for (int id : present)
        people->requestPeoplePosition(id);

    QObject::connect(people.get(), &RK::PeoplePerceptionInterface::maximumDetectionRangeChanged,
                     &receiver, [&](float range) {
                         event("range", -1, number(range) + QStringLiteral(" m"),
                               {{QStringLiteral("range"), double(range)}});
                     });
    QObject::connect(people.get(), &RK::PeoplePerceptionInterface::peopleJustArrived, &receiver,
                     [&](int id) {
                         event("arrived", id, QString::number(id), {});
                         people->requestPeoplePosition(id);
                     });
    QObject::connect(people.get(), &RK::PeoplePerceptionInterface::peopleJustLeft, &receiver,
                     [&](int id) { event("left", id, QString::number(id), {}); });
    // Positions are read on request: everyone present, twice a second.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &receiver, [&] {
        for (int id : people->peopleList())
            people->requestPeoplePosition(id);
    });
    poll.start(500);
    const int status = follow(waiter, forMs, "people");
    poll.stop();
    if (status == ExitOk) {
        const QList<int> last = people->peopleList();
        if (json)
            printJsonLine(console, {{QStringLiteral("present"), idJson(last)}});
        else
            out << "Done; present: "
                << (last.isEmpty() ? QStringLiteral("nobody") : idTexts(last).join(", "))
                << Qt::endl;
    }
    return status;
}

} // namespace console
