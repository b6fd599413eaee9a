#pragma once

#include <connection/operation_error.h>

#include <connection/nimiob_export.h>

#include <QObject>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <memory>

namespace RK {

class Connection;

/// Mirror of the id of the human the robot tracks, -1 for nobody (also until
/// the robot's first answer).
///
/// \b Thread: lives on the connection worker's thread, where its signals
/// are emitted: connect them with a receiver object. humanTracked() may be
/// called from any thread.
///
/// \b Ownership: shared by the connection and the holders of
/// ConnectionManager::basicAwarenessInterface() (null when the robot lacks the
/// service). New at every connection: drop the pointer on
/// ConnectionManager::disconnected(); one kept longer only stops hearing
/// from the robot.
class NIMIOB_EXPORT BasicAwarenessInterface : public QObject
{
    Q_OBJECT

public:
    /// Made by the connection. Throws std::runtime_error when the session is
    /// not connected or a service cannot be reached.
    explicit BasicAwarenessInterface(boost::shared_ptr<Connection> connection);
    /// Stops listening to the robot.
    ~BasicAwarenessInterface() override;

    /// The tracked human's id (as PeoplePerceptionInterface names people),
    /// -1 for nobody.
    int humanTracked() const { return m_humanTracked; }

    /// The memory key read for the first value:
    /// "VXBasicAwareness/HumanTracked".
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
    /// The robot tracks \p humanId now (-1: nobody).
    void humanTrackedChanged(int humanId);

public slots:
    /// Stores \p humanId and emits humanTrackedChanged(); ignores the id
    /// already stored. The robot's signal comes here.
    void onHumanTrackedChanged(int humanId);

private:
    struct Remote;
    std::unique_ptr<Remote> d;
    std::atomic<int> m_humanTracked {-1};
};

} // namespace RK
