#include "perception_format.h"

#include <connection/basic_awareness_interface.h>
#include <connection/engagement_zones_interface.h>

namespace console {

using namespace perception;

// The engagement zones and who is tracked; with --for, the changes too.
int zonesCommand(Console &console, const QStringList &arguments)
{
    FollowOptions options;
    if (!parseFollow("zones", arguments, false, options, console.err()))
        return ExitUsage;
    const boost::shared_ptr<RK::EngagementZonesInterface> zones
        = console.manager().engagementZonesInterface();
    const boost::shared_ptr<RK::BasicAwarenessInterface> awareness
        = console.manager().basicAwarenessInterface();
    if (!zones)
        return missingService(console, "engagement zones", "VXEngagementZones");
    QTextStream &out = console.out();

    // The first readings may still be on their way; a robot whose values are
    // the defaults only costs the wait.
    QObject receiver;
    console.waitUntil(
        [&zones] {
            return zones->firstLimit() != 1.5f && zones->secondLimit() != 2.5f
                && zones->limitAngle() != 45.0f;
        },
        500);

    out << "First limit   " << number(zones->firstLimit()) << " m" << Qt::endl;
    out << "Second limit  " << number(zones->secondLimit()) << " m" << Qt::endl;
    out << "Limit angle   " << number(zones->limitAngle()) << " deg" << Qt::endl;
    if (awareness) {
        console.waitUntil([] { return false; }, 100); // its first reading
        const int tracked = awareness->humanTracked();
        out << "Tracking      "
            << (tracked < 0 ? QStringLiteral("nobody") : QStringLiteral("human %1").arg(tracked))
            << Qt::endl;
    } else {
        out << "Tracking      unknown (service VXBasicAwareness missing)" << Qt::endl;
    }
    if (options.forSeconds == 0)
        return ExitOk;

    QObject::connect(zones.get(), &RK::EngagementZonesInterface::firstLimitChanged, &receiver,
                     [&](float v) { out << "first limit   " << number(v) << " m" << Qt::endl; });
    QObject::connect(zones.get(), &RK::EngagementZonesInterface::secondLimitChanged, &receiver,
                     [&](float v) { out << "second limit  " << number(v) << " m" << Qt::endl; });
    QObject::connect(zones.get(), &RK::EngagementZonesInterface::limitAngleChanged, &receiver,
                     [&](float v) { out << "limit angle   " << number(v) << " deg" << Qt::endl; });
    if (awareness) {
        QObject::connect(awareness.get(), &RK::BasicAwarenessInterface::humanTrackedChanged,
                         &receiver, [&](int id) {
                             out << "tracking      "
                                 << (id < 0 ? QStringLiteral("nobody")
                                            : QStringLiteral("human %1").arg(id))
                                 << Qt::endl;
                         });
    }
    if (follow(console, options.forSeconds))
        return ExitNoConnection;
    out << "Done." << Qt::endl;
    return ExitOk;
}

} // namespace console
