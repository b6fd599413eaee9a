#pragma once

#include <sim/api.h>
#include <sim/client_watch.h>
#include <sim/service.h>

#include <wz/any_value.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// "VXMemoryWatcher": samples memory keys on the robot, at a period set by the
// client and with the robot's clock, and keeps each key's history until
// getData takes it. Every client (peer) has its own listeners, period and
// history; they go when the client leaves.
//
// getData answers [[key, [[[seconds, microseconds], value], ...]], ...] with
// one entry for every listened key (an empty history when nothing was taken
// since the last call), keys in name order, samples oldest first. A key that
// is not in memory is sampled as an invalid value.
class SIM_API MemoryWatcherService : public Service
{
public:
    static constexpr const char *kName = "VXMemoryWatcher";
    // The period a client gets until it sets one.
    static constexpr int kDefaultPeriodMs = 100;
    // Shorter periods, 0 and negative ones included, are raised to this.
    static constexpr int kMinPeriodMs = 10;
    // Samples one client may leave unread; beyond it each key keeps only its
    // newest share, so a client that never reads cannot grow the robot.
    static constexpr size_t kPendingLimit = 500000;

    MemoryWatcherService();
    ~MemoryWatcherService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"periodMs": default period of new clients,
    //            "results": [value, ...] queued as by queueResult}.
    void configure(const wz::AnyValue &settings) override;

    // What one client has set up, for tests and the console.
    struct ClientState
    {
        std::set<std::string> listeners;
        int periodMs = kDefaultPeriodMs; // as the client set it
        bool watching = false;
        size_t pendingSamples = 0;
    };
    // Clients that have called the service, in name order.
    std::vector<std::string> clients() const;
    // Throws std::invalid_argument for a peer that never called.
    ClientState clientState(const std::string &peer) const;

    // Scenario hook: the next getData calls (of any client) answer these
    // values, one each, in order, instead of the caller's history, which
    // stays for the call after. Any value goes, so a malformed history too.
    void queueResult(wz::AnyValue result);
    size_t queuedResults() const;
    void clearQueuedResults();

    // The effective period for a requested one.
    static int effectivePeriodMs(int requestedMs);

private:
    using Clock = std::chrono::steady_clock;
    struct Sample
    {
        int64_t seconds;
        int64_t microseconds;
        wz::AnyValue value;
    };
    struct Client
    {
        std::map<std::string, std::deque<Sample>> histories; // one per listened key
        int periodMs = kDefaultPeriodMs;
        bool watching = false;
        Clock::time_point due;
    };

    Client &callerLocked();
    void setPeriod(int periodMs);
    void startWatching();
    void stopWatching();
    void addListeners(const std::vector<std::string> &keys);
    void removeListeners(const std::vector<std::string> &keys);
    void removeAllListeners();
    wz::AnyValue getData();

    void run();
    void sampleLocked(Client &client);
    void onClientGone(const std::string &peer);

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::map<std::string, Client> m_clients;
    std::deque<wz::AnyValue> m_queued;
    int m_defaultPeriodMs = kDefaultPeriodMs;
    bool m_stopping = false;
    bool m_overflowWarned = false;
    std::thread m_thread;
    ClientWatch m_clientWatch;
};

} // namespace sim
