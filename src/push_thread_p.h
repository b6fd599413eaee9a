#pragma once

#include "synchronization_thread_p.h"

#include <wz/project/project_model.h>

#include <QAbstractSocket>
#include <QList>
#include <QString>

#include <string>

class QTcpSocket;

namespace RK {

// One project to send: where, what, and whether to keep what stands there.
struct PushTask
{
    QString path;
    wz::project::ArchiveFormat format = wz::project::ArchiveFormat_Plain;
    wz::project::ProjectModel *model = nullptr; // null: only delete
    QString secondPath; // carried, never read
    bool merge = false;
};

// Sends projects in one transaction: DELETE unless merging, one PUT with
// "Expect: 100-continue" per file, the metadata last.
class PushThread : public SynchronizationThread
{
    Q_OBJECT

public:
    PushThread(const std::string &host, int port, const PushTask &task, QObject *parent = nullptr);
    ~PushThread() override;

    void setMergeOption(bool merge);
    QString lastError() const override { return m_lastError; }
    void exit(int code) override { SynchronizationThread::exit(code); }

protected:
    void transfer() override;

private slots:
    void onConnected();
    void onSocketError(QAbstractSocket::SocketError error);

private:
    bool sendFile(quint64 &sent, const PushTask &task, const QString &file, const quint64 &total);
    void fail(const QString &text);
    int scaled(quint64 bytes) const { return int(bytes >> m_progressShift); }

    QString m_lastError;
    std::string m_host;
    int m_port;
    QList<PushTask> m_tasks;
    QTcpSocket *m_socket = nullptr;
    int m_progressShift = 0;
};

} // namespace RK
