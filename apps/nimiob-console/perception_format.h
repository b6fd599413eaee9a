#pragma once

// What the perception commands (world, object, people, zones) share: their
// option --for, and the text and JSON of positions.

#include "kit.h"

#include <QJsonArray>
#include <QString>

#include <vx/vxmath.h>
#include <vx/vxvalue.h>

namespace console {
namespace perception {

// Follows until --for runs out (ExitOk) or Ctrl-C; else the failure's exit
// status, printed.
inline int follow(Waiter &waiter, int forMs, const char *what)
{
    const Outcome outcome = waiter.wait([] { return false; }, forMs > 0 ? forMs : -1);
    if (outcome == Outcome::TimedOut)
        return ExitOk;
    if (outcome == Outcome::Interrupted)
        return ExitInterrupted;
    return waiter.fail(outcome, QString::fromLatin1(what));
}

// The future's result, once `outcome` is Done and stays so while waiting for
// it; else an empty one, the outcome telling why.
template<typename T>
T answer(Waiter &waiter, Outcome &outcome, const QFuture<T> &future, int timeoutMs)
{
    if (outcome == Outcome::Done)
        outcome = waiter.await(future, timeoutMs);
    return outcome == Outcome::Done ? future.result() : T();
}

inline QString number(float v)
{
    return QString::number(double(v), 'f', 3);
}

inline QString positionText(const VX::Math::Position3D &p)
{
    return QStringLiteral("(%1, %2, %3)").arg(number(p.x), number(p.y), number(p.z));
}

inline QJsonArray positionJson(const VX::Math::Position3D &p)
{
    return {double(p.x), double(p.y), double(p.z)};
}

inline QString displacementText(const VX::Math::Displacement &d)
{
    return QStringLiteral("%1 rot (%2, %3, %4, %5)")
        .arg(positionText(d.P), number(d.Q.w), number(d.Q.x), number(d.Q.y), number(d.Q.z));
}

inline QJsonObject displacementJson(const VX::Math::Displacement &d)
{
    return {{QStringLiteral("position"), positionJson(d.P)},
            {QStringLiteral("rotation"),
             QJsonArray {double(d.Q.w), double(d.Q.x), double(d.Q.y), double(d.Q.z)}}};
}

inline QString valueText(const VX::VXValue &v)
{
    return QString::fromStdString(v.toString(0));
}

} // namespace perception
} // namespace console
