#pragma once

#include <QString>
#include <QStringList>

#include <vector>

namespace console {

class Console;

// A command reads its arguments, connects through the kit's need() when it
// has understood them, and returns the exit status.
using CommandFn = int (*)(Console &console, const QStringList &arguments);

// What --json gives: nothing (the command prints no data), one document, or
// one object a line as things happen.
enum class JsonOutput { None, Document, Lines };

struct Command
{
    const char *name;
    const char *usage;
    const char *summary;
    JsonOutput json;
    CommandFn run;
};

const std::vector<Command> &commands();
const Command *findCommand(const QString &name);

// Exit statuses shared by every command (the README's table).
enum ExitStatus {
    // It did what was asked.
    ExitOk = 0,
    // The robot refused, lacks the service, or the operation failed.
    ExitCommandFailed = 1,
    // The command line is wrong; found before connecting.
    ExitUsage = 2,
    // No connection, or it was lost.
    ExitNoConnection = 3,
    // Ctrl-C.
    ExitInterrupted = 130,
};

// Runs the command `name` with its arguments on a console that is not
// connected yet: takes --json, keeps Ctrl-C for the command while it runs,
// and disconnects afterwards.
int runCommand(Console &console, const QString &name, QStringList arguments);

} // namespace console
