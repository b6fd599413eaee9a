#include "dialog_executer_p.h"

#include <connection/connection.h>
#include <connection/platform.h>

#include <string>

namespace RK {

DialogExecuter::DialogExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void DialogExecuter::tell(QString sentence)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> dialog = connection->dialog();
    if (!dialog)
        return;
    QString message;
    try {
        message = QString::fromUtf8(
            dialog->call<std::string>("tell", sentence.toUtf8().toStdString()).c_str());
    } catch (const std::exception &e) {
        message = QString::fromUtf8(e.what());
    }
    emit tellFinished(message);
}

} // namespace RK
