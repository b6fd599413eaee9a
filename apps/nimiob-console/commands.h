#pragma once

#include <QString>
#include <QStringList>

#include <vector>

namespace console {

class Console;

// A command runs on a connected console and returns the exit status.
using CommandFn = int (*)(Console &console, const QStringList &arguments);

struct Command
{
    const char *name;
    const char *usage;
    const char *summary;
    CommandFn run;
};

const std::vector<Command> &commands();
const Command *findCommand(const QString &name);

// Exit statuses shared by every command.
enum ExitStatus {
    ExitOk = 0,
    ExitCommandFailed = 1,
    ExitUsage = 2,
    ExitNoConnection = 3,
};

} // namespace console
