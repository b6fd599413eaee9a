#include "joints_pane.h"

#include <QHeaderView>
#include <QLabel>
#include <QTableWidget>
#include <QVBoxLayout>

namespace panel {

JointsPane::JointsPane(QWidget *parent) : Pane(tr("Joints"), parent)
{
    setObjectName(QStringLiteral("jointsPane"));
    m_table = new QTableWidget(0, 3, this);
    m_table->setObjectName(QStringLiteral("jointsTable"));
    m_table->setHorizontalHeaderLabels({tr("Joint"), tr("Angle (rad)"), tr("Stiffness")});
    m_table->verticalHeader()->setVisible(false);
    m_table->verticalHeader()->setDefaultSectionSize(18);
    m_table->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_awake = new QLabel(tr("awake: ?"), this);
    m_awake->setObjectName(QStringLiteral("jointsAwake"));
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_awake);
    layout->addWidget(m_table);
}

void JointsPane::attach(RK::ConnectionManager &manager)
{
    m_module = manager.sartelModuleInterface();
    if (!m_module)
        return;
    using I = RK::SartelModuleInterface;
    connect(m_module.get(), &I::motorAnglesChanged, this,
            [this](std::vector<std::string> joints, std::vector<float> angles) {
                ++m_angleReports;
                setColumn(1, joints, angles, 3);
            });
    connect(m_module.get(), &I::motorStiffnessesChanged, this,
            [this](std::vector<std::string> joints, std::vector<float> stiffnesses) {
                setColumn(2, joints, stiffnesses, 2);
            });
    connect(m_module.get(), &I::robotStateChanged, this,
            [this](bool awake) { m_awake->setText(awake ? tr("awake: yes") : tr("awake: no")); });
    // Polling costs the robot: asked for only while this pane follows it.
    m_module->robotPoseUpdateNeeded(true);
}

void JointsPane::detach()
{
    if (m_module)
        disconnect(m_module.get(), nullptr, this, nullptr);
    m_module.reset();
    // Angles of a robot no longer followed would read as current.
    m_table->setRowCount(0);
    m_awake->setText(tr("awake: ?"));
}

void JointsPane::setColumn(int column, const std::vector<std::string> &joints,
                           const std::vector<float> &values, int precision)
{
    if (!joints.empty() && m_table->rowCount() != int(joints.size()))
        m_table->setRowCount(int(joints.size()));
    const int rows = std::min(m_table->rowCount(), int(values.size()));
    for (int row = 0; row < rows; ++row) {
        if (row < int(joints.size())) {
            const QString name = QString::fromStdString(joints[size_t(row)]);
            QTableWidgetItem *nameItem = m_table->item(row, 0);
            if (!nameItem)
                m_table->setItem(row, 0, new QTableWidgetItem(name));
            else if (nameItem->text() != name)
                nameItem->setText(name);
        }
        const QString text = QString::number(values[size_t(row)], 'f', precision);
        QTableWidgetItem *item = m_table->item(row, column);
        if (!item) {
            item = new QTableWidgetItem(text);
            item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            m_table->setItem(row, column, item);
        } else if (item->text() != text) {
            item->setText(text);
        }
    }
}

} // namespace panel
