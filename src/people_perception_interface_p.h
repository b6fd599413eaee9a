#pragma once

#include <QMetaObject>
#include <QMutex>
#include <QMutexLocker>
#include <QObject>

#include <memory>
#include <tuple>

namespace RK {

// What framework callbacks reach their interface object through. The object
// closes it first thing in its destructor; a callback runs its queued call
// under the gate's lock, so once close() has returned no callback can still
// be posting to the object, which a guarded pointer alone cannot promise
// across threads.
class CallbackGate
{
public:
    explicit CallbackGate(QObject *target) : m_target(target) { }

    // Runs `post(target)` if the gate is still open; tells whether it did.
    template<typename Post>
    bool post(Post post)
    {
        QMutexLocker locker(&m_mutex);
        if (!m_target)
            return false;
        post(m_target);
        return true;
    }

    bool isOpen() const
    {
        QMutexLocker locker(&m_mutex);
        return m_target != nullptr;
    }

    void close()
    {
        QMutexLocker locker(&m_mutex);
        m_target = nullptr;
    }

private:
    mutable QMutex m_mutex;
    QObject *m_target;
};

using CallbackGatePtr = std::shared_ptr<CallbackGate>;

// From a framework thread: queues `slot(args...)` on the gate's object, of
// class Object, if the gate is still open. The arguments are copied into the
// queued call; it is dropped if the object goes first.
template<typename Object, typename... Params, typename... Args>
void queueSlot(const CallbackGatePtr &gate, void (Object::*slot)(Params...), Args... args)
{
    // Shared, not moved along with the queued call (a variant moved through
    // the closures trips gcc 12's uninitialized-use analysis).
    const auto values = std::make_shared<const std::tuple<Args...>>(std::move(args)...);
    gate->post([slot, values](QObject *target) {
        auto *self = static_cast<Object *>(target);
        QMetaObject::invokeMethod(
            self,
            [self, slot, values] {
                std::apply([self, slot](const Args &...a) { (self->*slot)(a...); }, *values);
            },
            Qt::QueuedConnection);
    });
}

} // namespace RK
