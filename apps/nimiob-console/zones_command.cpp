#include "perception_format.h"

#include <connection/basic_awareness_interface.h>
#include <connection/engagement_zones_interface.h>

namespace console {

using namespace perception;

namespace {

QString trackedText(int id)
{
    return id < 0 ? QStringLiteral("nobody") : QStringLiteral("human %1").arg(id);
}

} // namespace

// The engagement zones and who is tracked; with --for, the changes too.
int zonesCommand(Console &console, const QStringList &arguments)
{
    Arguments args(console, "zones", arguments);
    int forMs = 0;
    args.duration("for", forMs);
    if (const int status = args.finish())
        return status;
    if (const int status = need(console, {"VXEngagementZones"}, "zones"))
        return status;
    const boost::shared_ptr<RK::EngagementZonesInterface> zones
        = console.manager().engagementZonesInterface();
    const boost::shared_ptr<RK::BasicAwarenessInterface> awareness
        = console.manager().basicAwarenessInterface();
    if (!zones)
        return missing(console, "VXEngagementZones", "zones");
    QTextStream &out = console.out();
    const bool json = console.json();
    Waiter waiter(console);

    // The first readings may still be on their way; a robot whose values are
    // the defaults only costs the wait.
    Outcome outcome = waiter.wait(
        [&zones] {
            return zones->firstLimit() != 1.5f && zones->secondLimit() != 2.5f
                && zones->limitAngle() != 45.0f;
        },
        500);
    if (awareness && (outcome == Outcome::Done || outcome == Outcome::TimedOut))
        outcome = waiter.wait([] { return false; }, 100); // its first reading
    if (outcome != Outcome::Done && outcome != Outcome::TimedOut)
        return waiter.fail(outcome, QStringLiteral("the engagement zones"));

    const QJsonValue tracking = awareness ? QJsonValue(awareness->humanTracked()) : QJsonValue();
    QJsonArray changes;
    if (!json) {
        out << "First limit   " << number(zones->firstLimit()) << " m" << Qt::endl;
        out << "Second limit  " << number(zones->secondLimit()) << " m" << Qt::endl;
        out << "Limit angle   " << number(zones->limitAngle()) << " deg" << Qt::endl;
        out << "Tracking      "
            << (awareness ? trackedText(awareness->humanTracked())
                          : QStringLiteral("unknown (service VXBasicAwareness missing)"))
            << Qt::endl;
    }
    const QJsonObject first {{QStringLiteral("firstLimit"), double(zones->firstLimit())},
                             {QStringLiteral("secondLimit"), double(zones->secondLimit())},
                             {QStringLiteral("limitAngle"), double(zones->limitAngle())},
                             {QStringLiteral("tracking"), tracking}};
    int status = ExitOk;
    if (forMs > 0) {
        QObject receiver;
        const auto change = [&](const char *what, const QString &text, const QJsonValue &value) {
            if (json)
                changes.append(QJsonObject {{QStringLiteral("change"), QLatin1String(what)},
                                            {QStringLiteral("value"), value}});
            else
                out << QString::fromLatin1(what).leftJustified(13) << ' ' << text << Qt::endl;
        };
        QObject::connect(zones.get(), &RK::EngagementZonesInterface::firstLimitChanged, &receiver,
                         [&](float v) { change("first limit", number(v) + " m", double(v)); });
        QObject::connect(zones.get(), &RK::EngagementZonesInterface::secondLimitChanged, &receiver,
                         [&](float v) { change("second limit", number(v) + " m", double(v)); });
        QObject::connect(zones.get(), &RK::EngagementZonesInterface::limitAngleChanged, &receiver,
                         [&](float v) { change("limit angle", number(v) + " deg", double(v)); });
        if (awareness) {
            QObject::connect(awareness.get(), &RK::BasicAwarenessInterface::humanTrackedChanged,
                             &receiver, [&](int id) { change("tracking", trackedText(id), id); });
        }
        status = follow(waiter, forMs, "the engagement zones");
        if (status == ExitOk && !json)
            out << "Done." << Qt::endl;
    }
    if (json && (status == ExitOk || status == ExitInterrupted)) {
        QJsonObject document = first;
        if (forMs > 0)
            document.insert(QStringLiteral("changes"), changes);
        printJson(console, document);
    }
    return status;
}

} // namespace console
