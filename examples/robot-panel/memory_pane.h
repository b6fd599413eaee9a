#pragma once

#include "pane.h"

#include <connection/memory_interface.h>

#include <QMap>
#include <QPointF>
#include <QStringList>
#include <QVector>
#include <QWidget>

#include <boost/shared_ptr.hpp>

class QLineEdit;
class QPushButton;

namespace panel {

// A few series of (seconds, value) drawn as lines over at most the last minute.
// Painted by hand rather than with a charting module: two or three lines on
// a grid are some sixty lines of QPainter, and the example then needs
// nothing beyond the Qt the library already uses.
class MemoryPlot : public QWidget
{
    Q_OBJECT

public:
    explicit MemoryPlot(QWidget *parent = nullptr);

    // Appends samples to the key's series, oldest first; keeps the last
    // `k_spanSeconds` of the newest time seen.
    void append(const QString &key, const QVector<QPointF> &samples);
    void clear();
    int pointCount(const QString &key) const { return m_series.value(key).size(); }

    QSize sizeHint() const override { return QSize(420, 200); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    static constexpr double k_spanSeconds = 60;
    QMap<QString, QVector<QPointF>> m_series;
    double m_newest = 0;
};

// Memory keys followed over time: the robot samples them (or this desktop
// polls them when the robot has no watcher), and batches come every gather
// period. Only numbers are plotted.
class MemoryPane : public Pane
{
    Q_OBJECT

public:
    explicit MemoryPane(QWidget *parent = nullptr);

    void attach(RK::ConnectionManager &manager) override;
    void detach() override;

    // Comma-separated keys; an empty list stops watching.
    void watch(const QStringList &keys);
    MemoryPlot *plot() const { return m_plot; }

private:
    void startWatching();

    boost::shared_ptr<RK::MemoryInterface> m_memory;
    QStringList m_keys;
    QLineEdit *m_keyEdit;
    QPushButton *m_watch;
    MemoryPlot *m_plot;
};

} // namespace panel
