#pragma once

// The one way a test waits: for a condition, with a deadline. Absence is
// proved by a barrier and a check, never by waiting a while.

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QObject>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

namespace test {

// How long a test waits for what must happen. Far beyond what a passing run
// takes: a loaded machine stalls a process for seconds, and a wait that ends
// early costs nothing. NIMIOB_TEST_DEADLINE_MS sets it for a slower machine.
inline std::chrono::milliseconds patience()
{
    static const std::chrono::milliseconds value = [] {
        const char *env = std::getenv("NIMIOB_TEST_DEADLINE_MS");
        const long ms = env ? std::strtol(env, nullptr, 10) : 0;
        return std::chrono::milliseconds(ms > 0 ? ms : 30000);
    }();
    return value;
}

// Waits until `done` holds; false once `deadline` has passed. On a thread
// with an event loop (the test's own), the loop runs meanwhile, as in an
// application: queued signals arrive, and objects another thread deletes
// later on this one are deleted only by a running loop. Elsewhere it polls.
template<typename Pred>
bool waitUntil(Pred &&done, std::chrono::milliseconds deadline = patience())
{
    QDeadlineTimer end(deadline);
    const bool loop = QCoreApplication::instance() && QThread::currentThread()->eventDispatcher();
    while (!done()) {
        if (end.hasExpired())
            return false;
        if (loop) {
            QEventLoop slice;
            QTimer::singleShot(2, &slice, &QEventLoop::quit);
            slice.exec();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    return true;
}

// Returns once `context`'s thread has run everything queued to it before
// this call, and this thread has been given what that work queued back to
// it. A check after it sees every effect of what was asked before it. From
// the test's main thread only.
inline bool barrier(QObject *context, std::chrono::milliseconds deadline = patience())
{
    auto passed = std::make_shared<std::atomic<bool>>(false);
    QObject *app = QCoreApplication::instance();
    // The answer is queued behind whatever the work queued to this thread.
    QMetaObject::invokeMethod(
        context,
        [passed, app] {
            QMetaObject::invokeMethod(
                app, [passed] { *passed = true; }, Qt::QueuedConnection);
        },
        Qt::QueuedConnection);
    return waitUntil([&] { return passed->load(); }, deadline);
}

// As barrier(), but the work is a timer of `span` started on `context`'s
// thread. A thread runs its timers in the order they fall due, so a timer
// there with a shorter period, had it still been running, would have fired
// (and its effects reached this thread) first: absence after this proves it
// stopped.
inline bool barrierAfter(QObject *context, std::chrono::milliseconds span,
                         std::chrono::milliseconds deadline = patience())
{
    auto passed = std::make_shared<std::atomic<bool>>(false);
    QObject *app = QCoreApplication::instance();
    const int ms = static_cast<int>(span.count());
    QMetaObject::invokeMethod(
        context,
        [passed, app, context, ms] {
            QTimer::singleShot(ms, Qt::PreciseTimer, context, [passed, app] {
                QMetaObject::invokeMethod(
                    app, [passed] { *passed = true; }, Qt::QueuedConnection);
            });
        },
        Qt::QueuedConnection);
    return waitUntil([&] { return passed->load(); }, deadline + span);
}

} // namespace test
