#pragma once

#include "pane.h"

#include <connection/behavior_instance_manager.h>
#include <connection/behavior_manager_interface.h>

#include <boost/shared_ptr.hpp>

#include <memory>

class QLabel;
class QListWidget;
class QPushButton;

namespace panel {

// The robot's behaviours: the installed ones listed, one run and stopped at a
// time with its state as it changes. The instance that follows the
// behaviour belongs to this pane and outlives connections: it finds the
// interfaces again by itself after a reconnection.
class BehaviorPane : public Pane
{
    Q_OBJECT

public:
    explicit BehaviorPane(RK::ConnectionManager &manager, QWidget *parent = nullptr);
    ~BehaviorPane() override;

    void attach(RK::ConnectionManager &manager) override;
    void detach() override;

    void run(const QString &name);
    void stop();
    // Every state the current behaviour went through, oldest first.
    QStringList stateHistory() const { return m_history; }

private:
    void onStateChanged(RK::BehaviorInstanceManager::State state);

    RK::ConnectionManager &m_manager;
    boost::shared_ptr<RK::BehaviorManagerInterface> m_behaviors;
    std::unique_ptr<RK::BehaviorInstanceManager> m_instance;
    // Set from run() until the instance has found the behaviour and is
    // ready to start it.
    bool m_playWhenReady = false;
    QStringList m_history;

    QListWidget *m_list;
    QPushButton *m_refresh;
    QPushButton *m_run;
    QPushButton *m_stop;
    QLabel *m_state;
    QLabel *m_running;
};

} // namespace panel
