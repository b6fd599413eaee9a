#include "project_pane.h"

#include <QFileDialog>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>

namespace panel {

ProjectPane::ProjectPane(RK::ConnectionManager &manager, QWidget *parent)
    : Pane(tr("Project"), parent), m_manager(manager)
{
    setObjectName(QStringLiteral("projectPane"));
    m_local = new QLineEdit(this);
    m_local->setObjectName(QStringLiteral("projectLocal"));
    m_local->setPlaceholderText(tr("local directory"));
    m_remote = new QLineEdit(QStringLiteral("/projects/panel"), this);
    m_remote->setObjectName(QStringLiteral("projectRemote"));
    m_browse = new QPushButton(tr("Browse..."), this);
    m_push = new QPushButton(tr("Push"), this);
    m_push->setObjectName(QStringLiteral("projectPush"));
    m_pull = new QPushButton(tr("Pull"), this);
    m_pull->setObjectName(QStringLiteral("projectPull"));
    m_cancel = new QPushButton(tr("Cancel"), this);
    m_cancel->setObjectName(QStringLiteral("projectCancel"));
    m_cancel->setEnabled(false);
    m_progress = new QProgressBar(this);
    m_progress->setObjectName(QStringLiteral("projectProgress"));
    m_progress->setRange(0, 1);
    m_progress->setValue(0);
    m_state = new QLabel(tr("idle"), this);
    m_state->setObjectName(QStringLiteral("projectState"));

    auto *layout = new QGridLayout(this);
    layout->addWidget(new QLabel(tr("Local"), this), 0, 0);
    layout->addWidget(m_local, 0, 1);
    layout->addWidget(m_browse, 0, 2);
    layout->addWidget(new QLabel(tr("Robot"), this), 1, 0);
    layout->addWidget(m_remote, 1, 1, 1, 2);
    auto *buttons = new QHBoxLayout;
    buttons->addWidget(m_push);
    buttons->addWidget(m_pull);
    buttons->addWidget(m_cancel);
    layout->addLayout(buttons, 2, 0, 1, 3);
    layout->addWidget(m_progress, 3, 0, 1, 3);
    layout->addWidget(m_state, 4, 0, 1, 3);

    connect(m_browse, &QPushButton::clicked, this, [this] {
        const QString dir
            = QFileDialog::getExistingDirectory(this, tr("Project directory"), m_local->text());
        if (!dir.isEmpty())
            m_local->setText(dir);
    });
    connect(m_push, &QPushButton::clicked, this,
            [this] { push(m_local->text(), m_remote->text()); });
    connect(m_pull, &QPushButton::clicked, this,
            [this] { pull(m_remote->text(), m_local->text()); });
    connect(m_cancel, &QPushButton::clicked, this, &ProjectPane::cancel);

    // The synchronizer lives on this thread and signals here.
    using S = RK::ProjectSynchronizer;
    connect(&m_sync, &S::stateChanged, m_state, &QLabel::setText);
    connect(&m_sync, &S::rangeChanged, m_progress, &QProgressBar::setRange);
    connect(&m_sync, &S::valueChanged, m_progress, &QProgressBar::setValue);
    connect(&m_sync, &S::done, this, [this] {
        m_state->setText(tr("%1: done").arg(m_operation));
        end();
    });
    connect(&m_sync, &S::aborted, this, [this](const QString &reason) {
        if (reason.isEmpty()) {
            m_state->setText(tr("%1: cancelled").arg(m_operation));
        } else {
            m_state->setText(tr("%1: failed").arg(m_operation));
            fail(m_operation, RK::ErrorCode::RobotFailed, tr("The %1 failed").arg(m_operation),
                 reason);
        }
        end();
    });
    detach();
}

ProjectPane::~ProjectPane()
{
    // The synchronizer's destructor would cancel and wait; the panel has
    // waited for transferEnded() before it gets here.
}

void ProjectPane::attach(RK::ConnectionManager &)
{
    const bool idle = !m_sync.isBusy();
    m_push->setEnabled(idle);
    m_pull->setEnabled(idle);
}

void ProjectPane::detach()
{
    // A transfer in progress fails by itself with the connection.
    m_push->setEnabled(false);
    m_pull->setEnabled(false);
}

bool ProjectPane::begin(const QString &operation, std::string &host, int &port)
{
    m_operation = operation;
    if (m_sync.isBusy()) {
        fail(operation, RK::ErrorCode::RobotFailed, tr("A transfer is already running"));
        return false;
    }
    // The file server's port comes from the robot's package manager; 0
    // without one.
    if (!m_manager.getCurrentConnectionHttp(host, port)) {
        fail(operation, RK::ErrorCode::ConnectionLost, tr("Not connected"));
        return false;
    }
    if (port <= 0) {
        fail(operation, RK::ErrorCode::ServiceMissing, tr("The robot offers no file transfer"),
             tr("PackageManager is missing"));
        return false;
    }
    m_progress->setRange(0, 1);
    m_progress->setValue(0);
    return true;
}

void ProjectPane::push(const QString &local, const QString &remote)
{
    std::string host;
    int port = 0;
    if (!begin(QStringLiteral("push"), host, port))
        return;
    auto model = std::make_unique<wz::project::ProjectModel>();
    try {
        model->open(local);
    } catch (const std::exception &e) {
        fail(m_operation, RK::ErrorCode::RobotFailed, tr("Cannot open the project"),
             QString::fromUtf8(e.what()));
        return;
    }
    m_model = std::move(model);
    m_cancel->setEnabled(true);
    m_push->setEnabled(false);
    m_pull->setEnabled(false);
    m_sync.push(host, port, m_model.get(), remote, wz::project::ArchiveFormat_Plain);
}

void ProjectPane::pull(const QString &remote, const QString &local)
{
    std::string host;
    int port = 0;
    if (!begin(QStringLiteral("pull"), host, port))
        return;
    auto model = std::make_unique<wz::project::ProjectModel>();
    try {
        // A new or empty directory: a pull never mixes into local files.
        model->createNew(local);
    } catch (const std::exception &e) {
        fail(m_operation, RK::ErrorCode::RobotFailed, tr("Cannot create the project"),
             QString::fromUtf8(e.what()));
        return;
    }
    m_model = std::move(model);
    m_cancel->setEnabled(true);
    m_push->setEnabled(false);
    m_pull->setEnabled(false);
    m_sync.pull(host, port, remote, m_model.get(), wz::project::ArchiveFormat_Plain);
}

void ProjectPane::cancel()
{
    if (m_sync.isBusy())
        m_sync.cancel();
}

void ProjectPane::end()
{
    m_cancel->setEnabled(false);
    const bool connected = m_manager.isConnected();
    m_push->setEnabled(connected);
    m_pull->setEnabled(connected);
    emit transferEnded();
}

} // namespace panel
