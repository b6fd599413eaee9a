#pragma once

#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class AnimatedSpeechExecuter;

// Narration with gestures ("VXAnimatedSpeech"), a plain test of a text
// ("VXTextToSpeech"), and the tags a narration may hold. Speaking holds the
// executer's thread until the robot has finished, so a stop asked for
// meanwhile reaches the robot only after the sentence. Failures come out of
// the executer's error(QString title, QString contents, QString details):
// connect to executerObject() for them.
class NIMIOB_EXPORT AnimatedSpeechInterface
    : public QObject,
      public MorvaneInterface<AnimatedSpeechExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit AnimatedSpeechInterface(boost::shared_ptr<Connection> connection);
    ~AnimatedSpeechInterface() override;

    void interpretText(const QString &narration);
    void stopAllInterpretation();
    void startTest(const QString &textToTest);
    void stopTest();
    // Empty when the connection has gone or the call fails.
    QFuture<QStringList> getTagList();

signals:
    void interpretTextRequested(QString narration);
    void stopAllInterpretationRequested();
    void startTestRequested(QString textToTest);
    void stopTestRequested();
};

} // namespace RK
