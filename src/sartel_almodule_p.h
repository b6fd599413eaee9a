#pragma once

#include <connection/meta_types.h>

#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

#include <vx/vxvalue.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class QTimer;

namespace wz {
class Session;
}

namespace RK {

// Carries events to an object on another thread in order, with one queued
// call per batch rather than one per event: under a burst the receiving
// thread wakes once for many events, and the application keeps up with what
// the robot sends. push() may be called from any thread; after detach() what
// is pushed or still queued is dropped.
class EventRelay : public std::enable_shared_from_this<EventRelay>
{
public:
    using Deliver = std::function<void(const QString &, const VX::VXValue &)>;

    // `deliver` runs on the thread of `target`.
    static std::shared_ptr<EventRelay> create(QObject *target, Deliver deliver);

    QObject *target() const { return m_target; }
    // Carries only events of these names from now on (all until called).
    void acceptOnly(QStringList names);
    void push(const QString &name, const VX::VXValue &value);
    void detach();

private:
    EventRelay(QObject *target, Deliver deliver);
    void drain();

    QObject *const m_target;
    const Deliver m_deliver;
    QMutex m_mutex;
    bool m_detached = false;
    bool m_filtered = false;
    QStringList m_accepted;
    std::vector<std::pair<QString, VX::VXValue>> m_pending;
};

class SartelModuleInterface;

// The events of the desktop module named in `names`, batched onto the thread
// of `target`: a connection to the module interface's signal would cost a
// queued call per event and per receiver, for every event the desktop gets.
// The relay must be detached before `target` goes.
std::shared_ptr<EventRelay> relayModuleEvents(SartelModuleInterface &module, QObject *target,
                                              QStringList names, EventRelay::Deliver deliver);

// The desktop as a service of the robot ("VXSartel"): the robot's memory
// delivers every subscribed event to dataChanged, and the two-way test
// proves that the robot can call the desktop at all: each test reports once,
// true when the robot's call comes first, false when the time-out does. Tests
// started while one is pending share its evidence, but each reports.
// Registered in the connection's own session by RK::VXSartelExecuter.
//
// dataChanged and _connectionTestCallback run on the framework's threads and
// only emit signals; triggerConnectionTest and onTimeout run on the thread
// that built the module.
class VXSartel : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(VXSartel)

public:
    // Object name and service name.
    static const QString a_sartelModuleName;

    // The session may be null: the test then fails at once.
    VXSartel(wz::Session *session, QObject *parent);
    ~VXSartel() override;

    // Remote methods, in the shape VXMemory calls a micro event's subscriber.
    void dataChanged(const std::string &key, const VX::VXValue &value,
                     const std::string &subscriberIdentifier);
    void _connectionTestCallback(const std::string &key, const VX::VXValue &value,
                                 const std::string &subscriberIdentifier);

    // Whether a test has been answered since this module was made, late
    // answers included.
    bool answered() const { return m_answered; }

    // Every event dataChanged receives also goes to `relay`, until the relays
    // to its target are removed (which detaches them).
    void addRelay(std::shared_ptr<EventRelay> relay);
    void removeRelaysTo(const QObject *target);

    // How long a test waits for the robot's call (15 s unless set); for the
    // tests started after the call.
    void setTestLimit(int ms) { m_testLimitMs = ms; }

public slots:
    void onTimeout();
    void triggerConnectionTest();

signals:
    // Declared so that the interface can forward it; never emitted here.
    void connectionLost();
    void disconnectRequested();
    void dataSubscribedChanged(QString name, VX::VXValue value);
    void connectionTested(bool success);

private:
    // Reports \p success once for each of \p tests.
    void report(int tests, bool success);

    wz::Session *m_session;
    boost::shared_ptr<QTimer> m_testTimer;
    int m_testLimitMs;
    std::atomic<bool> m_answered;
    // The tests started and not yet reported; the callback (on a framework
    // thread) and the time-out each take them all, and only the one that
    // gets them reports, once for each.
    std::atomic<int> m_testsPending {0};
    QMutex m_relaysMutex;
    std::vector<std::shared_ptr<EventRelay>> m_relays;
};

} // namespace RK
