#pragma once

#include <connection/operation_error.h>

#include <connection/nimiob_export.h>

#include <QObject>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <memory>

namespace RK {

class Connection;

// Mirror of the robot's engagement zones: two limit distances and a limit
// angle. The defaults (1.5, 2.5, 45) hold until the robot's first answers;
// later changes come through the robot's signals. Lives on the connection
// worker's thread; the getters may be called from any thread.
class NIMIOB_EXPORT EngagementZonesInterface : public QObject
{
    Q_OBJECT

public:
    // Throws std::runtime_error when the session is not connected or the
    // service cannot be reached.
    explicit EngagementZonesInterface(boost::shared_ptr<Connection> connection);
    ~EngagementZonesInterface() override;

    float firstLimit() const { return m_firstLimit; }
    float secondLimit() const { return m_secondLimit; }
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
    void firstLimitChanged(float distance);
    void secondLimitChanged(float distance);
    void limitAngleChanged(float angle);

public slots:
    // Each stores and emits, also when the value has not changed.
    void emitFirstLimitChanged(float distance);
    void emitSecondLimitChanged(float distance);
    void emitLimitAngleChanged(float angle);

private:
    struct Remote;
    std::unique_ptr<Remote> d;
    std::atomic<float> m_firstLimit {1.5f};
    std::atomic<float> m_secondLimit {2.5f};
    std::atomic<float> m_limitAngle {45.0f};
};

} // namespace RK
