#pragma once

// Scenario hooks for what a desktop client follows: the micro events the
// robot's speech modules and its session layer raise, and a robot whose calls
// to the desktop arrive late (Scenario::blockCallbacks loses them instead).

#include <sim/api.h>

#include <wz/any_value.h>

#include <chrono>
#include <string>

namespace sim {

class Robot;

// "WordRecognized": [word, confidence], the confidence a float from 0 to 1.
SIM_API void raiseWordRecognized(Robot &robot, const std::string &word, float confidence);
// "VXTextToSpeech/CurrentSentence": the sentence being said.
SIM_API void raiseSentenceSaid(Robot &robot, const std::string &sentence);
// "ClientDisconnected": the name of the client the robot let go ("Sartel"
// for the desktop application). Any value can be sent, to test receivers.
SIM_API void raiseClientDisconnected(Robot &robot, const wz::AnyValue &client);

// From now on a micro event `name` raised through VXMemory reaches the
// modules subscribed to it when it is raised `delay` later, as calls held up
// on the way would: even if they have unsubscribed by then. One event at a
// time; Scenario::reset() undoes it.
SIM_API void delayMicroEvent(Robot &robot, const std::string &name,
                             std::chrono::milliseconds delay);

} // namespace sim
