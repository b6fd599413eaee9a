#include "file_server.h"

#include "store_paths.h"

#include <wz/log.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace sim {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace fs = std::filesystem;
using tcp = asio::ip::tcp;

namespace {

void logLine(wz::LogLevel level, const char *function, const std::string &text)
{
    wz::log::LogStream(level, "sim.http", function) << text;
}

std::string statusText(int status)
{
    switch (status) {
    case 100:
        return "Continue";
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 307:
        return "Temporary Redirect";
    case 308:
        return "Permanent Redirect";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 409:
        return "Conflict";
    case 413:
        return "Payload Too Large";
    case 500:
        return "Internal Server Error";
    case 507:
        return "Insufficient Storage";
    default:
        return "Status";
    }
}

} // namespace

struct FileServer::Connection
{
    explicit Connection(tcp::socket s) : socket(std::move(s)), fd(socket.native_handle()) { }
    tcp::socket socket;
    int fd;
    std::thread thread;
    std::atomic<bool> done {false};
};

FileServer::FileServer(const std::string &store)
{
    fs::path dir = store;
    if (dir.empty()) {
        std::string pattern = (fs::temp_directory_path() / "morvane-store-XXXXXX").native();
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error(std::string("cannot make a store directory: ")
                                     + std::strerror(errno));
        dir = pattern;
        m_ownStore = true;
    } else {
        fs::create_directories(dir);
    }
    m_store = fs::canonical(dir).native();

    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0)
        throw std::runtime_error("cannot make the file server's socket");
    const int on = 1;
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(m_listenFd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || ::listen(m_listenFd, 64) != 0
        || ::getsockname(m_listenFd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        ::close(m_listenFd);
        throw std::runtime_error(std::string("file server cannot listen: ") + std::strerror(errno));
    }
    m_port = ntohs(address.sin_port);
    m_acceptThread = std::thread([this]() { acceptLoop(); });
    logLine(wz::LogLevel_Info, __FUNCTION__,
            "file server on port " + std::to_string(m_port) + ", store " + m_store);
}

FileServer::~FileServer()
{
    stop();
    if (m_ownStore) {
        std::error_code ec;
        fs::remove_all(m_store, ec);
    }
}

void FileServer::stop()
{
    std::list<std::unique_ptr<Connection>> connections;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping && m_listenFd < 0)
            return;
        m_stopping = true;
        // A blocked accept() or read() returns once its socket is shut down.
        if (m_listenFd >= 0)
            ::shutdown(m_listenFd, SHUT_RDWR);
        for (auto &c : m_connections)
            ::shutdown(c->fd, SHUT_RDWR);
    }
    m_stopCond.notify_all();
    if (m_acceptThread.joinable())
        m_acceptThread.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        connections.swap(m_connections);
        if (m_listenFd >= 0)
            ::close(m_listenFd);
        m_listenFd = -1;
    }
    for (auto &c : connections)
        if (c->thread.joinable())
            c->thread.join();
}

void FileServer::setFault(const HttpFault &fault)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fault = fault;
    m_faultsTaken = 0;
}

bool FileServer::takeFault(const std::string &method, const std::string &target, HttpFault &fault)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fault.kind == HttpFault::Kind::None || m_fault.times == 0)
        return false;
    if (!m_fault.method.empty() && m_fault.method != method)
        return false;
    if (!m_fault.pathContains.empty() && target.find(m_fault.pathContains) == std::string::npos)
        return false;
    if (m_fault.times > 0)
        --m_fault.times;
    ++m_faultsTaken;
    fault = m_fault;
    return true;
}

int FileServer::faultsTaken() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_faultsTaken;
}

bool FileServer::waitStopping(std::chrono::milliseconds delay)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_stopCond.wait_for(lock, delay, [this]() { return m_stopping; });
}

std::string FileServer::resolve(const std::string &robotPath) const
{
    std::vector<std::string> parts;
    if (splitTarget(robotPath, parts) != Refusal::None)
        return {};
    bool conflict = false;
    const fs::path p = walk(m_store, parts, parts.size(), false, conflict);
    return p.empty() || conflict ? std::string() : p.native();
}

void FileServer::acceptLoop()
{
    for (;;) {
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            if (fd >= 0)
                ::close(fd);
            return;
        }
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE)
                continue;
            logLine(wz::LogLevel_Error, __FUNCTION__,
                    std::string("accept failed: ") + std::strerror(errno));
            return;
        }
        // Finished connections leave as new ones come.
        for (auto it = m_connections.begin(); it != m_connections.end();) {
            if ((*it)->done) {
                (*it)->thread.join();
                it = m_connections.erase(it);
            } else {
                ++it;
            }
        }
        static asio::io_context io; // sockets used blocking only; never run
        boost::system::error_code ec;
        tcp::socket socket(io);
        socket.assign(tcp::v4(), fd, ec);
        if (ec) {
            ::close(fd);
            continue;
        }
        socket.set_option(tcp::no_delay(true), ec);
        m_connections.push_back(std::make_unique<Connection>(std::move(socket)));
        Connection *c = m_connections.back().get();
        c->thread = std::thread([this, c]() {
            try {
                serve(c);
            } catch (const std::exception &e) {
                logLine(wz::LogLevel_Warning, "serve",
                        std::string("connection ended: ") + e.what());
            }
            boost::system::error_code ignored;
            c->socket.shutdown(tcp::socket::shutdown_both, ignored);
            c->socket.close(ignored);
            c->done = true;
        });
    }
}

namespace {

// One exchange's writer: composes the status line and headers, applies the
// response-side faults.
class Responder
{
public:
    Responder(tcp::socket &socket, const HttpFault *fault,
              std::function<bool(std::chrono::milliseconds)> stopping)
        : m_socket(socket), m_fault(fault), m_stopping(std::move(stopping))
    { }

    // False when the connection must end.
    bool send(int status, const std::vector<std::pair<std::string, std::string>> &headers,
              const std::string &body, bool keepAlive)
    {
        return sendHead(status, headers, body.size(), keepAlive)
            && sendBody(body.data(), body.size()) && finish() && !closes();
    }

    // Whether the answer's end is the close of the connection.
    bool closes() const { return is(HttpFault::Kind::CloseDelimited); }

    // Ends a chunked body; nothing to do for the other framings.
    bool finish()
    {
        static const char kLast[] = "0\r\n\r\n";
        return !is(HttpFault::Kind::Chunked) || write(kLast, sizeof kLast - 1);
    }

    bool sendHead(int status, const std::vector<std::pair<std::string, std::string>> &headers,
                  uint64_t length, bool keepAlive)
    {
        long long announced = static_cast<long long>(length);
        if (m_fault && m_fault->kind == HttpFault::Kind::LengthOff)
            announced = std::max(0LL, announced + m_fault->lengthDelta);
        // An HTTP/1.0 answer without a length ends with the connection.
        std::string head = std::string(closes() ? "HTTP/1.0 " : "HTTP/1.1 ")
            + std::to_string(status) + " " + statusText(status) + "\r\n";
        for (const auto &h : headers)
            head += h.first + ": " + h.second + "\r\n";
        if (is(HttpFault::Kind::Chunked))
            head += "Transfer-Encoding: chunked\r\n";
        else if (!closes())
            head += "Content-Length: " + std::to_string(announced) + "\r\n";
        if (!keepAlive && !closes())
            head += "Connection: close\r\n";
        head += "\r\n";
        return write(head.data(), head.size());
    }

    bool sendBody(const char *data, size_t size)
    {
        if (is(HttpFault::Kind::Chunked)) {
            const size_t piece = std::max<size_t>(1, m_fault->bytes);
            for (size_t at = 0; at < size; at += piece) {
                const size_t n = std::min(piece, size - at);
                char line[32];
                const int length = std::snprintf(line, sizeof line, "%zx\r\n", n);
                if (!write(line, size_t(length)) || !write(data + at, n) || !write("\r\n", 2))
                    return false;
            }
            return true;
        }
        if (m_fault && m_fault->kind == HttpFault::Kind::SlowBody) {
            const size_t piece = std::max<size_t>(1, m_fault->bytes);
            for (size_t at = 0; at < size; at += piece) {
                if (at > 0 && m_stopping(m_fault->delay))
                    return false;
                if (!write(data + at, std::min(piece, size - at)))
                    return false;
            }
            return true;
        }
        return write(data, size);
    }

    bool write(const char *data, size_t size)
    {
        if (m_fault && m_fault->kind == HttpFault::Kind::DropAfter) {
            if (m_written >= m_fault->bytes)
                return false;
            const size_t room = m_fault->bytes - m_written;
            if (size > room) {
                rawWrite(data, room);
                m_written += room;
                return false;
            }
        }
        m_written += size;
        return rawWrite(data, size);
    }

private:
    bool is(HttpFault::Kind kind) const { return m_fault && m_fault->kind == kind; }

    bool rawWrite(const char *data, size_t size)
    {
        boost::system::error_code ec;
        asio::write(m_socket, asio::buffer(data, size), ec);
        return !ec;
    }

    tcp::socket &m_socket;
    const HttpFault *m_fault;
    std::function<bool(std::chrono::milliseconds)> m_stopping;
    uint64_t m_written = 0;
};

} // namespace

void FileServer::serve(Connection *connection)
{
    tcp::socket &socket = connection->socket;
    const fs::path root = m_store;
    beast::flat_buffer buffer;
    // Beast reads as much as the buffer has room for, 512 bytes at least: a
    // body read through a small buffer costs one system call per 512 bytes.
    buffer.reserve(64 * 1024);
    char chunk[64 * 1024];
    size_t served = 0;
    for (;;) {
        http::request_parser<http::buffer_body> parser;
        parser.body_limit(kBodyLimit);
        parser.header_limit(64 * 1024);
        boost::system::error_code ec;
        http::read_header(socket, buffer, parser, ec);
        if (ec) {
            if (ec != http::error::end_of_stream && ec != asio::error::eof
                && ec != asio::error::connection_reset && ec != asio::error::not_connected
                && ec != asio::error::bad_descriptor && ec != asio::error::shut_down) {
                Responder(socket, nullptr, {}).send(400, {}, "bad request\n", false);
                logLine(wz::LogLevel_Warning, __FUNCTION__, "bad request: " + ec.message());
            }
            return;
        }
        auto &request = parser.get();
        const std::string method(request.method_string());
        const std::string target(request.target());
        bool keepAlive = request.keep_alive();
        const bool expect = beast::iequals(request[http::field::expect], "100-continue");
        HttpFault fault;
        const bool faulty = takeFault(method, target, fault);
        // A keep-alive limit: the last request of the connection.
        ++served;
        const bool last = faulty && fault.kind == HttpFault::Kind::CloseAfter
            && served % std::max<size_t>(1, fault.bytes) == 0;
        if (last && fault.announce)
            keepAlive = false;
        Responder out(socket, faulty ? &fault : nullptr,
                      [this](std::chrono::milliseconds d) { return waitStopping(d); });

        // Reads (and with `file` keeps) the request body; false on a broken connection.
        bool writeFailed = false;
        auto readBody = [&](std::FILE *file) {
            // A slow disk: the body taken `bytes` at a time, `delay` apart.
            const bool slow = faulty && fault.kind == HttpFault::Kind::SlowBody && method == "PUT";
            const size_t piece
                = slow ? std::min(sizeof chunk, std::max<size_t>(1, fault.bytes)) : sizeof chunk;
            while (!parser.is_done()) {
                if (slow && waitStopping(fault.delay))
                    return false;
                parser.get().body().data = chunk;
                parser.get().body().size = piece;
                http::read(socket, buffer, parser, ec);
                if (ec == http::error::need_buffer)
                    ec = {};
                if (ec)
                    return false;
                const size_t got = piece - parser.get().body().size;
                if (file && got && std::fwrite(chunk, 1, got, file) != got)
                    file = nullptr, writeFailed = true;
            }
            return !ec;
        };
        auto refuse = [&](int status, const std::string &why) {
            logLine(wz::LogLevel_Info, "serve",
                    method + " " + target + ": " + std::to_string(status) + " " + why);
            if (expect && method == "PUT") // the body never comes: the connection ends
                return out.send(status, {}, why + "\n", false) && false;
            if (!readBody(nullptr))
                return false;
            return out.send(status, {}, why + "\n", keepAlive) && keepAlive && !last;
        };

        if (faulty && fault.kind == HttpFault::Kind::Stall) {
            // Holds the connection until the client or the server ends it.
            while (asio::read(socket, asio::buffer(chunk, 1), ec) == 1 && !ec) { }
            return;
        }
        if (faulty && fault.kind == HttpFault::Kind::Malformed) {
            const std::string bytes = fault.body.empty() ? "HTTP/1.1 banana\r\n\r\n" : fault.body;
            out.write(bytes.data(), bytes.size());
            return;
        }
        if (faulty && fault.kind == HttpFault::Kind::Status && !(method == "PUT")) {
            if (!readBody(nullptr) || !out.send(fault.status, {}, fault.body, keepAlive)
                || !keepAlive)
                return;
            continue;
        }

        std::vector<std::string> parts;
        const Refusal refusal = splitTarget(target, parts);
        if (refusal != Refusal::None) {
            if (!refuse(refusal == Refusal::Forbidden ? 403 : 400, "refused path"))
                return;
            continue;
        }

        bool keep = keepAlive;
        if (faulty && fault.kind == HttpFault::Kind::Redirect && method == "GET") {
            std::string location = fault.body;
            const auto at = target.find(fault.pathContains);
            if (location.compare(0, 7, "http://") != 0 && at != std::string::npos)
                location = std::string(target).replace(at, fault.pathContains.size(), fault.body);
            keep = readBody(nullptr)
                && out.send(fault.status ? fault.status : 301, {{"Location", location}}, "moved\n",
                            keepAlive)
                && keepAlive;
        } else if (faulty && fault.kind == HttpFault::Kind::Listing && method == "GET") {
            // A hostile robot: every GET is a directory of these names.
            std::string body;
            for (const auto &n : fault.names)
                body += n + "\n";
            keep = readBody(nullptr)
                && out.send(200, {{"morvane-file-type", "directory"}}, body, keepAlive)
                && keepAlive;
        } else if (method == "GET" || method == "HEAD") {
            bool conflict = false;
            const fs::path p = walk(root, parts, parts.size(), false, conflict);
            std::error_code sec;
            if (p.empty()) {
                keep = refuse(403, "outside the store");
            } else if (conflict || !fs::exists(p, sec)) {
                keep = refuse(404, "not found");
            } else if (fs::is_directory(p, sec)) {
                const std::string body = listing(p);
                keep = readBody(nullptr)
                    && out.send(200, {{"morvane-file-type", "directory"}}, body, keepAlive)
                    && keepAlive;
            } else if (!fs::is_regular_file(p, sec)) {
                keep = refuse(403, "not a regular file");
            } else {
                std::ifstream file(p, std::ios::binary);
                const uint64_t size = fs::file_size(p, sec);
                if (!file || sec) {
                    keep = refuse(403, "cannot read");
                } else if (!readBody(nullptr) || !out.sendHead(200, {}, size, keepAlive)) {
                    keep = false;
                } else if (method == "GET") {
                    // The whole body goes, whether or not the connection stays.
                    bool sent = true;
                    for (uint64_t left = size; sent && left > 0;) {
                        file.read(chunk, std::streamsize(std::min<uint64_t>(left, sizeof chunk)));
                        const auto got = static_cast<size_t>(file.gcount());
                        if (got == 0) // the file shrank: the announced length cannot be kept
                            sent = false;
                        else
                            sent = out.sendBody(chunk, got);
                        left -= got;
                    }
                    keep = sent && out.finish() && !out.closes() && keepAlive;
                }
            }
        } else if (method == "DELETE") {
            bool conflict = false;
            const fs::path parent
                = parts.empty() ? fs::path() : walk(root, parts, parts.size() - 1, false, conflict);
            std::error_code sec;
            if (parts.empty()) {
                keep = refuse(403, "the store itself cannot go");
            } else if (parent.empty()) {
                keep = refuse(403, "outside the store");
            } else if (conflict || !fs::exists(fs::symlink_status(parent / parts.back(), sec))) {
                keep = refuse(404, "not found");
            } else {
                // remove_all takes links away, never what they point to.
                fs::remove_all(parent / parts.back(), sec);
                if (sec)
                    keep = refuse(500, "cannot delete: " + sec.message());
                else
                    keep = readBody(nullptr) && out.send(200, {}, "", keepAlive) && keepAlive;
            }
        } else if (method == "PUT") {
            const uint64_t length = parser.content_length().value_or(0);
            bool conflict = false;
            fs::path parent;
            std::error_code sec;
            if (!parts.empty()) {
                parent = walk(root, parts, parts.size() - 1, false, conflict);
                // Missing parents are made once the checks below have passed.
                if (!parent.empty() && !conflict && !fs::exists(parent, sec))
                    parent = walk(root, parts, parts.size() - 1, true, conflict);
                if (!parent.empty() && !fs::is_directory(parent, sec))
                    conflict = true;
            }
            const fs::path destination = parent.empty() ? fs::path() : parent / parts.back();
            struct statvfs space
            {
            };
            if (parts.empty()) {
                keep = refuse(403, "the store itself cannot be written");
            } else if (parent.empty()) {
                keep = refuse(403, "outside the store");
            } else if (conflict || fs::is_directory(fs::symlink_status(destination, sec))) {
                keep = refuse(409, "a directory stands there");
            } else if (::statvfs(parent.c_str(), &space) == 0
                       && uint64_t(space.f_bavail) * space.f_frsize < length) {
                keep = refuse(507, "disk full");
            } else if (faulty && expect && fault.kind == HttpFault::Kind::FinalInsteadOfContinue) {
                out.send(200, {}, "", false);
                return;
            } else {
                if (expect && !(faulty && fault.kind == HttpFault::Kind::NoContinue)) {
                    static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
                    if (!out.write(kContinue, sizeof kContinue - 1))
                        return;
                }
                const fs::path temporary
                    = parent / ("." + parts.back() + ".part-" + std::to_string(::gettid()));
                std::FILE *file = std::fopen(temporary.c_str(), "wbe");
                const bool received = readBody(file);
                const bool written = file && std::fflush(file) == 0 && !writeFailed;
                if (file)
                    std::fclose(file);
                if (!received) {
                    fs::remove(temporary, sec);
                    return;
                }
                if (!written) {
                    fs::remove(temporary, sec);
                    keep = out.send(507, {}, "disk full\n", keepAlive) && keepAlive;
                } else if (fs::rename(temporary, destination, sec); sec) {
                    fs::remove(temporary, sec);
                    keep = out.send(500, {}, "cannot store the file\n", keepAlive) && keepAlive;
                } else if (faulty && fault.kind == HttpFault::Kind::Status) {
                    keep = out.send(fault.status, {}, fault.body, keepAlive) && keepAlive;
                } else {
                    keep = out.send(201, {}, "", keepAlive) && keepAlive;
                }
            }
        } else {
            keep = refuse(405, "method not allowed");
        }
        if (!keep || last)
            return;
    }
}

} // namespace sim
