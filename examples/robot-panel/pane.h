#pragma once

#include <connection/connection_manager.h>
#include <connection/operation_error.h>

#include <QGroupBox>
#include <QPointer>
#include <QString>

namespace panel {

// One area of the panel that works with one or two of the robot's interface
// objects. The interfaces are new at every connection: attach() takes them on
// each connectionEstablished() and connects their signals again; detach()
// drops them on disconnected(), after which they must not be touched (the
// worker destroys them). Lives on the GUI thread.
class Pane : public QGroupBox
{
    Q_OBJECT

public:
    explicit Pane(const QString &title, QWidget *parent = nullptr);

    virtual void attach(RK::ConnectionManager &manager) = 0;
    virtual void detach() = 0;

signals:
    // Every failure this pane sees, for the panel to show once.
    void errorOccurred(const RK::OperationError &error);

protected:
    // Relays the executer's error(QString title, QString contents, QString
    // details) as errorOccurred for `operation` until the next detach. The
    // executer's class is internal, so the link is made by signature; it is
    // queued, as the executer emits on its own thread. An interface that has
    // errorOccurred(const RK::OperationError &) of its own is connected to
    // this pane's errorOccurred instead, with the pane as the context.
    void relayExecuterErrors(QObject *executer, const QString &operation);
    void dropExecuterErrors();
    void fail(const QString &operation, RK::ErrorCode code, const QString &contents,
              const QString &details = QString());

private:
    QPointer<QObject> m_relay;
};

// Receives one executer's error() on the GUI thread.
class ExecuterErrorRelay : public QObject
{
    Q_OBJECT

public:
    ExecuterErrorRelay(const QString &operation, QObject *parent)
        : QObject(parent), m_operation(operation)
    { }

signals:
    void errorOccurred(const RK::OperationError &error);

public slots:
    void onError(QString title, QString contents, QString details);

private:
    QString m_operation;
};

} // namespace panel
