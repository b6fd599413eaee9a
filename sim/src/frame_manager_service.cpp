#include <sim/frame_manager_service.h>
#include <sim/memory_service.h>
#include <sim/motion_service.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace sim {

namespace {

const char *const kCategory = "sim.frames";

std::string lineError(int line, const std::string &what)
{
    return "timeline line " + std::to_string(line) + ": " + what;
}

// A whole-word integer in [min, max].
int integer(const std::string &word, int min, int max, int line, const char *what)
{
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(word.c_str(), &end, 10);
    if (word.empty() || *end != '\0' || errno == ERANGE || v < min || v > max)
        throw std::runtime_error(lineError(line,
                                           std::string(what) + " must be a whole number from "
                                               + std::to_string(min) + " to " + std::to_string(max)
                                               + ", not \"" + word + "\""));
    return static_cast<int>(v);
}

float number(const std::string &word, int line, const char *what)
{
    char *end = nullptr;
    const double v = std::strtod(word.c_str(), &end);
    if (word.empty() || *end != '\0' || !std::isfinite(v) || std::fabs(v) > 1e6)
        throw std::runtime_error(
            lineError(line, std::string(what) + " must be a number, not \"" + word + "\""));
    return static_cast<float>(v);
}

} // namespace

TimelineScript TimelineScript::parse(const std::string &text)
{
    if (text.size() > kMaxTextSize)
        throw std::runtime_error("a timeline text is at most " + std::to_string(kMaxTextSize)
                                 + " bytes, not " + std::to_string(text.size()));
    TimelineScript script;
    bool haveFps = false;
    bool haveFrames = false;
    std::istringstream lines(text);
    std::string raw;
    int lineNo = 0;
    while (std::getline(lines, raw)) {
        ++lineNo;
        const size_t hash = raw.find('#');
        std::istringstream words(hash == std::string::npos ? raw : raw.substr(0, hash));
        std::vector<std::string> w;
        for (std::string word; words >> word;)
            w.push_back(word);
        if (w.empty())
            continue;
        const std::string &keyword = w.front();
        if (keyword == "fps" || keyword == "frames") {
            if (w.size() != 2)
                throw std::runtime_error(lineError(lineNo, keyword + " takes one value"));
            bool &seen = keyword == "fps" ? haveFps : haveFrames;
            if (seen)
                throw std::runtime_error(lineError(lineNo, keyword + " given twice"));
            seen = true;
            if (keyword == "fps")
                script.fps = integer(w[1], 1, kMaxFps, lineNo, "fps");
            else
                script.frames = integer(w[1], 1, kMaxFrames, lineNo, "frames");
        } else if (keyword == "key") {
            if (w.size() != 4)
                throw std::runtime_error(lineError(lineNo, "key takes FRAME JOINT ANGLE"));
            if (script.keys.size() >= kMaxKeys)
                throw std::runtime_error(
                    lineError(lineNo, "more than " + std::to_string(kMaxKeys) + " keys"));
            const std::vector<std::string> &joints = MotionService::jointNames();
            if (std::find(joints.begin(), joints.end(), w[2]) == joints.end())
                throw std::runtime_error(lineError(lineNo, "unknown joint \"" + w[2] + "\""));
            script.keys.push_back(Key {integer(w[1], 0, kMaxFrames - 1, lineNo, "a key's frame"),
                                       w[2], number(w[3], lineNo, "a key's angle")});
        } else {
            throw std::runtime_error(
                lineError(lineNo, "unknown entry \"" + keyword + "\" (fps, frames or key)"));
        }
    }
    if (!haveFrames)
        throw std::runtime_error("a timeline needs its length: frames N");
    for (const Key &k : script.keys) {
        if (k.frame >= script.frames)
            throw std::runtime_error("a key at frame " + std::to_string(k.frame)
                                     + " is beyond the last frame, "
                                     + std::to_string(script.frames - 1));
    }
    std::stable_sort(script.keys.begin(), script.keys.end(),
                     [](const Key &a, const Key &b) { return a.frame < b.frame; });
    return script;
}

FrameManagerService::FrameManagerService() : Service(kName) { }

FrameManagerService::~FrameManagerService()
{
    stop();
}

void FrameManagerService::describe(ServiceBuilder &b)
{
    b.method("createTimeline", [this](const std::string &text) { return createTimeline(text); });
    b.method("playTimeline", [this](const std::string &id) { playTimeline(id); });
    b.method("stopTimeline", [this](const std::string &id) { stopTimeline(id); });
    b.method("gotoAndStop", [this](const std::string &id, int frame) { gotoAndStop(id, frame); });
    b.method("deleteBehavior", [this](const std::string &id) { deleteBehavior(id); });
}

void FrameManagerService::start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_running)
        return;
    m_running = true;
    m_stopping = false;
    m_thread = std::thread([this] { run(); });
}

void FrameManagerService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_running)
            return;
        m_running = false;
        m_stopping = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

FrameManagerService::Timeline &FrameManagerService::find(const std::string &id)
{
    auto it = m_timelines.find(id);
    if (it == m_timelines.end())
        throw std::runtime_error("timeline \"" + id + "\" not found");
    return it->second;
}

const FrameManagerService::Timeline &FrameManagerService::find(const std::string &id) const
{
    return const_cast<FrameManagerService *>(this)->find(id);
}

std::string FrameManagerService::createTimeline(const std::string &text)
{
    TimelineScript script = TimelineScript::parse(text);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running)
        throw std::runtime_error("VXFrameManager is not running");
    if (m_timelines.size() >= kMaxTimelines)
        throw std::runtime_error("too many timelines loaded (" + std::to_string(kMaxTimelines)
                                 + "); delete one first");
    const std::string id = "VXFrameManager/timeline_" + std::to_string(m_next++);
    Timeline &t = m_timelines[id];
    t.script = std::move(script);
    showLocked(id, t, 0);
    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__)
        << id << ": " << t.script.frames << " frame(s) at " << t.script.fps << " fps";
    return id;
}

void FrameManagerService::playTimeline(const std::string &id)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Timeline &t = find(id);
        if (t.playing)
            return;
        if (t.ended) {
            t.ended = false;
            showLocked(id, t, 0);
        }
        t.playing = true;
        t.startedAt = Clock::now();
        t.startFrame = t.frame;
    }
    m_changed.notify_all();
}

void FrameManagerService::stopTimeline(const std::string &id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    find(id).playing = false;
}

void FrameManagerService::gotoAndStop(const std::string &id, int frame)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Timeline &t = find(id);
    if (frame < 0 || frame >= t.script.frames)
        throw std::runtime_error("frame " + std::to_string(frame) + " is outside timeline \"" + id
                                 + "\" (0 to " + std::to_string(t.script.frames - 1) + ")");
    t.playing = false;
    t.ended = false;
    showLocked(id, t, frame);
}

void FrameManagerService::deleteBehavior(const std::string &id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    find(id);
    m_timelines.erase(id);
    MemoryService &memory = robot().memory();
    if (memory.hasKey(id)) {
        try {
            memory.removeData(id);
        } catch (const std::exception &) {
            // Removed by someone else in between: gone all the same.
        }
    }
}

std::vector<std::string> FrameManagerService::timelines() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &t : m_timelines)
        out.push_back(t.first);
    return out;
}

bool FrameManagerService::isPlaying(const std::string &id) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_timelines.find(id);
    return it != m_timelines.end() && it->second.playing;
}

int FrameManagerService::currentFrame(const std::string &id) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_timelines.find(id);
    return it == m_timelines.end() ? -1 : it->second.frame;
}

void FrameManagerService::showLocked(const std::string &id, Timeline &t, int frame)
{
    t.frame = frame;
    robot().memory().insertData(id, wz::AnyValue(frame));
    if (t.script.keys.empty())
        return;
    MotionService *motion = robot().serviceAs<MotionService>(MotionService::kName);
    if (!motion || robot().scenario().isOmitted(MotionService::kName))
        return;
    // Each joint with keys goes to the value between its keys around the
    // frame; before its first key it is left alone.
    std::map<std::string, std::pair<const TimelineScript::Key *, const TimelineScript::Key *>>
        around;
    for (const TimelineScript::Key &k : t.script.keys) {
        auto &pair = around[k.joint];
        if (k.frame <= frame)
            pair.first = &k;
        else if (!pair.second)
            pair.second = &k;
    }
    for (const auto &j : around) {
        const TimelineScript::Key *before = j.second.first;
        const TimelineScript::Key *after = j.second.second;
        if (!before)
            continue;
        float angle = before->angle;
        if (after) {
            const float done = static_cast<float>(frame - before->frame)
                / static_cast<float>(after->frame - before->frame);
            angle += (after->angle - before->angle) * done;
        }
        motion->setAngleNow(j.first, angle);
    }
}

void FrameManagerService::endLocked(const std::string &id, Timeline &t)
{
    t.playing = false;
    t.ended = true;
    MemoryService &memory = robot().memory();
    if (memory.hasKey(id)) {
        try {
            memory.removeData(id);
        } catch (const std::exception &) { }
    }
    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__) << id << " ended";
}

void FrameManagerService::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        const Clock::time_point now = Clock::now();
        Clock::time_point next = Clock::time_point::max();
        for (auto &entry : m_timelines) {
            Timeline &t = entry.second;
            if (!t.playing)
                continue;
            const double elapsed = std::chrono::duration<double>(now - t.startedAt).count();
            // Late ticks skip frames rather than slow the timeline down.
            const long long due
                = t.startFrame + static_cast<long long>(std::floor(elapsed * t.script.fps));
            try {
                if (due >= t.script.frames) {
                    // A late tick still shows the last frame before the end.
                    if (t.frame != t.script.frames - 1)
                        showLocked(entry.first, t, t.script.frames - 1);
                    endLocked(entry.first, t);
                    continue;
                }
                if (due > t.frame)
                    showLocked(entry.first, t, static_cast<int>(due));
            } catch (const std::exception &e) {
                wz::log::LogStream(wz::LogLevel_Warning, kCategory, __FUNCTION__)
                    << entry.first << " stops: " << e.what();
                t.playing = false;
                continue;
            }
            const auto step
                = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                    static_cast<double>(t.frame + 1 - t.startFrame) / t.script.fps));
            next = std::min(next, t.startedAt + step);
        }
        if (next == Clock::time_point::max())
            m_changed.wait(lock);
        else
            m_changed.wait_until(lock, next);
    }
}

} // namespace sim
