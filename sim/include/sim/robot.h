#pragma once

#include <sim/api.h>
#include <sim/scenario.h>
#include <sim/service.h>

#include <wz/session.h>
#include <wz/url.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sim {

class MemoryService;

struct RobotOptions
{
    std::string listenUrl = "tcp://127.0.0.1:0";
    // What VXMemory.version answers.
    std::string version = "2.1.4.13";
    // "MorvaneReady" turns true this long after start().
    std::chrono::milliseconds readyDelay {0};
    // "MorvaneReady" stays false until Scenario::releaseReadiness().
    bool holdReadiness = false;
    // Logs each call with its caller at info level (debug otherwise).
    bool verbose = false;
    // The perception scene and its people live on their own (objects
    // moving, people coming and going), unless a scenario says otherwise.
    // Off by default so that a test's robot raises only what the test asks.
    bool lively = false;
    // The services to offer; empty means defaultServices().
    std::vector<ServiceEntry> services;
};

// The simulated robot: a listening wz::Session acting as the service
// directory, with the robot's services registered in it.
class SIM_API Robot
{
public:
    explicit Robot(RobotOptions options = RobotOptions());
    // Stops.
    ~Robot();
    Robot(const Robot &) = delete;
    Robot &operator=(const Robot &) = delete;

    // Listens and registers every service that is not omitted. Throws
    // std::runtime_error when the address cannot be used.
    void start();
    // Ends every client connection and every thread of the robot; calls in
    // progress finish first. Idempotent.
    void stop();
    bool isRunning() const;

    // The listening address with its real port.
    wz::Url url() const;
    wz::Session &session() const { return *m_session; }
    Scenario &scenario() { return m_scenario; }
    const RobotOptions &options() const { return m_options; }

    MemoryService &memory() const;
    Service *service(const std::string &name) const;
    template<typename T>
    T *serviceAs(const std::string &name) const
    {
        return dynamic_cast<T *>(service(name));
    }
    // Every service the robot knows, offered or omitted, in order.
    std::vector<std::string> serviceNames() const;
    bool isRegistered(const std::string &service) const;
    // Whether the service declares the method or the scenario added it.
    bool offersMethod(const std::string &service, const std::string &method) const;
    // The service's current object (null while it is omitted or before
    // start()); a fresh one after each refreshService().
    wz::Object serviceObject(const std::string &service) const;

    // Port that PackageManager._getHttpTransferPort reports.
    int httpTransferPort() const;
    void setHttpTransferPort(int port);

    // Runs `task` on the robot's timer thread after `delay`. Tasks must be
    // short; pending ones are dropped by stop().
    void schedule(std::chrono::milliseconds delay, std::function<void()> task);

    // Readiness ("MorvaneReady"); Scenario forwards here.
    void setReadiness(bool held, std::chrono::milliseconds delay);

    // Builds the service's object again (after a change of its methods) and
    // registers it again if it was registered; registers or unregisters it
    // according to Scenario::isOmitted.
    void refreshService(const std::string &name);

    struct Impl;

private:
    RobotOptions m_options;
    boost::shared_ptr<wz::Session> m_session;
    Scenario m_scenario;
    std::unique_ptr<Impl> d;
};

} // namespace sim
