#pragma once

#include "synchronization_thread_p.h"

#include <wz/project/project_model.h>

#include <QString>

#include <string>

namespace RK {

// Deletes one remote project with a single DELETE. Sends no progress.
class RemoveThread : public SynchronizationThread
{
    Q_OBJECT

public:
    RemoveThread(const std::string &host, int port, const QString &path,
                 wz::project::ArchiveFormat format, QObject *parent = nullptr);

protected:
    QString refusal() const override;
    void onConnected() override;
    QString connectionLostText() const override;

private:
    QString m_path;
    wz::project::ArchiveFormat m_format;
};

} // namespace RK
