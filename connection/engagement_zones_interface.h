#pragma once

#include <connection/operation_error.h>

#include <connection/nimiob_export.h>

#include <QObject>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <memory>

namespace RK {

class Connection;

/// Mirror of the robot's engagement zones: two limit distances, in metres,
/// and a limit angle, in degrees (the robot's own units). The defaults (1.5,
/// 2.5, 45) hold until the robot's first answers; later changes come through
/// the robot's signals.
///
/// \b Thread: lives on the connection worker's thread, where its signals
/// are emitted: connect them with a receiver object. The getters may be
/// called from any thread.
///
/// \b Ownership: shared by the connection and the holders of
/// ConnectionManager::engagementZonesInterface() (null when the robot lacks the
/// service). New at every connection: drop the pointer on
/// ConnectionManager::disconnected(); one kept longer only stops hearing
/// from the robot.
class NIMIOB_EXPORT EngagementZonesInterface : public QObject
{
    Q_OBJECT

public:
    /// Made by the connection. Throws std::runtime_error when the session is
    /// not connected or the service cannot be reached.
    explicit EngagementZonesInterface(boost::shared_ptr<Connection> connection);
    /// Stops listening to the robot.
    ~EngagementZonesInterface() override;

    /// The first limit distance, in metres (the nearer zone's edge).
    float firstLimit() const { return m_firstLimit; }
    /// The second limit distance, in metres (the farther zone's edge).
    float secondLimit() const { return m_secondLimit; }
    /// The limit angle of the zones, in degrees.
    float limitAngle() const { return m_limitAngle; }

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
    /// firstLimit() is now \p distance metres.
    void firstLimitChanged(float distance);
    /// secondLimit() is now \p distance metres.
    void secondLimitChanged(float distance);
    /// limitAngle() is now \p angle degrees.
    void limitAngleChanged(float angle);

public slots:
    /// Stores and emits firstLimitChanged(), also when the value has not
    /// changed; the robot's answers and signals come here.
    void emitFirstLimitChanged(float distance);
    /// Stores and emits secondLimitChanged(), likewise.
    void emitSecondLimitChanged(float distance);
    /// Stores and emits limitAngleChanged(), likewise.
    void emitLimitAngleChanged(float angle);

private:
    struct Remote;
    std::unique_ptr<Remote> d;
    std::atomic<float> m_firstLimit {1.5f};
    std::atomic<float> m_secondLimit {2.5f};
    std::atomic<float> m_limitAngle {45.0f};
};

} // namespace RK
