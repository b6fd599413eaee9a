#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace sim {

// "VXDialog": `tell` answers from a small table of rules (the sentence,
// lower case and without its punctuation, to the answer) and remembers what
// it heard. An unknown sentence gets kNoRuleAnswer; an empty one fails.
class SIM_API DialogService : public Service
{
public:
    static constexpr const char *kNoRuleAnswer = "Sorry, I did not understand.";

    DialogService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"rules": {"sentence": "answer", ...}} added to the table.
    void configure(const wz::AnyValue &settings) override;

    std::string tell(const std::string &sentence);
    void addRule(const std::string &sentence, const std::string &answer);
    std::vector<std::string> heard() const;
    // The built-in rules only, nothing heard.
    void reset();

private:
    static std::string normalise(const std::string &sentence);

    mutable std::mutex m_mutex;
    std::map<std::string, std::string> m_rules;
    std::vector<std::string> m_heard;
};

} // namespace sim
