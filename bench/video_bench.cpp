// The camera. Each figure comes with a baseline measured in the same run:
//   convert  YUV 4:2:2 to BGRA of one image, against a memcpy of the same
//            number of output bytes (640x480 bar 0.3 ms, goal 0.15 ms;
//            1280x960 bar 1.2 ms), with the kernel the processor gets and
//            with each kernel alone;
//   acquire  VGA at the default 20 ms poll against the simulated robot's
//            20 frames a second, the reader holding each buffer 2 ms: images
//            that reach the application's thread against frames the robot
//            produced meanwhile (goal at least 95 %), and the resident memory
//            before and after.

#include <connection/connection_manager.h>
#include <connection/video_device_interface.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMutexLocker>
#include <QThread>
#include <QTimer>

#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "yuv_to_bgra_p.h"

#include <sim/robot.h>
#include <sim/video_device_service.h>

#include <wz/log.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

namespace {

using bench::processUntilInLoop;

using bench::Clock;
using bench::millis;

// Arguments: the simulated robot's resolution index, and the kernel (-1: the
// one the executer uses on this processor).
void BM_Convert(benchmark::State &state)
{
    const int resolution = static_cast<int>(state.range(0));
    const bool dispatched = state.range(1) < 0;
    const RK::yuv::Kernel kernel
        = dispatched ? RK::yuv::bestKernel() : RK::yuv::k_allKernels[state.range(1)];
    if (!RK::yuv::isSupported(kernel)) {
        state.SkipWithError("this processor does not run the kernel");
        return;
    }
    const int w = sim::VideoDeviceService::width(resolution);
    const int h = sim::VideoDeviceService::height(resolution);
    const std::string yuv = sim::VideoDeviceService::frameBytes(w, h, 7);
    const std::size_t pairs = std::size_t(w) * h / 2;
    const std::size_t outBytes = pairs * 8;
    std::vector<unsigned char> out(outBytes);
    std::vector<unsigned char> source(outBytes, 1);
    const int rounds = 200;
    std::vector<double> convertMs;
    std::vector<double> copyMs;
    for (auto _ : state) {
        // Interleaved, so that both see the same machine; medians, so that a
        // round the scheduler interrupted does not count.
        for (int r = 0; r < rounds; ++r) {
            Clock::time_point t = Clock::now();
            RK::yuv::convert(kernel, reinterpret_cast<const unsigned char *>(yuv.data()),
                             out.data(), pairs);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
            convertMs.push_back(millis(Clock::now() - t));
            t = Clock::now();
            std::memcpy(out.data(), source.data(), outBytes);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
            copyMs.push_back(millis(Clock::now() - t));
        }
    }
    const double convert = bench::median(convertMs);
    const double copy = bench::median(copyMs);
    state.SetLabel(std::to_string(w) + "x" + std::to_string(h) + " " + RK::yuv::kernelName(kernel)
                   + (dispatched ? " (used)" : ""));
    state.counters["convert_ms"] = convert;
    state.counters["memcpy_ms"] = copy;
    state.counters["ratio"] = convert / copy;
}

void BM_VgaAcquisition(benchmark::State &state)
{
    const int seconds = static_cast<int>(state.range(0));
    sim::Robot robot;
    robot.start();
    RK::ConnectionManager manager;
    bool established = false;
    QObject::connect(&manager, &RK::ConnectionManager::connectionEstablished,
                     [&] { established = true; });
    manager.connectRemoteBroker(robot.url().host(), robot.url().port(), "bench");
    if (!processUntilInLoop([&] { return established; }, 20000)) {
        state.SkipWithError("no connection");
        return;
    }
    const boost::shared_ptr<RK::VideoDeviceInterface> video = manager.videoDeviceInterface();
    const auto one = RK::makeProtectedBuffer(640 * 480 * 4);
    const auto two = RK::makeProtectedBuffer(640 * 480 * 4);
    long images = 0;
    QObject receiver;
    QObject::connect(video.get(), &RK::VideoDeviceInterface::imageReceived, &receiver,
                     [&](boost::shared_ptr<RK::ProtectedBuffer> buffer, int, int,
                         boost::shared_ptr<VX::VXValue>) {
                         QMutexLocker lock(&buffer->mutex);
                         QThread::usleep(2000);
                         ++images;
                     });
    long rssBefore = 0;
    double elapsedS = 0;
    for (auto _ : state) {
        // A first second to settle the allocations, then the measured run.
        video->startVideo(20, 2, one, two);
        processUntilInLoop([] { return false; }, 1000);
        rssBefore = bench::residentKb();
        images = 0;
        const Clock::time_point start = Clock::now();
        processUntilInLoop([] { return false; }, seconds * 1000);
        elapsedS = millis(Clock::now() - start) / 1000;
        video->stopVideo();
    }
    const double produced = elapsedS * 20;
    state.counters["images"] = double(images);
    state.counters["frames_produced"] = produced;
    state.counters["ratio"] = images / produced;
    state.counters["skipped"] = video->skippedImages();
    state.counters["rss_before_KiB"] = double(rssBefore);
    state.counters["rss_after_KiB"] = double(bench::residentKb());
    manager.disconnectBroker();
    processUntilInLoop([] { return false; }, 500);
}

} // namespace

// The kernel in use at the four resolutions, then each kernel at 640x480.
BENCHMARK(BM_Convert)
    ->ArgsProduct({{0, 1, 2, 3}, {-1}})
    ->ArgsProduct({{2}, {0, 1, 2, 3}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VgaAcquisition)->Arg(10)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    wz::log::setLogLevel(wz::LogLevel_Fatal);
    return bench::runBenchmarks(argc, argv);
}
