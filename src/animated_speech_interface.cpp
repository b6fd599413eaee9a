#include "animated_speech_executer_p.h"
#include "morvane_interface_p.h"

#include <connection/animated_speech_interface.h>

namespace RK {

// Every member of the frame, for tests and diagnostics that reach them.
template class MorvaneInterface<AnimatedSpeechExecuter, ExecuterThread>;

AnimatedSpeechInterface::AnimatedSpeechInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("AnimatedSpeechInterface"))
{
    forwardFailures(this);
    request(this, &AnimatedSpeechInterface::interpretTextRequested,
            &AnimatedSpeechExecuter::onInterpretText);
    request(this, &AnimatedSpeechInterface::stopAllInterpretationRequested,
            &AnimatedSpeechExecuter::onStopAllInterpretation);
    request(this, &AnimatedSpeechInterface::startTestRequested,
            &AnimatedSpeechExecuter::onStartTest);
    request(this, &AnimatedSpeechInterface::stopTestRequested, &AnimatedSpeechExecuter::onStopTest);
}

AnimatedSpeechInterface::~AnimatedSpeechInterface() = default;

void AnimatedSpeechInterface::interpretText(const QString &narration)
{
    emit interpretTextRequested(narration);
}

void AnimatedSpeechInterface::stopAllInterpretation()
{
    emit stopAllInterpretationRequested();
}

void AnimatedSpeechInterface::startTest(const QString &textToTest)
{
    emit startTestRequested(textToTest);
}

void AnimatedSpeechInterface::stopTest()
{
    emit stopTestRequested();
}

QFuture<QStringList> AnimatedSpeechInterface::getTagList()
{
    return run(&AnimatedSpeechExecuter::getTagList);
}

} // namespace RK
