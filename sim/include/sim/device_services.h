#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <wz/log.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// "VXBattery": a charge in percent; `getBatteryLevel` gives it in steps of
// 20 percent (0 to 5).
class SIM_API BatteryService : public Service
{
public:
    BatteryService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"charge": 0..100}.
    void configure(const wz::AnyValue &settings) override;
    int charge() const { return m_charge; }
    int level() const { return m_charge / 20; }
    void setCharge(int percent);

private:
    std::atomic<int> m_charge {87};
};

// A misbehaviour of the file server, for tests of the client's error paths.
// It hits the requests whose method and target match (empty: any), `times`
// of them (-1: until cleared).
struct HttpFault
{
    enum class Kind {
        None,
        Status, // answer `status` with `body` (after a PUT's body)
        FinalInsteadOfContinue, // PUT with Expect: a final 200 at once, no 100
        NoContinue, // PUT with Expect: never a 100, just wait for the body
        Stall, // read the request, never answer
        SlowBody, // a GET answer sent, or a PUT body read, `bytes` at a time, `delay` apart
        DropAfter, // close after `bytes` bytes of the answer
        LengthOff, // Content-Length off by `lengthDelta`
        Malformed, // `body` (or a broken status line) as the whole answer, then close
        Listing, // a directory's listing is `names`, one a line, as given
        Chunked, // GET answers in the chunked coding, chunks of `bytes`
        CloseDelimited, // GET answers as HTTP/1.0 with no length, ended by the close
        Redirect, // GET answered `status` (301 unless set) to the target with
                  // `pathContains` replaced by `body` (`body` as it is when absolute)
        CloseAfter, // every connection closed after `bytes` requests, silently or,
                    // with `announce`, saying "Connection: close" on the last answer
    };
    Kind kind = Kind::None;
    std::string method;
    std::string pathContains;
    int status = 0;
    std::string body;
    size_t bytes = 1024;
    std::chrono::milliseconds delay {0};
    long long lengthDelta = 0;
    std::vector<std::string> names;
    bool announce = false;
    int times = -1;
};

class FileServer;
struct PackageRecord;

// "PackageManager": installed packages, file transfer sessions and the HTTP
// file server on the port of _getHttpTransferPort, serving the store
// directory (RobotOptions::storeDir, a fresh temporary directory when empty).
// Generation 2 offers installCheckMd5, removePkg and packageIcon beside the
// older install, remove and getPackageIcon; generation 1 only the older ones.
class SIM_API PackageManagerService : public Service
{
public:
    PackageManagerService();
    ~PackageManagerService() override;
    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"generation": 1|2, "packages": "clear"}.
    void configure(const wz::AnyValue &settings) override;

    void setGeneration(int generation);
    int generation() const;
    // The store on disk ("" before start()).
    std::string storeDir() const;
    void setHttpFault(const HttpFault &fault);
    void clearHttpFault() { setHttpFault(HttpFault()); }
    // Requests the fault set last has been applied to, so far.
    int httpFaultsTaken() const;
    std::vector<std::string> installedUuids() const;
    void clearPackages();
    std::vector<std::string> openSessions() const;

private:
    struct State;
    std::unique_ptr<State> d;
};

// "LogManager": getListener() hands out a new listener object fed by this
// process's log (signal "onLogMessage", property "verbosity", methods
// "setCategory" and "clearFilters"); each lives as long as its holder.
// A chatter source writes numbered messages to that log, for tests and
// benchmarks: "chatter N" at a rate, in a category, at a level.
class SIM_API LogManagerService : public Service
{
public:
    struct Chatter
    {
        int rate = 0; // messages a second; 0 is off
        std::string category = "sim.chatter";
        wz::LogLevel level = wz::LogLevel_Warning;
    };

    LogManagerService();
    ~LogManagerService() override;
    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"chatter": {"rate": N, "category": TEXT, "level": 0..6}}.
    void configure(const wz::AnyValue &settings) override;

    // Starts, changes or (rate 0) stops the chatter; numbering goes on. It
    // returns once no message of the old setting is still being written.
    void setChatter(const Chatter &chatter);
    Chatter chatter() const;
    // Messages written so far; the next one is "chatter <sent()>".
    uint64_t sent() const { return m_sent; }

private:
    void run();

    mutable std::mutex m_mutex;
    std::condition_variable m_cond;
    Chatter m_chatter;
    bool m_running = false;
    // Written under the lock; a batch being written reads it without.
    std::atomic<uint64_t> m_changes {0};
    bool m_writing = false;
    std::atomic<uint64_t> m_sent {0};
    std::thread m_thread;
};

} // namespace sim
