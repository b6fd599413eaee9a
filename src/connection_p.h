#pragma once

// First, so that the types it declares are declared before any signal uses them.
#include <connection/connection_timing.h>
#include <connection/meta_types.h>

#include "service_table_p.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <exception>
#include <utility>
#include <vector>

namespace wz {
class Session;
class LogListenerProxy;
} // namespace wz

namespace VX {
class VXProxy;
class VXMemoryProxy;
class VXMotionProxy;
class VXPreferencesProxy;
class VXWorldRepresentationProxy;
class VXEngagementZonesProxy;
class VXPeoplePerceptionProxy;
class VXBasicAwarenessProxy;
} // namespace VX

namespace RK {

// Interface objects and offered modules, one for each row of the interface table.
#define NIMIOB_INTERFACE_DECLARE(type, ...) class type;
NIMIOB_INTERFACE_TABLE(NIMIOB_INTERFACE_DECLARE)
#undef NIMIOB_INTERFACE_DECLARE
class VXSartel;

// Destroys a QObject on the thread it lives on: at once when called there,
// else by deleteLater(), which that thread runs before it ends. When that
// thread has ended already: at once on the application's main thread, else
// on a thread of its own.
void destroyOnOwnThread(QObject *object);

// Interface objects are made with this rather than boost::make_shared. An
// executer may hold the last copy of one for the length of a call, and the
// object's destructor waits for that executer's thread: so whichever thread
// lets go last, the object goes on its own thread, never on its executer's.
template<typename T, typename... Args>
boost::shared_ptr<T> makeInterface(Args &&...args)
{
    return boost::shared_ptr<T>(new T(std::forward<Args>(args)...),
                                [](T *object) { destroyOnOwnThread(object); });
}

// One connected robot: a proxy for each remote service it offers and an
// interface object for each service the application can use. Built on a
// connection worker by create(); any proxy and any interface may be null.
// Internal: applications reach the robot through ConnectionManager, and the
// interface objects hold this only to give it to their executers.
class Connection : public QObject, public boost::enable_shared_from_this<Connection>
{
    Q_OBJECT

public:
    // The session ended while we were waiting for the robot to become ready.
    class Interrupted : public std::exception
    {
    public:
        const char *what() const noexcept override;
    };

    // Only stores its arguments: a place holder until a worker builds the real one.
    Connection(wz::Session *session, const QString &address, int port, const QString &name);
    ~Connection() override;

    // Reads host and port from the session's URL, builds the object under a
    // shared pointer and runs init(). Whatever init() throws reaches the caller.
    static boost::shared_ptr<Connection> create(wz::Session *session, const QString &name,
                                                const ConnectionTiming &timing = {});
    // The same, and the session is kept until the connection is gone, so
    // that the connection never outlives the session it points to. The
    // connection is destroyed on its own thread, whoever lets go of it last.
    static boost::shared_ptr<Connection> create(const boost::shared_ptr<wz::Session> &session,
                                                const QString &name,
                                                const ConnectionTiming &timing = {});

    // Its time limits; set before init(), read by its interfaces as they are built.
    const ConnectionTiming &timing() const { return m_timing; }
    void setTiming(const ConnectionTiming &timing) { m_timing = timing; }

    void init();
    // Asks the robot for "MorvaneReady". The first call only binds the memory
    // service and answers false.
    bool isReady();
    // The flag set at the very end of init().
    bool ready() const { return m_ready; }

    void testConnection();
    bool checkMorvaneCompatibility(QString &clientVersion, QString &robotVersion) const;
    QString morvaneVersion() const { return m_version; }
    bool hasDCM() const { return m_hasDCM; }

    // Takes the desktop's own services out of the robot's directory, waiting
    // at most timing().unregisterLimitMs for the robot; then releases the
    // interface objects, each waiting for its executer's thread. A teardown
    // runs unregisterServices(), closes the session, then destroyInterfaces(),
    // so that no executer is left waiting on the robot.
    void unregisterServices();
    void destroyInterfaces();
    void destroyProxiesConnections();

    wz::Session *session() const { return m_session; }
    QString address() const { return m_address; }
    int port() const { return m_port; }
    int httpTransferPort() const { return m_httpTransferPort; }
    QString name() const { return m_name; }

    // Names of the remote services bound on this connection, and of those
    // that were not, in binding order.
    QStringList boundServices() const;
    QStringList missingServices() const;

    // Proxies of the remote services; null when the robot lacks one.
    boost::shared_ptr<VX::VXMemoryProxy> memory() const { return m_memory; }
    boost::shared_ptr<VX::VXProxy> memoryWatcher() const;
    boost::shared_ptr<VX::VXPreferencesProxy> preferences() const { return m_preferences; }
    boost::shared_ptr<VX::VXProxy> config() const;
    boost::shared_ptr<VX::VXMotionProxy> motion() const { return m_motion; }
    boost::shared_ptr<VX::VXProxy> frameManager() const;
    boost::shared_ptr<VX::VXProxy> videoDevice() const;
    boost::shared_ptr<VX::VXProxy> visionRecognition() const;
    boost::shared_ptr<VX::VXProxy> behaviorManager() const;
    boost::shared_ptr<VX::VXProxy> robotPosture() const;
    boost::shared_ptr<VX::VXProxy> resourceManager() const;
    boost::shared_ptr<VX::VXProxy> motionRecorder() const;
    boost::shared_ptr<wz::LogListenerProxy> logListener() const { return m_logListener; }
    boost::shared_ptr<VX::VXProxy> audioDevice() const;
    boost::shared_ptr<VX::VXProxy> textToSpeech() const;
    boost::shared_ptr<VX::VXProxy> batteryDevice() const;
    boost::shared_ptr<VX::VXProxy> launcher() const;
    boost::shared_ptr<VX::VXProxy> dialog() const;
    boost::shared_ptr<VX::VXWorldRepresentationProxy> worldRepresentation() const
    {
        return m_worldRepresentation;
    }
    boost::shared_ptr<VX::VXProxy> packageManager() const;
    boost::shared_ptr<VX::VXEngagementZonesProxy> engagementZones() const
    {
        return m_engagementZones;
    }
    boost::shared_ptr<VX::VXPeoplePerceptionProxy> peoplePerception() const
    {
        return m_peoplePerception;
    }

    // The module check's text: one line for each missing service the check
    // reports, required ones first; empty when every required one is bound.
    QString missingModulesReport() const;

    // The module the robot calls back into; null without its interface.
    boost::shared_ptr<VXSartel> sartelModule() const;

    // The proxy of any row of the service table: a service with a generic
    // proxy needs no accessor of its own.
    boost::shared_ptr<VX::VXProxy> proxy(ServiceId id) const { return proxyAt(serviceIndex(id)); }

    // Interface objects, one for each row of the interface table. Readers on
    // other threads may race with teardown, so these are read and cleared
    // atomically.
#define NIMIOB_INTERFACE_ACCESSOR(type, accessor, ...) \
    boost::shared_ptr<type> accessor() const \
    { \
        return boost::atomic_load(&m_##accessor); \
    }
    NIMIOB_INTERFACE_TABLE(NIMIOB_INTERFACE_ACCESSOR)
#undef NIMIOB_INTERFACE_ACCESSOR

signals:
    void connectionTested(bool success);
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);

private:
    static boost::shared_ptr<Connection> create(wz::Session *session,
                                                const boost::shared_ptr<wz::Session> &keep,
                                                const QString &name,
                                                const ConnectionTiming &timing);
    void waitForReadiness();
    void initProxiesConnections();
    void bindService(std::size_t row);
    bool isBound(std::size_t row) const;
    boost::shared_ptr<VX::VXProxy> proxyAt(std::size_t row) const;
    void buildInterfaces();
    template<typename T>
    boost::shared_ptr<T> makeInterfaceObject(const boost::shared_ptr<Connection> &self);
    template<typename T>
    void buildInterface(boost::shared_ptr<T> &field, int condition, InterfaceFailure failure,
                        const char *typeName, const boost::shared_ptr<Connection> &self);
    void connectInterfaceSignals();
    void awaitEventSubscriptions();
    void readVersion();

    // Declared first so that it goes last: keeps the session of a connection
    // made by create() alive for as long as the connection (it is closed by
    // its owners, not here).
    boost::shared_ptr<wz::Session> m_sessionOwner;

    // One generic proxy for each row of the service table, in its order
    // (null for a service that is missing or has no generic proxy), and the
    // typed ones that wrap some of them.
    std::vector<boost::shared_ptr<VX::VXProxy>> m_proxies;
    boost::shared_ptr<VX::VXMemoryProxy> m_memory;
    boost::shared_ptr<VX::VXPreferencesProxy> m_preferences;
    boost::shared_ptr<VX::VXMotionProxy> m_motion;
    boost::shared_ptr<wz::LogListenerProxy> m_logListener;
    boost::shared_ptr<VX::VXWorldRepresentationProxy> m_worldRepresentation;
    boost::shared_ptr<VX::VXEngagementZonesProxy> m_engagementZones;
    boost::shared_ptr<VX::VXPeoplePerceptionProxy> m_peoplePerception;
    boost::shared_ptr<VX::VXBasicAwarenessProxy> m_basicAwareness;

    bool m_hasDCM = false;
    unsigned int m_recorderServiceId = 0;

    // Interface objects: m_memoryInterface, m_recorderModule and so on.
#define NIMIOB_INTERFACE_MEMBER(type, accessor, ...) boost::shared_ptr<type> m_##accessor;
    NIMIOB_INTERFACE_TABLE(NIMIOB_INTERFACE_MEMBER)
#undef NIMIOB_INTERFACE_MEMBER

    wz::Session *m_session;
    QString m_address;
    int m_port;
    // Stays 0 on a robot without a package manager: there is no file server then.
    int m_httpTransferPort = 0;
    QString m_name;
    bool m_ready = false;
    QString m_version;
    ConnectionTiming m_timing;
};

} // namespace RK
