#pragma once

#include "synchronization_thread_p.h"

#include <wz/project/project_model.h>

#include <QString>

#include <string>

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

protected:
    void onConnected() override;

private:
    QString m_path;
    wz::project::ProjectModel *m_model;
    wz::project::ArchiveFormat m_format;
};

} // namespace RK
