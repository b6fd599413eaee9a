#pragma once

// What the perception commands (world, object, people, zones) share: their
// options, the way they follow a robot until a time or Ctrl-C, and the text
// of positions.

#include "commands.h"
#include "console.h"

#include <connection/connection_manager.h>

#include <QFuture>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTextStream>

#include <vx/vxmath.h>
#include <vx/vxvalue.h>

#include <csignal>
#include <functional>

namespace console {
namespace perception {

struct FollowOptions
{
    int forSeconds = 0; // 0: the command's default
    int periodMs = 500;
};

// Takes --for SECONDS and, when `withPeriod`, --period MS. False with a
// message on `err` for anything else.
inline bool parseFollow(const char *command, const QStringList &arguments, bool withPeriod,
                        FollowOptions &options, QTextStream &err)
{
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        int *target = nullptr;
        if (arg == QLatin1String("--for"))
            target = &options.forSeconds;
        else if (withPeriod && arg == QLatin1String("--period"))
            target = &options.periodMs;
        if (!target) {
            err << "error: " << command << " does not take " << arg << Qt::endl;
            return false;
        }
        bool ok = false;
        const int value = i + 1 < arguments.size() ? arguments.at(i + 1).toInt(&ok) : 0;
        if (!ok || value < 1 || value > 86400000) {
            err << "error: " << arg << " wants a whole number from 1" << Qt::endl;
            return false;
        }
        *target = value;
        ++i;
    }
    return true;
}

inline volatile std::sig_atomic_t g_interrupted = 0;

// Runs the loop for `seconds` (until Ctrl-C when 0) or until the connection
// is lost; true when it was lost.
inline bool follow(Console &console, int seconds)
{
    bool lost = false;
    QObject receiver;
    QObject::connect(&console.manager(), &RK::ConnectionManager::disconnected, &receiver,
                     [&lost] { lost = true; });
    g_interrupted = 0;
    const auto previous = std::signal(SIGINT, [](int) { g_interrupted = 1; });
    console.waitUntil([&] { return g_interrupted != 0 || lost; },
                      seconds > 0 ? seconds * 1000 : 86400000);
    std::signal(SIGINT, previous);
    if (lost)
        console.err() << "error: the connection was lost" << Qt::endl;
    return lost;
}

template<typename T>
T await(Console &console, const QFuture<T> &future)
{
    console.waitUntil([&future] { return future.isFinished(); }, 30000);
    return future.isFinished() ? future.result() : T();
}

inline QString number(float v)
{
    return QString::number(double(v), 'f', 3);
}

inline QString positionText(const VX::Math::Position3D &p)
{
    return QStringLiteral("(%1, %2, %3)").arg(number(p.x), number(p.y), number(p.z));
}

inline QString displacementText(const VX::Math::Displacement &d)
{
    return QStringLiteral("%1 rot (%2, %3, %4, %5)")
        .arg(positionText(d.P), number(d.Q.w), number(d.Q.x), number(d.Q.y), number(d.Q.z));
}

inline QString valueText(const VX::VXValue &v)
{
    return QString::fromStdString(v.toString(0));
}

inline int missingService(Console &console, const char *what, const char *service)
{
    console.err() << "error: the robot offers no " << what << " (service " << service
                  << " missing or not answering)" << Qt::endl;
    return ExitCommandFailed;
}

} // namespace perception
} // namespace console
