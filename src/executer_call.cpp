#include "executer_call_p.h"

#include <vx/vxproxy.h>
#include <wz/future.h>
#include <wz/log.h>
#include <wz/session.h>

namespace RK {

namespace {

bool mentions(const std::string &text, const char *what)
{
    return text.find(what) != std::string::npos;
}

} // namespace

ErrorCode classifyFailureText(const std::string &text)
{
    if (mentions(text, "connection lost") || mentions(text, "disconnected")
        || mentions(text, "was destroyed"))
        return ErrorCode::ConnectionLost;
    if (mentions(text, "call canceled") || text == "canceled")
        return ErrorCode::Cancelled;
    return ErrorCode::RobotFailed;
}

ErrorCode classifyFailure(const Connection *connection, const std::exception &e)
{
    // The proxy's texts name the kind of failure ("connection lost", "call
    // canceled"); the framework's own say "disconnected: ..." and a proxy
    // released by the teardown "was destroyed". A call that failed while the
    // session went down is the link's failure whatever its text.
    const std::string text = e.what();
    if (mentions(text, "connection lost") || mentions(text, "disconnected")
        || mentions(text, "was destroyed"))
        return ErrorCode::ConnectionLost;
    const wz::Session *session = connection ? connection->session() : nullptr;
    if (!session || !session->isConnected())
        return ErrorCode::ConnectionLost;
    if (mentions(text, "call canceled"))
        return ErrorCode::Cancelled;
    return ErrorCode::RobotFailed;
}

OperationError makeFailure(const char *operation, ErrorCode code, const QString &details,
                           const FailureReport &report)
{
    OperationError failure;
    failure.operation = QString::fromLatin1(operation);
    failure.code = code;
    failure.title = report.title.isEmpty() ? QStringLiteral("Error") : report.title;
    failure.contents = report.contents.isEmpty()
        ? QStringLiteral("Failed to call %1").arg(failure.operation)
        : report.contents;
    failure.details = details;
    if (report.category && !report.logText.empty()) {
        wz::log::LogStream(report.level, report.category, operation)
            << report.logText << details.toStdString();
    } else if (report.category) {
        wz::log::LogStream(report.level, report.category, operation)
            << "Failed to call " << operation << " (" << errorCodeName(code).toStdString()
            << "): " << details.toStdString();
    }
    return failure;
}

PostedCallWatch::PostedCallWatch(Report report) : m_state(std::make_shared<State>())
{
    m_state->report = std::move(report);
}

PostedCallWatch::~PostedCallWatch()
{
    // Waits for a report in progress; later answers find nobody to tell.
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->report = nullptr;
}

void PostedCallWatch::post(VX::VXProxy &proxy, const char *operation, const FailureReport &texts,
                           const std::string &method, std::vector<wz::AnyValue> args)
{
    const wz::Object object = proxy.object();
    if (!object)
        throw VX::VXError(proxy.name() + "." + method + ": connection lost: proxy to "
                          + proxy.name() + " was destroyed");
    const wz::Future<wz::AnyValue> answer = object->metaCall(method, std::move(args));
    const std::weak_ptr<State> weak = m_state;
    const std::string where = proxy.name() + "." + method;
    answer.connect([weak, where, operation, texts](const wz::Future<wz::AnyValue> &done) {
        if (!done.hasError(0) && !done.isCanceled())
            return;
        const std::shared_ptr<State> state = weak.lock();
        if (!state)
            return;
        const std::string text = done.isCanceled() ? std::string("canceled") : done.error(0);
        const ErrorCode code = classifyFailureText(text);
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->report)
            state->report(makeFailure(operation, code,
                                      QString::fromUtf8((where + ": " + text).c_str()), texts),
                          texts.signal);
    });
}

} // namespace RK
