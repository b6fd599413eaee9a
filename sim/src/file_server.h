#pragma once

#include <sim/device_services.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// The robot's HTTP/1.1 file server: GET, PUT and DELETE below one store
// directory, one thread per connection, keep-alive. Nothing outside the store
// is ever read or written: targets are percent-decoded, ".." and NUL are
// refused, and every symbolic link met on the way must resolve inside.
class FileServer
{
public:
    // Serves `store` (made when missing; a private temporary directory,
    // removed with the server, when empty) on 127.0.0.1 with a free port.
    explicit FileServer(const std::string &store);
    ~FileServer();
    FileServer(const FileServer &) = delete;
    FileServer &operator=(const FileServer &) = delete;

    int port() const { return m_port; }
    // The canonical store directory.
    const std::string &store() const { return m_store; }
    void setFault(const HttpFault &fault);
    // Requests the current fault has been applied to.
    int faultsTaken() const;
    // Ends every connection and thread; idempotent.
    void stop();

    // The store path of a robot-side path ("/a/b" or "a/b"), or "" when it
    // would leave the store. Used by the package manager.
    std::string resolve(const std::string &robotPath) const;

    static constexpr uint64_t kBodyLimit = uint64_t(1) << 34;

private:
    struct Connection;
    void acceptLoop();
    void serve(Connection *connection);
    bool takeFault(const std::string &method, const std::string &target, HttpFault &fault);
    bool waitStopping(std::chrono::milliseconds delay);

    std::string m_store;
    bool m_ownStore = false;
    int m_port = 0;
    int m_listenFd = -1;
    std::thread m_acceptThread;
    mutable std::mutex m_mutex;
    std::condition_variable m_stopCond;
    bool m_stopping = false;
    std::list<std::unique_ptr<Connection>> m_connections;
    HttpFault m_fault;
    int m_faultsTaken = 0;
};

} // namespace sim
