#include "animated_speech_executer_p.h"
#include "executer_call_p.h"
#include "service_table_p.h"
#include "text_p.h"

#include "connection_p.h"
#include <connection/platform.h>

#include <boost/make_shared.hpp>

#include <wz/object.h>
#include <wz/session.h>

#include <stdexcept>

#include <vector>

namespace RK {

namespace {
const QString a_animatedSpeech = QStringLiteral("VXAnimatedSpeech");
const QString a_textToSpeech = QString::fromLatin1(serviceName(ServiceId::TextToSpeech));

} // namespace

AnimatedSpeechExecuter::AnimatedSpeechExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

// Looks the service up in the session and calls it; a failure anywhere on
// the way is one error under `title`. A service the session does not know
// is a missing service; any other failure of the lookup is the call's.
template<typename Call>
auto AnimatedSpeechExecuter::callService(const char *operation, const char *service,
                                         const QString &title, Call call)
{
    const auto lookup = [service](Connection &connection) -> boost::shared_ptr<VX::VXProxy> {
        if (!connection.session())
            throw CallFailure(ErrorCode::ConnectionLost, "the session has ended");
        const wz::Future<wz::Object> found = connection.session()->service(service, "");
        if (found.hasError()) {
            // Told like any failed call, with the framework's text.
            if (found.error().find(wz::serviceNotFoundText(service)) != std::string::npos)
                throw CallFailure(ErrorCode::ServiceMissing, found.error());
            throw std::runtime_error(found.error());
        }
        return boost::make_shared<VX::VXProxy>(found.value(), service);
    };
    return executerCall(this, m_connection, operation)
        .signal(title, tr("Failed to call"))
        .run(lookup, std::move(call));
}

void AnimatedSpeechExecuter::onInterpretText(QString narration)
{
    callService("interpretText", "VXAnimatedSpeech", a_animatedSpeech,
                [&](VX::VXProxy &p) { p.call<std::string>("interpretText", utf8(narration)); });
}

void AnimatedSpeechExecuter::onStopAllInterpretation()
{
    callService("stopAllInterpretation", "VXAnimatedSpeech", a_animatedSpeech,
                [](VX::VXProxy &p) { p.call<void>("stopAllInterpretations"); });
}

void AnimatedSpeechExecuter::onStartTest(QString textToTest)
{
    callService("startTest", serviceName(ServiceId::TextToSpeech), a_textToSpeech,
                [&](VX::VXProxy &p) { p.call<std::string>("say", utf8(textToTest)); });
}

void AnimatedSpeechExecuter::onStopTest()
{
    callService("stopTest", serviceName(ServiceId::TextToSpeech), a_textToSpeech,
                [](VX::VXProxy &p) { p.call<void>("stopAll"); });
}

QStringList AnimatedSpeechExecuter::getTagList()
{
    // Asks text to speech, and reports under the animated speech's name.
    return callService(
        "getTagList", serviceName(ServiceId::TextToSpeech), a_animatedSpeech, [](VX::VXProxy &p) {
            QStringList tags;
            for (const std::string &tag : p.call<std::vector<std::string>>("_getTagList"))
                tags << QString::fromUtf8(tag.c_str());
            return tags;
        });
}

} // namespace RK
