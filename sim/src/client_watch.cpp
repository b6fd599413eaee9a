#include <sim/client_watch.h>

#include <wz/session.h>

namespace sim {

ClientWatch::~ClientWatch()
{
    stop();
}

void ClientWatch::start(wz::Session &session, std::function<void(const std::string &)> gone)
{
    m_session = &session;
    m_hook = std::make_shared<Hook>();
    m_hook->gone = std::move(gone);
    const std::shared_ptr<Hook> hook = m_hook;
    m_link = session.clientDisconnected.connect([hook](const std::string &peer) {
        std::lock_guard<std::mutex> lock(hook->mutex);
        if (hook->gone)
            hook->gone(peer);
    });
}

void ClientWatch::stop()
{
    if (m_link) {
        m_session->clientDisconnected.disconnect(m_link);
        m_link = 0;
    }
    if (m_hook) {
        std::lock_guard<std::mutex> lock(m_hook->mutex);
        m_hook->gone = nullptr;
    }
}

} // namespace sim
