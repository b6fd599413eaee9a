#include "dialog_executer_p.h"
#include "morvane_interface_p.h"

#include <connection/dialog_interface.h>

namespace RK {

// Every member of the frame, for tests and diagnostics that reach them.
template class MorvaneInterface<DialogExecuter, ExecuterThread>;

DialogInterface::DialogInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("DialogInterface"))
{
    forwardFailures(this);
    request(this, &DialogInterface::tellRequested, &DialogExecuter::tell);
    forward(&DialogExecuter::tellFinished, this, &DialogInterface::tellFinished);
}

DialogInterface::~DialogInterface() = default;

void DialogInterface::tell(const QString &sentence)
{
    emit tellRequested(sentence);
}

} // namespace RK
