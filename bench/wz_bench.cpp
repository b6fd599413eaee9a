// Messaging costs against plain loopback TCP measured in the same run:
//  - small call round trip vs a raw ping-pong of the same bytes (median, p99),
//    with the robot in a process of its own and with both ends in this one;
//  - posted calls per second, one way, and signal emissions per second to a
//    subscriber, each against raw one-way messages of the same size;
//  - a 2.5 MB binary round trip vs the same bytes echoed over a plain socket.

#include <wz/detail/decode.h>
#include <wz/detail/trace.h>
#include <wz/wz.h>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "run_benchmarks.h"

namespace {

using Clock = std::chrono::steady_clock;

double micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

double percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5));
    return v[i];
}

// ---- plain sockets (the baseline) ------------------------------------------------

void check(bool ok, const char *what)
{
    if (!ok)
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

void writeAll(int fd, const char *p, size_t n)
{
    while (n > 0) {
        const ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL);
        check(w > 0, "send");
        p += w;
        n -= static_cast<size_t>(w);
    }
}

void readAll(int fd, char *p, size_t n)
{
    while (n > 0) {
        const ssize_t r = ::recv(fd, p, n, 0);
        check(r > 0, "recv");
        p += r;
        n -= static_cast<size_t>(r);
    }
}

// A connected loopback pair with an echo-like server thread: it reads
// `request` bytes and answers `reply` bytes, `rounds` times.
struct RawPair
{
    int client = -1;
    std::thread server;

    RawPair(size_t request, size_t reply, int rounds)
    {
        const int lfd = ::socket(AF_INET, SOCK_STREAM, 0);
        check(lfd >= 0, "socket");
        sockaddr_in addr {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        check(::bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0, "bind");
        check(::listen(lfd, 1) == 0, "listen");
        socklen_t len = sizeof addr;
        check(::getsockname(lfd, reinterpret_cast<sockaddr *>(&addr), &len) == 0, "getsockname");
        client = ::socket(AF_INET, SOCK_STREAM, 0);
        check(::connect(client, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0, "connect");
        const int sfd = ::accept(lfd, nullptr, nullptr);
        check(sfd >= 0, "accept");
        ::close(lfd);
        const int one = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        ::setsockopt(sfd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        server = std::thread([sfd, request, reply, rounds] {
            std::vector<char> in(request), out(reply, 'r');
            for (int i = 0; i < rounds; ++i) {
                readAll(sfd, in.data(), in.size());
                writeAll(sfd, out.data(), out.size());
            }
            ::close(sfd);
        });
    }
    ~RawPair()
    {
        server.join();
        ::close(client);
    }
};

// One round trip over the raw pair: `out` bytes there, `in.size()` back.
double rawRoundTrip(RawPair &pair, const std::vector<char> &out, std::vector<char> &in)
{
    const auto t0 = Clock::now();
    writeAll(pair.client, out.data(), out.size());
    readAll(pair.client, in.data(), in.size());
    return micros(Clock::now() - t0);
}

// Messages per second, one way: `count` writes of `frame` bytes each (one
// send per message, as the framework does), drained by a reader thread.
double rawOneWay(size_t frame, int64_t count)
{
    const int lfd = ::socket(AF_INET, SOCK_STREAM, 0);
    check(lfd >= 0, "socket");
    sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(::bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0, "bind");
    check(::listen(lfd, 1) == 0, "listen");
    socklen_t len = sizeof addr;
    check(::getsockname(lfd, reinterpret_cast<sockaddr *>(&addr), &len) == 0, "getsockname");
    const int out = ::socket(AF_INET, SOCK_STREAM, 0);
    check(::connect(out, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0, "connect");
    const int in = ::accept(lfd, nullptr, nullptr);
    ::close(lfd);
    const int one = 1;
    ::setsockopt(out, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const size_t total = frame * static_cast<size_t>(count);
    const auto t0 = Clock::now();
    std::thread reader([in, total] {
        std::vector<char> buf(1 << 16);
        size_t got = 0;
        while (got < total) {
            const ssize_t r = ::recv(in, buf.data(), buf.size(), 0);
            check(r > 0, "recv");
            got += static_cast<size_t>(r);
        }
    });
    std::vector<char> msg(frame, 'p');
    for (int64_t i = 0; i < count; ++i)
        writeAll(out, msg.data(), msg.size());
    reader.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    ::close(in);
    ::close(out);
    return static_cast<double>(count) / seconds;
}

// Where a call's time goes, stage by stage, when the library was built with
// NIMIOB_WZ_TRACE: the median of each stage over the calls that reached all.
class Breakdown
{
public:
    void add(Clock::time_point start, Clock::time_point end)
    {
        using wz::detail::trace::StageCount;
        int64_t stamps[StageCount] = {};
#ifdef WZ_TRACE
        wz::detail::trace::take(stamps);
#else
        return;
#endif
        int64_t points[StageCount + 2];
        points[0] = nanos(start);
        for (int i = 0; i < StageCount; ++i)
            points[i + 1] = stamps[i];
        points[StageCount + 1] = nanos(end);
        for (int64_t p : points) {
            if (p == 0)
                return;
        }
        for (int i = 0; i <= StageCount; ++i)
            m_stages[i].push_back(double(points[i + 1] - points[i]) / 1000);
        m_totals.push_back(double(points[StageCount + 1] - points[0]) / 1000);
    }

    void report(benchmark::State &state) const
    {
        static const char *const names[]
            = {"b1_encode_us",       "b2_send_to_decode_us", "b3_to_method_us",   "b4_method_us",
               "b5_reply_encode_us", "b6_send_to_decode_us", "b7_wake_caller_us", "b8_return_us"};
        static_assert(sizeof names / sizeof *names == wz::detail::trace::StageCount + 1, "");
        if (m_totals.empty())
            return;
        // The slowest 2% of calls, stage by stage: where the tail comes from.
        const double slow = percentile(m_totals, 0.98);
        for (int i = 0; i <= wz::detail::trace::StageCount; ++i) {
            state.counters[names[i]] = percentile(m_stages[i], 0.5);
            std::vector<double> tail;
            for (size_t k = 0; k < m_totals.size(); ++k) {
                if (m_totals[k] >= slow)
                    tail.push_back(m_stages[i][k]);
            }
            state.counters[std::string("tail_") + names[i]] = percentile(tail, 0.5);
        }
    }

private:
    static int64_t nanos(Clock::time_point t)
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
    }

    std::vector<double> m_stages[wz::detail::trace::StageCount + 1];
    std::vector<double> m_totals;
};

// ---- the framework ------------------------------------------------------------------

// The service both kinds of robot offer.
wz::Object benchService(std::atomic<int64_t> *posted)
{
    wz::DynamicObjectBuilder b("Bench");
    // The same sum twice: served on the I/O thread that reads the call, and
    // handed to a framework thread as a method that may block would be.
    b.advertiseMethod(
        "add", [](int a, int b) { return a + b; }, wz::MethodFlag_Direct);
    b.advertiseMethod("addPooled", [](int a, int b) { return a + b; });
    b.advertiseMethod("echo", [](const wz::Buffer &bytes) { return bytes; });
    b.advertiseMethod("count", [posted](int) {
        if (posted)
            ++*posted;
    });
    return b.object();
}

// Both ends in this process, sharing its one I/O thread. The posted-call and
// event cases count on the robot's side, so they need it here.
struct Robot
{
    boost::shared_ptr<wz::Session> directory = boost::make_shared<wz::Session>();
    boost::shared_ptr<wz::Session> client = boost::make_shared<wz::Session>();
    std::atomic<int64_t> posted {0};
    wz::Object service;

    Robot()
    {
        directory->listen(wz::Url("tcp://127.0.0.1:0")).value();
        directory->registerService("Bench", benchService(&posted)).value();
        client->connect(directory->endpoints()[0]).value();
        service = client->service("Bench").value();
    }
};

// This program started again as the robot: it serves until its input closes.
int serveAsRobot()
{
    auto directory = boost::make_shared<wz::Session>();
    directory->listen(wz::Url("tcp://127.0.0.1:0")).value();
    directory->registerService("Bench", benchService(nullptr)).value();
    std::printf("%s\n", directory->endpoints()[0].str().c_str());
    std::fflush(stdout);
    char c;
    while (::read(STDIN_FILENO, &c, 1) > 0) { }
    return 0;
}

// The robot in a process of its own, as the product meets it: each end has
// its own I/O thread, as a desktop and a robot do.
struct RemoteRobot
{
    boost::shared_ptr<wz::Session> client = boost::make_shared<wz::Session>();
    wz::Object service;
    pid_t pid = -1;
    int input = -1;

    RemoteRobot()
    {
        int in[2], out[2];
        check(::pipe2(in, O_CLOEXEC) == 0 && ::pipe2(out, O_CLOEXEC) == 0, "pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        char self[] = "/proc/self/exe", serve[] = "--serve-as-robot";
        char *argv[] = {self, serve, nullptr};
        const int spawned = ::posix_spawn(&pid, self, &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input = in[1];
        errno = spawned;
        check(spawned == 0, "posix_spawn");
        // The robot says where it listens; a robot that dies first ends the read.
        pollfd p {out[0], POLLIN, 0};
        std::string url;
        char c;
        while (::poll(&p, 1, 10000) == 1 && ::read(out[0], &c, 1) == 1 && c != '\n')
            url += c;
        ::close(out[0]);
        if (url.empty())
            throw std::runtime_error("the robot process did not start");
        client->connect(wz::Url(url)).value();
        service = client->service("Bench").value();
    }
    ~RemoteRobot()
    {
        service = wz::Object();
        client->close().wait();
        ::close(input);
        ::waitpid(pid, nullptr, 0);
    }
};

// Frame sizes of a call and its reply, so that the baseline moves the same bytes.
size_t callFrameSize(int64_t requestId, int64_t objectId, const std::string &method,
                     const wz::AnyValue::List &args)
{
    using wz::AnyValue;
    return wz::detail::frameForTest(wz::detail::encodeValueForTest(AnyValue(AnyValue::List {
                                        AnyValue(1), AnyValue(requestId), AnyValue(objectId),
                                        AnyValue(method), AnyValue(args)})))
        .size();
}

size_t replyFrameSize(int64_t requestId, const wz::AnyValue &value)
{
    using wz::AnyValue;
    return wz::detail::frameForTest(wz::detail::encodeValueForTest(AnyValue(
                                        AnyValue::List {AnyValue(3), AnyValue(requestId), value})))
        .size();
}

// How often this process's I/O thread has gone to sleep, from /proc: with the
// robot in its own process, what that thread costs each call.
double ioThreadSleeps()
{
    double total = 0;
    std::error_code ec;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", ec)) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (name != "wz io")
            continue;
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                total += std::stod(line.substr(line.find(':') + 1));
        }
    }
    return total;
}

// Calls of add(1000, 1) interleaved sample by sample with a raw ping-pong of
// the same bytes, so that both see the same machine. The second argument
// picks the served method: 1 the direct "add", 0 "addPooled".
void smallCalls(benchmark::State &state, wz::Object &service)
{
    const int rounds = static_cast<int>(state.range(0));
    const std::string method = state.range(1) ? "add" : "addPooled";
    for (int i = 0; i < 200; ++i) // warm up the pool and the caches
        service.call<int>(method, i, 1);
    const size_t request = callFrameSize(1000, static_cast<int64_t>(service->objectUid()), method,
                                         {wz::AnyValue(1000), wz::AnyValue(1)});
    const size_t reply = replyFrameSize(1000, wz::AnyValue(1001));
    std::vector<double> raw, call;
    Breakdown breakdown;
    const double sleepsBefore = ioThreadSleeps();
    for (auto _ : state) {
        RawPair pair(request, reply, rounds);
        std::vector<char> out(request, 'q'), in(reply);
        raw.clear();
        call.clear();
        for (int i = 0; i < rounds; ++i) {
            raw.push_back(rawRoundTrip(pair, out, in));
            const auto t0 = Clock::now();
            benchmark::DoNotOptimize(service.call<int>(method, 1000, 1));
            const auto t1 = Clock::now();
            call.push_back(micros(t1 - t0));
            breakdown.add(t0, t1);
        }
    }
    const double rawMedian = percentile(raw, 0.5), callMedian = percentile(call, 0.5);
    const double rawP99 = percentile(raw, 0.99), callP99 = percentile(call, 0.99);
    state.counters["raw_median_us"] = rawMedian;
    state.counters["call_median_us"] = callMedian;
    state.counters["median_ratio"] = callMedian / rawMedian;
    state.counters["raw_p99_us"] = rawP99;
    state.counters["call_p99_us"] = callP99;
    state.counters["p99_ratio"] = callP99 / rawP99;
    state.counters["frame_bytes"] = static_cast<double>(request);
    state.counters["io_sleeps_per_call"]
        = (ioThreadSleeps() - sleepsBefore) / (static_cast<double>(rounds) * state.iterations());
    breakdown.report(state);
}

// The robot in its own process (the stage breakdown needs both ends here).
void BM_SmallCallRoundTrip(benchmark::State &state)
{
    RemoteRobot robot;
    smallCalls(state, robot.service);
}

// Both ends in this process, on one I/O thread: with the stage breakdown.
void BM_SmallCallOneProcess(benchmark::State &state)
{
    Robot robot;
    smallCalls(state, robot.service);
}

void BM_PostsOneWay(benchmark::State &state)
{
    const int64_t count = state.range(0);
    Robot robot;
    const size_t frame = callFrameSize(0, static_cast<int64_t>(robot.service->objectUid()), "count",
                                       {wz::AnyValue(100000)});
    double perSecond = 0, rawPerSecond = 0;
    for (auto _ : state) {
        rawPerSecond = rawOneWay(frame, count);
        robot.posted = 0;
        const auto t0 = Clock::now();
        for (int64_t i = 0; i < count; ++i)
            robot.service.post("count", static_cast<int>(i));
        while (robot.posted.load() < count)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        perSecond
            = static_cast<double>(count) / std::chrono::duration<double>(Clock::now() - t0).count();
    }
    state.counters["posts_per_s"] = perSecond;
    state.counters["raw_msgs_per_s"] = rawPerSecond;
    state.counters["post_ratio"] = rawPerSecond / perSecond;
}

// Signal emissions from the directory side to a client subscriber.
void BM_EventsToSubscriber(benchmark::State &state)
{
    const int64_t count = state.range(0);
    Robot robot;
    wz::DynamicObjectBuilder b("Events");
    b.advertiseSignal("tick", 1);
    wz::Object events = b.object();
    robot.directory->registerService("Events", events).value();
    std::atomic<int64_t> received {0};
    robot.client->service("Events").value().connect("tick", [&](int) { ++received; }).value();
    const size_t frame = callFrameSize(0, 1, "", {}) + 4; // an emit: [8, 0, link, [value]]
    double perSecond = 0, rawPerSecond = 0;
    for (auto _ : state) {
        rawPerSecond = rawOneWay(frame, count);
        received = 0;
        const auto t0 = Clock::now();
        for (int64_t i = 0; i < count; ++i)
            events->emitSignal("tick", {wz::AnyValue(static_cast<int>(i))});
        while (received.load() < count)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        perSecond
            = static_cast<double>(count) / std::chrono::duration<double>(Clock::now() - t0).count();
    }
    state.counters["events_per_s"] = perSecond;
    state.counters["raw_msgs_per_s"] = rawPerSecond;
    state.counters["event_ratio"] = rawPerSecond / perSecond;
}

void BM_BinaryRoundTrip(benchmark::State &state)
{
    const size_t bytes = static_cast<size_t>(state.range(0));
    const int rounds = 60;
    Robot robot;
    const wz::Buffer frame(std::string(bytes, '\x5a'));
    robot.service.call<wz::Buffer>("echo", frame); // warm up
    std::vector<double> raw, call;
    for (auto _ : state) {
        RawPair pair(bytes, bytes, rounds);
        std::vector<char> out(bytes, 'q'), in(bytes);
        raw.clear();
        call.clear();
        for (int i = 0; i < rounds; ++i) {
            raw.push_back(rawRoundTrip(pair, out, in));
            const auto t0 = Clock::now();
            wz::Buffer back = robot.service.call<wz::Buffer>("echo", frame);
            call.push_back(micros(Clock::now() - t0));
            if (back.size() != bytes)
                state.SkipWithError("echo returned the wrong size");
        }
    }
    const double rawMedian = percentile(raw, 0.5), callMedian = percentile(call, 0.5);
    state.counters["raw_median_ms"] = rawMedian / 1000;
    state.counters["call_median_ms"] = callMedian / 1000;
    state.counters["binary_ratio"] = callMedian / rawMedian;
}

} // namespace

BENCHMARK(BM_SmallCallRoundTrip)
    ->Args({5000, 1})
    ->Args({5000, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmallCallOneProcess)
    ->Args({5000, 1})
    ->Args({5000, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PostsOneWay)->Arg(200000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EventsToSubscriber)->Arg(200000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BinaryRoundTrip)->Arg(2500000)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    if (argc > 1 && std::strcmp(argv[1], "--serve-as-robot") == 0)
        return serveAsRobot();
    return bench::runBenchmarks(argc, argv);
}
