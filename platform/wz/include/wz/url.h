#pragma once

#include <wz/api.h>

#include <string>

namespace wz {

// "tcp://host:port"; port 0 means "choose one" when listening.
class WZ_API Url
{
public:
    Url();
    explicit Url(const std::string &text);
    Url(const std::string &host, const std::string &protocol, unsigned short port);

    bool isValid() const { return m_error.empty(); }
    // Why the text did not parse; empty when valid.
    std::string error() const { return m_error; }
    std::string protocol() const { return m_protocol; }
    std::string host() const { return m_host; }
    unsigned short port() const { return m_port; }
    std::string str() const;

    bool operator==(const Url &other) const;
    bool operator!=(const Url &other) const { return !(*this == other); }

private:
    std::string m_protocol;
    std::string m_host;
    unsigned short m_port = 0;
    std::string m_error;
};

} // namespace wz
