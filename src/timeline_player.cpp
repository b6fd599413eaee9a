#include <connection/timeline_player.h>

namespace RK {

TimelinePlayer::TimelinePlayer(QObject *parent) : QObject(parent) { }

TimelinePlayer::~TimelinePlayer() = default;

} // namespace RK
