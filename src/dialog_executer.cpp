#include "dialog_executer_p.h"
#include "executer_call_p.h"

#include "connection_p.h"
#include <connection/platform.h>

#include <string>

namespace RK {

DialogExecuter::DialogExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void DialogExecuter::tell(QString sentence)
{
    executerCall(this, m_connection, "tell").run(&Connection::dialog, [&](VX::VXProxy &dialog) {
        emit tellFinished(QString::fromUtf8(
            dialog.call<std::string>("tell", sentence.toUtf8().toStdString()).c_str()));
    });
}

} // namespace RK
