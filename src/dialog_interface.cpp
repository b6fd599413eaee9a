#include "dialog_executer_p.h"

#include <connection/dialog_interface.h>

namespace RK {

DialogInterface::DialogInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("DialogInterface"))
{
    request(this, &DialogInterface::tellRequested, &DialogExecuter::tell);
    forward(&DialogExecuter::tellFinished, this, &DialogInterface::tellFinished);
}

DialogInterface::~DialogInterface() = default;

QObject *DialogInterface::executerObject() const
{
    return executer();
}

void DialogInterface::tell(const QString &sentence)
{
    emit tellRequested(sentence);
}

} // namespace RK
