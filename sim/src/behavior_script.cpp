#include <sim/behavior_script.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace sim {

namespace {

bool isIdentifier(const std::string &s)
{
    if (s.empty() || s.size() > 100)
        return false;
    return std::all_of(s.begin(), s.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
            || c == '_';
    });
}

bool isBehaviorName(const std::string &s)
{
    if (s.empty() || s.size() > 200 || s.front() == '/' || s.find("..") != std::string::npos)
        return false;
    return std::all_of(s.begin(), s.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
            || c == '_' || c == '-' || c == '/' || c == '.';
    });
}

std::vector<std::string> words(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> out;
    std::string w;
    while (in >> w)
        out.push_back(w);
    return out;
}

// The rest of the line after the first `count` words, trimmed.
std::string restAfter(const std::string &line, size_t count)
{
    size_t pos = 0;
    for (size_t i = 0; i < count; ++i) {
        pos = line.find_first_not_of(" \t", pos);
        pos = line.find_first_of(" \t", pos);
        if (pos == std::string::npos)
            return std::string();
    }
    pos = line.find_first_not_of(" \t", pos);
    if (pos == std::string::npos)
        return std::string();
    std::string rest = line.substr(pos);
    rest.erase(rest.find_last_not_of(" \t\r") + 1);
    return rest;
}

double seconds(const std::string &word)
{
    char *end = nullptr;
    const double v = std::strtod(word.c_str(), &end);
    if (word.empty() || *end != '\0' || !std::isfinite(v) || v < 0
        || v > BehaviorScript::kMaxSeconds)
        throw std::runtime_error("\"" + word + "\" is not a time in seconds");
    return v;
}

int integer(const std::string &word, int min, int max)
{
    char *end = nullptr;
    const long v = std::strtol(word.c_str(), &end, 10);
    if (word.empty() || *end != '\0' || v < min || v > max)
        throw std::runtime_error("\"" + word + "\" is not a whole number from "
                                 + std::to_string(min) + " to " + std::to_string(max));
    return static_cast<int>(v);
}

std::string identifier(const std::string &word, const char *what)
{
    if (!isIdentifier(word))
        throw std::runtime_error(std::string(what) + " \"" + word
                                 + "\" must be letters, digits and underscores");
    return word;
}

bool has(const std::vector<std::string> &list, const std::string &s)
{
    return std::find(list.begin(), list.end(), s) != list.end();
}

} // namespace

const BehaviorScript::Box *BehaviorScript::box(const std::string &boxName) const
{
    for (const Box &b : boxes) {
        if (b.name == boxName)
            return &b;
    }
    return nullptr;
}

BehaviorScript BehaviorScript::parse(const std::string &text)
{
    if (text.size() > kMaxTextSize)
        throw std::runtime_error("a behaviour file may not exceed " + std::to_string(kMaxTextSize)
                                 + " bytes");
    BehaviorScript s;
    std::istringstream in(text);
    std::string line;
    int lineNo = 0;
    size_t items = 0;
    auto needBox = [&s](const std::string &boxName) -> const Box & {
        const Box *b = s.box(boxName);
        if (!b)
            throw std::runtime_error("no box \"" + boxName + "\" declared before");
        return *b;
    };
    while (std::getline(in, line)) {
        ++lineNo;
        const std::vector<std::string> w = words(line);
        if (w.empty() || w[0][0] == '#')
            continue;
        if (++items > kMaxItems)
            throw std::runtime_error("line " + std::to_string(lineNo) + ": more than "
                                     + std::to_string(kMaxItems) + " lines");
        try {
            const std::string &kw = w[0];
            auto arity = [&w, &kw](size_t min, size_t max) {
                if (w.size() < min || w.size() > max)
                    throw std::runtime_error("wrong number of words for \"" + kw + "\"");
            };
            if (kw == "name") {
                arity(2, 2);
                if (!isBehaviorName(w[1]))
                    throw std::runtime_error("\"" + w[1] + "\" is not a behaviour name");
                s.name = w[1];
            } else if (kw == "nature") {
                arity(2, 2);
                s.nature = w[1] == "none" ? std::string() : identifier(w[1], "nature");
            } else if (kw == "length") {
                arity(2, 2);
                s.length = w[1] == "forever" ? -1.0 : seconds(w[1]);
            } else if (kw == "box") {
                arity(2, 200);
                Box b;
                b.name = identifier(w[1], "box");
                if (s.box(b.name))
                    throw std::runtime_error("box \"" + b.name + "\" declared twice");
                std::vector<std::string> *into = nullptr;
                for (size_t i = 2; i < w.size(); ++i) {
                    if (w[i] == "disabled")
                        b.disabled = true;
                    else if (w[i] == "in")
                        into = &b.inputs;
                    else if (w[i] == "out")
                        into = &b.outputs;
                    else if (!into)
                        throw std::runtime_error("\"" + w[i] + "\" before \"in\" or \"out\"");
                    else
                        into->push_back(identifier(w[i], "input or output"));
                }
                s.boxes.push_back(std::move(b));
            } else if (kw == "timeline") {
                arity(6, 6);
                if (w[2] != "fps" || w[4] != "frames")
                    throw std::runtime_error("expected: timeline NAME fps N frames N");
                s.timeline = identifier(w[1], "timeline");
                s.fps = integer(w[3], 1, kMaxFps);
                s.frames = integer(w[5], 1, kMaxFrames);
            } else if (kw == "output") {
                arity(4, 1000);
                Output o;
                o.at = seconds(w[1]);
                o.box = w[2];
                o.output = w[3];
                if (!has(needBox(o.box).outputs, o.output))
                    throw std::runtime_error("box \"" + o.box + "\" has no output \"" + o.output
                                             + "\"");
                o.value = restAfter(line, 4);
                s.outputs.push_back(std::move(o));
            } else if (kw == "answer") {
                arity(4, 4);
                const Box &b = needBox(w[1]);
                if (!has(b.inputs, w[2]))
                    throw std::runtime_error("box \"" + b.name + "\" has no input \"" + w[2]
                                             + "\"");
                if (!has(b.outputs, w[3]))
                    throw std::runtime_error("box \"" + b.name + "\" has no output \"" + w[3]
                                             + "\"");
                s.answers.push_back(Answer {w[1], w[2], w[3]});
            } else if (kw == "fail") {
                arity(4, 1000);
                Failure f;
                f.at = seconds(w[1]);
                f.box = needBox(w[2]).name;
                f.text = restAfter(line, 3);
                s.failures.push_back(std::move(f));
            } else if (kw == "preload-error") {
                arity(2, 1000);
                s.preloadError = restAfter(line, 1);
            } else if (kw == "tag") {
                arity(2, 2);
                s.tags.push_back(identifier(w[1], "tag"));
            } else {
                throw std::runtime_error("unknown word \"" + kw + "\"");
            }
        } catch (const std::exception &e) {
            throw std::runtime_error("line " + std::to_string(lineNo) + ": " + e.what());
        }
    }
    std::stable_sort(s.outputs.begin(), s.outputs.end(),
                     [](const Output &a, const Output &b) { return a.at < b.at; });
    std::stable_sort(s.failures.begin(), s.failures.end(),
                     [](const Failure &a, const Failure &b) { return a.at < b.at; });
    return s;
}

} // namespace sim
