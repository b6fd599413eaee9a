#include "memory_pane.h"

#include <QHBoxLayout>
#include <QLineEdit>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QVBoxLayout>

#include <algorithm>
#include <limits>

namespace panel {

namespace {

// Sampling by the robot and gathering into batches, in milliseconds.
const int k_samplingMs = 100;
const int k_gatherMs = 500;

} // namespace

MemoryPlot::MemoryPlot(QWidget *parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("memoryPlot"));
    setMinimumHeight(160);
}

void MemoryPlot::append(const QString &key, const QVector<QPointF> &samples)
{
    QVector<QPointF> &series = m_series[key];
    series += samples;
    for (const QPointF &p : samples)
        m_newest = std::max(m_newest, p.x());
    const double oldest = m_newest - k_spanSeconds;
    const auto keep = std::find_if(series.begin(), series.end(),
                                   [oldest](const QPointF &p) { return p.x() >= oldest; });
    series.erase(series.begin(), keep);
    update();
}

void MemoryPlot::clear()
{
    m_series.clear();
    m_newest = 0;
    update();
}

void MemoryPlot::paintEvent(QPaintEvent *)
{
    static const QColor colours[] = {QColor(0x1f, 0x77, 0xb4), QColor(0xd6, 0x27, 0x28),
                                     QColor(0x2c, 0xa0, 0x2c), QColor(0x94, 0x67, 0xbd)};
    QPainter painter(this);
    painter.fillRect(rect(), Qt::white);
    const QRectF area = QRectF(rect()).adjusted(40, 8, -8, -20);
    painter.setPen(QColor(0xdd, 0xdd, 0xdd));
    for (int i = 0; i <= 4; ++i) {
        const double y = area.top() + area.height() * i / 4;
        painter.drawLine(QPointF(area.left(), y), QPointF(area.right(), y));
    }
    double low = std::numeric_limits<double>::max();
    double high = std::numeric_limits<double>::lowest();
    for (const QVector<QPointF> &series : m_series) {
        for (const QPointF &p : series) {
            low = std::min(low, p.y());
            high = std::max(high, p.y());
        }
    }
    painter.setPen(Qt::darkGray);
    if (low > high) {
        painter.drawText(area, Qt::AlignCenter, tr("no samples"));
        return;
    }
    if (high - low < 1e-9) {
        low -= 1;
        high += 1;
    }
    painter.drawText(QRectF(0, area.top() - 6, 38, 12), Qt::AlignRight, QString::number(high));
    painter.drawText(QRectF(0, area.bottom() - 6, 38, 12), Qt::AlignRight, QString::number(low));
    // The time axis covers what has come, from 5 s up to the last minute.
    double oldest = m_newest;
    for (const QVector<QPointF> &series : m_series)
        if (!series.isEmpty())
            oldest = std::min(oldest, series.first().x());
    const double span = std::clamp(m_newest - oldest, 5.0, k_spanSeconds);
    painter.drawText(QRectF(area.left(), area.bottom() + 2, area.width(), 16), Qt::AlignRight,
                     tr("last %1 s").arg(qRound(span)));
    const double left = m_newest - span;
    const auto toView = [&](const QPointF &p) {
        return QPointF(area.left() + (p.x() - left) / span * area.width(),
                       area.bottom() - (p.y() - low) / (high - low) * area.height());
    };
    painter.setRenderHint(QPainter::Antialiasing);
    int index = 0;
    for (auto it = m_series.cbegin(); it != m_series.cend(); ++it, ++index) {
        const QColor colour = colours[index % 4];
        painter.setPen(QPen(colour, 1.5));
        QPainterPath path;
        for (const QPointF &p : it.value()) {
            if (path.elementCount() == 0)
                path.moveTo(toView(p));
            else
                path.lineTo(toView(p));
        }
        painter.drawPath(path);
        painter.drawText(QPointF(area.left() + 6, area.top() + 14 + 14 * index), it.key());
    }
}

MemoryPane::MemoryPane(QWidget *parent) : Pane(tr("Memory"), parent)
{
    setObjectName(QStringLiteral("memoryPane"));
    m_keyEdit = new QLineEdit(this);
    m_keyEdit->setObjectName(QStringLiteral("memoryKeys"));
    m_keyEdit->setPlaceholderText(tr("keys, comma separated"));
    m_watch = new QPushButton(tr("Watch"), this);
    m_watch->setObjectName(QStringLiteral("memoryWatch"));
    m_plot = new MemoryPlot(this);
    auto *controls = new QHBoxLayout;
    controls->addWidget(m_keyEdit);
    controls->addWidget(m_watch);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(controls);
    layout->addWidget(m_plot);
    connect(m_watch, &QPushButton::clicked, this, [this] {
        QStringList keys;
        for (const QString &key : m_keyEdit->text().split(QLatin1Char(',')))
            if (!key.trimmed().isEmpty())
                keys << key.trimmed();
        watch(keys);
    });
}

void MemoryPane::attach(RK::ConnectionManager &manager)
{
    m_memory = manager.memoryInterface();
    if (!m_memory)
        return;
    connect(m_memory.get(), &RK::MemoryInterface::dataGathered, this,
            [this](const QMap<QString, QMap<double, QVariant>> &batch) {
                for (auto key = batch.begin(); key != batch.end(); ++key) {
                    QVector<QPointF> samples;
                    for (auto s = key.value().begin(); s != key.value().end(); ++s) {
                        bool number = false;
                        const double value = s.value().toDouble(&number);
                        if (number)
                            samples.append(QPointF(s.key(), value));
                    }
                    if (!samples.isEmpty())
                        m_plot->append(key.key(), samples);
                }
            });
    relayErrors(m_memory.get());
    // The watcher lives with the interface: a new connection starts from nothing.
    startWatching();
}

void MemoryPane::detach()
{
    if (m_memory)
        disconnect(m_memory.get(), nullptr, this, nullptr);
    m_memory.reset();
}

void MemoryPane::watch(const QStringList &keys)
{
    if (m_memory && !m_keys.isEmpty()) {
        m_memory->stopWatcher();
        m_memory->unwatchAll();
    }
    m_keys = keys;
    m_keyEdit->setText(keys.join(QStringLiteral(", ")));
    m_plot->clear();
    startWatching();
}

void MemoryPane::startWatching()
{
    if (!m_memory || m_keys.isEmpty())
        return;
    m_memory->watchKeys(m_keys, k_samplingMs);
    m_memory->startWatcher(k_gatherMs, k_samplingMs);
}

} // namespace panel
