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

/// Narration with gestures ("VXAnimatedSpeech"), a plain test of a text
/// ("VXTextToSpeech"), and the tags a narration may hold. Speaking holds the
/// executer's thread until the robot has finished, so a stop asked for
/// meanwhile reaches the robot only after the sentence. Failures come
/// out as errorOccurred(), and also as the executer's error(title, contents,
/// details).
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::animatedSpeechInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT AnimatedSpeechInterface
    : public QObject,
      public MorvaneInterface<AnimatedSpeechExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::animatedSpeechInterface().
    explicit AnimatedSpeechInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~AnimatedSpeechInterface() override;

    /// Says \p narration with the gestures its tags ask for
    /// ("VXAnimatedSpeech"); success has no signal.
    void interpretText(const QString &narration);
    /// Stops every animated speech running.
    void stopAllInterpretation();
    /// Says \p textToTest with plain text to speech, to try a text out.
    void startTest(const QString &textToTest);
    /// Stops everything text to speech says.
    void stopTest();
    /// Empty when the connection has gone or the call fails.
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
    /// Carries interpretText() to the executer's thread.
    void interpretTextRequested(QString narration);
    /// Carries stopAllInterpretation() to the executer's thread.
    void stopAllInterpretationRequested();
    /// Carries startTest() to the executer's thread.
    void startTestRequested(QString textToTest);
    /// Carries stopTest() to the executer's thread.
    void stopTestRequested();
};

} // namespace RK
