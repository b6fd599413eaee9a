#pragma once

#include "synchronization_thread_p.h"

#include <wz/project/project_model.h>

#include <QString>

#include <string>

namespace RK {

// Deletes one remote project with a single DELETE, connecting synchronously.
class RemoveThread : public SynchronizationThread
{
    Q_OBJECT

public:
    RemoveThread(const std::string &host, int port, const QString &path,
                 wz::project::ArchiveFormat format, QObject *parent = nullptr);

protected:
    void transfer() override;

private:
    QString m_path;
    wz::project::ArchiveFormat m_format;
};

} // namespace RK
