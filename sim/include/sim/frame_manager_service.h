#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// A timeline parsed from its text (format in sim/README.md).
struct SIM_API TimelineScript
{
    int fps = 25;
    int frames = 0;
    struct Key
    {
        int frame;
        std::string joint;
        float angle;
    };
    // Joint keyframes, by frame.
    std::vector<Key> keys;

    static constexpr int kMaxFps = 1000;
    static constexpr int kMaxFrames = 1000000;
    static constexpr size_t kMaxKeys = 100000;
    static constexpr size_t kMaxTextSize = 1 << 20;
    // Throws std::runtime_error naming the line and what is wrong with it.
    static TimelineScript parse(const std::string &text);
};

// "VXFrameManager": turns timeline texts into behaviours that play frame by
// frame. A loaded timeline publishes its current frame as an integer under
// the memory key named by its identifier; when it plays to its end, the key
// is removed, and VXMemory raises "VXMemory/KeyRemoved". Joint keyframes are
// played on VXMotion when the robot has it.
class SIM_API FrameManagerService : public Service
{
public:
    static constexpr const char *kName = "VXFrameManager";
    // Loaded timelines beyond this are refused: a client cannot grow the robot.
    static constexpr size_t kMaxTimelines = 64;

    FrameManagerService();
    ~FrameManagerService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;

    // The C++ side of the remote methods; failures throw std::runtime_error
    // with the text a caller receives.
    // Loads, publishes frame 0 and returns the identifier; does not play.
    std::string createTimeline(const std::string &text);
    // Plays from the current frame; a timeline that has ended starts again.
    void playTimeline(const std::string &id);
    // Pauses at the current frame.
    void stopTimeline(const std::string &id);
    // Publishes `frame` and pauses there.
    void gotoAndStop(const std::string &id, int frame);
    // Unloads; its key goes too.
    void deleteBehavior(const std::string &id);

    // For tests.
    std::vector<std::string> timelines() const;
    bool isPlaying(const std::string &id) const;
    // -1 for an unknown timeline.
    int currentFrame(const std::string &id) const;

private:
    using Clock = std::chrono::steady_clock;
    struct Timeline
    {
        TimelineScript script;
        int frame = 0;
        bool playing = false;
        bool ended = false;
        // While playing: when frame `startFrame` was shown.
        Clock::time_point startedAt;
        int startFrame = 0;
    };

    Timeline &find(const std::string &id);
    const Timeline &find(const std::string &id) const;
    // Shows the frame: publishes the key and moves the joints.
    void showLocked(const std::string &id, Timeline &t, int frame);
    void endLocked(const std::string &id, Timeline &t);
    void run();

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, Timeline> m_timelines;
    uint64_t m_next = 1;
    bool m_running = false;
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace sim
