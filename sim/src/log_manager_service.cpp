#include <sim/device_services.h>

#include <wz/log_listener.h>

namespace sim {

LogManagerService::LogManagerService() : Service("LogManager") { }

void LogManagerService::describe(ServiceBuilder &b)
{
    b.method("getListener", []() { return wz::makeLogListenerObject(); });
}

} // namespace sim
