#include <sim/dialog_service.h>

#include <cctype>
#include <stdexcept>

namespace sim {

DialogService::DialogService() : Service("VXDialog")
{
    reset();
}

void DialogService::describe(ServiceBuilder &b)
{
    b.method("tell", [this](const std::string &sentence) { return tell(sentence); });
}

void DialogService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first != "rules" || field.second.kind() != wz::AnyValue::Kind::Map)
            throw std::runtime_error("VXDialog takes only {\"rules\": {sentence: answer}}");
        for (const auto &rule : field.second.toMap()) {
            if (rule.second.kind() != wz::AnyValue::Kind::String)
                throw std::runtime_error("the answer to \"" + rule.first + "\" needs a text");
            addRule(rule.first, rule.second.toStr());
        }
    }
}

std::string DialogService::normalise(const std::string &sentence)
{
    std::string out;
    for (char c : sentence) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (std::isspace(u)) {
            if (!out.empty() && out.back() != ' ')
                out += ' ';
        } else if (!std::ispunct(u)) {
            out += static_cast<char>(std::tolower(u));
        }
    }
    while (!out.empty() && out.back() == ' ')
        out.pop_back();
    return out;
}

std::string DialogService::tell(const std::string &sentence)
{
    const std::string key = normalise(sentence);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_heard.push_back(sentence);
    if (key.empty())
        throw std::invalid_argument("nothing to tell: the sentence is empty");
    auto it = m_rules.find(key);
    return it == m_rules.end() ? std::string(kNoRuleAnswer) : it->second;
}

void DialogService::addRule(const std::string &sentence, const std::string &answer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_rules[normalise(sentence)] = answer;
}

std::vector<std::string> DialogService::heard() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_heard;
}

void DialogService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_heard.clear();
    m_rules = {
        {"hello", "Hello there."},
        {"how are you", "I am fine, thank you."},
        {"what is your name", "My name is Pelvon."},
        {"goodbye", "See you soon."},
    };
}

} // namespace sim
