#include <sim/memory_service.h>
#include <sim/robot.h>
#include <sim/text_to_speech_service.h>

#include "pause.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace sim {

TextToSpeechService::TextToSpeechService()
    : Service("VXTextToSpeech"), m_pause(std::make_unique<Pause>())
{ }

TextToSpeechService::~TextToSpeechService() = default;

void TextToSpeechService::describe(ServiceBuilder &b)
{
    b.method("getLanguage", [this]() { return language(); });
    b.method("setLanguage", [this](const std::string &l) { setLanguage(l); });
    b.method("getAvailableLanguages", []() { return availableLanguages(); });
    b.method("_getTagList", []() { return tags(); });
    // The answer is the robot's and means nothing to a client.
    b.method("say", [this](const std::string &text) {
        say(text);
        return std::string();
    });
    b.method("stopAll", [this]() { stopAll(); });
}

void TextToSpeechService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first == "language") {
            if (field.second.kind() != wz::AnyValue::Kind::String)
                throw std::runtime_error("language needs a text");
            setLanguage(field.second.toStr());
        } else if (field.first == "wordMs") {
            if (field.second.kind() != wz::AnyValue::Kind::Int || field.second.toInt() < 0)
                throw std::runtime_error("wordMs needs an integer of 0 or more");
            setWordDuration(std::chrono::milliseconds(field.second.toInt()));
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
}

std::string TextToSpeechService::language() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_language;
}

void TextToSpeechService::setLanguage(const std::string &language)
{
    const std::vector<std::string> known = availableLanguages();
    if (std::find(known.begin(), known.end(), language) == known.end())
        throw std::invalid_argument("language \"" + language + "\" is not installed");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_language = language;
}

std::vector<std::string> TextToSpeechService::availableLanguages()
{
    return {"English", "French", "Japanese", "Espa\xc3\xb1ol", "German"};
}

std::vector<std::string> TextToSpeechService::tags()
{
    return {"bow", "enumeration", "greeting", "no", "question", "yes"};
}

void TextToSpeechService::say(const std::string &text)
{
    std::istringstream in(text);
    std::string word;
    int words = 0;
    while (in >> word)
        ++words;
    std::chrono::milliseconds perWord;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        perWord = m_wordDuration;
        ++m_speaking;
    }
    if (robot().isRunning())
        robot().memory().raiseMicroEvent(kSentenceEvent, text);
    const bool completed = m_pause->wait(perWord * words, robot());
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_speaking;
    m_spoken.push_back(Spoken {text, completed});
}

void TextToSpeechService::stopAll()
{
    m_pause->interrupt();
}

std::chrono::milliseconds TextToSpeechService::wordDuration() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_wordDuration;
}

void TextToSpeechService::setWordDuration(std::chrono::milliseconds perWord)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_wordDuration = perWord;
}

std::vector<TextToSpeechService::Spoken> TextToSpeechService::spoken() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_spoken;
}

int TextToSpeechService::speaking() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_speaking;
}

void TextToSpeechService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_language = "English";
    m_wordDuration = std::chrono::milliseconds(40);
    m_spoken.clear();
}

} // namespace sim
