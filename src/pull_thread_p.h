#pragma once

#include "synchronization_thread_p.h"

#include <wz/project/project_model.h>

#include <QString>

#include <string>

namespace RK {

// Fetches one remote project into a model: the tree, each file by GET
// streamed to a temporary file beside its target and renamed when complete,
// then the metadata. Progress is in thousandths of a file (the listing tells
// no sizes): each file's share advances with its bytes.
class PullThread : public SynchronizationThread
{
    Q_OBJECT

public:
    PullThread(const std::string &host, int port, const QString &path,
               wz::project::ProjectModel *model, wz::project::ArchiveFormat format,
               QObject *parent = nullptr);

    static constexpr int kUnitsPerFile = 1000;

protected:
    void onConnected() override;

private:
    // The error of fetching one file, or "".
    QString fetch(const QString &root, const QString &file, int index);

    QString m_path;
    wz::project::ProjectModel *m_model;
    wz::project::ArchiveFormat m_format;
};

} // namespace RK
