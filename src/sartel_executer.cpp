// The desktop module's executer: its making and unmaking, and calls by name.
// Events, polling and the timeline are in sartel_executer_{events,polling,timeline}.cpp.

#include "connection_p.h"
#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include "sartel_executer_parts_p.h"
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <QMetaObject>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <vx/vxproxy.h>
#include <wz/log.h>
#include <wz/object.h>
#include <wz/session.h>

#include <algorithm>
#include <stdexcept>

namespace RK {

namespace {

// The robot's module `name`, looked up in the session each time. A module
// the robot does not have is a missing service, with the framework's text.
boost::shared_ptr<VX::VXProxy> proxyByName(const Connection &connection, const QString &name)
{
    wz::Session *session = connection.session();
    if (!session)
        throw CallFailure(ErrorCode::ConnectionLost, "no session");
    const std::string module = utf8(name);
    const wz::Future<wz::Object> found = session->service(module, "");
    if (found.hasError()) {
        const std::string text = found.error();
        if (text.find(wz::serviceNotFoundText(module)) != std::string::npos)
            throw CallFailure(ErrorCode::ServiceMissing, text);
        throw std::runtime_error(text);
    }
    return boost::make_shared<VX::VXProxy>(found.value(), module);
}

} // namespace

const QString VXSartelExecuter::a_sentenceSaidSTMName
    = QStringLiteral("VXTextToSpeech/CurrentSentence");
const QString VXSartelExecuter::a_sentenceHeardSTMName = QStringLiteral("WordRecognized");

VXSartelExecuter::VXSartelExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr),
      m_connection(connection),
      m_posted(
          std::make_unique<PostedCallWatch>([this](const OperationError &failure, bool withSignal) {
              if (withSignal)
                  emit error(failure.title, failure.contents, failure.details);
              emit errorOccurred(failure);
          }))
{
    wz::Session *session = connection->session();
    m_module = boost::make_shared<VXSartel>(session, nullptr);
    m_module->setTestLimit(connection->timing().connectionTestLimitMs);
    if (!session)
        throw std::runtime_error("the desktop module needs a session to register in");
    const wz::Object object = wz::makeObject(m_module);
    m_moduleServiceId = session->registerService(utf8(m_module->objectName()), object)
                            .value(wz::FutureTimeout_Infinite);

    m_events = EventRelay::create(this, [this](const QString &name, const VX::VXValue &value) {
        onDataChanged(name, value);
    });
    updateEventFilter();
    m_module->addRelay(m_events);
    initPollingTimers(connection->timing());
    subscribeToMicroEvent(QString::fromLatin1(a_keyRemovedName));
}

VXSartelExecuter::~VXSartelExecuter()
{
    m_destroying = true;
    // Nobody is left to hear what the way out reports.
    QObject::disconnect(this, nullptr, nullptr, nullptr);
    m_module->removeRelaysTo(this);
    m_events->detach();
    if (const boost::shared_ptr<Connection> connection = m_connection.lock()) {
        wz::Session *session = connection->session();
        if (session && session->isConnected() && m_moduleServiceId != 0) {
            try {
                // Bounded: a robot that does not answer drops the name
                // itself when the session closes.
                session->unregisterService(m_moduleServiceId)
                    .wait(std::max(0, connection->timing().unregisterLimitMs));
            } catch (const std::exception &) {
                // The session is going: the directory drops the name with it.
            }
        }
    }
    stopCurrentTimeline();
}

// ---- calls by name ----------------------------------------------------------

// The call is posted; the robot's failure of it, when it comes, is told as
// the failure of the call. The dialog, when asked for, tells every failure
// found before posting; one that comes later is told by errorOccurred only
// when no dialog was asked for, and by both otherwise.
template<typename Post>
bool VXSartelExecuter::callByName(const QString &proxyName, const QString &methodName,
                                  const char *enabledMethod, bool checkEnable,
                                  bool showDialogOnError, Post post)
{
    auto call = executerCall(this, m_connection, "callProxy");
    if (showDialogOnError)
        call.signal(tr("Failed to call IO"),
                    tr("Make sure the behavior has been played and check that you do not have "
                       "feedback errors from your robot."));
    call.quietly();
    const bool posted = call.attempt(
        [&proxyName](Connection &connection) { return proxyByName(connection, proxyName); },
        [&](VX::VXProxy &proxy) {
            if (checkEnable && !proxy.call<bool>(enabledMethod))
                throw CallFailure(ErrorCode::RobotFailed,
                                  tr("Box is disabled and therefore cannot be called. Check "
                                     "that the behavior keyframe parent is loaded.")
                                      .toStdString());
            post(proxy, call.report());
        });
    if (!posted) {
        const OperationError failure = call.lastFailure();
        if (showDialogOnError)
            onCallFailed(proxyName, methodName, VX::VXValue(), failure.details);
        emit errorOccurred(failure);
    }
    return posted;
}

bool VXSartelExecuter::callProxy(QString proxyName, QString methodName, VX::VXValue param,
                                 bool checkEnable, bool showDialogOnError)
{
    return callByName(proxyName, methodName, "_isEnabled", checkEnable, showDialogOnError,
                      [&](VX::VXProxy &proxy, const FailureReport &texts) {
                          m_posted->post(proxy, "callProxy", texts, utf8(methodName),
                                         {wz::toAny(param)});
                      });
}

bool VXSartelExecuter::callProxy(QString proxyName, bool checkEnable, bool showDialogOnError,
                                 QString methodName, VX::VXValue param1, VX::VXValue param2,
                                 VX::VXValue param3, VX::VXValue param4, VX::VXValue param5,
                                 VX::VXValue param6)
{
    const VX::VXValue *const params[] = {&param1, &param2, &param3, &param4, &param5, &param6};
    std::vector<wz::AnyValue> args;
    while (args.size() < 6 && params[args.size()]->isValid())
        args.push_back(wz::toAny(*params[args.size()]));
    if (args.empty()) {
        executerCall(this, m_connection, "callProxy")
            .fail(ErrorCode::RobotFailed, QStringLiteral("no argument to pass"));
        return false;
    }
    // This form asks without the leading underscore, unlike the other.
    return callByName(proxyName, methodName, "isEnabled", checkEnable, showDialogOnError,
                      [&](VX::VXProxy &proxy, const FailureReport &texts) {
                          m_posted->post(proxy, "callProxy", texts, utf8(methodName),
                                         std::move(args));
                      });
}

void VXSartelExecuter::onCallFailed(const QString &proxyName, const QString &methodName,
                                    const VX::VXValue &param, const QString &error)
{
    emit this->error(
        tr("Failed to call IO"),
        tr("Make sure the behavior has been played and check that you do not have "
           "feedback errors from your robot."),
        tr("Tried to call:\n%1::%2(%3)\n\nError:\n%4")
            .arg(proxyName, methodName, QString::fromLatin1(param.toString(1).c_str()), error));
}

} // namespace RK
