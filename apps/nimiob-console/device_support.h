#pragma once

// What the device commands share: the errors of an executer that nothing in
// the library connects, and a wait until an executer has finished the
// requests queued to it so far.

#include "console.h"

#include <QMetaObject>
#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <vector>

namespace console {

class ExecuterErrors : public QObject
{
    Q_OBJECT

public:
    // By name: the executer's class is the library's own.
    explicit ExecuterErrors(QObject *executer)
    {
        if (executer)
            connect(executer, SIGNAL(error(QString, QString, QString)), this,
                    SLOT(onError(QString, QString, QString)), Qt::QueuedConnection);
    }
    const std::vector<Console::Error> &errors() const { return m_errors; }
    // Prints each error not yet printed; true if there was one.
    bool print(Console &console)
    {
        const bool any = m_printed < m_errors.size();
        for (; m_printed < m_errors.size(); ++m_printed)
            console.printError(m_errors[m_printed]);
        return any;
    }

public slots:
    void onError(QString title, QString contents, QString details)
    {
        m_errors.push_back({title, contents, details, false});
    }

private:
    std::vector<Console::Error> m_errors;
    size_t m_printed = 0;
};

// Runs after whatever the executer was asked before: its thread takes
// requests one by one. The queued answers then still need the event loop,
// which waitUntil runs.
inline bool drainExecuter(Console &console, QObject *executer, int timeoutMs)
{
    if (!executer)
        return false;
    auto done = std::make_shared<std::atomic<bool>>(false);
    QMetaObject::invokeMethod(
        executer, [done] { *done = true; }, Qt::QueuedConnection);
    if (!console.waitUntil([done] { return done->load(); }, timeoutMs))
        return false;
    // The answers make two queued hops after the executer's slot.
    console.waitUntil([] { return false; }, 50);
    return true;
}

} // namespace console
