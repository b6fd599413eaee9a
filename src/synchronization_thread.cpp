#include "synchronization_thread_p.h"

#include <wz/log.h>

#include <QMutexLocker>
#include <QTcpSocket>

#include <condition_variable>
#include <mutex>

namespace RK {

// Opened by the thread's last act: the destructor of a thread-local object,
// which runs after QThread has finished with the object. std::mutex and
// std::condition_variable keep the hand-over visible to race detectors.
struct SynchronizationThread::ExitLatch
{
    void release()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            open = true;
        }
        cond.notify_all();
    }
    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait(lock, [this] { return open; });
    }
    std::mutex mutex;
    std::condition_variable cond;
    bool open = false;
};

namespace {

// A socket error as a negative exit code; never 0, also for the unknown error (-1).
int lostCode(int socketError)
{
    return ~qMax(0, socketError);
}

struct LatchRelease
{
    ~LatchRelease()
    {
        if (release)
            release();
    }
    std::function<void()> release;
};

thread_local LatchRelease t_latchRelease;

} // namespace

SynchronizationThread::SynchronizationThread(const std::string &host, int port, QObject *parent)
    : QThread(parent), m_host(host), m_port(port), m_latch(std::make_shared<ExitLatch>())
{ }

SynchronizationThread::~SynchronizationThread() = default;

void SynchronizationThread::exit(int code)
{
    {
        QMutexLocker lock(&m_mutex);
        m_interrupting = true;
        if (!m_exited) {
            m_exited = true;
            m_exitCode = code;
        }
    }
    QThread::exit(code);
}

int SynchronizationThread::exitCode() const
{
    QMutexLocker lock(&m_mutex);
    return m_exited ? m_exitCode : 0;
}

void SynchronizationThread::launch()
{
    m_launched = true;
    start(QThread::InheritPriority);
    if (!isRunning() && !isFinished()) // the thread could not be made
        m_latch->release();
}

void SynchronizationThread::join()
{
    wait();
    if (m_launched)
        m_latch->wait();
}

void SynchronizationThread::run()
{
    std::shared_ptr<ExitLatch> latch = m_latch;
    t_latchRelease.release = [latch] { latch->release(); };
    // QThread::start() forgets an exit() that came before it: a cancel made
    // as the transfer was being started would otherwise wait for the robot.
    if (isInterrupting())
        return;
    transfer();
}

std::string SynchronizationThread::name() const
{
    return QString::fromLatin1(metaObject()->className())
        .section(QStringLiteral("::"), -1)
        .toStdString();
}

void SynchronizationThread::transfer()
{
    m_lastError = refusal();
    if (!m_lastError.isEmpty())
        return;
    step(tr("Connecting to %1").arg(QString::fromStdString(m_host)), 0, 0, 0);
    HttpConnection connection(m_host, m_port, m_limits);
    int code = 0;
    if (connection.open()) {
        m_http = &connection;
        onConnected();
        m_http = nullptr;
        code = exitCode();
    } else {
        code = isInterrupting() ? exitCode() : lostCode(connection.socketError());
        if (code < 0)
            wz::log::LogStream(wz::LogLevel_Verbose, "con.projectSync", "transfer")
                << connection.error().toStdString();
    }
    if (code < 0) {
        wz::log::LogStream(wz::LogLevel_Warning, "con.projectSync", "transfer")
            << name() << " couldn't connect to robot. " << m_host << ":" << m_port
            << ". Connection was lost.";
        if (m_lastError.isEmpty())
            m_lastError = connectionLostText();
        emit connectionLost();
    } else if (code == 0 || code == 2) {
        m_lastError.clear();
    }
    // A transfer that ended well says goodbye; any other end just drops the line.
    QTcpSocket *socket = connection.socket();
    if (code == 0 && socket->state() == QAbstractSocket::ConnectedState) {
        socket->disconnectFromHost();
        if (socket->state() != QAbstractSocket::UnconnectedState)
            socket->waitForDisconnected(1000);
    }
}

QString SynchronizationThread::connectionLostText() const
{
    return tr("could not connect to robot");
}

void SynchronizationThread::fail(const QString &text)
{
    if (isInterrupting())
        return;
    m_lastError = text;
    exit(m_http && m_http->lost() ? lostCode(m_http->socketError()) : 1);
}

bool SynchronizationThread::isInterrupting() const
{
    QMutexLocker lock(&m_mutex);
    return m_interrupting;
}

void SynchronizationThread::step(const QString &text, int minimum, int maximum, int value)
{
    emit valueChanged(value);
    emit rangeChanged(minimum, maximum);
    emit stateChanged(text);
}

} // namespace RK
