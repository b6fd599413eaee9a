// The device services end to end: each interface against the simulated
// robot, with its answers, its events and its exact error texts.
#include "robot_fixture.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include <connection/animated_speech_interface.h>
#include <connection/audio_interface.h>
#include <connection/battery_interface.h>
#include <connection/config_interface.h>
#include <connection/dialog_interface.h>
#include <connection/launcher_interface.h>
#include <connection/resources_interface.h>

#include "executer_thread_p.h"

#include <sim/animated_speech_service.h>
#include <sim/audio_device_service.h>
#include <sim/dialog_service.h>
#include <sim/launcher_service.h>
#include <sim/text_to_speech_service.h>

#include <wz/log.h>

#include <QSignalSpy>

#include <memory>

namespace {

class DeviceServicesTest : public test::RobotTest
{
protected:
    void TearDown() override
    {
        recorder.reset();
        robot().serviceAs<sim::AudioDeviceService>("VXAudioDevice")->reset();
        robot().serviceAs<sim::TextToSpeechService>("VXTextToSpeech")->reset();
        robot().serviceAs<sim::AnimatedSpeechService>("VXAnimatedSpeech")->reset();
        robot().serviceAs<sim::DialogService>("VXDialog")->reset();
        robot().serviceAs<sim::LauncherService>("VXLauncher")->reset();
        test::RobotTest::TearDown();
    }

    // Connects after the scenario of the case is in place.
    RK::ConnectionManager &connect()
    {
        recorder = std::make_unique<test::Recorder>();
        EXPECT_TRUE(recorder->connectAndWait(robot()));
        return *recorder->manager;
    }

    std::unique_ptr<test::Recorder> recorder;
};

// Errors of an executer that nothing in the library connects.
struct Errors
{
    explicit Errors(QObject *executer) : spy(executer, SIGNAL(error(QString, QString, QString))) { }
    QString title(int i) const { return spy.at(i).at(0).toString(); }
    QString contents(int i) const { return spy.at(i).at(1).toString(); }
    QString details(int i) const { return spy.at(i).at(2).toString(); }
    // The spy is connected directly to another thread: a signal may come
    // before a wait() begins, so wait for the count instead.
    bool waitFor(int count)
    {
        return test::waitUntil([&] { return spy.count() >= count; });
    }
    QSignalSpy spy;
};

TEST_F(DeviceServicesTest, AudioVolumeMuteLanguagesAndChangeEvents)
{
    const auto audio = connect().audioInterface();
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->executerThread()->objectName(), QStringLiteral("AudioInterface thread"));
    QSignalSpy volume(audio.get(), &RK::AudioInterface::updateOutputVolumeRequested);
    QSignalSpy changed(audio.get(), &RK::AudioInterface::audioChanged);

    audio->getOutputVolume();
    ASSERT_TRUE(test::waitUntil([&] { return volume.count() == 1; }));
    EXPECT_EQ(volume.at(0).at(0).toInt(), 70);
    EXPECT_FALSE(volume.at(0).at(1).toBool());

    audio->setOutputVolume(35, true);
    audio->getOutputVolume();
    ASSERT_TRUE(test::waitUntil([&] { return volume.count() == 2 && changed.count() == 2; }));
    EXPECT_EQ(volume.at(1).at(0).toInt(), 35);
    EXPECT_TRUE(volume.at(1).at(1).toBool());
    // The event's value passes unchanged: [volume, muted] as the robot sent it.
    const VX::VXValue last = changed.at(1).at(0).value<VX::VXValue>();
    ASSERT_TRUE(last.isArray());
    ASSERT_EQ(last.getSize(), 2);
    EXPECT_EQ(last[0].toInt(), 35);
    EXPECT_TRUE(last[1].toBool());

    QSignalSpy language(audio.get(), &RK::AudioInterface::getCurrentLanguageResult);
    QSignalSpy languages(audio.get(), &RK::AudioInterface::getAvailableLanguagesResult);
    audio->getCurrentLanguage();
    audio->getAvailableLanguages();
    ASSERT_TRUE(test::waitUntil([&] { return languages.count() == 1; }));
    EXPECT_EQ(language.at(0).at(0).toString(), QStringLiteral("English"));
    EXPECT_EQ(languages.at(0).at(0).toStringList(),
              (QStringList {"English", "French", "Japanese", QString::fromUtf8("Espa\xc3\xb1ol"),
                            "German"}));

    // Failures reach only the executer's error signal, with fixed titles.
    Errors errors(audio->executerObject());
    robot().scenario().failMethod("VXAudioDevice", "setOutputVolume", "amplifier off");
    robot().scenario().failMethod("VXTextToSpeech", "getLanguage", "no voice");
    audio->setOutputVolume(10, false);
    audio->getCurrentLanguage();
    ASSERT_TRUE(test::waitUntil([&] { return errors.spy.count() == 2; }));
    EXPECT_EQ(errors.title(0), QStringLiteral("VXAudioDevice"));
    EXPECT_EQ(errors.contents(0), QStringLiteral("Failed to call"));
    EXPECT_TRUE(errors.details(0).contains(QStringLiteral("amplifier off")))
        << errors.details(0).toStdString();
    EXPECT_EQ(errors.title(1), QStringLiteral("TextToSpeech"));
    EXPECT_TRUE(errors.details(1).contains(QStringLiteral("no voice")));
}

TEST_F(DeviceServicesTest, ARobotWithoutMuteSetsTheVolumeOnly)
{
    robot().scenario().removeMethod("VXAudioDevice", "isAudioOutMuted");
    const auto audio = connect().audioInterface();
    ASSERT_TRUE(audio);
    QSignalSpy volume(audio.get(), &RK::AudioInterface::updateOutputVolumeRequested);
    audio->setOutputVolume(50, true);
    audio->getOutputVolume();
    ASSERT_TRUE(test::waitUntil([&] { return volume.count() == 1; }));
    EXPECT_EQ(volume.at(0).at(0).toInt(), 50);
    EXPECT_FALSE(volume.at(0).at(1).toBool());
    EXPECT_FALSE(robot().serviceAs<sim::AudioDeviceService>("VXAudioDevice")->muted());
    EXPECT_EQ(robot().scenario().callCount("VXAudioDevice", "muteAudioOut"), 0u);
}

TEST_F(DeviceServicesTest, BatteryChargeThenLevelFallbackThenError)
{
    const auto battery = connect().batteryInterface();
    ASSERT_TRUE(battery);
    QSignalSpy level(battery.get(), &RK::BatteryInterface::updateBatteryLevelRequested);
    Errors errors(battery->executerObject());

    battery->getBatteryLevel();
    ASSERT_TRUE(test::waitUntil([&] { return level.count() == 1; }));
    EXPECT_EQ(level.at(0).at(0).toInt(), 87);

    robot().scenario().failMethod("VXBattery", "getBatteryCharge", "gauge offline");
    robot().scenario().replaceMethod("VXBattery", "getBatteryLevel",
                                     [](const sim::Args &) { return wz::AnyValue(3); });
    battery->getBatteryLevel();
    ASSERT_TRUE(test::waitUntil([&] { return level.count() == 2; }));
    EXPECT_EQ(level.at(1).at(0).toInt(), 60);

    robot().scenario().failMethod("VXBattery", "getBatteryLevel", "board silent");
    battery->getBatteryLevel();
    ASSERT_TRUE(errors.waitFor(1));
    EXPECT_EQ(errors.title(0), QStringLiteral("VXSentinel"));
    EXPECT_EQ(errors.contents(0), QStringLiteral("Failed to call"));
    // The details speak of the first failure, not of the fallback's.
    EXPECT_TRUE(errors.details(0).contains(QStringLiteral("gauge offline")));
    EXPECT_FALSE(errors.details(0).contains(QStringLiteral("board silent")));
    EXPECT_EQ(level.count(), 2);
}

TEST_F(DeviceServicesTest, ABatteryFailingItsTrialIsNotKept)
{
    robot().scenario().failMethod("VXBattery", "getBatteryCharge", "gauge offline");
    RK::ConnectionManager &manager = connect();
    ASSERT_TRUE(manager.batteryInterface());
    EXPECT_FALSE(RK::currentConnection(manager)->batteryDevice());
}

TEST_F(DeviceServicesTest, SpeechTestsNarrationTagsAndTheQueue)
{
    auto *tts = robot().serviceAs<sim::TextToSpeechService>("VXTextToSpeech");
    tts->setWordDuration(std::chrono::milliseconds(1));
    const auto speech = connect().animatedSpeechInterface();
    ASSERT_TRUE(speech);
    Errors errors(speech->executerObject());

    EXPECT_EQ(speech->getTagList().result(),
              (QStringList {"bow", "enumeration", "greeting", "no", "question", "yes"}));
    speech->interpretText(QString::fromUtf8("^greeting Bonjour ^bow(deep) \xc3\xa0 tous"));
    ASSERT_TRUE(test::waitUntil([&] { return tts->spoken().size() == 1; }));
    EXPECT_EQ(tts->spoken()[0].text, "Bonjour \xc3\xa0 tous");

    // A stop asked for during a sentence waits behind it on the executer's
    // thread: the sentence ends whole.
    tts->setWordDuration(std::chrono::milliseconds(60));
    speech->startTest(QStringLiteral("one two three four five"));
    ASSERT_TRUE(test::waitUntil([&] { return tts->speaking() == 1; }));
    speech->stopTest();
    ASSERT_TRUE(test::waitUntil(
        [&] { return robot().scenario().callCount("VXTextToSpeech", "stopAll") == 1; }));
    ASSERT_EQ(tts->spoken().size(), 2u);
    EXPECT_TRUE(tts->spoken()[1].completed);

    robot().scenario().failMethod("VXTextToSpeech", "_getTagList", "tags unreadable");
    EXPECT_TRUE(speech->getTagList().result().isEmpty());
    // The result is set before the executer reports the failure.
    ASSERT_TRUE(errors.waitFor(1));
    ASSERT_EQ(errors.spy.count(), 1);
    // Asked of text to speech, reported under the animated speech's name.
    EXPECT_EQ(errors.title(0), QStringLiteral("VXAnimatedSpeech"));
    EXPECT_TRUE(errors.details(0).contains(QStringLiteral("tags unreadable")));

    robot().scenario().omitService("VXAnimatedSpeech");
    speech->interpretText(QStringLiteral("^yes Hello"));
    ASSERT_TRUE(errors.waitFor(2));
    EXPECT_EQ(errors.title(1), QStringLiteral("VXAnimatedSpeech"));
    EXPECT_EQ(errors.contents(1), QStringLiteral("Failed to call"));

    robot().scenario().failMethod("VXTextToSpeech", "say", "speaker busy");
    speech->startTest(QStringLiteral("Hello"));
    ASSERT_TRUE(errors.waitFor(3));
    EXPECT_EQ(errors.title(2), QStringLiteral("VXTextToSpeech"));
}

TEST_F(DeviceServicesTest, DialogAnswersFailuresAndAMissingService)
{
    {
        const auto dialog = connect().dialogInterface();
        ASSERT_TRUE(dialog);
        QSignalSpy told(dialog.get(), &RK::DialogInterface::tellFinished);
        dialog->tell(QStringLiteral("What is your name?"));
        ASSERT_TRUE(test::waitUntil([&] { return told.count() == 1; }));
        EXPECT_EQ(told.at(0).at(0).toString(), QStringLiteral("My name is Pelvon."));
        // A failure is an error, not an answer.
        std::vector<RK::OperationError> failures;
        QObject context;
        QObject::connect(dialog.get(), &RK::DialogInterface::errorOccurred, &context,
                         [&](const RK::OperationError &e) { failures.push_back(e); });
        dialog->tell(QString());
        dialog->tell(QStringLiteral("What is your name?"));
        ASSERT_TRUE(test::waitUntil([&] { return told.count() == 2 && !failures.empty(); }));
        ASSERT_EQ(failures.size(), 1u);
        EXPECT_EQ(failures[0].operation, QStringLiteral("tell"));
        EXPECT_EQ(failures[0].code, RK::ErrorCode::RobotFailed);
        EXPECT_TRUE(failures[0].details.contains(QStringLiteral("the sentence is empty")));
        EXPECT_EQ(robot().serviceAs<sim::DialogService>("VXDialog")->heard(),
                  (std::vector<std::string> {"What is your name?", "", "What is your name?"}));
    }
    recorder.reset();
    robot().scenario().omitService("VXDialog");
    EXPECT_FALSE(connect().dialogInterface());
}

TEST_F(DeviceServicesTest, ConfigAnswersAndItsTwoFailureShapes)
{
    const auto config = connect().configInterface();
    ASSERT_TRUE(config);
    QSignalSpy text(config.get(), &RK::ConfigInterface::configReceived);
    QSignalSpy file(config.get(), &RK::ConfigInterface::configFileReceived);
    config->getConfig();
    config->getConfigFile();
    ASSERT_TRUE(test::waitUntil([&] { return file.count() == 1; }));
    ASSERT_EQ(text.count(), 1);
    EXPECT_TRUE(text.at(0).at(0).toString().endsWith(QString::fromUtf8("simul\xc3\xa9"
                                                                       "e")));
    EXPECT_TRUE(file.at(0).at(0).toString().startsWith(QStringLiteral("<?xml")));

    // A failure of either is one error and no answer; the requests run in
    // order on one thread, so the answer to a third proves no other came.
    std::vector<RK::OperationError> failures;
    QObject context;
    QObject::connect(config.get(), &RK::ConfigInterface::errorOccurred, &context,
                     [&](const RK::OperationError &e) { failures.push_back(e); });
    robot().scenario().failMethod("VXRobotModel", "getConfig", "model unknown");
    robot().scenario().failMethod("VXRobotModel", "getConfigFile", "file unreadable");
    emit config->getConfigRequested();
    emit config->configFileRequested();
    ASSERT_TRUE(test::waitUntil([&] { return failures.size() == 2; }));
    robot().scenario().restoreMethod("VXRobotModel", "getConfigFile");
    emit config->configFileRequested();
    ASSERT_TRUE(test::waitUntil([&] { return file.count() == 2; }));
    EXPECT_EQ(text.count(), 1);
    EXPECT_TRUE(file.at(1).at(0).toString().startsWith(QStringLiteral("<?xml")));
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].operation, QStringLiteral("getConfig"));
    EXPECT_TRUE(failures[0].details.contains(QStringLiteral("model unknown")));
    EXPECT_EQ(failures[1].operation, QStringLiteral("getConfigFile"));
    EXPECT_TRUE(failures[1].details.contains(QStringLiteral("file unreadable")));
}

TEST_F(DeviceServicesTest, ResourcesAndOwners)
{
    const auto resources = connect().resourcesInterface();
    ASSERT_TRUE(resources);
    QSignalSpy received(resources.get(), &RK::ResourcesInterface::resourcesReceived);
    resources->getResources();
    ASSERT_TRUE(test::waitUntil([&] { return received.count() == 1; }));
    const VX::VXValue prefs = received.at(0).at(0).value<VX::VXValue>();
    ASSERT_TRUE(prefs.isArray());
    ASSERT_EQ(prefs.getSize(), 4);
    EXPECT_EQ(prefs[0][0].toStdString(), "Head");

    const VX::VXValue owners = resources->getOwners().result();
    ASSERT_TRUE(owners.isArray());
    ASSERT_EQ(owners.getSize(), 2);
    EXPECT_EQ(owners[0][0].toStdString(), "AudioOut");
    EXPECT_EQ(owners[0][1].toStdString(), "VXTextToSpeech");

    wz::log::LogCapture log;
    robot().scenario().failMethod("VXPreferences", "readPrefFile", "disk full");
    robot().scenario().failMethod("VXResourceManager", "ownersGet", "no owners");
    resources->getResources();
    EXPECT_FALSE(resources->getOwners().result().isValid());
    ASSERT_TRUE(test::waitUntil([&] {
        return log.contains(wz::LogLevel_Error, "con.resourcesE",
                            "VXPreferences::readPrefFile(\"vxresourcemanager\") call failed : ");
    }));
    EXPECT_EQ(received.count(), 1);
}

TEST_F(DeviceServicesTest, LauncherExitCodesErrorsAndUnknownCommands)
{
    auto *launcher = robot().serviceAs<sim::LauncherService>("VXLauncher");
    launcher->setDurationScale(0.01);
    const auto launch = connect().launcherInterface();
    ASSERT_TRUE(launch);
    QSignalSpy finished(launch.get(), &RK::LauncherInterface::launchWaitFinished);
    launch->launchWait(QStringLiteral("uptime"), {"-p"});
    launch->launchWait(QStringLiteral("self-check"), {});
    launch->launchWait(QStringLiteral("segfault"), {});
    std::vector<RK::OperationError> failures;
    QObject context;
    QObject::connect(launch.get(), &RK::LauncherInterface::errorOccurred, &context,
                     [&](const RK::OperationError &e) { failures.push_back(e); });
    launch->launchWait(QStringLiteral("rm"), {"-rf", "/"});
    launch->launchWait(QStringLiteral("true"), {});
    ASSERT_TRUE(test::waitUntil([&] { return finished.count() == 4 && !failures.empty(); }));
    EXPECT_EQ(finished.at(0).at(0).toString(), QString());
    EXPECT_EQ(finished.at(1).at(0).toString(),
              QStringLiteral("Command `self-check` returned an error code (3)."));
    // A negative code is no error.
    EXPECT_EQ(finished.at(2).at(0).toString(), QString());
    // A command the robot cannot launch is an error, not an answer.
    EXPECT_EQ(finished.at(3).at(0).toString(), QString());
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].operation, QStringLiteral("launchWait"));
    EXPECT_TRUE(failures[0].details.contains(QStringLiteral("command not found: rm")));
    const auto launches = launcher->launches();
    ASSERT_EQ(launches.size(), 5u);
    EXPECT_EQ(launches[0].args, (std::vector<std::string> {"-p"}));
    EXPECT_EQ(launches[3].args, (std::vector<std::string> {"-rf", "/"}));
}

} // namespace
