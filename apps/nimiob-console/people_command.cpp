#include "perception_format.h"

#include <connection/people_perception_interface.h>

#include <QTimer>

namespace console {

using namespace perception;

// Who the robot sees, then arrivals, departures and positions, until --for
// or Ctrl-C.
int peopleCommand(Console &console, const QStringList &arguments)
{
    FollowOptions options;
    if (!parseFollow("people", arguments, false, options, console.err()))
        return ExitUsage;
    const boost::shared_ptr<RK::PeoplePerceptionInterface> people
        = console.manager().peoplePerceptionInterface();
    if (!people)
        return missingService(console, "people perception", "VXPeoplePerception");
    QTextStream &out = console.out();

    QObject receiver;
    QObject::connect(people.get(), &RK::PeoplePerceptionInterface::peoplePositionUpdated, &receiver,
                     [&](int id, const VX::Math::Position3D &p) {
                         out << "position  " << id << " at " << positionText(p) << Qt::endl;
                     });
    // The first readings may still be on their way (the list follows the
    // range); a robot whose range is the default only costs the wait.
    console.waitUntil([&people] { return people->maximumDetectionRange() != 3.5f; }, 500);
    console.waitUntil([] { return false; }, 100);
    out << "Detection range " << number(people->maximumDetectionRange()) << " m" << Qt::endl;
    const QList<int> present = people->peopleList();
    QStringList ids;
    for (int id : present)
        ids << QString::number(id);
    out << "Present: " << (ids.isEmpty() ? QStringLiteral("nobody") : ids.join(", ")) << Qt::endl;
    for (int id : present)
        people->requestPeoplePosition(id);

    QObject::connect(
        people.get(), &RK::PeoplePerceptionInterface::maximumDetectionRangeChanged, &receiver,
        [&](float range) { out << "range     " << number(range) << " m" << Qt::endl; });
    QObject::connect(people.get(), &RK::PeoplePerceptionInterface::peopleJustArrived, &receiver,
                     [&](int id) {
                         out << "arrived   " << id << Qt::endl;
                         people->requestPeoplePosition(id);
                     });
    QObject::connect(people.get(), &RK::PeoplePerceptionInterface::peopleJustLeft, &receiver,
                     [&](int id) { out << "left      " << id << Qt::endl; });
    // Positions are read on request: everyone present, twice a second.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &receiver, [&] {
        for (int id : people->peopleList())
            people->requestPeoplePosition(id);
    });
    poll.start(500);
    if (follow(console, options.forSeconds))
        return ExitNoConnection;
    poll.stop();
    QStringList last;
    for (int id : people->peopleList())
        last << QString::number(id);
    out << "Done; present: " << (last.isEmpty() ? QStringLiteral("nobody") : last.join(", "))
        << Qt::endl;
    return ExitOk;
}

} // namespace console
