#include "pane.h"

namespace panel {

Pane::Pane(const QString &title, QWidget *parent) : QGroupBox(title, parent) { }

void Pane::relayError(const RK::OperationError &error)
{
    if (worthListing(error))
        emit errorOccurred(error);
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

bool worthListing(const RK::OperationError &error)
{
    return error.code != RK::ErrorCode::ConnectionLost;
}

} // namespace panel
