#include <connection/behavior_debugger.h>
#include <connection/behavior_manager_interface.h>
#include <connection/box_name_standard.h>
#include <connection/connection_manager.h>
#include <connection/sartel_module.h>

#include <QRegularExpression>

#include <wz/log.h>

namespace RK {

namespace {

const char *const k_category = "bhvrDbg";

void logError(const char *function, const char *text)
{
    wz::log::LogStream(wz::LogLevel_Error, k_category, function) << text;
}

} // namespace

BehaviorDebugger::BehaviorDebugger(ConnectionManager *manager, QObject *parent)
    : TimelinePlayer(parent), m_manager(manager)
{
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    connect(manager, &ConnectionManager::connectionEstablished, this,
            &BehaviorDebugger::onConnectionEstablished);
    connect(manager, &ConnectionManager::disconnected, this,
            &BehaviorDebugger::onConnectionInterrupted);
}

BehaviorDebugger::~BehaviorDebugger()
{
    if (m_instance) {
        m_instance->disconnect(this);
        m_instance->deleteLater();
    }
}

void BehaviorDebugger::initialize(QString behaviorName)
{
    if (m_instance)
        clear();
    m_lastState = BehaviorInstanceManager::Missing;
    m_fmId.clear();
    m_fmIdPattern = QRegularExpression();
    m_timelinePath.clear();
    m_frameKey.clear();
    m_currentFrame = -1;
    m_instance = new BehaviorInstanceManager(m_manager, behaviorName,
                                             BehaviorInstanceManager::k_natureUndefined, false);
    connect(m_instance, &BehaviorInstanceManager::errorInBox, this, &BehaviorDebugger::errorInBox);
    connect(m_instance, &BehaviorInstanceManager::errorStartingBehavior, this,
            &BehaviorDebugger::errorStartingBehavior);
    connect(m_instance, &BehaviorInstanceManager::errorOccurred, this,
            [this](const OperationError &error) {
                OperationError mine = error;
                mine.operation = QStringLiteral("startBehavior");
                emit errorOccurred(mine);
            });
    connect(m_instance, &BehaviorInstanceManager::stateChanged, this,
            &BehaviorDebugger::onStateChanged);
    if (m_instance->state() != BehaviorInstanceManager::Missing)
        onStateChanged(m_instance->state());
}

void BehaviorDebugger::loadBehavior()
{
    if (!m_instance) {
        logError(__FUNCTION__, "Unable to load debugger, no behavior instance");
        return;
    }
    m_instance->preloadBehavior();
}

void BehaviorDebugger::startBehavior()
{
    if (!m_instance) {
        logError(__FUNCTION__, "Unable to start debugger, no behavior instance");
        return;
    }
    m_instance->playBehavior();
}

void BehaviorDebugger::stopBehavior()
{
    if (m_instance)
        m_instance->stopBehavior();
}

bool BehaviorDebugger::isRunning()
{
    return m_instance
        && (m_instance->state() == BehaviorInstanceManager::Starting
            || m_instance->state() == BehaviorInstanceManager::Running);
}

bool BehaviorDebugger::isStarted()
{
    return !m_instance.isNull();
}

bool BehaviorDebugger::isPaused()
{
    return m_instance && m_instance->state() == BehaviorInstanceManager::Running;
}

bool BehaviorDebugger::isStopped()
{
    return !m_instance || m_instance->state() == BehaviorInstanceManager::Stopped
        || m_instance->state() == BehaviorInstanceManager::Missing;
}

bool BehaviorDebugger::isEnabled()
{
    return m_enabled;
}

void BehaviorDebugger::stop() { }

void BehaviorDebugger::enable(bool enabled)
{
    if (enabled == m_enabled)
        return;
    m_enabled = enabled;
    emit enabledChanged();
    emit enabledChanged(enabled);
}

int BehaviorDebugger::getCurrentFrame()
{
    return m_currentFrame;
}

void BehaviorDebugger::setCurrentFrame(int) { }

void BehaviorDebugger::gotoFrame(int) { }

void BehaviorDebugger::onStateChanged(BehaviorInstanceManager::State state)
{
    switch (state) {
    case BehaviorInstanceManager::Missing:
        if (m_instance) {
            emit stopped();
            emit behaviorStopped();
        }
        clear();
        break;
    case BehaviorInstanceManager::Preloading:
        emit behaviorLoading();
        break;
    case BehaviorInstanceManager::Preloaded:
        requestFrameManagerId();
        break;
    case BehaviorInstanceManager::Starting:
        emit started();
        break;
    case BehaviorInstanceManager::Running:
        emit behaviorStarted();
        break;
    case BehaviorInstanceManager::Stopping:
        emit stopped();
        break;
    case BehaviorInstanceManager::Stopped:
        // What the last load subscribed is released, so that loading again
        // does not pile up subscriptions and polls.
        releaseWatchedValues();
        m_fmId.clear();
        m_fmIdPattern = QRegularExpression();
        m_timelinePath.clear();
        m_frameKey.clear();
        m_currentFrame = -1;
        if (m_lastState != BehaviorInstanceManager::Missing) {
            emit stopped();
            emit behaviorStopped();
        } else {
            loadBehavior();
        }
        break;
    }
    m_lastState = state;
}

void BehaviorDebugger::requestFrameManagerId()
{
    const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface();
    if (!behaviors || !m_instance)
        return;
    connect(behaviors.get(), &BehaviorManagerInterface::behaviorFrameManagerIDReceived, this,
            &BehaviorDebugger::onBehaviorFrameManagerIdReceived, Qt::UniqueConnection);
    connect(behaviors.get(), &BehaviorManagerInterface::errorOccurred, this,
            &BehaviorDebugger::onBehaviorManagerError, Qt::UniqueConnection);
    m_idRequested = true;
    behaviors->requestBehaviorFrameManagerID(m_instance->behaviorName());
}

bool BehaviorDebugger::endIdRequest()
{
    if (const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface()) {
        disconnect(behaviors.get(), &BehaviorManagerInterface::behaviorFrameManagerIDReceived, this,
                   &BehaviorDebugger::onBehaviorFrameManagerIdReceived);
        disconnect(behaviors.get(), &BehaviorManagerInterface::errorOccurred, this,
                   &BehaviorDebugger::onBehaviorManagerError);
    }
    const bool was = m_idRequested;
    m_idRequested = false;
    return was;
}

void BehaviorDebugger::reportLoadFailure(const QString &details)
{
    OperationError error;
    error.operation = QStringLiteral("loadBehavior");
    error.code = ErrorCode::RobotFailed;
    error.title = tr("Loading behavior failed");
    error.contents = tr("The robot gave no frame-manager id for %1: it cannot be debugged.")
                         .arg(m_instance ? m_instance->behaviorName() : QString());
    error.details = details;
    emit errorOccurred(error);
}

void BehaviorDebugger::onBehaviorManagerError(const OperationError &error)
{
    if (error.operation != QLatin1String("requestBehaviorFrameManagerID") || !endIdRequest())
        return;
    OperationError mine = error;
    mine.operation = QStringLiteral("loadBehavior");
    emit errorOccurred(mine);
}

void BehaviorDebugger::onBehaviorFrameManagerIdReceived(QString behaviorName, QString id)
{
    // Another requester's answer (the interface is shared): ours is still to come.
    if (m_instance
        && !BehaviorInstanceManager::sameBehavior(behaviorName, m_instance->behaviorName()))
        return;
    endIdRequest();
    if (!m_instance) {
        logError(__FUNCTION__, "Useless fmId, behavior instance already deleted");
        return;
    }
    if (id.isEmpty()) {
        logError(__FUNCTION__, "no behavior ID, killed from somewhere else ?");
        reportLoadFailure(tr("The behavior is no longer loaded on the robot."));
        return;
    }
    m_fmId = id;
    m_fmIdPattern = QRegularExpression(QStringLiteral("^%1").arg(QRegularExpression::escape(id)));
    m_fmIdPattern.optimize();
    updateWatchedValues();
    emit behaviorLoaded();
}

void BehaviorDebugger::setLevel(QStringList ios, QString timelinePath)
{
    if (ios == m_ios && timelinePath == m_timelinePath)
        return;
    m_ios = ios;
    m_timelinePath = timelinePath;
    updateWatchedValues();
}

void BehaviorDebugger::releaseWatchedValues()
{
    const boost::shared_ptr<SartelModuleInterface> module = m_manager->sartelModuleInterface();
    if (module && !m_subscribed.isEmpty())
        emit module->unsubscribeToMicroEventsRequested(m_subscribed);
    if (module && !m_frameKey.isEmpty())
        emit module->removeWatchedDataRequested(m_frameKey);
    m_subscribed.clear();
    m_frameKey.clear();
}

void BehaviorDebugger::updateWatchedValues()
{
    if (m_fmId.isEmpty())
        return;
    const boost::shared_ptr<SartelModuleInterface> module = m_manager->sartelModuleInterface();
    if (!module)
        return;
    emit module->unsubscribeToMicroEventsRequested(m_subscribed);
    m_subscribed.clear();
    for (const QString &io : qAsConst(m_ios)) {
        const QString name = m_fmId + io;
        if (!m_subscribed.contains(name))
            m_subscribed << name;
    }
    emit module->subscribeToMicroEventsRequested(m_subscribed);
    if (!m_frameKey.isEmpty()) {
        emit module->removeWatchedDataRequested(m_frameKey);
        m_frameKey.clear();
    }
    if (!m_timelinePath.isEmpty()) {
        m_frameKey = QStringLiteral("%1%2").arg(m_fmId, m_timelinePath);
        emit module->addWatchedDataRequested(m_frameKey);
    }
}

void BehaviorDebugger::onConnectionEstablished()
{
    if (const boost::shared_ptr<SartelModuleInterface> module
        = m_manager->sartelModuleInterface()) {
        connect(module.get(), &SartelModuleInterface::dataSubscribedChanged, this,
                &BehaviorDebugger::onDataChanged, Qt::UniqueConnection);
    }
}

void BehaviorDebugger::onConnectionInterrupted()
{
    if (m_instance) {
        emit stopped();
        emit behaviorStopped();
    }
    clear();
}

void BehaviorDebugger::onDataChanged(QString name, VX::VXValue value)
{
    if (!m_frameKey.isEmpty() && name == m_frameKey) {
        if (value.isInt() && value.toInt() != m_currentFrame) {
            m_currentFrame = value.toInt();
            emit currentFrameChanged(m_currentFrame);
        }
        return;
    }
    if (m_fmId.isEmpty())
        return;
    QString rest = name;
    rest.remove(m_fmIdPattern);
    if (rest != name)
        emit IOActivated(rest, QString::fromUtf8(value.toString(1).c_str()));
}

void BehaviorDebugger::callBox(QString boxName, QString methodName, VX::VXValue value,
                               bool checkEnable, bool showDialogOnError)
{
    if (m_fmId.isEmpty())
        return;
    const QString proxyName = QStringLiteral("%1%2").arg(m_fmId, boxName);
    if (const boost::shared_ptr<SartelModuleInterface> module = m_manager->sartelModuleInterface())
        emit module->callProxyRequested(proxyName, methodName, value, checkEnable,
                                        showDialogOnError);
    // The robot does not report a call made from here: the view is told now.
    QString method = methodName;
    method.remove(QRegularExpression(QStringLiteral("^%1").arg(
        QRegularExpression::escape(BoxNameStandard::a_inputMethodPrefix))));
    method.remove(QRegularExpression(
        QStringLiteral("%1$").arg(QRegularExpression::escape(BoxNameStandard::a_pathSeparator))));
    emit IOActivated(
        QStringLiteral("%1%2%3").arg(boxName, BoxNameStandard::a_pathSeparator, method), QString());
}

void BehaviorDebugger::callBox(QString boxName, bool checkEnable, bool showDialogOnError,
                               QString methodName, VX::VXValue parameter1, VX::VXValue parameter2,
                               VX::VXValue parameter3, VX::VXValue parameter4,
                               VX::VXValue parameter5, VX::VXValue parameter6)
{
    if (m_fmId.isEmpty())
        return;
    const QString proxyName = QStringLiteral("%1%2").arg(m_fmId, boxName);
    if (const boost::shared_ptr<SartelModuleInterface> module = m_manager->sartelModuleInterface())
        emit module->callProxyRequested(proxyName, checkEnable, showDialogOnError, methodName,
                                        parameter1, parameter2, parameter3, parameter4, parameter5,
                                        parameter6);
    QString method = methodName;
    method.remove(QRegularExpression(QStringLiteral("^%1").arg(
        QRegularExpression::escape(BoxNameStandard::a_inputMethodPrefix))));
    method.remove(QRegularExpression(
        QStringLiteral("%1$").arg(QRegularExpression::escape(BoxNameStandard::a_pathSeparator))));
    emit IOActivated(
        QStringLiteral("%1%2%3").arg(boxName, BoxNameStandard::a_pathSeparator, method), QString());
}

void BehaviorDebugger::callBoxOutput(QString boxName, QString outputMethodName, VX::VXValue value)
{
    if (!m_fmId.isEmpty()) {
        const QString proxyName = QStringLiteral("%1%2").arg(m_fmId, boxName);
        if (const boost::shared_ptr<SartelModuleInterface> module
            = m_manager->sartelModuleInterface())
            emit module->callProxyRequested(proxyName, outputMethodName, value, true, true);
    }
    emit IOActivated(
        QStringLiteral("%1%2%3").arg(boxName, BoxNameStandard::a_pathSeparator, outputMethodName),
        QString());
}

void BehaviorDebugger::sendParameterValues(QString boxName, QMap<QString, VX::VXValue> paramValues)
{
    for (auto it = paramValues.constBegin(); it != paramValues.constEnd(); ++it)
        callBox(boxName, false, false, QStringLiteral("setParameter"),
                VX::VXValue(std::string(it.key().toUtf8().constData())), it.value(), VX::VXValue(),
                VX::VXValue(), VX::VXValue(), VX::VXValue());
}

// Never deletes the instance inside its own signal: this runs from its
// stateChanged(Missing).
void BehaviorDebugger::clear()
{
    endIdRequest();
    if (m_instance) {
        m_instance->disconnect(this);
        m_instance->deleteLater();
        m_instance = nullptr;
    }
    releaseWatchedValues();
    setLevel(QStringList(), QString());
}

} // namespace RK
