#include <sim/device_services.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <memory>
#include <thread>

namespace sim {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

// Holds the HTTP port until the file server exists: accepts on 127.0.0.1 and
// answers 503 to whatever arrives, so a client gets a clear refusal rather
// than a connection error.
class PackageManagerService::Placeholder
{
public:
    Placeholder() : m_acceptor(m_io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0))
    {
        accept();
        m_thread = std::thread([this]() { m_io.run(); });
    }
    ~Placeholder()
    {
        m_io.stop();
        if (m_thread.joinable())
            m_thread.join();
    }
    int port() const { return m_acceptor.local_endpoint().port(); }

private:
    void accept()
    {
        m_acceptor.async_accept([this](const boost::system::error_code &ec, tcp::socket socket) {
            if (ec == asio::error::operation_aborted)
                return;
            if (!ec) {
                auto s = std::make_shared<tcp::socket>(std::move(socket));
                static const char kReply[]
                    = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\n"
                      "Content-Length: 32\r\nConnection: close\r\n\r\n"
                      "no file server on this robot yet";
                asio::async_write(*s, asio::buffer(kReply, sizeof(kReply) - 1),
                                  [s](const boost::system::error_code &, size_t) {
                                      boost::system::error_code ignored;
                                      s->shutdown(tcp::socket::shutdown_both, ignored);
                                      s->close(ignored);
                                  });
            }
            accept();
        });
    }

    asio::io_context m_io;
    tcp::acceptor m_acceptor;
    std::thread m_thread;
};

PackageManagerService::PackageManagerService() : Service("PackageManager") { }

PackageManagerService::~PackageManagerService()
{
    stop();
}

void PackageManagerService::describe(ServiceBuilder &b)
{
    b.method("_getHttpTransferPort", [this]() { return robot().httpTransferPort(); });
}

void PackageManagerService::start()
{
    if (robot().httpTransferPort() != 0)
        return;
    try {
        m_placeholder = std::make_unique<Placeholder>();
        robot().setHttpTransferPort(m_placeholder->port());
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, "sim", __FUNCTION__)
            << "no HTTP placeholder: " << e.what();
    }
}

void PackageManagerService::stop()
{
    m_placeholder.reset();
}

} // namespace sim
