// morvane-sim as a program: scenario file, logging, clean stop on SIGTERM.
#include <wz/session.h>

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <future>

TEST(MorvaneSimProgram, ServesAScenarioAndStopsCleanly)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString scenario = dir.filePath("scenario.json");
    std::ofstream(scenario.toStdString()) << R"({
        "version": "2.1.2.17",
        "keys": {"Robot/Name": "pelvon-7"},
        "methods": {"VXBattery.getBatteryCharge": {"fail": "battery board not answering"}}
    })";

    QProcess sim;
    sim.start(MORVANE_SIM_PATH,
              {"--listen", "tcp://127.0.0.1:0", "--scenario", scenario, "--verbose"});
    ASSERT_TRUE(sim.waitForStarted(10000));
    ASSERT_TRUE(sim.waitForReadyRead(10000)) << sim.readAllStandardError().toStdString();
    const QString banner = QString::fromLatin1(sim.readLine());
    const QRegularExpressionMatch m
        = QRegularExpression("listening on (tcp://127\\.0\\.0\\.1:\\d+)").match(banner);
    ASSERT_TRUE(m.hasMatch()) << banner.toStdString();

    // QProcess starts its child with vfork(): the child runs on this
    // thread's race-detector state, which afterwards misses this thread's
    // locks. The client runs on a thread of its own; failures still reach
    // the test through the future.
    const std::string url = m.captured(1).toStdString();
    std::async(std::launch::async, [&url] {
        auto client = boost::make_shared<wz::Session>();
        client->connect(wz::Url(url)).value(10000);
        const wz::Object memory = client->service("VXMemory").value(10000);
        EXPECT_EQ(memory.call<std::string>("version"), "2.1.2.17");
        EXPECT_EQ(memory.call<std::string>("getData", "Robot/Name"), "pelvon-7");
        const wz::Object battery = client->service("VXBattery").value(10000);
        EXPECT_EQ(battery->metaCall("getBatteryCharge", {}).error(10000),
                  "battery board not answering");
        client->close().wait(10000);
    }).get();

    sim.terminate(); // SIGTERM
    ASSERT_TRUE(sim.waitForFinished(10000));
    EXPECT_EQ(sim.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(sim.exitCode(), 0);
    const std::string log = sim.readAllStandardError().toStdString();
    EXPECT_NE(log.find("client arrived: 127.0.0.1:"), std::string::npos) << log;
    EXPECT_NE(log.find("client left: 127.0.0.1:"), std::string::npos) << log;
    EXPECT_NE(log.find("VXBattery.getBatteryCharge() from 127.0.0.1:"), std::string::npos) << log;
    EXPECT_NE(log.find("robot stopped"), std::string::npos) << log;
}

TEST(MorvaneSimProgram, RefusesABadScenarioWithTheReason)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString scenario = dir.filePath("bad.json");
    std::ofstream(scenario.toStdString()) << R"({"omitServices": ["VXNothing"]})";
    QProcess sim;
    sim.start(MORVANE_SIM_PATH, {"--listen", "tcp://127.0.0.1:0", "--scenario", scenario});
    ASSERT_TRUE(sim.waitForFinished(10000));
    EXPECT_EQ(sim.exitCode(), 1);
    EXPECT_NE(sim.readAllStandardError().toStdString().find("no service \"VXNothing\""),
              std::string::npos);
}
