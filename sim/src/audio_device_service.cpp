#include <sim/audio_device_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <stdexcept>
#include <string>

namespace sim {

AudioDeviceService::AudioDeviceService() : Service("VXAudioDevice") { }

void AudioDeviceService::describe(ServiceBuilder &b)
{
    b.method("getOutputVolume", [this]() { return volume(); });
    b.method("setOutputVolume", [this](int v) { setVolume(v); });
    b.method("isAudioOutMuted", [this]() { return muted(); });
    b.method("muteAudioOut", [this](bool m) { setMuted(m); });
}

void AudioDeviceService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first == "volume") {
            if (field.second.kind() != wz::AnyValue::Kind::Int)
                throw std::runtime_error("volume needs an integer");
            const int64_t v = field.second.toInt();
            if (v < 0 || v > 100)
                throw std::runtime_error("volume is 0 to 100, not " + std::to_string(v));
            setVolume(static_cast<int>(v));
        } else if (field.first == "muted") {
            if (field.second.kind() != wz::AnyValue::Kind::Bool)
                throw std::runtime_error("muted needs true or false");
            setMuted(field.second.toBool());
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
}

int AudioDeviceService::volume() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_volume;
}

bool AudioDeviceService::muted() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_muted;
}

void AudioDeviceService::setVolume(int volume)
{
    if (volume < 0 || volume > 100)
        throw std::invalid_argument("volume is 0 to 100, not " + std::to_string(volume));
    bool muted;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_volume == volume)
            return;
        m_volume = volume;
        muted = m_muted;
    }
    changed(volume, muted);
}

void AudioDeviceService::setMuted(bool muted)
{
    int volume;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_muted == muted)
            return;
        m_muted = muted;
        volume = m_volume;
    }
    changed(volume, muted);
}

void AudioDeviceService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_volume = 70;
    m_muted = false;
}

void AudioDeviceService::changed(int volume, bool muted)
{
    // Before the robot starts (settings of a scenario file) there is nobody to tell.
    if (!robot().isRunning())
        return;
    robot().memory().raiseMicroEvent(kChangedEvent, wz::AnyValue::List {volume, muted});
}

} // namespace sim
