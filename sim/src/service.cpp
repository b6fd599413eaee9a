#include <sim/robot.h>
#include <sim/service.h>

#include <wz/log.h>

#include <stdexcept>

namespace sim {

void ServiceBuilder::method(const std::string &name, unsigned arity, MethodFn fn,
                            wz::MethodFlag flags)
{
    for (const MethodDef &m : m_methods) {
        if (m.name == name && m.arity == arity)
            throw std::invalid_argument("method \"" + name + "\" with " + std::to_string(arity)
                                        + " argument(s) declared twice");
    }
    m_methods.push_back(
        MethodDef {name, arity, std::move(fn), (flags & wz::MethodFlag_Direct) != 0});
}

void ServiceBuilder::signal(const std::string &name, unsigned arity)
{
    m_signals.push_back(SignalDef {name, arity});
}

void ServiceBuilder::property(const std::string &name, wz::AnyValue initial)
{
    m_properties.push_back(PropertyDef {name, std::move(initial)});
}

Service::Service(std::string name) : m_name(std::move(name)) { }

Service::~Service() = default;

void Service::configure(const wz::AnyValue &settings)
{
    throw std::runtime_error("service " + m_name + " takes no settings (got " + settings.repr()
                             + ")");
}

void Service::emitSignal(const std::string &signal, const Args &args)
{
    if (!m_robot)
        return;
    wz::Object object = m_robot->serviceObject(m_name);
    if (!object)
        return;
    try {
        object->emitSignal(signal, args);
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, "sim", __FUNCTION__)
            << m_name << " cannot emit " << signal << ": " << e.what();
    }
}

} // namespace sim
