#pragma once

#include "synchronization_thread_p.h"

#include <wz/project/project_model.h>

#include <QList>
#include <QString>

#include <string>

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

    void setMergeOption(bool merge);

protected:
    void onConnected() override;
    // A robot that closes a push mid-way has often run out of disk.
    QString connectionLostText(QAbstractSocket::SocketError error) const override;

private:
    bool sendFile(quint64 &sent, const PushTask &task, const QString &file, const quint64 &total);
    int scaled(quint64 bytes) const { return int(bytes >> m_progressShift); }

    QList<PushTask> m_tasks;
    int m_progressShift = 0;
};

} // namespace RK
