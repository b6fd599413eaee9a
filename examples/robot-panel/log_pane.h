#pragma once

#include "pane.h"

#include <connection/log_listener_interface.h>

#include <QTimer>

#include <boost/shared_ptr.hpp>

#include <deque>

class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;

namespace panel {

// The robot's log, filtered here by level and by a text in the category or
// the message. Messages are kept (the last k_kept) so that a new filter
// applies to what came before; the view is refreshed at most ten times a
// second, so that a chatty robot costs the GUI thread little.
class LogPane : public Pane
{
    Q_OBJECT

public:
    explicit LogPane(QWidget *parent = nullptr);

    void attach(RK::ConnectionManager &manager) override;
    void detach() override;

    // Messages up to `level` (1 fatal ... 6 debug) whose category or text
    // holds `text`.
    void setFilter(int level, const QString &text);
    int received() const { return m_received; }
    int shown() const { return m_shown; }

private:
    bool passes(const wz::LogMessage &message) const;
    QString line(const wz::LogMessage &message) const;
    void flush();
    void rebuild();

    static constexpr size_t k_kept = 2000;
    boost::shared_ptr<RK::LogListenerInterface> m_logs;
    std::deque<wz::LogMessage> m_messages;
    // Messages received since the last flush.
    size_t m_pending = 0;
    int m_received = 0;
    int m_shown = 0;
    QTimer m_flush;

    QComboBox *m_level;
    QLineEdit *m_text;
    QPlainTextEdit *m_view;
    QLabel *m_count;
};

} // namespace panel
