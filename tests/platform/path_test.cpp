#include <wz/os.h>
#include <wz/path.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>

namespace {

// Runs the probe against the library found in `libDir` and returns what it
// printed as the prefix.
QString prefixSeenFrom(const QString &libDir)
{
    QProcess probe;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("LD_LIBRARY_PATH", libDir);
    probe.setProcessEnvironment(env);
    probe.start(PATH_PROBE, QStringList());
    if (!probe.waitForFinished(30000) || probe.exitCode() != 0)
        return "<probe failed: " + QString::fromUtf8(probe.readAllStandardError()) + ">";
    return QString::fromUtf8(probe.readAllStandardOutput()).trimmed();
}

} // namespace

TEST(SdkPrefix, FollowsTheLibraryWhenTheTreeMoves)
{
    QTemporaryDir tmp;
    ASSERT_TRUE(tmp.isValid());
    const QString base = QFileInfo(tmp.path()).canonicalFilePath();
    ASSERT_TRUE(QDir().mkpath(base + "/first/lib"));
    // The probe has no run path of its own: it takes the library it is given.
    const QString soname = "libnimiob-wz.so." + QString::number(WZ_SOVERSION);
    ASSERT_TRUE(QFile::copy(WZ_LIBRARY_FILE, base + "/first/lib/" + soname));

    EXPECT_EQ(prefixSeenFrom(base + "/first/lib"), base + "/first");

    ASSERT_TRUE(QDir().rename(base + "/first", base + "/moved"));
    EXPECT_EQ(prefixSeenFrom(base + "/moved/lib"), base + "/moved");

    // Reached through a symbolic link, the prefix is the real directory.
    ASSERT_TRUE(QFile::link(base + "/moved", base + "/alias"));
    EXPECT_EQ(prefixSeenFrom(base + "/alias/lib"), base + "/moved");

    // And the library this test runs with reports its own tree.
    const QString own = QFileInfo(WZ_LIBRARY_FILE).canonicalPath();
    EXPECT_EQ(QString::fromStdString(wz::path::sdkPrefix()), QFileInfo(own).path());
}

TEST(Gettimeofday, GivesWallClockSecondsAndMicroseconds)
{
    EXPECT_EQ(wz::os::gettimeofday(nullptr), -1);
    wz::os::timeval tv;
    ASSERT_EQ(wz::os::gettimeofday(&tv), 0);
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    EXPECT_LE(std::llabs(now - tv.tv_sec), 2);
    EXPECT_GE(tv.tv_usec, 0);
    EXPECT_LT(tv.tv_usec, 1000000);
}
