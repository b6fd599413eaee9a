#include <sim/animated_speech_service.h>
#include <sim/robot.h>
#include <sim/text_to_speech_service.h>

#include <cctype>
#include <stdexcept>

namespace sim {

namespace {
bool isTagChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '/';
}
} // namespace

AnimatedSpeechService::AnimatedSpeechService() : Service("VXAnimatedSpeech") { }

void AnimatedSpeechService::describe(ServiceBuilder &b)
{
    b.method("interpretText", [this](const std::string &narration) {
        interpret(narration);
        return std::string();
    });
    b.method("stopAllInterpretations", [this]() { stopAll(); });
}

std::string AnimatedSpeechService::stripTags(const std::string &narration)
{
    std::string out;
    size_t i = 0;
    while (i < narration.size()) {
        const char c = narration[i];
        if (c == '^' && i + 1 < narration.size() && isTagChar(narration[i + 1])) {
            ++i;
            while (i < narration.size() && isTagChar(narration[i]))
                ++i;
            if (i < narration.size() && narration[i] == '(') {
                const size_t close = narration.find(')', i);
                // An unclosed argument runs to the end, as the robot reads it.
                i = close == std::string::npos ? narration.size() : close + 1;
            }
            continue;
        }
        const bool space = std::isspace(static_cast<unsigned char>(c));
        if (space) {
            if (!out.empty() && out.back() != ' ')
                out += ' ';
        } else {
            out += c;
        }
        ++i;
    }
    while (!out.empty() && out.back() == ' ')
        out.pop_back();
    return out;
}

void AnimatedSpeechService::interpret(const std::string &narration)
{
    auto *tts = robot().serviceAs<TextToSpeechService>("VXTextToSpeech");
    if (!tts || robot().scenario().isOmitted("VXTextToSpeech"))
        throw std::runtime_error("VXAnimatedSpeech needs VXTextToSpeech, which is not running");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_interpreted.push_back(narration);
    }
    tts->say(stripTags(narration));
}

void AnimatedSpeechService::stopAll()
{
    if (auto *tts = robot().serviceAs<TextToSpeechService>("VXTextToSpeech"))
        tts->stopAll();
}

std::vector<std::string> AnimatedSpeechService::interpreted() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_interpreted;
}

void AnimatedSpeechService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_interpreted.clear();
}

} // namespace sim
