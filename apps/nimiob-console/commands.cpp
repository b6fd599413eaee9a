#include "commands.h"

namespace console {

// The command table: one line per command, NAME(usage, summary). Command
// NAME lives in NAME_command.cpp (wake and rest share wake_rest_command.cpp) as
// `int NAMECommand(Console &, const QStringList &)`.
#define NIMIOB_CONSOLE_COMMANDS(X) \
    X(status, "[--stay]", \
      "connect, print the robot's version, the compatibility verdict, the bound and missing " \
      "services and the two-way test, then disconnect; --stay follows losses, the " \
      "reconnection countdown and its attempts until Ctrl-C") \
    X(watch, "KEY... [--sampling MS] [--gather MS] [--for SECONDS]", \
      "follow memory keys and print each gathered batch (time stamp, key, value), saying " \
      "whether the robot samples them or this desktop polls them") \
    X(pose, "[--for SECONDS] [--wake]", \
      "show joint angles, stiffness and the awake state as they are polled, redrawn in place " \
      "(5 s by default; --wake wakes the robot up first)") \
    X(events, "NAME... [--for SECONDS]", \
      "subscribe micro events and print each one as it arrives, until Ctrl-C or --for") \
    X(call, "MODULE METHOD [VALUE...] [--check]", \
      "post a call by name with up to 6 values (true/false, numbers, text); --check asks the " \
      "box whether it is enabled first; failures are shown as their dialog texts") \
    X(battery, "", "the battery's charge in percent") \
    X(audio, "[VOLUME] [--mute|--unmute]", \
      "the output volume, mute, speech language and languages; sets volume or mute first") \
    X(say, "TEXT [--animated]", \
      "have the robot say TEXT (--animated: as a narration with ^tags), until it has finished") \
    X(tell, "TEXT", "hand a sentence to the robot's dialog engine and print its reply") \
    X(config, "[--file|--resources]", \
      "the robot's model configuration, its configuration file, or the resource preferences " \
      "and owners") \
    X(launch, "CMD [ARG...]", \
      "run a command on the robot (never on this machine), wait for it, print the result") \
    X(logs, "[--level N] [--filter CAT=N]... [--clear] [--for S]", \
      "follow the robot's log, each message as level, category and text, then a count; " \
      "levels 0 silent to 6 debug") \
    X(camera, "[--res 0-3] [--period MS] [--for S] [--png FILE]", \
      "acquire camera images, print their count, rate and skips; --png saves the last one") \
    X(move, "JOINT=RAD... [--speed F] [--wait]", \
      "move joints (posted; --wait waits for the end of the motion)") \
    X(stiff, "NAME on|off", "switch the motors of a joint or a chain on or off over 0.2 s") \
    X(wake, "", "wake the robot up: stiff, then standing") \
    X(rest, "", "put the robot to rest: crouching, then limp") \
    X(posture, "[NAME] [--apply]", \
      "print the posture family; with a name go to (or apply) that posture and say whether " \
      "it was reached and how the family changed") \
    X(record, "--joints A,B [--poses N] [--interactive]", \
      "record poses of joints, periodically or one at each store request; print the steps, " \
      "then the poses received") \
    X(world, "[--for SECONDS] [--period MS]", \
      "list the robot's objects (category, parent, position, Display label), then print " \
      "changes as they come: added, removed, moved, displayed") \
    X(object, "NAME", \
      "show one object: category, position from its parent and from the root, every " \
      "attribute field") \
    X(people, "[--for SECONDS]", \
      "show the detection range and who is present, then arrivals, departures and positions") \
    X(zones, "[--for SECONDS]", \
      "show the three engagement zone limits and who is tracked; with --for, the changes too") \
    X(behaviors, "", "list the installed, running and default behaviours and the box libraries") \
    X(run, "NAME [--for SECONDS]", \
      "run a behaviour and print its states with times, box errors and error dialogs; Ctrl-C " \
      "or the end of --for stops it") \
    X(stop, "NAME|--all", "stop a behaviour, or all of them, and print what still runs") \
    X(debug, "NAME [--io BOX__IO,...] [--timeline NAME] [--for SECONDS]", \
      "load a behaviour in the debugger, run it and print each input and output as it fires " \
      "and the timeline's frame") \
    X(life, "[STATE] | --focus NAME", \
      "print the autonomous life state; with STATE set it, with --focus hand the focus to a " \
      "behaviour; then print the change as the robot reports it") \
    X(push, "DIR REMOTE [--merge]", \
      "send a local project directory to the robot's store with a progress line; --merge " \
      "keeps the remote files it does not replace; Ctrl-C cancels (exit 130)") \
    X(pull, "REMOTE DIR", "fetch a remote project into a new or empty directory; Ctrl-C cancels") \
    X(rm, "REMOTE", "delete a remote project; Ctrl-C cancels") \
    X(packages, "", "list the installed packages: uuid, version, name") \
    X(install, "FILE", "send a package file to the robot and install it; Ctrl-C cancels") \
    X(uninstall, "UUID...", "remove packages by uuid")

#define NIMIOB_DECLARE_COMMAND(name, usage, summary) \
    int name##Command(Console &console, const QStringList &arguments);
NIMIOB_CONSOLE_COMMANDS(NIMIOB_DECLARE_COMMAND)
#undef NIMIOB_DECLARE_COMMAND

const std::vector<Command> &commands()
{
#define NIMIOB_COMMAND_ENTRY(name, usage, summary) Command {#name, usage, summary, &name##Command},
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

} // namespace console
