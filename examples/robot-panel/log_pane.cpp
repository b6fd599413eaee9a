#include "log_pane.h"

#include <wz/log.h>

#include <QComboBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QVBoxLayout>

namespace panel {

LogPane::LogPane(QWidget *parent) : Pane(tr("Robot log"), parent)
{
    setObjectName(QStringLiteral("logPane"));
    m_level = new QComboBox(this);
    m_level->setObjectName(QStringLiteral("logLevel"));
    for (int level = 1; level <= 6; ++level)
        m_level->addItem(QString::fromLatin1(wz::logLevelName(static_cast<wz::LogLevel>(level))),
                         level);
    m_level->setCurrentIndex(3); // info
    m_text = new QLineEdit(this);
    m_text->setObjectName(QStringLiteral("logFilter"));
    m_text->setPlaceholderText(tr("category or text"));
    m_view = new QPlainTextEdit(this);
    m_view->setObjectName(QStringLiteral("logView"));
    m_view->setReadOnly(true);
    m_view->setMaximumBlockCount(int(k_kept));
    m_view->setFont(QFont(QStringLiteral("monospace"), 8));
    m_count = new QLabel(this);
    m_count->setObjectName(QStringLiteral("logCount"));

    auto *controls = new QHBoxLayout;
    controls->addWidget(m_level);
    controls->addWidget(m_text);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(controls);
    layout->addWidget(m_view);
    layout->addWidget(m_count);

    connect(m_level, qOverload<int>(&QComboBox::currentIndexChanged), this, [this] { rebuild(); });
    connect(m_text, &QLineEdit::textChanged, this, [this] { rebuild(); });
    m_flush.setInterval(100);
    connect(&m_flush, &QTimer::timeout, this, &LogPane::flush);
    rebuild();
}

void LogPane::attach(RK::ConnectionManager &manager)
{
    m_logs = manager.logListenerInterface();
    if (!m_logs)
        return;
    connect(m_logs.get(), &RK::LogListenerInterface::onLogMessageReceived, this,
            [this](const wz::LogMessage &message) {
                m_messages.push_back(message);
                if (m_messages.size() > k_kept)
                    m_messages.pop_front();
                m_pending = std::min(m_pending + 1, k_kept);
                ++m_received;
                if (!m_flush.isActive())
                    m_flush.start();
            });
}

void LogPane::detach()
{
    if (m_logs)
        disconnect(m_logs.get(), nullptr, this, nullptr);
    m_logs.reset();
}

void LogPane::setFilter(int level, const QString &text)
{
    m_level->setCurrentIndex(m_level->findData(level));
    m_text->setText(text);
    rebuild();
}

bool LogPane::passes(const wz::LogMessage &message) const
{
    if (int(message.level) > m_level->currentData().toInt())
        return false;
    const QString text = m_text->text();
    return text.isEmpty()
        || QString::fromStdString(message.category).contains(text, Qt::CaseInsensitive)
        || QString::fromStdString(message.message).contains(text, Qt::CaseInsensitive);
}

QString LogPane::line(const wz::LogMessage &message) const
{
    return QStringLiteral("%1 %2 %3: %4")
        .arg(QDateTime::fromMSecsSinceEpoch(message.timestampUs / 1000)
                 .toString(QStringLiteral("HH:mm:ss.zzz")),
             QString::fromLatin1(wz::logLevelName(message.level)).leftJustified(7),
             QString::fromStdString(message.category), QString::fromStdString(message.message));
}

void LogPane::flush()
{
    m_flush.stop();
    QStringList lines;
    for (size_t i = m_messages.size() - std::min(m_pending, m_messages.size());
         i < m_messages.size(); ++i) {
        if (passes(m_messages[i]))
            lines << line(m_messages[i]);
    }
    m_pending = 0;
    if (!lines.isEmpty()) {
        m_view->appendPlainText(lines.join(QLatin1Char('\n')));
        m_shown += int(lines.size());
    }
    m_count->setText(tr("%1 received, %2 shown").arg(m_received).arg(m_shown));
}

void LogPane::rebuild()
{
    m_view->clear();
    m_shown = 0;
    m_pending = m_messages.size();
    flush();
}

} // namespace panel
