#include "commands.h"

#include "console.h"
#include "kit.h"

namespace console {

// The command table: one line per command, NAME(what --json gives, usage,
// summary). Command
// NAME lives in NAME_command.cpp (wake and rest share wake_rest_command.cpp) as
// `int NAMECommand(Console &, const QStringList &)`.
#define NIMIOB_CONSOLE_COMMANDS(X) \
    X(status, Document, "[--stay]", \
      "connect, print the robot's version, the compatibility verdict, the bound and missing " \
      "services and the two-way test, then disconnect; --stay follows losses, the " \
      "reconnection countdown and its attempts until Ctrl-C") \
    X(watch, Lines, "KEY... [--sampling MS] [--gather MS] [--for SECONDS]", \
      "follow memory keys and print each gathered batch (time stamp, key, value), saying " \
      "whether the robot samples them or this desktop polls them") \
    X(pose, Document, "[--for SECONDS] [--wake]", \
      "show joint angles, stiffness and the awake state as they are polled, redrawn in place " \
      "(5 s by default; --wake wakes the robot up first)") \
    X(events, Lines, "NAME... [--for SECONDS]", \
      "subscribe micro events and print each one as it arrives, until Ctrl-C or --for") \
    X(call, None, "MODULE METHOD [VALUE...] [--check]", \
      "post a call by name with up to 6 values (true/false, numbers, text); --check asks the " \
      "box whether it is enabled first; failures are shown as their dialog texts") \
    X(battery, Document, "", "the battery's charge in percent") \
    X(audio, Document, "[VOLUME] [--mute|--unmute]", \
      "the output volume, mute, speech language and languages; sets volume or mute first") \
    X(say, None, "TEXT [--animated]", \
      "have the robot say TEXT (--animated: as a narration with ^tags), until it has finished") \
    X(tell, None, "TEXT", "hand a sentence to the robot's dialog engine and print its reply") \
    X(config, Document, "[--file|--resources]", \
      "the robot's model configuration, its configuration file, or the resource preferences " \
      "and owners") \
    X(launch, None, "CMD [ARG...]", \
      "run a command on the robot (never on this machine), wait for it, print the result") \
    X(logs, Lines, "[--level N] [--filter CAT=N]... [--clear] [--for S]", \
      "follow the robot's log, each message as level, category and text, then a count; " \
      "levels 0 silent to 6 debug") \
    X(camera, Document, "[--res 0-3] [--period MS] [--for S] [--png FILE]", \
      "acquire camera images, print their count, rate and skips; --png saves the last one") \
    X(move, None, "JOINT=RAD... [--speed F] [--wait]", \
      "move joints (posted; --wait waits for the end of the motion)") \
    X(stiff, None, "NAME on|off", "switch the motors of a joint or a chain on or off over 0.2 s") \
    X(wake, None, "", "wake the robot up: stiff, then standing") \
    X(rest, None, "", "put the robot to rest: crouching, then limp") \
    X(posture, Document, "[NAME] [--apply]", \
      "print the posture family; with a name go to (or apply) that posture and say whether " \
      "it was reached and how the family changed") \
    X(record, None, "--joints A,B [--poses N] [--interactive]", \
      "record poses of joints, periodically or one at each store request; print the steps, " \
      "then the poses received") \
    X(world, Lines, "[--for SECONDS] [--period MS]", \
      "list the robot's objects (category, parent, position, Display label), then print " \
      "changes as they come: added, removed, moved, displayed") \
    X(object, Document, "NAME", \
      "show one object: category, position from its parent and from the root, every " \
      "attribute field") \
    X(people, Lines, "[--for SECONDS]", \
      "show the detection range and who is present, then arrivals, departures and positions") \
    X(zones, Document, "[--for SECONDS]", \
      "show the three engagement zone limits and who is tracked; with --for, the changes too") \
    X(behaviors, Document, "", \
      "list the installed, running and default behaviours and the box libraries") \
    X(run, None, "NAME [--for SECONDS]", \
      "run a behaviour and print its states with times, box errors and error dialogs; Ctrl-C " \
      "or the end of --for stops it") \
    X(stop, None, "NAME|--all", "stop a behaviour, or all of them, and print what still runs") \
    X(debug, Lines, "NAME [--io BOX__IO,...] [--timeline NAME] [--for SECONDS]", \
      "load a behaviour in the debugger, run it and print each input and output as it fires " \
      "and the timeline's frame") \
    X(life, None, "[STATE] | --focus NAME", \
      "print the autonomous life state; with STATE set it, with --focus hand the focus to a " \
      "behaviour; then print the change as the robot reports it") \
    X(push, None, "DIR REMOTE [--merge]", \
      "send a local project directory to the robot's store with a progress line; --merge " \
      "keeps the remote files it does not replace; Ctrl-C cancels (exit 130)") \
    X(pull, None, "REMOTE DIR", \
      "fetch a remote project into a new or empty directory; Ctrl-C cancels") \
    X(rm, None, "REMOTE", "delete a remote project; Ctrl-C cancels") \
    X(packages, Document, "", "list the installed packages: uuid, version, name") \
    X(install, None, "FILE", "send a package file to the robot and install it; Ctrl-C cancels") \
    X(uninstall, None, "UUID...", "remove packages by uuid")

#define NIMIOB_DECLARE_COMMAND(name, json, usage, summary) \
    int name##Command(Console &console, const QStringList &arguments);
NIMIOB_CONSOLE_COMMANDS(NIMIOB_DECLARE_COMMAND)
#undef NIMIOB_DECLARE_COMMAND

const std::vector<Command> &commands()
{
#define NIMIOB_COMMAND_ENTRY(name, json, usage, summary) \
    Command {#name, usage, summary, JsonOutput::json, &name##Command},
    static const std::vector<Command> table {NIMIOB_CONSOLE_COMMANDS(NIMIOB_COMMAND_ENTRY)};
#undef NIMIOB_COMMAND_ENTRY
    return table;
}

const Command *findCommand(const QString &name)
{
    for (const Command &command : commands()) {
        if (name == QLatin1String(command.name))
            return &command;
    }
    return nullptr;
}

int runCommand(Console &console, const QString &name, QStringList arguments)
{
    const Command *command = findCommand(name);
    if (!command) {
        console.err() << "error: unknown command " << name << Qt::endl;
        return ExitUsage;
    }
    if (arguments.removeAll(QStringLiteral("--json")) > 0) {
        if (command->json == JsonOutput::None) {
            console.err() << "error: " << name << " prints no data to give as JSON" << Qt::endl;
            return ExitUsage;
        }
        console.setJson(true);
    }
    InterruptScope interrupt;
    int status = command->run(console, arguments);
    if (InterruptScope::requested() && status != ExitUsage)
        status = ExitInterrupted;
    if (console.connected()) {
        console.disconnectFromRobot();
        console.info() << "Disconnected." << Qt::endl;
    }
    return status;
}

} // namespace console
