#pragma once

#include "wait_until.h"

#include <sim/robot.h>

#include <wz/object_builder.h>
#include <wz/session.h>

#include <boost/make_shared.hpp>

#include <chrono>
#include <condition_variable>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace simtest {

using namespace std::chrono_literals;

inline boost::shared_ptr<wz::Session> connectTo(const sim::Robot &robot)
{
    auto session = boost::make_shared<wz::Session>();
    session->connect(robot.url()).value(10000);
    return session;
}

// What a client module received through its callback method.
class Inbox
{
public:
    void push(const sim::Args &args)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_got.push_back(args);
        }
        m_cond.notify_all();
    }
    bool waitFor(size_t count, std::chrono::milliseconds timeout = test::patience())
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, timeout, [&]() { return m_got.size() >= count; });
    }
    std::vector<sim::Args> got() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_got;
    }
    size_t size() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_got.size();
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_cond;
    std::vector<sim::Args> m_got;
};

// A client's own module with the callback shape the memory service uses.
inline wz::Object makeModule(std::shared_ptr<Inbox> inbox, const std::string &method = "onEvent")
{
    wz::DynamicObjectBuilder b("TestModule");
    b.advertiseMethod(method, 3, [inbox](const sim::Args &args) {
        inbox->push(args);
        return wz::AnyValue();
    });
    return b.object();
}

inline bool listed(wz::Session &session, const std::string &name)
{
    const std::vector<wz::ServiceInfo> services = session.services().value(10000);
    for (const wz::ServiceInfo &s : services) {
        if (s.name == name)
            return true;
    }
    return false;
}

// This process's threads, or only those with the given name ("wz pool").
inline int threadCount(const std::string &name = std::string())
{
    int n = 0;
    if (DIR *dir = opendir("/proc/self/task")) {
        while (dirent *e = readdir(dir)) {
            if (e->d_name[0] == '.')
                continue;
            if (!name.empty()) {
                std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
                std::string line;
                std::getline(comm, line);
                if (line != name)
                    continue;
            }
            ++n;
        }
        closedir(dir);
    }
    return n;
}

inline int openDescriptors()
{
    int n = 0;
    if (DIR *dir = opendir("/proc/self/fd")) {
        while (dirent *e = readdir(dir))
            n += e->d_name[0] != '.';
        closedir(dir);
    }
    return n;
}

inline long residentKiB()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

} // namespace simtest
