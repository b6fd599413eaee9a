#pragma once

#include <connection/operation_error.h>

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
// meanwhile reaches the robot only after the sentence. Failures come
// out as errorOccurred(), and also as the executer's error(title, contents,
// details).
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
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void interpretTextRequested(QString narration);
    void stopAllInterpretationRequested();
    void startTestRequested(QString textToTest);
    void stopTestRequested();
};

} // namespace RK
