#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/nimiob_export.h>

#include <QList>
#include <QMetaType>
#include <QMutex>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <vx/vxmath.h>
#include <vx/vxvalue.h>

#include <atomic>
#include <memory>

Q_DECLARE_METATYPE(VX::Math::Position3D)

namespace RK {

class Connection;

// Who the robot sees: the ids of the people present, arrivals and departures,
// each person's position on request, and the distance beyond which nobody is
// detected. It lives on the connection worker's thread and talks to the robot
// directly: every answer and every remote signal comes back on a framework
// thread and is brought over to that thread by a queued call.
//
// The range and the list are ready at once with 3.5 and no one; the robot's
// values follow. The getters may be called from any thread.
class NIMIOB_EXPORT PeoplePerceptionInterface : public QObject
{
    Q_OBJECT

public:
    // Throws std::runtime_error when the session is not connected or a
    // service cannot be reached.
    explicit PeoplePerceptionInterface(boost::shared_ptr<Connection> connection);
    ~PeoplePerceptionInterface() override;

    float maximumDetectionRange() const { return m_range; }
    QList<int> peopleList() const;
    bool isSubscribed() const { return m_subscribed; }
    // Position reads still kept, for tests and diagnostics.
    int pendingPositionRequests() const;

    // The answer comes as peoplePositionUpdated.
    void requestPeoplePosition(int peopleId);
    // Asks the robot to send changes of the people list to the desktop module.
    void subscribe();
    void unsubscribe();

    static const char *const a_peopleListKey;
    static QString positionKey(int peopleId);

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void maximumDetectionRangeChanged(float distance);
    void peopleJustArrived(int peopleId);
    void peopleJustLeft(int peopleId);
    void peoplePositionUpdated(int peopleId, VX::Math::Position3D position);

public slots:
    void onMaximumDetectionRangeChanged(float distance);
    void onPeopleJustArrived(int peopleId);
    void onPeopleJustLeft(int peopleId);
    void setPeopleList(VX::VXValue peopleList);
    void onPeoplePositionUpdated(int peopleId, VX::VXValue position);

private:
    struct Remote;
    std::unique_ptr<Remote> d;
    std::atomic<float> m_range {3.5f};
    mutable QMutex m_listMutex;
    QList<int> m_peopleList;
    std::atomic<bool> m_subscribed {false};
};

} // namespace RK
