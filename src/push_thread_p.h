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
// "Expect: 100-continue" per file, the metadata last. Progress is in bytes
// over the whole transaction (shifted right when the total passes INT_MAX).
class PushThread : public SynchronizationThread
{
    Q_OBJECT

public:
    PushThread(const std::string &host, int port, const PushTask &task, QObject *parent = nullptr);

    void setMergeOption(bool merge);

protected:
    QString refusal() const override;
    void onConnected() override;

private:
    // The error of one file's PUT, or "".
    QString sendFile(quint64 &sent, const PushTask &task, const QString &file,
                     const quint64 &total);
    void report(quint64 sent, quint64 total);
    int scaled(quint64 bytes) const { return int(bytes >> m_progressShift); }

    QList<PushTask> m_tasks;
    int m_progressShift = 0;
    quint64 m_reported = 0;
};

} // namespace RK
