// The desktop module's executer: the current timeline on the robot.

#include "connection_p.h"
#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include "sartel_executer_parts_p.h"
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <vx/vxproxy.h>

namespace RK {

ExecuterCall<VXSartelExecuter> VXSartelExecuter::timelineCall(const char *operation,
                                                              const QString &contents)
{
    ExecuterCall<VXSartelExecuter> call(this, m_connection, operation);
    call.signal(tr("Error"), contents);
    return call;
}

void VXSartelExecuter::createTimeline(QString timelineStr)
{
    timelineCall("createTimeline", tr("Failed to create timeline"))
        .run(&Connection::frameManager, [&](VX::VXProxy &frameManager, Connection &connection) {
            dropTimeline(frameManager, connection);
            // After a failure the empty name goes in too; its first poll
            // fails and takes it out again.
            struct Watch
            {
                VXSartelExecuter *self;
                Connection &connection;
                ~Watch()
                {
                    if (const auto module = connection.sartelModuleInterface())
                        emit module->addWatchedDataRequested(self->m_currentTimeline);
                }
            } watch {this, connection};
            m_currentTimeline = QString::fromLatin1(
                frameManager.call<std::string>("createTimeline", utf8(timelineStr)).c_str());
            updateEventFilter();
        });
}

void VXSartelExecuter::dropTimeline(VX::VXProxy &frameManager, Connection &connection)
{
    // The next timeline starts at 0 too: its first frame is news.
    m_lastFrame = -1;
    if (m_currentTimeline.isEmpty()) {
        emit currentFrameChanged(-1);
        return;
    }
    if (const boost::shared_ptr<SartelModuleInterface> module = connection.sartelModuleInterface())
        emit module->removeWatchedDataRequested(m_currentTimeline);
    emit currentFrameChanged(-1);
    try {
        frameManager.call<void>("deleteBehavior", utf8(m_currentTimeline));
    } catch (const std::exception &) {
        // Gone already, or the robot with it: the desktop forgets it anyway.
    }
    m_currentTimeline.clear();
    updateEventFilter();
}

void VXSartelExecuter::stopCurrentTimeline()
{
    auto call = executerCall(this, m_connection, "stopCurrentTimeline");
    // The executer going: nobody is left to tell.
    if (m_destroying)
        call.quietly();
    call.run(&Connection::frameManager, [this](VX::VXProxy &frameManager, Connection &connection) {
        dropTimeline(frameManager, connection);
    });
}

void VXSartelExecuter::playCurrentTimeline()
{
    timelineCommand("playCurrentTimeline", tr("Failed to play timeline"), "playTimeline", true);
}

void VXSartelExecuter::pauseCurrentTimeline()
{
    timelineCommand("pauseCurrentTimeline", tr("Failed to pause in timeline"), "stopTimeline",
                    false);
}

// An ended timeline's key is gone from the robot, and the first poll after
// its end took it out of the watch; a play or a goto publishes it again.
void VXSartelExecuter::watchCurrentTimeline()
{
    if (!m_currentTimeline.isEmpty() && !m_watchedData.contains(m_currentTimeline))
        m_watchedData.append(m_currentTimeline);
}

// Without a current timeline there is nothing to ask the robot: that is told
// as the operation's failure, but shown to nobody.
void VXSartelExecuter::timelineCommand(const char *operation, const QString &contents,
                                       const char *method, bool publishes)
{
    bool loaded = true;
    timelineCall(operation, contents).run(&Connection::frameManager, [&](VX::VXProxy &frames) {
        loaded = !m_currentTimeline.isEmpty();
        if (!loaded)
            return;
        frames.call<void>(method, utf8(m_currentTimeline));
        if (publishes)
            watchCurrentTimeline();
    });
    if (!loaded)
        executerCall(this, m_connection, operation)
            .fail(ErrorCode::RobotFailed, QStringLiteral("no timeline is loaded"));
}

void VXSartelExecuter::gotoFrameCurrentTimeline(int frame)
{
    // Asked even without a current timeline: the robot then says what is wrong.
    timelineCall("gotoFrameCurrentTimeline", tr("Failed to do a goto in timeline"))
        .run(&Connection::frameManager, [&](VX::VXProxy &frameManager) {
            frameManager.call<void>("gotoAndStop", utf8(m_currentTimeline), frame);
            watchCurrentTimeline();
        });
}

} // namespace RK
