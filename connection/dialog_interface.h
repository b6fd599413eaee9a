#pragma once

#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class DialogExecuter;

// Hands a sentence to the robot's dialog engine as if somebody had said it.
class NIMIOB_EXPORT DialogInterface : public QObject,
                                      public MorvaneInterface<DialogExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit DialogInterface(boost::shared_ptr<Connection> connection);
    ~DialogInterface() override;

    void tell(const QString &sentence);

signals:
    void tellRequested(QString sentence);
    // The robot's reply, or the text of the failure: only the content tells
    // them apart. Nothing comes when the connection or "VXDialog" is missing.
    void tellFinished(QString errorMessage);
};

} // namespace RK
