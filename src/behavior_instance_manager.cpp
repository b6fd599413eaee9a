#include <connection/behavior_instance_manager.h>
#include <connection/behavior_manager_interface.h>
#include <connection/connection_manager.h>

#include <QException>
#include <QUnhandledException>

#include <wz/log.h>

#include <exception>

namespace RK {

namespace {

const char *const k_category = "bhvrInstMngr";
const QString k_userPrefix = QStringLiteral("User/");

void logError(const char *function, const QString &text)
{
    wz::log::LogStream(wz::LogLevel_Error, k_category, function) << text.toUtf8().constData();
}

// The pool wraps a std::exception thrown by a task; waiting gives the
// robot's own error back, not the wrapper.
template<typename Watcher>
void waitRethrowingTheCause(Watcher *watcher)
{
    try {
        watcher->waitForFinished();
    } catch (const QUnhandledException &e) {
        if (e.exception())
            std::rethrow_exception(e.exception());
        throw;
    }
}

// The kind of failure, from the texts the framework and the executers use.
ErrorCode codeOf(const QString &text)
{
    if (text.contains(QLatin1String("connection lost"))
        || text.startsWith(QLatin1String("disconnected")))
        return ErrorCode::ConnectionLost;
    if (text.startsWith(QLatin1String("service \"")) && text.endsWith(QLatin1String("not found")))
        return ErrorCode::ServiceMissing;
    return ErrorCode::RobotFailed;
}

QString withoutUserPrefix(const QString &name)
{
    return name.startsWith(k_userPrefix) ? name.mid(k_userPrefix.size()) : name;
}

} // namespace

const QString BehaviorInstanceManager::k_natureUndefined
    = QStringLiteral("k_behaviorNatureUndefined");

BehaviorInstanceManager::BehaviorInstanceManager(ConnectionManager *manager,
                                                 const QString &behaviorName,
                                                 const QString &ignored, bool isKnownToBePresent)
    : m_manager(manager), m_behaviorName(behaviorName), m_nature(k_natureUndefined)
{
    (void)ignored;
    qRegisterMetaType<RK::LifeState>("RK::LifeState");
    qRegisterMetaType<BehaviorInstanceManager::State>("BehaviorInstanceManager::State");
    connect(manager, &ConnectionManager::connectionEstablished, this,
            qOverload<>(&BehaviorInstanceManager::onConnectionReady));
    connect(manager, &ConnectionManager::disconnected, this,
            &BehaviorInstanceManager::onDisconnected);
    if (manager->isConnected())
        onConnectionReady(isKnownToBePresent);
    else
        onDisconnected();
}

// Watchers are children of nothing: their futures may still run, and a
// watcher deleted here simply stops reporting.
BehaviorInstanceManager::~BehaviorInstanceManager()
{
    delete m_lifeStateWatcher;
    delete m_natureWatcher;
    delete m_lifeFocusWatcher;
}

bool BehaviorInstanceManager::sameBehavior(const QString &a, const QString &b)
{
    return withoutUserPrefix(a) == withoutUserPrefix(b);
}

void BehaviorInstanceManager::setState(State state)
{
    if (state == m_state)
        return;
    if (state == Missing)
        m_nature = k_natureUndefined;
    m_state = state;
    emit stateChanged(state);
}

void BehaviorInstanceManager::onConnectionReady()
{
    onConnectionReady(false);
}

void BehaviorInstanceManager::onConnectionReady(bool isKnownToBePresent)
{
    if (const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface()) {
        BehaviorManagerInterface *b = behaviors.get();
        // Unique: a second connectionEstablished does not double every event.
        connect(b, &BehaviorManagerInterface::behaviorAdded, this,
                &BehaviorInstanceManager::onBehaviorAdded, Qt::UniqueConnection);
        connect(b, &BehaviorManagerInterface::behaviorRemoved, this,
                &BehaviorInstanceManager::onBehaviorRemoved, Qt::UniqueConnection);
        connect(b, &BehaviorManagerInterface::behaviorFailed, this,
                &BehaviorInstanceManager::onBehaviorFailed, Qt::UniqueConnection);
        connect(b, &BehaviorManagerInterface::runningBehaviorsUpdated, this,
                &BehaviorInstanceManager::onRunningBehaviorsReceived, Qt::UniqueConnection);
        connect(b, &BehaviorManagerInterface::behaviorPresent, this,
                &BehaviorInstanceManager::onBehaviorPresent, Qt::UniqueConnection);
        if (isKnownToBePresent)
            onBehaviorPresent(m_behaviorName, true);
        else
            b->isBehaviorPresent(m_behaviorName);
        // Once, after the presence: a behaviour already running shows as
        // Running, not Stopped, without waiting for the robot's next list.
        b->requestRunningBehaviors();
    }
    if (const boost::shared_ptr<AutonomousLifeInterface> life
        = m_manager->autonomousLifeInterface()) {
        connect(life.get(), &AutonomousLifeInterface::stateChanged, this,
                &BehaviorInstanceManager::onAutonomousLifeStateChanged, Qt::UniqueConnection);
        m_lifeStateWatcher = new QFutureWatcher<LifeState>();
        connect(m_lifeStateWatcher, &QFutureWatcherBase::finished, this,
                &BehaviorInstanceManager::onGotAutonomousLifeState);
        m_lifeStateWatcher->setFuture(life->state());
    }
}

void BehaviorInstanceManager::onGotAutonomousLifeState()
{
    auto *watcher = dynamic_cast<QFutureWatcher<LifeState> *>(sender());
    if (!watcher)
        return;
    if (watcher == m_lifeStateWatcher) {
        if (watcher->future().resultCount() > 0)
            m_lifeState = watcher->result();
        m_lifeStateWatcher = nullptr;
    }
    watcher->deleteLater();
}

void BehaviorInstanceManager::onAutonomousLifeStateChanged(LifeState newState)
{
    m_lifeState = newState;
}

void BehaviorInstanceManager::preloadBehavior()
{
    if (m_state != Stopped) {
        logError(__FUNCTION__,
                 QStringLiteral("Trying to preload a behavior not stopped: ") + m_behaviorName);
        return;
    }
    const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface();
    if (!behaviors)
        return;
    setState(Preloading);
    auto *watcher = new QFutureWatcher<void>(this);
    connect(watcher, &QFutureWatcherBase::finished, this,
            &BehaviorInstanceManager::onBehaviorPreloaded);
    watcher->setFuture(behaviors->preloadBehavior(m_behaviorName));
}

QPair<QString, QString> BehaviorInstanceManager::parsePreloadError(const QString &text)
{
    QStringList lines = text.split(QLatin1Char('\n'), Qt::KeepEmptyParts);
    lines.removeFirst();
    QStringList kept;
    for (const QString &line : lines) {
        if (!line.isEmpty() && !line.startsWith(QLatin1String("(From : "))
            && !line.startsWith(QLatin1String("\t\t")))
            kept << line;
    }
    QString error = kept.join(QLatin1Char('\n'));
    QString box;
    const QStringList parts = error.split(QLatin1Char(':'), Qt::KeepEmptyParts);
    if (parts.size() > 1) {
        box = parts.first().trimmed();
        error = parts.mid(1).join(QLatin1Char(':'));
    }
    return qMakePair(box, error);
}

void BehaviorInstanceManager::onBehaviorPreloaded()
{
    auto *watcher = dynamic_cast<QFutureWatcher<void> *>(sender());
    if (!watcher)
        return;
    watcher->deleteLater();
    // A preload that ends after the connection went must not bring the
    // behaviour back from Missing.
    if (m_state == Missing) {
        try {
            waitRethrowingTheCause(watcher);
        } catch (...) { }
        return;
    }
    try {
        waitRethrowingTheCause(watcher);
        // A stop or a running list may have moved on meanwhile.
        if (m_state == Preloading)
            setState(Preloaded);
    } catch (const std::exception &e) {
        const QPair<QString, QString> parsed = parsePreloadError(QString::fromUtf8(e.what()));
        emit errorInBox(parsed.first, parsed.second);
        setState(Missing);
    } catch (...) {
        logError(__FUNCTION__, QStringLiteral("unexpected error during loading"));
        setState(Missing);
    }
}

void BehaviorInstanceManager::playBehavior()
{
    if (m_state == Missing) {
        logError(__FUNCTION__,
                 QStringLiteral("trying to play a missing behavior: ") + m_behaviorName);
        return;
    }
    // One start on its way at a time: a stop asked for meanwhile waits for
    // the start in flight, and a second one would take that wait over and
    // lose the stop.
    if (m_natureWatcher || m_startWatcher || m_lifeFocusWatcher) {
        logError(__FUNCTION__,
                 QStringLiteral("a start is already on its way for: ") + m_behaviorName);
        return;
    }
    if (m_nature != k_natureUndefined) {
        playBehaviorUponItsNature();
        return;
    }
    const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface();
    if (!behaviors) {
        logError(__FUNCTION__,
                 QStringLiteral("no behavior execution support on the robot to play behavior: ")
                     + m_behaviorName);
        return;
    }
    m_natureWatcher = new QFutureWatcher<QString>(this);
    connect(m_natureWatcher, &QFutureWatcherBase::finished, this,
            &BehaviorInstanceManager::onBehaviorNatureReceived);
    m_natureWatcher->setFuture(behaviors->behaviorNature(m_behaviorName));
}

void BehaviorInstanceManager::onBehaviorNatureReceived()
{
    auto *watcher = dynamic_cast<QFutureWatcher<QString> *>(sender());
    if (!watcher)
        return;
    m_natureWatcher = nullptr;
    watcher->deleteLater();
    const QString nature = watcher->future().resultCount() > 0
        ? watcher->result()
        : QStringLiteral("getBehaviorNatureError");
    if (nature == QLatin1String("getBehaviorNatureError")) {
        logError(__FUNCTION__,
                 QStringLiteral("onBehaviorNatureReceived: problem getting behavior '")
                     + m_behaviorName + QStringLiteral("' nature"));
        return;
    }
    m_nature = nature;
    playBehaviorUponItsNature();
}

void BehaviorInstanceManager::playBehaviorUponItsNature()
{
    const boost::shared_ptr<AutonomousLifeInterface> life = m_manager->autonomousLifeInterface();
    if (life && !m_nature.isEmpty()
        && (m_lifeState == LifeStateSolitary || m_lifeState == LifeStateInteractive)) {
        setState(Starting);
        if (!m_lifeFocusWatcher) {
            m_lifeFocusWatcher = new QFutureWatcher<void>();
            connect(m_lifeFocusWatcher, &QFutureWatcherBase::finished, this,
                    &BehaviorInstanceManager::onLifeFocusSwitched);
        }
        m_lifeFocusWatcher->setFuture(life->switchFocus(m_behaviorName));
        return;
    }
    const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface();
    if (!behaviors) {
        logError(__FUNCTION__,
                 QStringLiteral("no behavior execution support on the robot to play behavior: ")
                     + m_behaviorName);
        return;
    }
    setState(Starting);
    // By future rather than by playBehaviorRequested, so that a refusal
    // ends Starting instead of staying in the robot's log.
    auto *watcher = new QFutureWatcher<void>(this);
    m_startWatcher = watcher;
    connect(watcher, &QFutureWatcherBase::finished, this,
            &BehaviorInstanceManager::onBehaviorStarted);
    watcher->setFuture(behaviors->startBehavior(m_behaviorName));
}

void BehaviorInstanceManager::onBehaviorStarted()
{
    auto *watcher = dynamic_cast<QFutureWatcher<void> *>(sender());
    if (!watcher)
        return;
    watcher->deleteLater();
    bool stopWanted = false;
    if (watcher == m_startWatcher) {
        m_startWatcher = nullptr;
        stopWanted = m_stopAfterStart;
        m_stopAfterStart = false;
    }
    try {
        waitRethrowingTheCause(watcher);
    } catch (const std::exception &e) {
        reportStartFailure(QStringLiteral("VXBehaviorManager::startBehavior"),
                           QString::fromUtf8(e.what()));
        if (m_state == Starting || (stopWanted && m_state == Stopping)) {
            setState(Stopped);
            // Refused because it runs already: the robot's list says so.
            if (const boost::shared_ptr<BehaviorManagerInterface> behaviors
                = m_manager->behaviorManagerInterface())
                behaviors->requestRunningBehaviors();
        }
        return;
    }
    // Running comes with the robot's list; a stop asked for while the start
    // was on its way goes now, after it. The behaviour has run, so the
    // robot raises a list when it ends, and that list, not the stop's
    // answer, ends Stopping: events may trail the replies, and the list the
    // start raised would otherwise come after Stopped and say Running.
    if (stopWanted && m_state == Stopping) {
        requestStop(false);
        return;
    }
    // The list the start raised may have come before this connection's
    // subscription to it reached the robot: ask for it as well.
    if (const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface())
        behaviors->requestRunningBehaviors();
}

void BehaviorInstanceManager::reportStartFailure(const QString &where, const QString &text)
{
    OperationError error;
    error.operation = QStringLiteral("playBehavior");
    error.code = codeOf(text);
    error.title = tr("Starting behavior failed");
    error.contents = tr("%1 failed.%2Your behavior %3 will not run.")
                         .arg(where, QStringLiteral("\n"), m_behaviorName);
    error.details = tr("The error was: %1").arg(text);
    emit errorStartingBehavior(error.title, error.contents, error.details);
    emit errorOccurred(error);
}

void BehaviorInstanceManager::onLifeFocusSwitched()
{
    QFutureWatcher<void> *watcher = m_lifeFocusWatcher;
    if (!watcher)
        return;
    m_lifeFocusWatcher = nullptr;
    watcher->deleteLater();
    const bool stopWanted = m_stopAfterStart;
    m_stopAfterStart = false;
    try {
        waitRethrowingTheCause(watcher);
        // A stop asked for during the switch goes now, after it, and ends
        // with the robot's list as a stop of a running behaviour does.
        if (stopWanted && m_state == Stopping) {
            requestStop(false);
            return;
        }
        // Only a start still waiting: the robot's running list may have
        // said Running first; after a disconnection the behaviour is Missing.
        if (m_state == Starting)
            setState(Running);
    } catch (const std::exception &e) {
        const QString text = QString::fromUtf8(e.what());
        logError(__FUNCTION__,
                 QStringLiteral("Failed to switch life's focus to ") + m_behaviorName
                     + QStringLiteral(", reason: ") + text);
        reportStartFailure(QStringLiteral("VXAutonomousLife::switchFocus"), text);
        if (m_state != Missing)
            setState(Stopped);
    }
}

void BehaviorInstanceManager::stopBehavior()
{
    if (m_state == Stopped || m_state == Missing)
        return;
    if (!m_manager->behaviorManagerInterface())
        return;
    const State from = m_state;
    setState(Stopping);
    if (m_startWatcher || m_lifeFocusWatcher) {
        // The start and the stop would race on the pool, and a stop that
        // came first would be undone: the stop waits for the start's outcome.
        m_stopAfterStart = true;
        return;
    }
    // Only a running behaviour makes the robot raise a new list; from any
    // other state the stop's own answer ends Stopping.
    requestStop(from != Running);
}

void BehaviorInstanceManager::requestStop(bool endsWhenTaken)
{
    const boost::shared_ptr<BehaviorManagerInterface> behaviors
        = m_manager->behaviorManagerInterface();
    if (!behaviors) {
        if (endsWhenTaken && m_state == Stopping)
            setState(Stopped);
        return;
    }
    auto *watcher = new QFutureWatcher<void>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher, endsWhenTaken] {
        watcher->deleteLater();
        bool refused = false;
        try {
            waitRethrowingTheCause(watcher);
        } catch (...) {
            // The interface has told the robot's text.
            refused = true;
        }
        if (m_state != Stopping)
            return;
        if (endsWhenTaken)
            setState(Stopped);
        // A running behaviour the robot would not stop raises no list:
        // without this it would stay Stopping for as long as it runs.
        else if (refused)
            setState(Running);
    });
    watcher->setFuture(behaviors->stopBehavior(m_behaviorName));
}

void BehaviorInstanceManager::onRunningBehaviorsReceived(QStringList behaviors)
{
    // A list answered just before the connection went still arrives after
    // disconnected(): it must not bring the behaviour back from Missing.
    if (!m_manager->isConnected())
        return;
    for (const QString &b : behaviors) {
        if (sameBehavior(b, m_behaviorName)) {
            // A list raised before our stop reached the robot still names
            // the behaviour; only the list without it ends the stop.
            if (m_state != Stopping)
                setState(Running);
            return;
        }
    }
    // A stop waiting for a start in flight is not ended by a list: that
    // list was asked for before the start, and the stop has yet to go.
    if (m_state == Running || (m_state == Stopping && !m_stopAfterStart))
        setState(Stopped);
}

void BehaviorInstanceManager::onBehaviorPresent(QString behavior, bool isPresent)
{
    if (!sameBehavior(behavior, m_behaviorName))
        return;
    if (!isPresent) {
        emit errorStartingBehavior(
            tr("Behavior start failed"), tr("The current behavior could not be found"),
            tr("One of the possible reasons is that the current behavior is not in your package "
               "content."));
        setState(Missing);
        return;
    }
    if (m_state == Missing)
        setState(Stopped);
}

void BehaviorInstanceManager::onBehaviorAdded(QString behaviorName)
{
    // Only news for a behaviour we thought missing: the event of an install
    // may come after the presence answer, and must not undo a preload or a
    // run already under way.
    if (sameBehavior(behaviorName, m_behaviorName) && m_state == Missing)
        setState(Stopped);
}

void BehaviorInstanceManager::onBehaviorRemoved(QString behaviorName)
{
    if (sameBehavior(behaviorName, m_behaviorName))
        setState(Missing);
}

void BehaviorInstanceManager::onBehaviorFailed(QString behaviorName, QString box, QString error)
{
    if (sameBehavior(behaviorName, m_behaviorName))
        emit errorInBox(box, error);
}

void BehaviorInstanceManager::onDisconnected()
{
    setState(Missing);
}

} // namespace RK
