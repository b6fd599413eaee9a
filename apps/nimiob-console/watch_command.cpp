#include "kit.h"

#include <connection/memory_interface.h>

#include <QDateTime>
#include <QObject>
#include <QVariant>

#include <QJsonValue>

#include <algorithm>
#include <tuple>
#include <vector>

namespace console {

namespace {

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
    int forMs = 0; // 0: until Ctrl-C
};

int parse(Console &console, const QStringList &arguments, WatchOptions &options)
{
    Arguments args(console, "watch", arguments);
    args.number("sampling", options.samplingMs, 0, 86400000);
    args.number("gather", options.gatherMs, 1, 86400000);
    args.duration("for", options.forMs);
    options.keys = args.positional();
    if (options.keys.isEmpty())
        args.fail(QStringLiteral("watch wants at least one memory key"));
    for (const QString &key : options.keys) {
        if (key.trimmed().isEmpty())
            args.fail(QStringLiteral("a memory key cannot be empty"));
    }
    return args.finish();
}

QString stampText(double seconds)
{
    return QDateTime::fromMSecsSinceEpoch(qint64(seconds * 1000.0 + 0.5))
        .toString(QStringLiteral("HH:mm:ss.zzz"));
}

// One batch as rows of time stamp, key and value, in time order; as JSON,
// one line a sample.
void printBatch(Console &console, int number, const QMap<QString, QMap<double, QVariant>> &batch)
{
    QTextStream &out = console.out();
    if (console.json()) {
        for (auto key = batch.begin(); key != batch.end(); ++key) {
            for (auto sample = key.value().begin(); sample != key.value().end(); ++sample)
                printJsonLine(console,
                              {{QStringLiteral("batch"), number},
                               {QStringLiteral("time"), sample.key()},
                               {QStringLiteral("key"), key.key()},
                               {QStringLiteral("value"), QJsonValue::fromVariant(sample.value())}});
        }
        return;
    }
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
    if (const int status = parse(console, arguments, options))
        return status;
    if (const int status = need(console, {"VXMemory"}, "watch"))
        return status;
    const boost::shared_ptr<RK::MemoryInterface> memory = console.manager().memoryInterface();
    if (!memory)
        return missing(console, "VXMemory", "watch");
    QTextStream &info = console.info();
    Waiter waiter(console);
    waiter.observe(memory->executerObject(), QStringLiteral("VXMemory"));

    SourceProbe probe;
    memory->isRealTimeSupported(&probe, "onRealTimeSupported");
    Outcome outcome = waiter.wait([&probe] { return probe.answered; }, console.options().answerMs);
    if (outcome != Outcome::Done)
        return waiter.fail(outcome, QStringLiteral("the memory executer"));
    if (probe.realTime) {
        info << "Source: real time: the robot samples every " << options.samplingMs
             << " ms (VXMemoryWatcher, robot clock)" << Qt::endl;
    } else {
        info << "Source: polling: this desktop reads VXMemory every " << options.samplingMs
             << " ms (no VXMemoryWatcher, desktop clock)" << Qt::endl;
    }
    info << "Gathering every " << options.gatherMs << " ms; "
         << (options.forMs > 0 ? QStringLiteral("for %1 s").arg(options.forMs / 1000.0)
                               : QStringLiteral("Ctrl-C to stop"))
         << Qt::endl;

    int batches = 0;
    QObject receiver;
    QObject::connect(memory.get(), &RK::MemoryInterface::dataGathered, &receiver,
                     [&](const QMap<QString, QMap<double, QVariant>> &batch) {
                         printBatch(console, ++batches, batch);
                     });
    memory->watchKeys(options.keys, options.samplingMs);
    memory->startWatcher(options.gatherMs, options.samplingMs);
    outcome = waiter.wait([] { return false; }, options.forMs > 0 ? options.forMs : -1);
    if (outcome != Outcome::Lost) {
        memory->stopWatcher();
        memory->unwatchAll();
    }
    if (outcome == Outcome::TimedOut || outcome == Outcome::Interrupted) {
        info << (outcome == Outcome::Interrupted ? "Interrupted" : "Done") << " after " << batches
             << " batch(es)." << Qt::endl;
        return outcome == Outcome::Interrupted ? ExitInterrupted : ExitOk;
    }
    return waiter.fail(outcome, QStringLiteral("the watched keys"));
}

} // namespace console

#include "watch_command.moc"
