#pragma once

#include <sim/api.h>
#include <sim/client_watch.h>
#include <sim/service.h>

#include <wz/any_value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace sim {

// "VXVideoDevice": one camera whose picture is a function of the pixel's
// position and of the frame number, so that a client can check every byte it
// receives and see the picture move. Each subscriber gets frames at its own
// rate: a poll that already has the newest frame waits for the next one.
class SIM_API VideoDeviceService : public Service
{
public:
    static constexpr const char *kName = "VXVideoDevice";
    // The only colour space served: YUV 4:2:2, bytes Y0 U Y1 V.
    static constexpr int kColorSpaceYuv422 = 9;
    static constexpr int kMaxResolution = 3;
    static constexpr int kMinFps = 1;
    static constexpr int kMaxFps = 30;
    static constexpr size_t kDefaultMaxSubscribers = 8;

    // What getImageRemote answers instead of a good image.
    enum class ImageFault { None, Short, Malformed };

    VideoDeviceService();
    ~VideoDeviceService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"unpaced": bool, "maxSubscribers": n, "heldNames": ["NAME"...],
    // "imageFault": "none" | "short" | "malformed"}.
    void configure(const wz::AnyValue &settings) override;

    // Width and height of resolution 0 (160x120) to 3 (1280x960).
    static int width(int resolution);
    static int height(int resolution);
    // Luma and chroma of pixel (x, y) in frame `frame` of a w x h picture.
    // A diagonal ramp that slides by 3 a frame, over a colour field that is
    // fixed: U grows downwards, V rightwards (each pair of pixels shares the
    // chroma of its left pixel).
    static uint8_t lumaAt(int x, int y, uint64_t frame);
    static uint8_t blueDifferenceAt(int x, int y, int w, int h);
    static uint8_t redDifferenceAt(int x, int y, int w, int h);
    // The 2*w*h bytes of one frame.
    static std::string frameBytes(int w, int h, uint64_t frame);

    // The C++ side of the remote methods; failures throw std::runtime_error.
    std::string subscribe(const std::string &name, int resolution, int colorSpace, int fps);
    void unsubscribe(const std::string &id);
    void setResolution(const std::string &id, int resolution);
    wz::AnyValue getImageRemote(const std::string &id);

    // Scenario hooks.
    // A name that another client holds: subscribing under it gets "_0"... .
    void holdName(const std::string &name);
    void setImageFault(ImageFault fault);
    // Every poll gets a new frame at once (benchmarks).
    void setUnpaced(bool unpaced);
    void setMaxSubscribers(size_t max);
    // No subscriber, no held name, no fault, paced, counters at 0.
    void reset();

    std::vector<std::string> subscribers() const;
    // Frames handed out, all subscribers together.
    uint64_t framesServed() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Subscriber
    {
        std::string client;
        int resolution = 0;
        int fps = 0;
        Clock::time_point since;
        // Index of the last frame handed out, -1 before the first.
        int64_t lastFrame = -1;
        uint64_t unpacedFrame = 0;
    };

    void onClientGone(const std::string &peer);

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::map<std::string, Subscriber> m_subscribers;
    std::set<std::string> m_held;
    ImageFault m_fault = ImageFault::None;
    bool m_unpaced = false;
    bool m_stopping = false;
    size_t m_maxSubscribers = kDefaultMaxSubscribers;
    uint64_t m_served = 0;
    ClientWatch m_clientWatch;
};

} // namespace sim
