#pragma once

#include "pane.h"

#include <connection/http_project_synchronizer.h>

#include <wz/project/project_model.h>

#include <memory>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;

namespace panel {

// A project pushed to the robot or pulled from it over the robot's file
// server, with progress (bytes for a push, files for a pull) and cancel.
// The synchronizer and the local model belong to this pane; the model is
// left alone until done() or aborted().
class ProjectPane : public Pane
{
    Q_OBJECT

public:
    explicit ProjectPane(RK::ConnectionManager &manager, QWidget *parent = nullptr);
    ~ProjectPane() override;

    void attach(RK::ConnectionManager &manager) override;
    void detach() override;

    // `local` is a directory; `remote` a path under the robot's project
    // store. A push first deletes what stands at `remote`.
    void push(const QString &local, const QString &remote);
    void pull(const QString &remote, const QString &local);
    void cancel();
    bool isBusy() const { return m_sync.isBusy(); }

signals:
    // Done, failed or cancelled: the transfer thread has ended.
    void transferEnded();

private:
    bool begin(const QString &operation, std::string &host, int &port);
    void end();

    RK::ConnectionManager &m_manager;
    RK::HttpProjectSynchronizer m_sync;
    std::unique_ptr<wz::project::ProjectModel> m_model;
    QString m_operation;

    QLineEdit *m_local;
    QLineEdit *m_remote;
    QPushButton *m_browse;
    QPushButton *m_push;
    QPushButton *m_pull;
    QPushButton *m_cancel;
    QProgressBar *m_progress;
    QLabel *m_state;
};

} // namespace panel
