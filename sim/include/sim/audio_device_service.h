#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <mutex>

namespace sim {

// "VXAudioDevice": output volume (0 to 100) and mute. Each change raises the
// micro event "AudioOutputChanged" with [volume, muted].
class SIM_API AudioDeviceService : public Service
{
public:
    static constexpr const char *kChangedEvent = "AudioOutputChanged";

    AudioDeviceService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"volume": 0..100, "muted": bool}.
    void configure(const wz::AnyValue &settings) override;

    int volume() const;
    bool muted() const;
    // Throw std::invalid_argument out of range, as the remote method fails.
    void setVolume(int volume);
    void setMuted(bool muted);
    // Back to volume 70, not muted, without an event.
    void reset();

private:
    void changed(int volume, bool muted);

    mutable std::mutex m_mutex;
    int m_volume = 70;
    bool m_muted = false;
};

} // namespace sim
