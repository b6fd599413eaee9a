#include "gate_interface.h"

#include "connection_p.h"

namespace test {

int GateExecuter::passGate()
{
    const boost::shared_ptr<RK::Connection> connection = m_connection.lock();
    if (!connection)
        return -1;
    ++poolRuns;
    entered->release();
    gate->acquire();
    ++poolDone;
    return 7;
}

void GateExecuter::onKnock()
{
    const boost::shared_ptr<RK::Connection> connection = m_connection.lock();
    if (!connection)
        return;
    slotThread = QThread::currentThread();
    const int runs = ++*slotRuns;
    entered->release();
    gate->acquire();
    emit knocked(runs);
}

GateInterface::GateInterface(boost::shared_ptr<RK::Connection> connection, const QString &name)
    : MorvaneInterface(connection, name)
{
    request(this, &GateInterface::knockRequested, &GateExecuter::onKnock);
    forward(&GateExecuter::knocked, this, &GateInterface::knocked);
}

} // namespace test
