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

/// Who the robot sees: the ids of the people present, arrivals and
/// departures, each person's position on request, and the distance in metres
/// beyond which nobody is detected.
///
/// \b Thread: it lives on the connection worker's thread and talks to the
/// robot directly: every answer and every remote signal comes back on a
/// framework thread and is brought over to that thread by a queued call, so
/// its signals are emitted on the worker thread: connect them with a
/// receiver object. The range and the list are ready at once with 3.5 m and
/// no one; the robot's values follow. The getters may be called from any
/// thread.
///
/// \b Ownership: shared by the connection and the holders of
/// ConnectionManager::peoplePerceptionInterface() (null when the robot lacks
/// the service). New at every connection: drop the pointer on
/// ConnectionManager::disconnected().
class NIMIOB_EXPORT PeoplePerceptionInterface : public QObject
{
    Q_OBJECT

public:
    /// Made by the connection. Throws std::runtime_error when the session is
    /// not connected or a service cannot be reached.
    explicit PeoplePerceptionInterface(boost::shared_ptr<Connection> connection);
    /// Stops listening to the robot.
    ~PeoplePerceptionInterface() override;

    /// The distance in metres beyond which nobody is detected.
    float maximumDetectionRange() const { return m_range; }
    /// The ids of the people present now.
    QList<int> peopleList() const;
    /// Whether subscribe() is in force.
    bool isSubscribed() const { return m_subscribed; }
    /// Position reads still kept, for tests and diagnostics.
    int pendingPositionRequests() const;

    /// Reads the position of the person \p peopleId; the answer comes as
    /// peoplePositionUpdated().
    void requestPeoplePosition(int peopleId);
    /// Asks the robot to send changes of the people list to the desktop
    /// module.
    void subscribe();
    /// Undoes subscribe().
    void unsubscribe();

    /// The memory key of the people list: "PeoplePerception/PeopleList".
    static const char *const a_peopleListKey;
    /// The memory key of the position of the person \p peopleId
    /// ("PeoplePerception/Person/<id>/PositionInTorsoFrame").
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
    /// maximumDetectionRange() is now \p distance metres.
    void maximumDetectionRangeChanged(float distance);
    /// The person \p peopleId arrived.
    void peopleJustArrived(int peopleId);
    /// The person \p peopleId left.
    void peopleJustLeft(int peopleId);
    /// The answer to requestPeoplePosition(): x, y, z in metres, in the
    /// robot's torso frame.
    void peoplePositionUpdated(int peopleId, VX::Math::Position3D position);

public slots:
    /// Stores the range and emits maximumDetectionRangeChanged(); the
    /// robot's answers and signals come here.
    void onMaximumDetectionRangeChanged(float distance);
    /// Adds \p peopleId to the list and emits peopleJustArrived().
    void onPeopleJustArrived(int peopleId);
    /// Removes \p peopleId from the list and emits peopleJustLeft().
    void onPeopleJustLeft(int peopleId);
    /// Replaces the list with the robot's array of ids.
    void setPeopleList(VX::VXValue peopleList);
    /// Emits peoplePositionUpdated() for the robot's [x, y, z] value.
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
