#pragma once

#include "synchronization_thread_p.h"

#include <wz/project/project_model.h>

#include <QAbstractSocket>
#include <QString>

#include <string>

class QTcpSocket;

namespace RK {

// Fetches one remote project into a model: the tree, each file by GET, then
// the metadata.
class PullThread : public SynchronizationThread
{
    Q_OBJECT

public:
    PullThread(const std::string &host, int port, const QString &path,
               wz::project::ProjectModel *model, wz::project::ArchiveFormat format,
               QObject *parent = nullptr);
    ~PullThread() override;

    QString lastError() const override { return m_lastError; }
    void exit(int code) override { SynchronizationThread::exit(code); }

protected:
    void transfer() override;

private slots:
    void onConnected();
    void onSocketError(QAbstractSocket::SocketError error);

private:
    void fail(const QString &text);

    QString m_lastError;
    std::string m_host;
    int m_port;
    QString m_path;
    wz::project::ProjectModel *m_model;
    wz::project::ArchiveFormat m_format;
    QTcpSocket *m_socket = nullptr;
};

} // namespace RK
