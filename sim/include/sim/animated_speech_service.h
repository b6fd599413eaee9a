#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <mutex>
#include <string>
#include <vector>

namespace sim {

// "VXAnimatedSpeech": `interpretText` takes the gesture tags out of a
// narration ("^name" or "^name(argument)") and speaks the rest through
// "VXTextToSpeech"; `stopAllInterpretations` stops it. Fails when the robot
// has no text to speech.
class SIM_API AnimatedSpeechService : public Service
{
public:
    AnimatedSpeechService();
    void describe(ServiceBuilder &builder) override;

    // The narration without its tags, spaces folded.
    static std::string stripTags(const std::string &narration);
    void interpret(const std::string &narration);
    void stopAll();
    // Narrations received, as given, oldest first.
    std::vector<std::string> interpreted() const;
    void reset();

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_interpreted;
};

} // namespace sim
