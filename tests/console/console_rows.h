#pragma once

// The console's commands as a user runs them, against the suite's simulated
// robot: each row runs one command line in one situation and checks its
// exit status and one line of what it printed (or one field of its JSON).

#include "commands.h"
#include "console.h"
#include "kit.h"

#include "shared_robot.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTextStream>
#include <QTimer>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace test {

enum class Situation {
    Success,
    // The robot lacks `trigger` (a service) from before the connection.
    Omitted,
    // The robot drops this desktop once the output holds `trigger`.
    Lost,
    // Ctrl-C once the output holds `trigger`.
    Interrupted,
    // The robot fails what it is asked (`setUp` says how).
    Refused,
    BadArgument,
};

inline const char *situationName(Situation s)
{
    switch (s) {
    case Situation::Success:
        return "success";
    case Situation::Omitted:
        return "service omitted";
    case Situation::Lost:
        return "robot lost";
    case Situation::Interrupted:
        return "Ctrl-C";
    case Situation::Refused:
        return "robot refuses";
    case Situation::BadArgument:
        return "bad argument";
    }
    return "?";
}

struct Row
{
    Row(QStringList words_, Situation situation_, int exit_, QString expected_,
        QString trigger_ = {}, std::function<void(sim::Robot &)> setUp_ = {})
        : words(std::move(words_)),
          situation(situation_),
          exit(exit_),
          expected(std::move(expected_)),
          trigger(std::move(trigger_)),
          setUp(std::move(setUp_))
    { }

    QStringList words;
    Situation situation;
    int exit;
    // A text the output (standard output and error) must contain, or
    // "json:KEY" for a key of the JSON document (or of its first line).
    QString expected;
    // The service omitted, or the output that tells the command is waiting.
    QString trigger;
    // Scenario changes before the row; the scenario is reset after it.
    std::function<void(sim::Robot &)> setUp;
    // Standard input, for the commands that ask.
    QString input = {};
};

struct Result
{
    int status = -1;
    QString out;
    QString err;
    QString all() const { return out + err; }
};

// Short limits: a failure shows in seconds, and no row waits a default out.
inline console::Options rowOptions(const sim::Robot &robot)
{
    console::Options options;
    options.embedded = false;
    options.host = QString::fromStdString(robot.url().host());
    options.port = robot.url().port();
    options.name = QStringLiteral("console test");
    options.timing.readinessStepMs = 20;
    options.timing.connectionTestLimitMs = 3000;
    options.answerMs = 3000;
    options.startMs = 3000;
    options.cancelMs = 500;
    return options;
}

// Runs one command line as nimiob-console does; `when` is polled while it
// runs and `act` is done once, the first time it holds.
inline Result runLine(sim::Robot &robot, const QStringList &words,
                      const std::function<bool(const QString &output)> &when = {},
                      const std::function<void()> &act = {}, const QString &input = {})
{
    Result result;
    QTextStream out(&result.out);
    QTextStream err(&result.err);
    QString inText = input;
    QTextStream in(&inText);
    console::Console console(rowOptions(robot), out, err, &in);
    QTimer poll;
    bool acted = false;
    if (when) {
        QObject::connect(&poll, &QTimer::timeout, [&] {
            out.flush();
            err.flush();
            if (!acted && when(result.out + result.err)) {
                acted = true;
                act();
            }
        });
        poll.start(5);
    }
    result.status = console::runCommand(console, words.value(0), words.mid(1));
    out.flush();
    err.flush();
    return result;
}

// The JSON document printed, or the first line of a stream.
inline QJsonObject firstJson(const QString &out)
{
    QJsonParseError error {};
    QJsonDocument document = QJsonDocument::fromJson(out.toUtf8(), &error);
    if (document.isObject())
        return document.object();
    document = QJsonDocument::fromJson(out.section(QLatin1Char('\n'), 0, 0).toUtf8(), &error);
    return document.object();
}

class ConsoleRows : public SharedRobotTest
{
protected:
    void TearDown() override { robot().scenario().reset(); }

    Result runRow(const Row &row)
    {
        sim::Scenario &scenario = robot().scenario();
        if (row.setUp)
            row.setUp(robot());
        if (row.situation == Situation::Omitted)
            scenario.omitService(row.trigger.toStdString());
        std::function<bool(const QString &)> when;
        std::function<void()> act;
        if (row.situation == Situation::Lost || row.situation == Situation::Interrupted) {
            const QString trigger = row.trigger;
            when = [trigger](const QString &output) { return output.contains(trigger); };
            if (row.situation == Situation::Lost)
                act = [&scenario] { scenario.dropClients(); };
            else
                act = [] { console::InterruptScope::request(); };
        }
        const Result result = runLine(robot(), row.words, when, act, row.input);
        scenario.reset();
        return result;
    }

    // Runs every row and checks each; a failure names its row.
    void check(const std::vector<Row> &rows)
    {
        for (const Row &row : rows) {
            const std::string name = (row.words.join(QLatin1Char(' ')) + QStringLiteral(" [")
                                      + QLatin1String(situationName(row.situation)) + ']')
                                         .toStdString();
            SCOPED_TRACE(name);
            QElapsedTimer took;
            took.start();
            const Result result = runRow(row);
            // CONSOLE_ROW_TIMES=1 lists each row with its time and exit status.
            if (qEnvironmentVariableIsSet("CONSOLE_ROW_TIMES"))
                std::fprintf(stderr, "%6lld ms  exit %3d  %s\n", took.elapsed(), result.status,
                             name.c_str());
            EXPECT_EQ(result.status, row.exit) << result.all().toStdString();
            if (row.expected.startsWith(QLatin1String("json:"))) {
                const QJsonObject json = firstJson(result.out);
                EXPECT_TRUE(json.contains(row.expected.mid(5))) << result.out.toStdString();
            } else {
                EXPECT_TRUE(result.all().contains(row.expected))
                    << "no \"" << row.expected.toStdString() << "\" in:\n"
                    << result.all().toStdString();
            }
            // A usage error is found before anything reaches the robot.
            if (row.situation == Situation::BadArgument) {
                EXPECT_FALSE(result.all().contains(QLatin1String("Connecting to")))
                    << result.all().toStdString();
            }
            // JSON output is only JSON.
            if (row.words.contains(QStringLiteral("--json")) && row.exit == console::ExitOk) {
                EXPECT_FALSE(result.out.contains(QLatin1String("Connecting to")))
                    << result.out.toStdString();
            }
        }
    }
};

inline QString lostText()
{
    return QStringLiteral("the connection to the robot was lost");
}

inline QString omittedText(const char *service, const char *command)
{
    return QStringLiteral("the robot offers no %1, which %2 needs")
        .arg(QLatin1String(service), QLatin1String(command));
}

// The names every table of rows uses: `using namespace test::rows;`.
namespace rows {
using console::ExitCommandFailed;
using console::ExitInterrupted;
using console::ExitNoConnection;
using console::ExitOk;
using console::ExitUsage;
using test::lostText;
using test::omittedText;
using test::Row;
using test::Situation;
using Words = QStringList;
} // namespace rows

} // namespace test
