#pragma once

#include <sim/api.h>

#include <string>
#include <vector>

namespace sim {

// A behaviour as the simulated robot runs it, parsed from its small
// line-based text (grammar in sim/README.md). Times are in seconds from the
// start of the behaviour.
struct SIM_API BehaviorScript
{
    struct Box
    {
        std::string name;
        std::vector<std::string> inputs;
        std::vector<std::string> outputs;
        bool disabled = false;
    };
    // An output raised by the behaviour itself at a given time.
    struct Output
    {
        double at = 0;
        std::string box;
        std::string output;
        std::string value;
    };
    // Calling the box's input raises one of its outputs with the same value.
    struct Answer
    {
        std::string box;
        std::string input;
        std::string output;
    };
    struct Failure
    {
        double at = 0;
        std::string box;
        std::string text;
    };

    // Empty when the file does not name itself; the robot then uses the file's name.
    std::string name;
    // Empty: a behaviour without nature, which is started directly.
    std::string nature;
    // Seconds; negative means it runs until stopped.
    double length = 1.0;
    std::vector<Box> boxes;
    // The timeline's name (empty without one), its rate and length.
    std::string timeline;
    int fps = 25;
    int frames = 0;
    std::vector<Output> outputs;
    std::vector<Answer> answers;
    std::vector<Failure> failures;
    // "BOX: text" given back by preloadBehavior as the robot's error; empty loads.
    std::string preloadError;
    std::vector<std::string> tags;

    static constexpr size_t kMaxTextSize = 1 << 16;
    static constexpr size_t kMaxItems = 1000;
    static constexpr int kMaxFps = 1000;
    static constexpr int kMaxFrames = 1000000;
    static constexpr double kMaxSeconds = 86400;

    bool runsUntilStopped() const { return length < 0; }
    const Box *box(const std::string &name) const;
    // Throws std::runtime_error naming the line and what is wrong with it.
    static BehaviorScript parse(const std::string &text);
};

} // namespace sim
