#include "charge_interface.h"

#include "connection_p.h"

#include <connection/platform.h>

namespace test {

int ChargeExecuter::readCharge()
{
    const boost::shared_ptr<RK::Connection> connection = m_connection.lock();
    if (!connection)
        return -1;
    const boost::shared_ptr<VX::VXProxy> battery = connection->batteryDevice();
    if (!battery)
        return -1;
    try {
        return battery->call<int>("getBatteryCharge");
    } catch (const std::exception &) {
        return -1;
    }
}

void ChargeExecuter::onGetCharge()
{
    const boost::shared_ptr<RK::Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> battery = connection->batteryDevice();
    if (!battery)
        return;
    try {
        emit chargeUpdated(battery->call<int>("getBatteryCharge"));
    } catch (const std::exception &e) {
        emit error(QStringLiteral("VXBattery"), QStringLiteral("Failed to call"),
                   QString::fromUtf8(e.what()));
    }
}

ChargeInterface::ChargeInterface(boost::shared_ptr<RK::Connection> connection, const QString &name)
    : MorvaneInterface(connection, name)
{
    request(this, &ChargeInterface::getChargeRequested, &ChargeExecuter::onGetCharge);
    forward(&ChargeExecuter::chargeUpdated, this, &ChargeInterface::chargeUpdated);
    forward(&ChargeExecuter::error, this, &ChargeInterface::error);
}

} // namespace test
