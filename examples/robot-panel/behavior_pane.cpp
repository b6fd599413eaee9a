#include "behavior_pane.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMetaEnum>
#include <QPushButton>
#include <QVBoxLayout>

namespace panel {

namespace {

QString stateName(RK::BehaviorInstanceManager::State state)
{
    return QString::fromLatin1(
        QMetaEnum::fromType<RK::BehaviorInstanceManager::State>().valueToKey(state));
}

} // namespace

BehaviorPane::BehaviorPane(RK::ConnectionManager &manager, QWidget *parent)
    : Pane(tr("Behaviours"), parent), m_manager(manager)
{
    setObjectName(QStringLiteral("behaviorPane"));
    m_list = new QListWidget(this);
    m_list->setObjectName(QStringLiteral("behaviorList"));
    m_refresh = new QPushButton(tr("Refresh"), this);
    m_refresh->setObjectName(QStringLiteral("behaviorRefresh"));
    m_run = new QPushButton(tr("Run"), this);
    m_run->setObjectName(QStringLiteral("behaviorRun"));
    m_stop = new QPushButton(tr("Stop"), this);
    m_stop->setObjectName(QStringLiteral("behaviorStop"));
    m_state = new QLabel(tr("no behaviour run yet"), this);
    m_state->setObjectName(QStringLiteral("behaviorState"));
    m_state->setWordWrap(true);
    m_running = new QLabel(tr("running: ?"), this);
    m_running->setObjectName(QStringLiteral("behaviorRunning"));

    auto *buttons = new QHBoxLayout;
    buttons->addWidget(m_refresh);
    buttons->addWidget(m_run);
    buttons->addWidget(m_stop);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_list);
    layout->addLayout(buttons);
    layout->addWidget(m_state);
    layout->addWidget(m_running);

    connect(m_refresh, &QPushButton::clicked, this, [this] {
        if (m_behaviors)
            m_behaviors->requestBehaviors();
    });
    connect(m_run, &QPushButton::clicked, this, [this] {
        if (QListWidgetItem *item = m_list->currentItem())
            run(item->text());
    });
    connect(m_stop, &QPushButton::clicked, this, &BehaviorPane::stop);
    detach();
}

BehaviorPane::~BehaviorPane() = default;

void BehaviorPane::attach(RK::ConnectionManager &manager)
{
    m_behaviors = manager.behaviorManagerInterface();
    if (!m_behaviors)
        return;
    using I = RK::BehaviorManagerInterface;
    connect(m_behaviors.get(), &I::behaviorsReceived, this, [this](QStringList names) {
        const QString current = m_list->currentItem() ? m_list->currentItem()->text() : QString();
        m_list->clear();
        m_list->addItems(names);
        const QList<QListWidgetItem *> same = m_list->findItems(current, Qt::MatchExactly);
        if (!same.isEmpty())
            m_list->setCurrentItem(same.first());
    });
    connect(m_behaviors.get(), &I::runningBehaviorsUpdated, this, [this](QStringList names) {
        m_running->setText(
            tr("running: %1").arg(names.isEmpty() ? tr("none") : names.join(QStringLiteral(", "))));
    });
    connect(m_behaviors.get(), &I::behaviorListChanged, this, [this] {
        if (m_behaviors)
            m_behaviors->requestBehaviors();
    });
    // The instance asks whether the behaviour is there; an answer of no is
    // its only failure without an errorOccurred of its own.
    connect(m_behaviors.get(), &I::behaviorPresent, this, [this](QString name, bool present) {
        if (!present && m_instance
            && RK::BehaviorInstanceManager::sameBehavior(name, m_instance->behaviorName()))
            fail(QStringLiteral("playBehavior"), RK::ErrorCode::RobotFailed,
                 tr("Behavior %1 is not on the robot").arg(name));
    });
    // A failed preload is the instance's to tell, with its box (errorInBox).
    connect(m_behaviors.get(), &I::errorOccurred, this, [this](const RK::OperationError &error) {
        if (error.operation != QLatin1String("preloadBehavior"))
            relayError(error);
    });
    m_behaviors->requestBehaviors();
    m_behaviors->requestRunningBehaviors();
    m_refresh->setEnabled(true);
    m_run->setEnabled(true);
    m_stop->setEnabled(true);
}

void BehaviorPane::detach()
{
    if (m_behaviors)
        disconnect(m_behaviors.get(), nullptr, this, nullptr);
    m_behaviors.reset();
    m_refresh->setEnabled(false);
    m_run->setEnabled(false);
    m_stop->setEnabled(false);
}

void BehaviorPane::run(const QString &name)
{
    // The instance asks whether the behaviour is there; once it has said
    // Stopped, it may be started.
    m_history.clear();
    m_playWhenReady = true;
    m_instance = std::make_unique<RK::BehaviorInstanceManager>(&m_manager, name, QString(), false);
    using Instance = RK::BehaviorInstanceManager;
    connect(m_instance.get(), &Instance::stateChanged, this, &BehaviorPane::onStateChanged);
    connect(m_instance.get(), &Instance::errorInBox, this, [this](QString box, QString text) {
        fail(QStringLiteral("playBehavior"), RK::ErrorCode::RobotFailed,
             tr("Error in box %1").arg(box.isEmpty() ? QStringLiteral("?") : box), text);
    });
    // A refused start; errorStartingBehavior carries the same texts again.
    relayErrors(m_instance.get());
    m_state->setText(tr("%1: asking the robot").arg(name));
}

void BehaviorPane::stop()
{
    m_playWhenReady = false;
    if (m_instance)
        m_instance->stopBehavior();
}

void BehaviorPane::onStateChanged(RK::BehaviorInstanceManager::State state)
{
    m_history << stateName(state);
    m_state->setText(
        tr("%1: %2").arg(m_instance->behaviorName(), m_history.join(QStringLiteral(" > "))));
    using Instance = RK::BehaviorInstanceManager;
    if (state == Instance::Stopped && m_playWhenReady) {
        m_playWhenReady = false;
        m_instance->playBehavior();
    } else if (state == Instance::Missing) {
        m_playWhenReady = false;
    }
}

} // namespace panel
