#pragma once

#include <connection/operation_error.h>

#include <connection/nimiob_export.h>

#include <QObject>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <memory>

namespace RK {

class Connection;

// Mirror of the id of the human the robot tracks, -1 for nobody (also until
// the robot's first answer). Lives on the connection worker's thread;
// humanTracked() may be called from any thread.
class NIMIOB_EXPORT BasicAwarenessInterface : public QObject
{
    Q_OBJECT

public:
    // Throws std::runtime_error when the session is not connected or a
    // service cannot be reached.
    explicit BasicAwarenessInterface(boost::shared_ptr<Connection> connection);
    ~BasicAwarenessInterface() override;

    int humanTracked() const { return m_humanTracked; }

    static const char *const a_humanTrackedKey;

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
    void humanTrackedChanged(int humanId);

public slots:
    // Ignores the id already stored.
    void onHumanTrackedChanged(int humanId);

private:
    struct Remote;
    std::unique_ptr<Remote> d;
    std::atomic<int> m_humanTracked {-1};
};

} // namespace RK
