#include "commands.h"

namespace console {

// The command table: one line per command, NAME(usage, summary). Command
// NAME lives in NAME_command.cpp as `int NAMECommand(Console &, const QStringList &)`.
#define NIMIOB_CONSOLE_COMMANDS(X) \
    X(status, "", \
      "connect, print the robot's version, the compatibility verdict, the bound and missing " \
      "services and the two-way test, then disconnect") \
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
      "behaviour; then print the change as the robot reports it")

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
