// The project and package commands (push, pull, rm, packages, install,
// uninstall) in every situation that applies to them, and what Ctrl-C and
// a log file see of a transfer.

#include "console_rows.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace {

using namespace test::rows;

class TransferCommands : public test::ConsoleRows
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    QString path(const QString &name) const { return m_dir.filePath(name); }

    // A project directory of `files` files of `bytes` bytes each.
    QString project(const QString &name, int files, qint64 bytes)
    {
        const QString dir = path(name);
        EXPECT_TRUE(QDir().mkpath(dir));
        const QByteArray content(int(bytes), 'x');
        for (int i = 0; i < files; ++i) {
            QFile f(dir + QStringLiteral("/file%1.txt").arg(i));
            EXPECT_TRUE(f.open(QIODevice::WriteOnly));
            f.write(content);
        }
        return dir;
    }

    QString package(const QString &uuid)
    {
        const QString file = path(uuid + ".pkg");
        QFile f(file);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(("uuid: " + uuid + "\nversion: 1.0\nname: App " + uuid + "\n").toUtf8());
        return file;
    }

    QTemporaryDir m_dir;
};

TEST_F(TransferCommands, ProjectsOverHttp)
{
    const QString small = project("small", 2, 1000);
    // Large enough to be under way when the robot goes or Ctrl-C comes.
    const QString large = project("large", 4, 8 << 20);
    check({
        {Words {"push", small, "proj"}, Situation::Success, ExitOk, "Pushed 2 files"},
        {Words {"pull", "proj", path("back")}, Situation::Success, ExitOk, "Pulled 2 files"},
        {Words {"rm", "proj"}, Situation::Success, ExitOk, "Removed proj in"},
        {Words {"pull", "gone", path("none")}, Situation::Refused, ExitCommandFailed,
         "Pull failed: "},
        {Words {"push", large, "big"}, Situation::Lost, ExitNoConnection, lostText(), "%"},
        {Words {"push", large, "big"}, Situation::Interrupted, ExitInterrupted, "Push cancelled",
         "%"},
        {Words {"push", small}, Situation::BadArgument, ExitUsage, "push wants DIR REMOTE"},
        {Words {"push", path("nodir"), "x"}, Situation::BadArgument, ExitUsage,
         "is not a directory"},
        {Words {"rm", "a/../.."}, Situation::BadArgument, ExitUsage, "has a \"..\" part"},
        {Words {"pull", "/etc", path("x")}, Situation::BadArgument, ExitUsage,
         "relative to the robot's store"},
    });
}

// Into a file or a pipe, progress is whole lines, a few per transfer, and
// never a carriage return.
TEST_F(TransferCommands, ProgressInALogIsAFewWholeLines)
{
    const QString large = project("logged", 4, 4 << 20);
    const test::Result result = test::runLine(robot(), {"push", large, "logged"});
    ASSERT_EQ(result.status, ExitOk) << result.all().toStdString();
    EXPECT_FALSE(result.out.contains('\r'));
    const int percentLines = int(result.out.count(QStringLiteral("%\n")));
    EXPECT_GE(percentLines, 2) << result.out.toStdString();
    EXPECT_LE(percentLines, 12) << result.out.toStdString();
    EXPECT_EQ(test::runLine(robot(), {"rm", "logged"}).status, ExitOk);
}

TEST_F(TransferCommands, Packages)
{
    const QString pkg = package("console-app");
    check({
        {Words {"install", pkg}, Situation::Success, ExitOk, "Installed "},
        {Words {"packages"}, Situation::Success, ExitOk, "console-app"},
        {Words {"packages", "--json"}, Situation::Success, ExitOk, "json:packages"},
        {Words {"install", pkg}, Situation::Refused, ExitCommandFailed, "already installed"},
        {Words {"uninstall", "console-app"}, Situation::Success, ExitOk, "Removed console-app"},
        {Words {"uninstall", "console-app"}, Situation::Refused, ExitCommandFailed, "error: "},
        {Words {"packages"}, Situation::Omitted, ExitCommandFailed,
         omittedText("PackageManager", "packages"), "PackageManager"},
        {Words {"install", pkg}, Situation::Omitted, ExitCommandFailed,
         omittedText("PackageManager", "install"), "PackageManager"},
        {Words {"uninstall", "x"}, Situation::Omitted, ExitCommandFailed,
         omittedText("PackageManager", "uninstall"), "PackageManager"},
        {Words {"packages", "-l"}, Situation::BadArgument, ExitUsage, "packages does not take"},
        {Words {"install", path("missing.pkg")}, Situation::BadArgument, ExitUsage,
         "is not a file"},
        {Words {"uninstall"}, Situation::BadArgument, ExitUsage, "uninstall wants UUID"},
    });
}

} // namespace
