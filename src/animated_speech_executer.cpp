#include "animated_speech_executer_p.h"
#include "service_table_p.h"

#include <connection/connection.h>
#include <connection/platform.h>

#include <boost/make_shared.hpp>

#include <wz/session.h>

#include <vector>

namespace RK {

namespace {
const QString a_animatedSpeech = QStringLiteral("VXAnimatedSpeech");
const QString a_textToSpeech = QString::fromLatin1(serviceName(ServiceId::TextToSpeech));

std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}
} // namespace

AnimatedSpeechExecuter::AnimatedSpeechExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

// Looks the service up in the session and calls it; a failure anywhere on
// the way is one error under `title`.
template<typename Call>
void AnimatedSpeechExecuter::callService(const char *service, const QString &title, Call call)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection || !connection->session())
        return;
    try {
        // value() waits, and turns a failed or broken future into an exception.
        wz::Object object = connection->session()->service(service, "").value();
        if (!object)
            return;
        VX::VXProxy proxy(object, service);
        call(proxy);
    } catch (const std::exception &e) {
        emit error(title, tr("Failed to call"), QString::fromUtf8(e.what()));
    }
}

void AnimatedSpeechExecuter::onInterpretText(QString narration)
{
    callService("VXAnimatedSpeech", a_animatedSpeech,
                [&](VX::VXProxy &p) { p.call<std::string>("interpretText", utf8(narration)); });
}

void AnimatedSpeechExecuter::onStopAllInterpretation()
{
    callService("VXAnimatedSpeech", a_animatedSpeech,
                [](VX::VXProxy &p) { p.call<void>("stopAllInterpretations"); });
}

void AnimatedSpeechExecuter::onStartTest(QString textToTest)
{
    callService(serviceName(ServiceId::TextToSpeech), a_textToSpeech,
                [&](VX::VXProxy &p) { p.call<std::string>("say", utf8(textToTest)); });
}

void AnimatedSpeechExecuter::onStopTest()
{
    callService(serviceName(ServiceId::TextToSpeech), a_textToSpeech,
                [](VX::VXProxy &p) { p.call<void>("stopAll"); });
}

QStringList AnimatedSpeechExecuter::getTagList()
{
    QStringList tags;
    // Asks text to speech, and reports under the animated speech's name.
    callService(serviceName(ServiceId::TextToSpeech), a_animatedSpeech, [&](VX::VXProxy &p) {
        for (const std::string &tag : p.call<std::vector<std::string>>("_getTagList"))
            tags << QString::fromUtf8(tag.c_str());
    });
    return tags;
}

} // namespace RK
