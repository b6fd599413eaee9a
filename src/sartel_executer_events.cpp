// The desktop module's executer: micro events and the memory keys it relays.

#include "connection_p.h"
#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include "sartel_executer_parts_p.h"
#include "text_p.h"
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <vx/vxproxy.h>
#include <wz/log.h>

namespace RK {

namespace {

const char *const k_category = "con.srtE";
// A recognised word counts only above this confidence.
const double a_minimumWordConfidence = 0.3;

} // namespace

void VXSartelExecuter::subscribeToMicroEvent(QString name)
{
    executerCall(this, m_connection, "subscribeToMicroEvent")
        .log(k_category, wz::LogLevel_Info,
             "VXMemory::subscribeToMicroEvent on " + utf8(name) + " call failed : ")
        .run(&Connection::memory, [&](VX::VXMemoryProxy &memory) {
            memory.subscribeToMicroEvent(utf8(name), utf8(VXSartel::a_sartelModuleName), "",
                                         "dataChanged");
        });
}

void VXSartelExecuter::unsubscribeToMicroEvent(QString name)
{
    executerCall(this, m_connection, "unsubscribeToMicroEvent")
        .run(&Connection::memory, [&](VX::VXMemoryProxy &memory) {
            memory.unsubscribeToMicroEvent(utf8(name), utf8(VXSartel::a_sartelModuleName));
        });
}

void VXSartelExecuter::subscribeToMicroEvents(QStringList nameList)
{
    for (const QString &name : nameList)
        subscribeToMicroEvent(name);
}

void VXSartelExecuter::unsubscribeToMicroEvents(QStringList nameList)
{
    for (const QString &name : nameList)
        unsubscribeToMicroEvent(name);
}

void VXSartelExecuter::raiseEvent(QString eventName, VX::VXValue val)
{
    executerCall(this, m_connection, "raiseEvent")
        .log(k_category, wz::LogLevel_Info,
             "VXMemory::raiseEvent on " + utf8(eventName) + " call failed : ")
        .run(&Connection::memory,
             [&](VX::VXMemoryProxy &memory) { memory.raiseEvent(utf8(eventName), val); });
}

void VXSartelExecuter::addWatchedData(QString dataName)
{
    m_watchedData.append(dataName);
}

void VXSartelExecuter::removeWatchedData(QString dataName)
{
    m_watchedData.removeAll(dataName);
}

void VXSartelExecuter::updateEventFilter()
{
    m_events->acceptOnly({m_currentTimeline, a_sentenceSaidSTMName, a_sentenceHeardSTMName,
                          QString::fromLatin1(a_keyRemovedName)});
}

void VXSartelExecuter::onDataChanged(QString name, VX::VXValue value)
{
    if (name == m_currentTimeline) {
        // The same frame arrives by two routes; only a change is news.
        if (value.getType() != VX::VXValue::TypeInt)
            return;
        const int frame = value.toInt();
        if (frame != m_lastFrame) {
            m_lastFrame = frame;
            emit currentFrameChanged(frame);
        }
        return;
    }
    if (name == a_sentenceSaidSTMName) {
        if (value.isString())
            emit sentenceSaid(fromUtf8(value.toStdString()));
        return;
    }
    if (name == a_sentenceHeardSTMName) {
        if (!value.isArray())
            return;
        // [word, confidence]; anything else is the robot's mistake, not ours.
        if (value.getSize() < 2 || !value[0].isString()
            || (!value[1].isFloat() && !value[1].isInt())) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "ignoring " << utf8(name) << ": expected [word, confidence], got "
                << value.toString(1);
            return;
        }
        const float confidence = value[1].toFloat();
        if (static_cast<double>(confidence) > a_minimumWordConfidence)
            emit sentenceHeard(fromUtf8(value[0].toStdString()));
        return;
    }
    if (name == QLatin1String(a_keyRemovedName) && value.isString()) {
        QString removed = QString::fromUtf8(value.toString(1).c_str());
        removed.remove(QLatin1Char('"'));
        if (removed == m_currentTimeline)
            emit currentTimelineStopped();
    }
}

} // namespace RK
