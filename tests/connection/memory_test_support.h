#pragma once

// What the memory tests share: a collector of dataGathered batches and a
// receiver of isRealTimeSupported answers.

#include <connection/memory_interface.h>

#include "memory_executer_p.h"
#include "morvane_interface_p.h"

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

#include <vector>

namespace test {

using Batch = QMap<QString, QMap<double, QVariant>>;

// Keeps every batch an interface emits, on the test's thread.
class BatchCollector : public QObject
{
    Q_OBJECT

public:
    explicit BatchCollector(RK::MemoryInterface *memory = nullptr)
    {
        if (memory) {
            connect(memory, &RK::MemoryInterface::dataGathered, this,
                    [this](const Batch &batch) { batches.push_back(batch); });
        }
    }

    // Every sample of `key` received so far, by time stamp.
    QMap<double, QVariant> samplesOf(const QString &key) const
    {
        QMap<double, QVariant> all;
        for (const Batch &b : batches) {
            const QMap<double, QVariant> history = b.value(key);
            for (auto it = history.begin(); it != history.end(); ++it)
                all.insert(it.key(), it.value());
        }
        return all;
    }

    std::vector<Batch> batches;
};

class AnswerReceiver : public QObject
{
    Q_OBJECT

public:
    std::vector<bool> answers;

public slots:
    void onRealTimeSupported(bool supported) { answers.push_back(supported); }
};

} // namespace test
