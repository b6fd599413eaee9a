#include "pane.h"

namespace panel {

Pane::Pane(const QString &title, QWidget *parent) : QGroupBox(title, parent) { }

void Pane::relayExecuterErrors(QObject *executer, const QString &operation)
{
    // Not every executer has the signal (the behaviour manager reports by its
    // interface's displayErrorRequested); looked up first so that none is
    // connected to nothing.
    if (!executer || executer->metaObject()->indexOfSignal("error(QString,QString,QString)") < 0)
        return;
    auto *relay = new ExecuterErrorRelay(operation, this);
    connect(executer, SIGNAL(error(QString, QString, QString)), relay,
            SLOT(onError(QString, QString, QString)));
    connect(relay, &ExecuterErrorRelay::errorOccurred, this, &Pane::errorOccurred);
    m_relay = relay;
}

void Pane::dropExecuterErrors()
{
    // Deleting the relay cuts the link; an error already queued to it goes too.
    delete m_relay;
}

void Pane::fail(const QString &operation, RK::ErrorCode code, const QString &contents,
                const QString &details)
{
    RK::OperationError error;
    error.operation = operation;
    error.code = code;
    error.title = title();
    error.contents = contents;
    error.details = details;
    emit errorOccurred(error);
}

void ExecuterErrorRelay::onError(QString title, QString contents, QString details)
{
    // A call cut short by the connection's end: the panel shows the loss
    // itself, once, and reconnects; one entry per call in flight would be noise.
    if (details.contains(QLatin1String("connection lost"))
        || details.contains(QLatin1String("disconnected: ")))
        return;
    RK::OperationError error;
    error.operation = m_operation;
    error.code = RK::ErrorCode::RobotFailed;
    error.title = title;
    error.contents = contents;
    error.details = details;
    emit errorOccurred(error);
}

} // namespace panel
