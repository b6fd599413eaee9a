#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sim {

class Pause;

// "VXTextToSpeech": a language out of a fixed list, the tags that animated
// speech understands, and `say`, which takes a time per word, raises the
// micro event "VXTextToSpeech/CurrentSentence" with the sentence, and ends
// early on `stopAll` or when the robot stops.
class SIM_API TextToSpeechService : public Service
{
public:
    static constexpr const char *kSentenceEvent = "VXTextToSpeech/CurrentSentence";

    struct Spoken
    {
        std::string text;
        bool completed = false; // false when stopAll or the robot's stop cut it short
    };

    TextToSpeechService();
    ~TextToSpeechService() override;
    void describe(ServiceBuilder &builder) override;
    // Settings: {"language": NAME, "wordMs": N}.
    void configure(const wz::AnyValue &settings) override;

    std::string language() const;
    // Throws std::invalid_argument for a language not in availableLanguages().
    void setLanguage(const std::string &language);
    // In the robot's order; one name is not ASCII.
    static std::vector<std::string> availableLanguages();
    static std::vector<std::string> tags();

    // Speaks: blocks for the words' time unless stopped.
    void say(const std::string &text);
    void stopAll();
    std::chrono::milliseconds wordDuration() const;
    void setWordDuration(std::chrono::milliseconds perWord);
    // Sentences finished or cut short, oldest first.
    std::vector<Spoken> spoken() const;
    // Sentences being spoken right now.
    int speaking() const;
    // Language back to "English", 40 ms a word, nothing spoken.
    void reset();

private:
    mutable std::mutex m_mutex;
    std::string m_language = "English";
    std::chrono::milliseconds m_wordDuration {40};
    std::vector<Spoken> m_spoken;
    int m_speaking = 0;
    std::unique_ptr<Pause> m_pause;
};

} // namespace sim
