#include "memory_executer_p.h"
#include "sartel_almodule_p.h"
#include <connection/connection.h>
#include <connection/platform.h>
#include <connection/value_conversion.h>

#include <QMetaObject>
#include <QThread>
#include <QTimer>

#include <wz/log.h>
#include <wz/os.h>

#include <stdexcept>
#include <vector>

namespace RK {

namespace {

const char *const k_category = "desktop.memory";

std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

std::vector<std::string> utf8List(const QStringList &texts)
{
    std::vector<std::string> out;
    out.reserve(static_cast<size_t>(texts.size()));
    for (const QString &text : texts)
        out.push_back(utf8(text));
    return out;
}

QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
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

// The catalogue calls share one shape: no connection or no "VXMemory" gives
// the empty result at once; a failure gives it after a log record.
template<typename Result, typename Call>
Result catalogueCall(const boost::weak_ptr<Connection> &weak, wz::LogLevel level,
                     const char *function, const char *message, Call call)
{
    const boost::shared_ptr<Connection> connection = weak.lock();
    if (!connection)
        return Result();
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!memory)
        return Result();
    try {
        return call(*memory);
    } catch (const std::exception &e) {
        wz::log::LogStream(level, k_category, function) << message << e.what();
        return Result();
    }
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
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("addListener", utf8(key));
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "Cannot watch " << utf8(key);
            warn(__FUNCTION__, "VXMemoryWatcher::addListener has thrown: ", e);
        }
    } else if (connection->memory()) {
        m_watchedKeys[key] = period;
    }
}

void MemoryExecuter::watchKeys(QStringList keys, int period)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("addListeners", utf8List(keys));
        } catch (const std::exception &e) {
            warn(__FUNCTION__, "VXMemoryWatcher::addListeners has thrown: ", e);
        }
    } else if (connection->memory()) {
        for (const QString &key : keys)
            m_watchedKeys[key] = period;
    }
}

void MemoryExecuter::unwatchKey(QString key)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("removeListener", utf8(key));
        } catch (const std::exception &e) {
            warn(__FUNCTION__, "VXMemoryWatcher::removeListener has thrown: ", e);
        }
    } else if (connection->memory()) {
        m_watchedKeys.remove(key);
    }
}

void MemoryExecuter::unwatchKeys(QStringList keys)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("removeListeners", utf8List(keys));
        } catch (const std::exception &e) {
            warn(__FUNCTION__, "VXMemoryWatcher::removeListeners has thrown: ", e);
        }
    } else if (connection->memory()) {
        for (const QString &key : keys)
            m_watchedKeys.remove(key);
    }
}

void MemoryExecuter::unwatchAll()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("removeAllListeners");
        } catch (const std::exception &e) {
            warn(__FUNCTION__, "VXMemoryWatcher::removeAllListeners has thown: ", e);
        }
    } else if (connection->memory()) {
        m_watchedKeys = QMap<QString, int>();
    }
}

void MemoryExecuter::startWatcher(int gatherPeriod, int samplingPeriod)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("setPeriodMs", samplingPeriod);
            watcher->call<void>("startWatching");
        } catch (const std::exception &e) {
            // A watcher that did not start leaves no gather ticks behind.
            warn(__FUNCTION__, "Failure: ", e);
            return;
        }
        // The robot samples: a sample timer left from polling has no work.
        m_sampleTimer->stop();
        m_gatherTimer->setInterval(gatherPeriod);
        m_gatherTimer->setSingleShot(false);
        m_gatherTimer->start();
    } else if (connection->memory()) {
        m_sampleTimer->setInterval(samplingPeriod);
        m_sampleTimer->setSingleShot(false);
        m_sampleTimer->start();
        m_gatherTimer->setInterval(gatherPeriod);
        m_gatherTimer->setSingleShot(false);
        m_gatherTimer->start();
    }
}

void MemoryExecuter::startWatcher(int gatherPeriod)
{
    startWatcher(gatherPeriod, 0);
}

void MemoryExecuter::stopWatcher()
{
    stopTimers();
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("stopWatching");
        } catch (const std::exception &e) {
            warn(__FUNCTION__, "VXMemoryWatcher::stopWatching has thrown: ", e);
        }
    }
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
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    if (const boost::shared_ptr<VX::VXProxy> watcher = connection->memoryWatcher()) {
        try {
            watcher->call<void>("setPeriodMs", samplingPeriod);
        } catch (const std::exception &e) {
            warn(__FUNCTION__, "VXMemoryWatcher::setPeriodMs has thrown: ", e);
        }
    } else if (connection->memory()) {
        m_sampleTimer->setInterval(samplingPeriod);
    }
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
    return catalogueCall<QString>(
        m_connection, wz::LogLevel_Verbose, __FUNCTION__, "VXMemory::getType has thrown: ",
        [&key](VX::VXMemoryProxy &memory) { return fromUtf8(memory.getType(utf8(key))); });
}

QStringList MemoryExecuter::getDataList()
{
    return catalogueCall<QStringList>(
        m_connection, wz::LogLevel_Warning, __FUNCTION__, "VXMemory::getDataList has thrown: ",
        [](VX::VXMemoryProxy &memory) { return fromUtf8List(memory.getDataList("")); });
}

QStringList MemoryExecuter::getEventList()
{
    return catalogueCall<QStringList>(
        m_connection, wz::LogLevel_Warning, __FUNCTION__, "VXMemory::getEventList has thrown: ",
        [](VX::VXMemoryProxy &memory) { return fromUtf8List(memory.getEventList()); });
}

QStringList MemoryExecuter::getMicroEventList()
{
    return catalogueCall<QStringList>(
        m_connection, wz::LogLevel_Warning, __FUNCTION__,
        "VXMemory::getMicroEventList has thrown: ", [](VX::VXMemoryProxy &memory) {
            return fromUtf8List(memory.getMicroEventList());
        });
}

void MemoryExecuter::subscribeToMicroEvent(const QString &key)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    const boost::shared_ptr<VXSartel> module = connection->sartelModule();
    if (!memory || !module)
        return;
    subscribeToMicroEvent(memory, utf8(module->objectName()), utf8(key));
}

void MemoryExecuter::unsubscribeToMicroEvent(const QString &key)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    const boost::shared_ptr<VXSartel> module = connection->sartelModule();
    if (!memory || !module)
        return;
    try {
        memory->unsubscribeToMicroEvent(utf8(key), utf8(module->objectName()));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "unsubscribing from micro event \"" << utf8(key) << "\" failed: " << e.what();
    }
}

void MemoryExecuter::subscribeToMicroEvent(boost::shared_ptr<VX::VXMemoryProxy> memory,
                                           const std::string &module, const std::string &key)
{
    if (!memory)
        return;
    try {
        memory->subscribeToMicroEvent(key, module, "", "dataChanged");
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "subscribing to micro event \"" << key << "\" failed: " << e.what();
    }
}

} // namespace RK
