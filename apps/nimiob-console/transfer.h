#pragma once

// What push, pull, rm and install share: one synchronizer operation with its
// progress, ended by the robot, a lost connection or Ctrl-C.

#include "kit.h"

#include <connection/http_project_synchronizer.h>

#include <functional>
#include <string>

namespace console {

struct Transfer
{
    // "Push", "Pull", "Remove": the summary and the messages say it.
    QString verb;
    // Starts the operation on the synchronizer, towards the robot's file server.
    std::function<void(RK::HttpProjectSynchronizer &, const std::string &host, int port)> start;
    // The line printed when it is done, given its time in milliseconds.
    std::function<QString(qint64 ms)> summary;
    // Progress counts bytes (else files).
    bool byteProgress = false;
};

// A remote project path the robot's store can hold: relative, without ".."
// or empty parts. False with the reason.
bool checkRemotePath(const QString &path, QString &why);

// Runs it. Ctrl-C cancels, and the command ends within the console's
// cancellation limit whether or not the synchronizer has confirmed.
int runTransfer(Console &console, const Transfer &transfer);

} // namespace console
