#include <sim/desktop_hooks.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace sim {

namespace {

const char *const kCategory = "sim.hooks";

const std::string &textArg(const Args &args, size_t index, const char *what)
{
    if (args.size() <= index || args[index].kind() != wz::AnyValue::Kind::String)
        throw std::runtime_error(std::string(what) + " must be a text");
    return args[index].toStr();
}

} // namespace

void raiseWordRecognized(Robot &robot, const std::string &word, float confidence)
{
    robot.scenario().raiseMicroEvent(
        "WordRecognized",
        wz::AnyValue(wz::AnyValue::List {wz::AnyValue(word), wz::AnyValue(confidence)}));
}

void raiseSentenceSaid(Robot &robot, const std::string &sentence)
{
    robot.scenario().raiseMicroEvent("VXTextToSpeech/CurrentSentence", wz::AnyValue(sentence));
}

void raiseClientDisconnected(Robot &robot, const wz::AnyValue &client)
{
    robot.scenario().raiseMicroEvent("ClientDisconnected", client);
}

void delayMicroEvent(Robot &robot, const std::string &name, std::chrono::milliseconds delay)
{
    MemoryService *memory = &robot.memory();
    Robot *r = &robot;
    robot.scenario().replaceMethod(
        MemoryService::kName, "raiseMicroEvent", [memory, r, name, delay](const Args &args) {
            const std::string &event = textArg(args, 0, "the event name");
            if (args.size() != 2)
                throw std::runtime_error("raiseMicroEvent takes a name and a value");
            if (event != name) {
                memory->raiseMicroEvent(event, args[1]);
                return wz::AnyValue();
            }
            // Who is subscribed now, and how to call them: the subscription
            // may be gone by the time the call arrives.
            struct Target
            {
                std::string module;
                std::string message;
                std::string method;
            };
            std::vector<Target> targets;
            const std::vector<std::string> modules = memory->subscribers(event);
            for (const Args &a :
                 r->scenario().calls(MemoryService::kName, "subscribeToMicroEvent")) {
                if (a.size() != 4 || a[0] != wz::AnyValue(event))
                    continue;
                const std::string &module = a[1].toStr();
                if (std::find(modules.begin(), modules.end(), module) == modules.end())
                    continue;
                targets.erase(
                    std::remove_if(targets.begin(), targets.end(),
                                   [&module](const Target &t) { return t.module == module; }),
                    targets.end());
                targets.push_back(Target {module, a[2].toStr(), a[3].toStr()});
            }
            const wz::AnyValue value = args[1];
            r->schedule(delay, [r, event, value, targets] {
                for (const Target &t : targets) {
                    try {
                        wz::Object object = r->session().service(t.module).value(5000);
                        object.post(t.method, event, value, t.message);
                    } catch (const std::exception &e) {
                        wz::log::LogStream(wz::LogLevel_Warning, kCategory, "delayMicroEvent")
                            << "late " << event << " for " << t.module << " lost: " << e.what();
                    }
                }
            });
            return wz::AnyValue();
        });
}

} // namespace sim
