#include "commands.h"
#include "console.h"

#include <connection/memory_interface.h>

#include <QDateTime>
#include <QObject>
#include <QVariant>

#include <algorithm>
#include <csignal>
#include <tuple>
#include <vector>

namespace console {

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void onInterrupt(int)
{
    g_interrupted = 1;
}

// Receives the executer's answer to isRealTimeSupported, which comes as a
// call of a slot by name.
class SourceProbe : public QObject
{
    Q_OBJECT

public:
    bool answered = false;
    bool realTime = false;

public slots:
    void onRealTimeSupported(bool supported)
    {
        answered = true;
        realTime = supported;
    }
};

struct WatchOptions
{
    QStringList keys;
    int samplingMs = 100;
    int gatherMs = 1000;
    int forSeconds = 0; // 0: until Ctrl-C
};

// False with a message on `err` for anything it does not take.
bool parse(const QStringList &arguments, WatchOptions &options, QTextStream &err)
{
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        if (!arg.startsWith(QLatin1String("--"))) {
            options.keys << arg;
            continue;
        }
        int *target = nullptr;
        int minimum = 0;
        if (arg == QLatin1String("--sampling")) {
            target = &options.samplingMs;
        } else if (arg == QLatin1String("--gather")) {
            target = &options.gatherMs;
            minimum = 1;
        } else if (arg == QLatin1String("--for")) {
            target = &options.forSeconds;
            minimum = 1;
        } else {
            err << "error: watch has no option " << arg << Qt::endl;
            return false;
        }
        bool ok = false;
        const int value = i + 1 < arguments.size() ? arguments.at(i + 1).toInt(&ok) : 0;
        if (!ok || value < minimum || value > 86400000) {
            err << "error: " << arg << " wants a whole number from " << minimum << Qt::endl;
            return false;
        }
        *target = value;
        ++i;
    }
    if (options.keys.isEmpty()) {
        err << "error: watch wants at least one memory key" << Qt::endl;
        return false;
    }
    return true;
}

QString stampText(double seconds)
{
    return QDateTime::fromMSecsSinceEpoch(qint64(seconds * 1000.0 + 0.5))
        .toString(QStringLiteral("HH:mm:ss.zzz"));
}

// One batch as rows of time stamp, key and value, in time order.
void printBatch(QTextStream &out, int number, const QMap<QString, QMap<double, QVariant>> &batch)
{
    std::vector<std::tuple<double, QString, QString>> rows;
    int keyWidth = 3;
    for (auto key = batch.begin(); key != batch.end(); ++key) {
        for (auto sample = key.value().begin(); sample != key.value().end(); ++sample)
            rows.emplace_back(sample.key(), key.key(), sample.value().toString());
        keyWidth = std::max(keyWidth, int(key.key().size()));
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const auto &a, const auto &b) { return std::get<0>(a) < std::get<0>(b); });
    if (rows.empty()) {
        out << "batch " << number << ": no samples" << Qt::endl;
        return;
    }
    out << "batch " << number << ": " << rows.size() << " sample(s) of " << batch.size()
        << " key(s)" << Qt::endl;
    for (const auto &row : rows) {
        out << "  " << stampText(std::get<0>(row)) << "  "
            << std::get<1>(row).leftJustified(keyWidth) << "  " << std::get<2>(row) << Qt::endl;
    }
}

} // namespace

// Follows memory keys and prints each gathered batch until Ctrl-C or --for.
int watchCommand(Console &console, const QStringList &arguments)
{
    WatchOptions options;
    if (!parse(arguments, options, console.err()))
        return ExitUsage;
    QTextStream &out = console.out();
    RK::ConnectionManager &manager = console.manager();
    const boost::shared_ptr<RK::MemoryInterface> memory = manager.memoryInterface();
    if (!memory) {
        console.err() << "error: the connection has no memory interface" << Qt::endl;
        return ExitCommandFailed;
    }

    SourceProbe probe;
    memory->isRealTimeSupported(&probe, "onRealTimeSupported");
    if (!console.waitUntil([&probe] { return probe.answered; }, 10000)) {
        console.err() << "error: no answer from the memory executer" << Qt::endl;
        return ExitCommandFailed;
    }
    if (probe.realTime) {
        out << "Source: real time: the robot samples every " << options.samplingMs
            << " ms (VXMemoryWatcher, robot clock)" << Qt::endl;
    } else {
        out << "Source: polling: this desktop reads VXMemory every " << options.samplingMs
            << " ms (no VXMemoryWatcher, desktop clock)" << Qt::endl;
    }
    out << "Gathering every " << options.gatherMs << " ms; "
        << (options.forSeconds > 0 ? QStringLiteral("for %1 s").arg(options.forSeconds)
                                   : QStringLiteral("Ctrl-C to stop"))
        << Qt::endl;

    int batches = 0;
    bool lost = false;
    QObject receiver;
    QObject::connect(memory.get(), &RK::MemoryInterface::dataGathered, &receiver,
                     [&](const QMap<QString, QMap<double, QVariant>> &batch) {
                         printBatch(out, ++batches, batch);
                     });
    QObject::connect(&manager, &RK::ConnectionManager::disconnected, &receiver,
                     [&lost] { lost = true; });

    g_interrupted = 0;
    const auto previous = std::signal(SIGINT, onInterrupt);
    memory->watchKeys(options.keys, options.samplingMs);
    memory->startWatcher(options.gatherMs, options.samplingMs);
    const int limitMs = options.forSeconds > 0 ? options.forSeconds * 1000 : 86400000;
    console.waitUntil([&] { return g_interrupted != 0 || lost; }, limitMs);
    std::signal(SIGINT, previous);
    if (lost) {
        console.err() << "error: the connection was lost" << Qt::endl;
        return ExitNoConnection;
    }
    memory->stopWatcher();
    memory->unwatchAll();
    out << (g_interrupted ? "Interrupted" : "Done") << " after " << batches << " batch(es)."
        << Qt::endl;
    return ExitOk;
}

} // namespace console

#include "watch_command.moc"
