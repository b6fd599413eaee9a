#include <sim/memory_service.h>
#include <sim/people_perception_service.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <cmath>
#include <stdexcept>

namespace sim {

namespace {

float number(const wz::AnyValue &v, const char *what)
{
    if (v.kind() != wz::AnyValue::Kind::Float && v.kind() != wz::AnyValue::Kind::Int)
        throw std::runtime_error(std::string(what) + " needs a number");
    return static_cast<float>(v.toDouble());
}

wz::AnyValue positionValue(const PeoplePerceptionService::Position &p)
{
    return wz::AnyValue::List {p[0], p[1], p[2]};
}

} // namespace

PeoplePerceptionService::PeoplePerceptionService() : Service(kName) { }

PeoplePerceptionService::~PeoplePerceptionService()
{
    stop();
}

std::string PeoplePerceptionService::positionKey(int id)
{
    return "PeoplePerception/Person/" + std::to_string(id) + "/PositionInTorsoFrame";
}

void PeoplePerceptionService::describe(ServiceBuilder &b)
{
    b.method("getMaximumDetectionRange", [this]() { return range(); });
    b.method("setMaximumDetectionRange", [this](float r) { setRange(r); });
    b.signal("maximumDetectionRangeChanged", 1);
    b.signal("justArrived", 1);
    b.signal("justLeft", 1);
}

void PeoplePerceptionService::start()
{
    if (robot().options().lively && !m_autoplayConfigured)
        setAutoplay(true);
    robot().memory().raiseEvent(kPeopleList, wz::AnyValue::List {});
    m_ticker.start();
}

void PeoplePerceptionService::stop()
{
    m_ticker.stop();
}

void PeoplePerceptionService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first == "autoplay") {
            if (field.second.kind() != wz::AnyValue::Kind::Bool)
                throw std::runtime_error("autoplay needs true or false");
            setAutoplay(field.second.toBool());
            m_autoplayConfigured = true;
        } else if (field.first == "range") {
            const float r = number(field.second, "range");
            if (!(r > 0.0f))
                throw std::runtime_error("range must be above 0");
            m_range = r;
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
}

wz::AnyValue PeoplePerceptionService::listValueLocked() const
{
    wz::AnyValue::List ids;
    for (const Person &p : m_people)
        ids.push_back(p.id);
    return ids;
}

std::vector<int> PeoplePerceptionService::people() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<int> out;
    for (const Person &p : m_people)
        out.push_back(p.id);
    return out;
}

int PeoplePerceptionService::arrive(const Position &position)
{
    std::lock_guard<std::mutex> changes(m_changes);
    int id = 0;
    wz::AnyValue list;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        id = m_nextId++;
        m_people.push_back(Person {id, position});
        list = listValueLocked();
    }
    robot().memory().insertData(positionKey(id), positionValue(position));
    robot().memory().raiseEvent(kPeopleList, list);
    emitSignal("justArrived", {id});
    wz::log::LogStream(wz::LogLevel_Info, "sim.people", __FUNCTION__)
        << "person " << id << " arrived";
    return id;
}

void PeoplePerceptionService::move(int id, const Position &position)
{
    std::lock_guard<std::mutex> changes(m_changes);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        bool found = false;
        for (Person &p : m_people) {
            if (p.id == id) {
                p.position = position;
                found = true;
            }
        }
        if (!found)
            throw std::runtime_error("nobody with id " + std::to_string(id) + " is here");
    }
    robot().memory().insertData(positionKey(id), positionValue(position));
}

void PeoplePerceptionService::leave(int id)
{
    std::lock_guard<std::mutex> changes(m_changes);
    wz::AnyValue list;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const size_t before = m_people.size();
        for (auto it = m_people.begin(); it != m_people.end(); ++it) {
            if (it->id == id) {
                m_people.erase(it);
                break;
            }
        }
        if (m_people.size() == before)
            throw std::runtime_error("nobody with id " + std::to_string(id) + " is here");
        list = listValueLocked();
    }
    emitSignal("justLeft", {id});
    robot().memory().raiseEvent(kPeopleList, list);
    robot().memory().removeData(positionKey(id));
    wz::log::LogStream(wz::LogLevel_Info, "sim.people", __FUNCTION__) << "person " << id << " left";
}

void PeoplePerceptionService::setRange(float range)
{
    if (!std::isfinite(range) || range <= 0.0f)
        throw std::runtime_error("a detection range must be above 0, not " + std::to_string(range));
    std::lock_guard<std::mutex> changes(m_changes);
    m_range = range;
    emitSignal("maximumDetectionRangeChanged", {range});
}

void PeoplePerceptionService::setAutoplay(bool on)
{
    m_ticker.setOn(on);
}

void PeoplePerceptionService::clear()
{
    for (int id : people())
        leave(id);
}

void PeoplePerceptionService::tick(uint64_t n)
{
    // Everyone strolls along a circle; someone new comes every 1.5 s while
    // there is room, and the one here longest goes every 2.5 s.
    std::vector<Person> here;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        here = m_people;
    }
    for (const Person &p : here) {
        const float a = static_cast<float>(n) * 0.1f + static_cast<float>(p.id);
        move(p.id, Position {1.5f + 0.5f * std::cos(a), 0.5f * std::sin(a), 0.0f});
    }
    if (n % 15 == 0 && here.size() < kAutoplayCrowd)
        arrive(Position {2.0f, 0.0f, 0.0f});
    if (n % 25 == 0 && !here.empty())
        leave(here.front().id);
}

} // namespace sim
