#pragma once

#include <sim/api.h>
#include <sim/service.h>
#include <sim/ticker.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// "VXPeoplePerception": people who arrive, move and leave. Ids start at 1
// and are never reused. Each person has the memory key
// "PeoplePerception/Person/ID/PositionInTorsoFrame" = [x, y, z] (floats);
// the event "PeoplePerception/PeopleList" carries the ids present, in order
// of arrival.
//
// On arrival: the position key, then the list, then the signal justArrived.
// On departure: justLeft, then the list, then the position key is removed.
// Autoplay (on until setAutoplay(false)) keeps up to kAutoplayCrowd people
// coming, strolling and going, every 100 ms.
class SIM_API PeoplePerceptionService : public Service
{
public:
    static constexpr const char *kName = "VXPeoplePerception";
    static constexpr const char *kPeopleList = "PeoplePerception/PeopleList";
    static constexpr float kDefaultRange = 4.0f;
    static constexpr size_t kAutoplayCrowd = 3;
    static constexpr std::chrono::milliseconds kTick {100};

    using Position = std::array<float, 3>;

    PeoplePerceptionService();
    ~PeoplePerceptionService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"autoplay": bool, "range": number}.
    void configure(const wz::AnyValue &settings) override;

    static std::string positionKey(int id);

    // Scenario hooks. Unknown ids throw std::runtime_error.
    int arrive(const Position &position);
    void move(int id, const Position &position);
    void leave(int id);
    // Emits maximumDetectionRangeChanged, even for the same value.
    void setRange(float range);
    float range() const { return m_range; }
    std::vector<int> people() const;

    void setAutoplay(bool on);
    // Everyone leaves (with the usual events); ids go on counting.
    void clear();

private:
    struct Person
    {
        int id;
        Position position;
    };
    wz::AnyValue listValueLocked() const;
    void tick(uint64_t n);

    std::mutex m_changes; // a change and its events, one at a time
    mutable std::mutex m_mutex;
    std::vector<Person> m_people;
    int m_nextId = 1;
    std::atomic<float> m_range {kDefaultRange};
    bool m_autoplayConfigured = false;
    // Last: it goes first, before anything its ticks touch.
    Ticker m_ticker {kTick, [this](uint64_t n) { tick(n); }};
};

} // namespace sim
