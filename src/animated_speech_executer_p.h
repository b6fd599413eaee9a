#pragma once

#include <connection/operation_error.h>

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <string>

namespace RK {

class Connection;

// Asks the session for its service at each operation: "VXAnimatedSpeech" is
// not bound with the others.
class AnimatedSpeechExecuter : public QObject
{
    Q_OBJECT

public:
    explicit AnimatedSpeechExecuter(boost::shared_ptr<Connection> connection);

    // Runs on the pool, beside the slots.
    QStringList getTagList();

public slots:
    void onInterpretText(QString narration);
    void onStopAllInterpretation();
    void onStartTest(QString textToTest);
    void onStopTest();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void error(QString title, QString contents, QString details);

private:
    template<typename Call>
    auto callService(const char *operation, const char *service, const QString &title, Call call);

    boost::weak_ptr<Connection> m_connection;
};

} // namespace RK
