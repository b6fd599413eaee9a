#pragma once

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace RK {

class Connection;
class ExecuterThread;
class LauncherExecuter;

// Runs a command on the robot ("VXLauncher") and waits for it there. The
// answer is an error text, empty on success (exit code 0 or below).
class NIMIOB_EXPORT LauncherInterface : public QObject,
                                        public MorvaneInterface<LauncherExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit LauncherInterface(boost::shared_ptr<Connection> connection);
    ~LauncherInterface() override;

    // Emits launchWaitRequested.
    void launchWait(const QString &command, const std::vector<std::string> &args);

signals:
    void launchWaitRequested(QString command, std::vector<std::string> args);
    void launchWaitFinished(QString errorMessage);
};

} // namespace RK
