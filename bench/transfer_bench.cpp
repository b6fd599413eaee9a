// Project transfers over HTTP against the in-process simulated robot's file
// server and against nginx (started by the benchmark when installed): push
// and pull of one 100 MiB file and of 1000 files of 1 KiB, and the resident
// memory a 200 MB pull adds to the idle process. The baseline, in the same
// run, is a raw loopback copy of the same bytes: each file read, sent over
// one TCP connection in 64 KiB writes and written to a file by a receiving
// thread.

#include <connection/http_project_synchronizer.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <sim/device_services.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "nginx_server.h"
#include "run_benchmarks.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

sim::Robot *g_robot = nullptr;
test::Nginx *g_nginx = nullptr;

enum Server { Simulated = 0, NginxServer = 1 };

// The port of a server, or 0 (the case skipped) when it is not there.
int portOf(int server)
{
    if (server == NginxServer)
        return g_nginx ? g_nginx->port() : 0;
    return g_robot->httpTransferPort();
}

// Resident memory of this process in bytes.
long long residentBytes()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    long long kib = 0;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> kib;
            return kib * 1024;
        }
        status.ignore(1 << 20, '\n');
    }
    return 0;
}

// `tick` runs at every turn of the wait (the memory sampler).
void processUntil(const std::function<bool()> &done, const std::function<void()> &tick = {})
{
    QDeadlineTimer deadline(120000);
    while (!done() && !deadline.hasExpired()) {
        QEventLoop loop;
        QTimer::singleShot(1, &loop, &QEventLoop::quit);
        loop.exec();
        if (tick)
            tick();
    }
}

void fill(wz::project::ProjectModel &model, int files, size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = char((i * 2654435761u) >> 13);
    model.mkdir("d", true);
    for (int i = 0; i < files; ++i) {
        FILE *f = model.fopen(QStringLiteral("d/f%1.bin").arg(i), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
}

// Raw copy of every file of `from` into `to` over one loopback connection.
double rawCopySeconds(const fs::path &from, const fs::path &to)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || ::listen(listener, 1) != 0
        || ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("no loopback listener");
    std::vector<std::pair<fs::path, uint64_t>> files;
    for (const auto &e : fs::recursive_directory_iterator(from))
        if (e.is_regular_file())
            files.emplace_back(fs::relative(e.path(), from), e.file_size());
    const auto start = Clock::now();
    std::thread receiver([&] {
        const int s = ::accept(listener, nullptr, nullptr);
        std::vector<char> buffer(64 * 1024);
        for (const auto &f : files) {
            fs::create_directories((to / f.first).parent_path());
            FILE *out = std::fopen((to / f.first).c_str(), "wb");
            for (uint64_t left = f.second; left > 0;) {
                const ssize_t n = ::read(s, buffer.data(), std::min<uint64_t>(buffer.size(), left));
                if (n <= 0)
                    break;
                std::fwrite(buffer.data(), 1, size_t(n), out);
                left -= uint64_t(n);
            }
            std::fclose(out);
        }
        ::close(s);
    });
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(s, reinterpret_cast<sockaddr *>(&address), sizeof address);
    std::vector<char> buffer(64 * 1024);
    for (const auto &f : files) {
        FILE *in = std::fopen((from / f.first).c_str(), "rb");
        size_t n;
        while ((n = std::fread(buffer.data(), 1, buffer.size(), in)) > 0)
            for (size_t at = 0; at < n;)
                at += size_t(std::max<ssize_t>(0, ::write(s, buffer.data() + at, n - at)));
        std::fclose(in);
    }
    ::shutdown(s, SHUT_WR);
    receiver.join();
    ::close(s);
    ::close(listener);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void BM_Transfer(benchmark::State &state)
{
    const int files = int(state.range(0));
    const size_t size = size_t(state.range(1));
    const double megabytes = double(files) * double(size) / 1e6;
    const int port = portOf(int(state.range(2)));
    if (port == 0) {
        state.SkipWithError("nginx is not installed");
        for (auto _ : state) { }
        return;
    }
    wz::project::ProjectModel source;
    source.createNew();
    fill(source, files, size);
    double pushS = 0, pullS = 0, rawS = 0;
    for (auto _ : state) {
        RK::HttpProjectSynchronizer sync;
        bool ended = false;
        QObject::connect(&sync, &RK::ProjectSynchronizer::done, [&] { ended = true; });
        QObject::connect(&sync, &RK::ProjectSynchronizer::aborted, [&](const QString &r) {
            ended = true;
            state.SkipWithError(r.toStdString().c_str());
        });
        auto start = Clock::now();
        sync.push("127.0.0.1", port, &source, "/bench", wz::project::ArchiveFormat_Plain);
        processUntil([&] { return ended; });
        pushS = std::chrono::duration<double>(Clock::now() - start).count();
        wz::project::ProjectModel target;
        target.createNew();
        ended = false;
        start = Clock::now();
        sync.pull("127.0.0.1", port, "/bench", &target, wz::project::ArchiveFormat_Plain);
        processUntil([&] { return ended; });
        pullS = std::chrono::duration<double>(Clock::now() - start).count();
        const fs::path raw
            = fs::temp_directory_path() / ("transfer-bench-raw-" + std::to_string(::getpid()));
        rawS = rawCopySeconds(source.rootPath().toStdString(), raw);
        fs::remove_all(raw);
    }
    state.counters["push_MB_s"] = megabytes / pushS;
    state.counters["pull_MB_s"] = megabytes / pullS;
    state.counters["raw_MB_s"] = megabytes / rawS;
    state.counters["push_files_s"] = files / pushS;
    state.counters["pull_files_s"] = files / pullS;
    state.counters["raw_files_s"] = files / rawS;
    state.counters["push_vs_raw"] = rawS / pushS;
    state.counters["pull_vs_raw"] = rawS / pullS;
}

// Resident memory added by pulling one large file: sampled through the
// pull, against the idle process just before it. The pull streams each
// body to disk, so this stays far below the file's size.
void BM_PullMemory(benchmark::State &state)
{
    const size_t size = size_t(state.range(0));
    const int port = portOf(int(state.range(1)));
    if (port == 0) {
        state.SkipWithError("nginx is not installed");
        for (auto _ : state) { }
        return;
    }
    wz::project::ProjectModel source;
    source.createNew();
    fill(source, 1, size);
    long long idle = 0, peak = 0;
    double pullS = 0;
    for (auto _ : state) {
        RK::HttpProjectSynchronizer sync;
        bool ended = false;
        QObject::connect(&sync, &RK::ProjectSynchronizer::done, [&] { ended = true; });
        QObject::connect(&sync, &RK::ProjectSynchronizer::aborted, [&](const QString &r) {
            ended = true;
            state.SkipWithError(r.toStdString().c_str());
        });
        sync.push("127.0.0.1", port, &source, "/memory", wz::project::ArchiveFormat_Plain);
        processUntil([&] { return ended; });
        wz::project::ProjectModel target;
        target.createNew();
        ended = false;
        idle = peak = residentBytes();
        const auto start = Clock::now();
        sync.pull("127.0.0.1", port, "/memory", &target, wz::project::ArchiveFormat_Plain);
        processUntil([&] { return ended; }, [&] { peak = std::max(peak, residentBytes()); });
        pullS = std::chrono::duration<double>(Clock::now() - start).count();
        peak = std::max(peak, residentBytes());
    }
    state.counters["idle_MB"] = double(idle) / 1e6;
    state.counters["above_idle_MB"] = double(peak - idle) / 1e6;
    state.counters["pull_MB_s"] = double(size) / 1e6 / pullS;
}

} // namespace

// Arguments: files, bytes a file, server (0 simulated robot, 1 nginx).
BENCHMARK(BM_Transfer)
    ->ArgNames({"files", "bytes", "nginx"})
    ->Args({1, 100 << 20, Simulated})
    ->Args({1000, 1024, Simulated})
    ->Args({1, 100 << 20, NginxServer})
    ->Args({1000, 1024, NginxServer})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

BENCHMARK(BM_PullMemory)
    ->ArgNames({"bytes", "nginx"})
    ->Args({200000000, Simulated})
    ->Args({200000000, NginxServer})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    wz::log::setLogLevel(wz::LogLevel_Error);
    sim::Robot robot;
    robot.start();
    g_robot = &robot;
    // nginx as the standard server beside it, when installed.
    std::unique_ptr<test::Nginx> nginx;
    if (!test::nginxBinary().isEmpty()) {
        nginx = std::make_unique<test::Nginx>();
        QString why;
        if (nginx->start(why))
            g_nginx = nginx.get();
        else
            std::fprintf(stderr, "nginx did not start: %s\n", why.toLocal8Bit().constData());
    }
    return bench::runBenchmarks(argc, argv);
}
