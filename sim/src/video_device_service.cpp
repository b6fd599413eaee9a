#include <sim/robot.h>
#include <sim/video_device_service.h>

#include <wz/log.h>
#include <wz/os.h>
#include <wz/session.h>

#include <algorithm>
#include <stdexcept>

namespace sim {

namespace {
const char *const kCategory = "sim.video";

std::chrono::steady_clock::duration framePeriod(int fps)
{
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(1.0 / fps));
}

void checkResolution(int resolution)
{
    if (resolution < 0 || resolution > VideoDeviceService::kMaxResolution)
        throw std::runtime_error("resolution is 0 to 3, not " + std::to_string(resolution));
}
} // namespace

VideoDeviceService::VideoDeviceService() : Service(kName) { }

VideoDeviceService::~VideoDeviceService()
{
    stop();
}

int VideoDeviceService::width(int resolution)
{
    checkResolution(resolution);
    return 160 << resolution;
}

int VideoDeviceService::height(int resolution)
{
    checkResolution(resolution);
    return 120 << resolution;
}

uint8_t VideoDeviceService::lumaAt(int x, int y, uint64_t frame)
{
    return static_cast<uint8_t>(16 + (static_cast<uint64_t>(x + y) + 3 * frame) % 220);
}

uint8_t VideoDeviceService::blueDifferenceAt(int x, int y, int w, int h)
{
    (void)x;
    (void)w;
    return static_cast<uint8_t>(64 + (y * 128) / std::max(1, h));
}

uint8_t VideoDeviceService::redDifferenceAt(int x, int y, int w, int h)
{
    (void)y;
    (void)h;
    return static_cast<uint8_t>(64 + ((x & ~1) * 128) / std::max(1, w));
}

std::string VideoDeviceService::frameBytes(int w, int h, uint64_t frame)
{
    std::string out(static_cast<size_t>(w) * h * 2, '\0');
    char *p = &out[0];
    for (int y = 0; y < h; ++y) {
        const char u = static_cast<char>(blueDifferenceAt(0, y, w, h));
        for (int x = 0; x + 1 < w; x += 2) {
            *p++ = static_cast<char>(lumaAt(x, y, frame));
            *p++ = u;
            *p++ = static_cast<char>(lumaAt(x + 1, y, frame));
            *p++ = static_cast<char>(redDifferenceAt(x, y, w, h));
        }
    }
    return out;
}

void VideoDeviceService::describe(ServiceBuilder &b)
{
    b.method(
        "subscribeCamera",
        [this](const std::string &name, int cameraIndex, int resolution, int colorSpace, int fps) {
            if (cameraIndex != -1 && cameraIndex != 0)
                throw std::runtime_error(
                    "camera " + std::to_string(cameraIndex)
                    + " does not exist; there is camera 0 (or -1, the active one)");
            return subscribe(name, resolution, colorSpace, fps);
        });
    b.method("subscribe", [this](const std::string &name, int resolution, int colorSpace, int fps) {
        return subscribe(name, resolution, colorSpace, fps);
    });
    b.method("unsubscribe", [this](const std::string &id) { unsubscribe(id); });
    b.method("setResolution",
             [this](const std::string &id, int resolution) { setResolution(id, resolution); });
    b.method("getImageRemote", [this](const std::string &id) { return getImageRemote(id); });
}

void VideoDeviceService::start()
{
    m_clientWatch.start(robot().session(), [this](const std::string &peer) { onClientGone(peer); });
}

void VideoDeviceService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping)
            return;
        m_stopping = true;
    }
    m_wake.notify_all();
    m_clientWatch.stop();
}

void VideoDeviceService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        const wz::AnyValue &v = field.second;
        if (field.first == "unpaced") {
            if (v.kind() != wz::AnyValue::Kind::Bool)
                throw std::runtime_error("unpaced needs true or false");
            setUnpaced(v.toBool());
        } else if (field.first == "maxSubscribers") {
            if (v.kind() != wz::AnyValue::Kind::Int || v.toInt() < 0 || v.toInt() > 1000)
                throw std::runtime_error("maxSubscribers needs a whole number from 0 to 1000");
            setMaxSubscribers(static_cast<size_t>(v.toInt()));
        } else if (field.first == "heldNames") {
            if (v.kind() != wz::AnyValue::Kind::List)
                throw std::runtime_error("heldNames needs a list of names");
            for (const wz::AnyValue &n : v.toList()) {
                if (n.kind() != wz::AnyValue::Kind::String || n.toStr().empty())
                    throw std::runtime_error("heldNames takes names, not " + n.repr());
                holdName(n.toStr());
            }
        } else if (field.first == "imageFault") {
            const std::string f = v.kind() == wz::AnyValue::Kind::String ? v.toStr() : "";
            if (f == "none")
                setImageFault(ImageFault::None);
            else if (f == "short")
                setImageFault(ImageFault::Short);
            else if (f == "malformed")
                setImageFault(ImageFault::Malformed);
            else
                throw std::runtime_error("imageFault is \"none\", \"short\" or \"malformed\"");
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
}

std::string VideoDeviceService::subscribe(const std::string &name, int resolution, int colorSpace,
                                          int fps)
{
    if (name.empty())
        throw std::runtime_error("a subscriber needs a name");
    checkResolution(resolution);
    if (colorSpace != kColorSpaceYuv422)
        throw std::runtime_error("colour space " + std::to_string(colorSpace)
                                 + " is not served; only 9 (YUV 4:2:2)");
    if (fps < kMinFps || fps > kMaxFps)
        throw std::runtime_error("frames a second are 1 to 30, not " + std::to_string(fps));
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_subscribers.size() >= m_maxSubscribers)
        throw std::runtime_error("too many subscribers (at most " + std::to_string(m_maxSubscribers)
                                 + ")");
    const auto taken = [this](const std::string &id) {
        return m_subscribers.count(id) > 0 || m_held.count(id) > 0;
    };
    std::string id = name;
    for (int i = 0; taken(id); ++i)
        id = name + "_" + std::to_string(i);
    Subscriber s;
    s.client = wz::Session::currentCaller();
    s.resolution = resolution;
    s.fps = fps;
    s.since = Clock::now();
    m_subscribers.emplace(id, s);
    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__)
        << "subscriber " << id << " at resolution " << resolution << ", " << fps << " fps";
    return id;
}

void VideoDeviceService::unsubscribe(const std::string &id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_subscribers.erase(id);
}

void VideoDeviceService::setResolution(const std::string &id, int resolution)
{
    checkResolution(resolution);
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_subscribers.find(id);
    if (it == m_subscribers.end())
        throw std::runtime_error("no subscriber \"" + id + "\"");
    it->second.resolution = resolution;
}

wz::AnyValue VideoDeviceService::getImageRemote(const std::string &id)
{
    int resolution = 0;
    uint64_t frame = 0;
    ImageFault fault = ImageFault::None;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto it = m_subscribers.find(id);
        if (it == m_subscribers.end())
            throw std::runtime_error("no subscriber \"" + id + "\"");
        if (m_unpaced) {
            frame = it->second.unpacedFrame++;
        } else {
            // The newest frame at the subscribed rate; a caller that has it
            // already waits for the next one.
            const Clock::duration period = framePeriod(it->second.fps);
            const Clock::time_point since = it->second.since;
            int64_t current = (Clock::now() - since) / period;
            if (current <= it->second.lastFrame) {
                const int64_t next = it->second.lastFrame + 1;
                const Clock::time_point due = since + period * next;
                m_wake.wait_until(lock, due, [this, &id]() {
                    return m_stopping || m_subscribers.count(id) == 0;
                });
                it = m_subscribers.find(id);
                if (m_stopping || it == m_subscribers.end())
                    throw std::runtime_error("subscriber \"" + id + "\" has gone");
                current = std::max<int64_t>(next, (Clock::now() - since) / period);
            }
            it->second.lastFrame = current;
            frame = static_cast<uint64_t>(current);
        }
        resolution = it->second.resolution;
        fault = m_fault;
        ++m_served;
    }
    const int w = width(resolution);
    const int h = height(resolution);
    wz::os::timeval tv;
    wz::os::gettimeofday(&tv);
    std::string bytes = frameBytes(w, h, frame);
    if (fault == ImageFault::Short)
        bytes.resize(bytes.size() / 2);
    wz::AnyValue::List image {wz::AnyValue(static_cast<int64_t>(w)),
                              wz::AnyValue(static_cast<int64_t>(h)),
                              wz::AnyValue(static_cast<int64_t>(2)),
                              wz::AnyValue(static_cast<int64_t>(kColorSpaceYuv422)),
                              wz::AnyValue(static_cast<int64_t>(tv.tv_sec)),
                              wz::AnyValue(static_cast<int64_t>(tv.tv_usec)),
                              wz::AnyValue(wz::Buffer(std::move(bytes)))};
    if (fault == ImageFault::Malformed)
        image.pop_back();
    return wz::AnyValue(std::move(image));
}

void VideoDeviceService::holdName(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_held.insert(name);
}

void VideoDeviceService::setImageFault(ImageFault fault)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fault = fault;
}

void VideoDeviceService::setUnpaced(bool unpaced)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_unpaced = unpaced;
}

void VideoDeviceService::setMaxSubscribers(size_t max)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_maxSubscribers = max;
}

void VideoDeviceService::reset()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_subscribers.clear();
        m_held.clear();
        m_fault = ImageFault::None;
        m_unpaced = false;
        m_maxSubscribers = kDefaultMaxSubscribers;
        m_served = 0;
    }
    m_wake.notify_all();
}

std::vector<std::string> VideoDeviceService::subscribers() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &s : m_subscribers)
        out.push_back(s.first);
    return out;
}

uint64_t VideoDeviceService::framesServed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_served;
}

void VideoDeviceService::onClientGone(const std::string &peer)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_subscribers.begin(); it != m_subscribers.end();) {
            if (it->second.client == peer)
                it = m_subscribers.erase(it);
            else
                ++it;
        }
    }
    m_wake.notify_all();
}

} // namespace sim
