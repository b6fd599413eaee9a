#pragma once

#include <QMetaType>
#include <QString>

namespace RK {

// Why an operation that the application started ended without its result.
// Every interface reports each failed operation once, as an OperationError,
// on the thread the interface lives on.
enum class ErrorCode {
    // The robot has no such service: the request was never sent.
    ServiceMissing,
    // The robot answered with an error, or refused what was asked.
    RobotFailed,
    // The connection ended (lost, or closed by the application) before the
    // answer came; also the answer to every request made after it ended.
    ConnectionLost,
    // The application cancelled the operation.
    Cancelled,
};

struct OperationError
{
    // The interface method that failed, as it is spelt in its header
    // ("getBatteryLevel", "say", ...).
    QString operation;
    ErrorCode code = ErrorCode::RobotFailed;
    // The same three texts as the executer's error(title, contents, details).
    QString title;
    QString contents;
    QString details;
};

} // namespace RK

Q_DECLARE_METATYPE(RK::OperationError)
