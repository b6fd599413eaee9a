#include <wz/url.h>

#include <cctype>

namespace wz {

Url::Url() : m_error("empty URL") { }

Url::Url(const std::string &text)
{
    const std::string sep = "://";
    const size_t p = text.find(sep);
    if (text.empty()) {
        m_error = "empty URL";
        return;
    }
    if (p == std::string::npos || p == 0) {
        m_error = "URL \"" + text + "\" has no protocol (expected tcp://host:port)";
        return;
    }
    m_protocol = text.substr(0, p);
    if (m_protocol != "tcp") {
        m_error = "URL \"" + text + "\": unsupported protocol \"" + m_protocol + "\" (only tcp)";
        return;
    }
    const std::string rest = text.substr(p + sep.size());
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos) {
        m_error = "URL \"" + text + "\" has no port (expected tcp://host:port)";
        return;
    }
    m_host = rest.substr(0, colon);
    if (m_host.size() >= 2 && m_host.front() == '[' && m_host.back() == ']')
        m_host = m_host.substr(1, m_host.size() - 2);
    if (m_host.empty()) {
        m_error = "URL \"" + text + "\" has no host";
        return;
    }
    const std::string port = rest.substr(colon + 1);
    if (port.empty() || port.size() > 5) {
        m_error = "URL \"" + text + "\": port \"" + port + "\" is not a number from 0 to 65535";
        return;
    }
    unsigned long value = 0;
    for (char c : port) {
        if (!std::isdigit(static_cast<unsigned char>(c))) {
            m_error = "URL \"" + text + "\": port \"" + port + "\" is not a number from 0 to 65535";
            return;
        }
        value = value * 10 + static_cast<unsigned long>(c - '0');
    }
    if (value > 65535) {
        m_error = "URL \"" + text + "\": port \"" + port + "\" is not a number from 0 to 65535";
        return;
    }
    m_port = static_cast<unsigned short>(value);
}

Url::Url(const std::string &host, const std::string &protocol, unsigned short port)
    : m_protocol(protocol), m_host(host), m_port(port)
{
    if (protocol != "tcp")
        m_error = "unsupported protocol \"" + protocol + "\" (only tcp)";
    else if (host.empty())
        m_error = "URL has no host";
}

std::string Url::str() const
{
    if (m_protocol.empty() && m_host.empty())
        return std::string();
    const bool v6 = m_host.find(':') != std::string::npos;
    return m_protocol + "://" + (v6 ? "[" + m_host + "]" : m_host) + ":" + std::to_string(m_port);
}

bool Url::operator==(const Url &other) const
{
    return m_protocol == other.m_protocol && m_host == other.m_host && m_port == other.m_port
        && m_error == other.m_error;
}

} // namespace wz
