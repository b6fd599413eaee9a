#pragma once

// Process-wide threads: the framework pool that runs user code, the serial
// queues that keep posts and signal deliveries in order, and the per-thread
// wakers that threads sleep on.

#include <wz/future.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace wz {
namespace detail {

using Task = std::function<void()>;

// Lets one thread sleep until another wakes it. A pipe rather than a
// condition variable: the kernel wakes a pipe reader "in sync", on the CPU of
// the waker that is about to sleep, where a futex wake sends the sleeper to
// another (often halted) CPU. On a two-core virtual machine a hand-over and
// back costs ~5 us through pipes against ~45 us through a condition variable
// (platform/README.md), and a call has two hand-overs.
//
// Where the kernel does not keep the wake on the waker's CPU, a sleeper costs
// tens of microseconds more to wake. So a waiter whose recent waits were
// short first spins for a few microseconds on a flag; a wake that finds it
// spinning costs a store. The spin adapts to what the waits have been and
// stops entirely for a thread whose waits are long (an idle one).
class Waker
{
public:
    Waker();
    ~Waker();
    Waker(const Waker &) = delete;
    Waker &operator=(const Waker &) = delete;

    // The calling thread's own waker (kept alive by whoever may still wake it).
    static std::shared_ptr<Waker> forThisThread();

    void wake();
    // Sleeps until woken or `timeoutMs` passes (-1: no limit); true if woken.
    // At most `maxSpinUs` of it may be spent spinning first. A `helper`
    // takes its turn for the whole wait: it polls during the spin, and the
    // sleep also ends when its descriptor turns readable, for it to poll.
    bool wait(int64_t timeoutMs, int64_t maxSpinUs = 0, WaitHelper *helper = nullptr);
    // Forgets a wake that came after its waiter had stopped waiting.
    void drain();

    // The spin limits of a caller waiting for its reply and of a framework
    // thread waiting for work: 100 us, or WZ_CALLER_SPIN_US / WZ_WORKER_SPIN_US.
    static int64_t callerSpinUs();
    static int64_t workerSpinUs();
    // How long the I/O thread polls after its process answered a call: 50 us,
    // or WZ_IO_SPIN_US.
    static int64_t ioSpinUs();

    // A spinning thread that lost its CPU for a while (more than 250 us, or
    // WZ_SPIN_LOST_US, between two looks at the clock) is competing with
    // other work for the CPUs. A spin then only takes time from the thread
    // it waits for, and it makes the spinner look like a CPU hog to the
    // scheduler, which then lets it wait behind others for whole slices. So
    // no thread of the process spins for a while (50 ms, or
    // WZ_SPIN_PAUSE_MS; WZ_SPIN_LOST_US=0 never pauses). True when `gapNs`
    // is such a loss.
    static bool noteSpinGap(int64_t gapNs);
    static bool spinsPaused();

private:
    enum { Awake, Spinning, Sleeping };
    bool spin(int64_t budgetNs, WaitHelper::Turn *turn);
    // Sleeps on the pipe, and on the turn's descriptor while it has one;
    // `deadlineNs` -1 for no limit.
    bool sleep(int64_t deadlineNs, std::unique_ptr<WaitHelper::Turn> &turn);

    std::atomic<bool> m_signal {false};
    std::atomic<int> m_mode {Awake};
    // Running mean of how long this thread's waits lasted (ns), the basis of
    // its spin budget. Only the waiting thread touches it.
    int64_t m_meanWaitNs = 0;
    // Whether a waker may have written to the pipe since the last drain: only
    // one that found this thread asleep does. Waiting thread only; it spares
    // a wake caught while spinning a read of an empty pipe.
    bool m_pipeMayHoldWake = false;
    int m_read = -1;
    int m_write = -1;
    // Used when no pipe could be made (out of descriptors).
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_flag = false;
};

// Marks the calling thread, for its lifetime, as running a direct method on
// an I/O thread: no message is read while it runs, so a wait for a remote
// result could never end, and a wait for a local one stalls every link.
class DirectMethodScope
{
public:
    DirectMethodScope();
    ~DirectMethodScope();
    DirectMethodScope(const DirectMethodScope &) = delete;
    DirectMethodScope &operator=(const DirectMethodScope &) = delete;

    static bool active();
};

// Grows when every thread is busy (so a task may block on a nested remote
// call without starving the others), up to a cap; idle threads above the
// minimum leave after a while.
class FrameworkPool
{
public:
    static FrameworkPool &instance();

    void post(Task task);
    int threadCount() const;
    int idleCount() const;

    static constexpr int kMinThreads = 2;
    static constexpr int kMaxThreads = 256;

private:
    struct Worker
    {
        std::shared_ptr<Waker> waker;
        bool signaled = false;
    };

    FrameworkPool() = default;
    void spawn();
    void run();

    mutable std::mutex m_mutex;
    std::deque<Task> m_queue;
    // Most recently idle last: it is woken first, with the warmest cache.
    std::vector<Worker *> m_idle;
    int m_threads = 0;
};

// Runs tasks one after the other on the pool, in the order they were posted.
class SerialQueue : public std::enable_shared_from_this<SerialQueue>
{
public:
    void post(Task task);

private:
    void drain();

    std::mutex m_mutex;
    std::deque<Task> m_queue;
    bool m_running = false;
};

} // namespace detail
} // namespace wz
