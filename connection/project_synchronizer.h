#pragma once

#include <connection/nimiob_export.h>

#include <wz/project/project_model.h>

#include <QObject>
#include <QString>

#include <string>

namespace RK {

// Moves a project between desktop and robot: send it, merge it in, fetch it,
// delete it. Progress and the end come as signals on the object's thread.
class NIMIOB_EXPORT ProjectSynchronizer : public QObject
{
    Q_OBJECT

public:
    explicit ProjectSynchronizer(QObject *parent = nullptr);
    ~ProjectSynchronizer() override;

signals:
    void connectionLost();
    void stateChanged(const QString &text);
    void rangeChanged(int minimum, int maximum);
    void valueChanged(int value);
    void done();
    // Failed, refused or cancelled; a cancel with no error gives an empty reason.
    void aborted(const QString &reason);

public slots:
    virtual void push(const std::string &host, int port, wz::project::ProjectModel *model,
                      const QString &path, wz::project::ArchiveFormat format)
        = 0;
    virtual void pushMerge(const std::string &host, int port, wz::project::ProjectModel *model,
                           const QString &path, wz::project::ArchiveFormat format)
        = 0;
    virtual void pull(const std::string &host, int port, const QString &path,
                      wz::project::ProjectModel *model, wz::project::ArchiveFormat format)
        = 0;
    virtual void remove(const std::string &host, int port, const QString &path,
                        wz::project::ArchiveFormat format)
        = 0;
    virtual void cancel() = 0;
};

} // namespace RK
