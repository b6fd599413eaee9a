#pragma once

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
