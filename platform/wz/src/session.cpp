#include <wz/session.h>

#include <stdexcept>

namespace wz {

namespace detail {
class SessionImpl
{
};
} // namespace detail

namespace {
[[noreturn]] void notYet()
{
    throw std::runtime_error("not implemented");
}
} // namespace

Session::Session() { }
Session::~Session() { }
Future<void> Session::listen(const Url &)
{
    notYet();
}
Future<void> Session::connect(const Url &)
{
    notYet();
}
Future<void> Session::close()
{
    notYet();
}
bool Session::isConnected() const
{
    notYet();
}
Url Session::url() const
{
    notYet();
}
std::vector<Url> Session::endpoints() const
{
    notYet();
}
Future<std::vector<ServiceInfo>> Session::services(ServiceLocality)
{
    notYet();
}
Future<Object> Session::service(const std::string &, const std::string &)
{
    notYet();
}
Future<unsigned int> Session::registerService(const std::string &, Object)
{
    notYet();
}
Future<void> Session::unregisterService(unsigned int)
{
    notYet();
}
std::vector<std::string> Session::clients() const
{
    notYet();
}
void Session::closeClient(const std::string &)
{
    notYet();
}
void Session::stallClient(const std::string &, bool)
{
    notYet();
}
void Session::sendRaw(const std::string &, const std::string &)
{
    notYet();
}
std::string Session::currentCaller()
{
    notYet();
}
void Session::setHeartbeat(std::chrono::milliseconds, std::chrono::milliseconds)
{
    notYet();
}

} // namespace wz
