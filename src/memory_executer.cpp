#include "connection_p.h"
#include "executer_call_p.h"
#include "memory_executer_p.h"
#include "sartel_almodule_p.h"
#include "text_p.h"
#include <connection/platform.h>
#include <connection/value_conversion.h>

#include <QMetaObject>
#include <QThread>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <wz/log.h>
#include <wz/os.h>

#include <stdexcept>
#include <vector>

namespace RK {

namespace {

const char *const k_category = "desktop.memory";

std::vector<std::string> utf8List(const QStringList &texts)
{
    std::vector<std::string> out;
    out.reserve(static_cast<size_t>(texts.size()));
    for (const QString &text : texts)
        out.push_back(utf8(text));
    return out;
}

QStringList fromUtf8List(const std::vector<std::string> &texts)
{
    QStringList out;
    out.reserve(static_cast<int>(texts.size()));
    for (const std::string &text : texts)
        out << fromUtf8(text);
    return out;
}

void warn(const char *function, const char *message, const std::exception &e)
{
    wz::log::LogStream(wz::LogLevel_Warning, k_category, function) << message << e.what();
}

// The watching requests go to "VXMemoryWatcher" when the robot has it, else
// this executer polls "VXMemory" itself; a robot with neither lacks the service.
struct MemoryRoute
{
    boost::shared_ptr<VX::VXProxy> watcher;
    boost::shared_ptr<VX::VXMemoryProxy> memory;
};

boost::shared_ptr<MemoryRoute> memoryRoute(Connection &connection)
{
    MemoryRoute route {connection.memoryWatcher(), connection.memory()};
    if (!route.watcher && !route.memory)
        return nullptr;
    return boost::make_shared<MemoryRoute>(std::move(route));
}

} // namespace

MemoryExecuter::MemoryExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr),
      m_connection(connection),
      m_gatherTimer(new QTimer(this)),
      m_sampleTimer(new QTimer(this))
{
    connect(m_gatherTimer, &QTimer::timeout, this, &MemoryExecuter::onGatherTimeout);
    connect(m_sampleTimer, &QTimer::timeout, this, &MemoryExecuter::onSampleTimeout);
}

MemoryExecuter::~MemoryExecuter()
{
    m_destroying = true;
    stopWatcher();
}

int MemoryExecuter::gatherInterval() const
{
    return m_gatherTimer->interval();
}

int MemoryExecuter::sampleInterval() const
{
    return m_sampleTimer->interval();
}

bool MemoryExecuter::isGathering() const
{
    return m_gatherTimer->isActive();
}

bool MemoryExecuter::isSampling() const
{
    return m_sampleTimer->isActive();
}

// ---------------------------------------------------------------- watching

void MemoryExecuter::watchKey(QString key, int period)
{
    call("watchKey", "VXMemoryWatcher::addListener has thrown: ")
        .run(memoryRoute, [&](MemoryRoute &route) {
            if (!route.watcher) {
                m_watchedKeys[key] = period;
                return;
            }
            try {
                route.watcher->call<void>("addListener", utf8(key));
            } catch (const std::exception &) {
                wz::log::LogStream(wz::LogLevel_Warning, k_category, "watchKey")
                    << "Cannot watch " << utf8(key);
                throw;
            }
        });
}

void MemoryExecuter::watchKeys(QStringList keys, int period)
{
    call("watchKeys", "VXMemoryWatcher::addListeners has thrown: ")
        .run(memoryRoute, [&](MemoryRoute &route) {
            if (route.watcher) {
                route.watcher->call<void>("addListeners", utf8List(keys));
                return;
            }
            for (const QString &key : keys)
                m_watchedKeys[key] = period;
        });
}

void MemoryExecuter::unwatchKey(QString key)
{
    call("unwatchKey", "VXMemoryWatcher::removeListener has thrown: ")
        .run(memoryRoute, [&](MemoryRoute &route) {
            if (route.watcher)
                route.watcher->call<void>("removeListener", utf8(key));
            else
                m_watchedKeys.remove(key);
        });
}

void MemoryExecuter::unwatchKeys(QStringList keys)
{
    call("unwatchKeys", "VXMemoryWatcher::removeListeners has thrown: ")
        .run(memoryRoute, [&](MemoryRoute &route) {
            if (route.watcher) {
                route.watcher->call<void>("removeListeners", utf8List(keys));
                return;
            }
            for (const QString &key : keys)
                m_watchedKeys.remove(key);
        });
}

void MemoryExecuter::unwatchAll()
{
    call("unwatchAll", "VXMemoryWatcher::removeAllListeners has thown: ")
        .run(memoryRoute, [&](MemoryRoute &route) {
            if (route.watcher)
                route.watcher->call<void>("removeAllListeners");
            else
                m_watchedKeys = QMap<QString, int>();
        });
}

void MemoryExecuter::startWatcher(int gatherPeriod, int samplingPeriod)
{
    call("startWatcher", "Failure: ").run(memoryRoute, [&](MemoryRoute &route) {
        if (route.watcher) {
            // A watcher that did not start leaves no gather ticks behind.
            route.watcher->call<void>("setPeriodMs", samplingPeriod);
            route.watcher->call<void>("startWatching");
            // The robot samples: a sample timer left from polling has no work.
            m_sampleTimer->stop();
        } else {
            m_sampleTimer->setInterval(samplingPeriod);
            m_sampleTimer->setSingleShot(false);
            m_sampleTimer->start();
        }
        m_gatherTimer->setInterval(gatherPeriod);
        m_gatherTimer->setSingleShot(false);
        m_gatherTimer->start();
    });
}

void MemoryExecuter::startWatcher(int gatherPeriod)
{
    startWatcher(gatherPeriod, 0);
}

void MemoryExecuter::stopWatcher()
{
    stopTimers();
    auto stop = call("stopWatcher", "VXMemoryWatcher::stopWatching has thrown: ");
    // The executer going stops the robot's watching for nobody: no one to tell.
    if (m_destroying)
        stop.quietly();
    stop.run(memoryRoute, [](MemoryRoute &route) {
        if (route.watcher)
            route.watcher->call<void>("stopWatching");
    });
}

void MemoryExecuter::stopTimers()
{
    // A timer belongs to its thread; once that thread has ended (the
    // executer's destructor runs elsewhere) it has been stopped already.
    if (m_gatherTimer->thread() == QThread::currentThread()) {
        m_gatherTimer->stop();
        m_sampleTimer->stop();
    }
}

void MemoryExecuter::setGatherPeriod(int gatherPeriod)
{
    m_gatherTimer->setInterval(gatherPeriod);
}

void MemoryExecuter::setSamplingPeriod(int samplingPeriod)
{
    call("setSamplingPeriod", "VXMemoryWatcher::setPeriodMs has thrown: ")
        .run(memoryRoute, [&](MemoryRoute &route) {
            if (route.watcher)
                route.watcher->call<void>("setPeriodMs", samplingPeriod);
            else
                m_sampleTimer->setInterval(samplingPeriod);
        });
}

void MemoryExecuter::setSamplingPeriod()
{
    setSamplingPeriod(0);
}

std::optional<bool> MemoryExecuter::realTimeSupported() const
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return std::nullopt;
    return bool(connection->memoryWatcher());
}

void MemoryExecuter::onSampleTimeout()
{
    if (m_watchedKeys.isEmpty())
        return;
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!memory)
        return;

    const QStringList keys = m_watchedKeys.keys();
    // One stamp for the whole tick, taken before the call.
    wz::os::timeval now;
    wz::os::gettimeofday(&now);
    const double stamp = double(now.tv_sec) + double(now.tv_usec) / 1e6;

    VX::VXValue values;
    try {
        values = memory->getListData(VX::VXValue(utf8List(keys)));
        if (!values.isArray() || values.getSize() != keys.size())
            throw std::runtime_error("expected an array of " + std::to_string(keys.size())
                                     + " values, got " + values.toString(1));
    } catch (const std::exception &e) {
        warn(__FUNCTION__, "VXMemory::getListData has thrown: ", e);
        return;
    }
    for (int i = 0; i < keys.size(); ++i)
        m_accumulated[keys.at(i)].insert(stamp, qVariantFromVXValue(values[i]));
}

void MemoryExecuter::onGatherTimeout()
{
    // Every failure ends the tick without a word and drops what it had read:
    // a ticking timer must not flood the log. The next tick tries again.
    try {
        const boost::shared_ptr<Connection> connection = m_connection.lock();
        if (!connection)
            throw std::runtime_error("No connection available.");
        const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher();
        if (!watcher) {
            if (!connection->memory())
                throw std::runtime_error("VXMemory module not found.");
            const Batch batch = m_accumulated;
            m_accumulated = Batch();
            emit dataGathered(batch);
            return;
        }

        VX::VXValue data;
        try {
            data = watcher->call<VX::VXValue>("getData");
        } catch (const std::runtime_error &) {
            throw;
        } catch (const std::exception &e) {
            // Not the format's own silence: said once, at a level that stays
            // out of the way, until getData answers again.
            if (!m_getDataFailing) {
                wz::log::LogStream(wz::LogLevel_Verbose, k_category, __FUNCTION__)
                    << "VXMemoryWatcher::getData failed, retrying at each tick: " << e.what();
            }
            m_getDataFailing = true;
            return;
        }
        m_getDataFailing = false;
        emit dataGathered(parseHistory(data));
    } catch (const std::exception &) { }
}

MemoryExecuter::Batch MemoryExecuter::parseHistory(const VX::VXValue &data)
{
    if (!data.isValid())
        throw std::runtime_error("Invalid data retrieved.");
    if (!data.isArray())
        throw std::runtime_error("Data was not an array.");
    Batch batch;
    const int entries = data.getSize();
    for (int i = 0; i < entries; ++i) {
        const VX::VXValue &entry = data[i];
        if (!entry.isArray() || entry.getSize() != 2)
            throw std::runtime_error("Data entry not an array of size 2.");
        const VX::VXValue &name = entry[0];
        if (!name.isString())
            throw std::runtime_error("Data entry first element not a key name string.");
        const VX::VXValue &samples = entry[1];
        if (!samples.isArray())
            throw std::runtime_error("Data entry second element not a history array.");
        History history;
        const int count = samples.getSize();
        for (int j = 0; j < count; ++j) {
            const VX::VXValue &sample = samples[j];
            if (!sample.isArray() || sample.getSize() != 2)
                throw std::runtime_error("History entry not an array of size 2.");
            const VX::VXValue &time = sample[0];
            if (!time.isArray() || time.getSize() != 2)
                throw std::runtime_error("History entry first element not an array of size 2.");
            const int seconds = time[0].toInt();
            const int microseconds = time[1].toInt();
            const double stamp = double(seconds) + double(microseconds) / 1e6;
            // A repeated stamp keeps the later value.
            history.insert(stamp, qVariantFromVXValue(sample[1]));
        }
        batch.insert(fromUtf8(name.toStdString()), history);
    }
    return batch;
}

// --------------------------------------------------------------- catalogue

QString MemoryExecuter::getKeyType(QString key)
{
    return call("getKeyType", "VXMemory::getType has thrown: ", wz::LogLevel_Verbose)
        .run(&Connection::memory,
             [&key](VX::VXMemoryProxy &memory) { return fromUtf8(memory.getType(utf8(key))); });
}

QStringList MemoryExecuter::getDataList()
{
    return call("getDataList", "VXMemory::getDataList has thrown: ")
        .run(&Connection::memory,
             [](VX::VXMemoryProxy &memory) { return fromUtf8List(memory.getDataList("")); });
}

QStringList MemoryExecuter::getEventList()
{
    return call("getEventList", "VXMemory::getEventList has thrown: ")
        .run(&Connection::memory,
             [](VX::VXMemoryProxy &memory) { return fromUtf8List(memory.getEventList()); });
}

QStringList MemoryExecuter::getMicroEventList()
{
    return call("getMicroEventList", "VXMemory::getMicroEventList has thrown: ")
        .run(&Connection::memory,
             [](VX::VXMemoryProxy &memory) { return fromUtf8List(memory.getMicroEventList()); });
}

void MemoryExecuter::subscribeToMicroEvent(const QString &key)
{
    call("subscribeToMicroEvent",
         "subscribing to micro event \"" + utf8(key) + "\" failed: ", wz::LogLevel_Error)
        .run(&Connection::memory, [&](VX::VXMemoryProxy &memory, Connection &connection) {
            memory.subscribeToMicroEvent(utf8(key), moduleName(connection), "", "dataChanged");
        });
}

void MemoryExecuter::unsubscribeToMicroEvent(const QString &key)
{
    call("unsubscribeToMicroEvent",
         "unsubscribing from micro event \"" + utf8(key) + "\" failed: ", wz::LogLevel_Error)
        .run(&Connection::memory, [&](VX::VXMemoryProxy &memory, Connection &connection) {
            memory.unsubscribeToMicroEvent(utf8(key), moduleName(connection));
        });
}

std::string MemoryExecuter::moduleName(Connection &connection)
{
    const boost::shared_ptr<VXSartel> module = connection.sartelModule();
    if (!module)
        throw CallFailure(ErrorCode::ConnectionLost, "the desktop module has gone");
    return utf8(module->objectName());
}

ExecuterCall<MemoryExecuter> MemoryExecuter::call(const char *operation, std::string logText,
                                                  wz::LogLevel level)
{
    ExecuterCall<MemoryExecuter> call(this, m_connection, operation);
    call.log(k_category, level, std::move(logText));
    return call;
}

} // namespace RK
