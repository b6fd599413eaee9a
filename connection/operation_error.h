#pragma once

#include <QDebug>
#include <QMetaType>
#include <QString>

namespace RK {

/// Why an operation that the application started ended without its result.
/// Every interface reports each failed operation once, as an OperationError,
/// through its errorOccurred() signal.
enum class ErrorCode {
    /// The robot has no such service: the request was never sent.
    ServiceMissing,
    /// The robot answered with an error, or refused what was asked.
    RobotFailed,
    /// The connection ended (lost, or closed by the application) before the
    /// answer came; also the answer to every request made after it ended.
    ConnectionLost,
    /// The application cancelled the operation.
    Cancelled,
};

/// One failed operation, as an interface's errorOccurred() carries it. A
/// plain value: copy it freely, across threads too.
struct OperationError
{
    /// The interface method that failed, as it is spelt in its header
    /// ("getBatteryLevel", "say", ...).
    QString operation;
    /// Why it failed.
    ErrorCode code = ErrorCode::RobotFailed;
    /// A title, usually the robot's service. With contents and details,
    /// the same three texts as the executer's error(title, contents,
    /// details).
    QString title;
    /// What failed, in words for a dialog.
    QString contents;
    /// The robot's or the framework's own text; may be empty.
    QString details;
};

/// The code's name as written in this header ("ServiceMissing", ...), for
/// logs and messages.
inline QString errorCodeName(ErrorCode code)
{
    switch (code) {
    case ErrorCode::ServiceMissing:
        return QStringLiteral("ServiceMissing");
    case ErrorCode::RobotFailed:
        return QStringLiteral("RobotFailed");
    case ErrorCode::ConnectionLost:
        return QStringLiteral("ConnectionLost");
    case ErrorCode::Cancelled:
        return QStringLiteral("Cancelled");
    }
    return QStringLiteral("Unknown");
}

/// Writes errorCodeName(\p code) to \p debug.
inline QDebug operator<<(QDebug debug, ErrorCode code)
{
    QDebugStateSaver saver(debug);
    debug.noquote() << errorCodeName(code);
    return debug;
}

/// Writes "OperationError(operation, code, details)" to \p debug.
inline QDebug operator<<(QDebug debug, const OperationError &error)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << "OperationError(" << error.operation << ", "
                              << errorCodeName(error.code) << ", " << error.details << ')';
    return debug;
}

} // namespace RK

Q_DECLARE_METATYPE(RK::OperationError)
