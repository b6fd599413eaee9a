// The robot's file server, reached by a real HTTP client over loopback.
#include "shared_robot.h"
#include "sim_test_support.h"

#include <sim/device_services.h>
#include <sim/robot.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace fs = std::filesystem;
using tcp = asio::ip::tcp;

std::string readFile(const fs::path &p)
{
    std::ifstream in(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class FileServerTest : public test::SharedRobotTest
{
protected:
    static void SetUpTestSuite()
    {
        outside = fs::temp_directory_path() / ("fs-test-outside-" + std::to_string(::getpid()));
        fs::create_directories(outside);
        std::ofstream(outside / "secret") << "keep out";
        SharedRobotTest::SetUpTestSuite();
        service = robot().serviceAs<sim::PackageManagerService>("PackageManager");
    }
    static void TearDownTestSuite()
    {
        SharedRobotTest::TearDownTestSuite();
        fs::remove_all(outside);
    }
    void SetUp() override
    {
        store = service->storeDir();
        for (const auto &e : fs::directory_iterator(store))
            fs::remove_all(e.path());
        service->clearHttpFault();
        socket.connect({asio::ip::make_address("127.0.0.1"),
                        static_cast<unsigned short>(robot().httpTransferPort())});
    }

    http::response<http::string_body> exchange(http::verb verb, const std::string &target,
                                               const std::string &body = std::string())
    {
        http::request<http::string_body> request(verb, target, 11);
        if (verb == http::verb::put) {
            request.body() = body;
            request.prepare_payload();
        }
        http::write(socket, request);
        http::response_parser<http::string_body> parser;
        parser.skip(verb == http::verb::head);
        http::read(socket, buffer, parser);
        return parser.release();
    }

    // The raw answer's first line, for what a library client would refuse to send.
    std::string rawStatus(const std::string &requestText)
    {
        asio::write(socket, asio::buffer(requestText));
        http::response_parser<http::string_body> parser;
        http::read(socket, buffer, parser);
        return std::to_string(parser.get().result_int());
    }

    static sim::PackageManagerService *service;
    static fs::path outside;
    fs::path store;
    asio::io_context io;
    tcp::socket socket {io};
    beast::flat_buffer buffer;
};

sim::PackageManagerService *FileServerTest::service = nullptr;
fs::path FileServerTest::outside;

TEST_F(FileServerTest, PutGetListAndDeleteOnOneConnection)
{
    EXPECT_EQ(exchange(http::verb::put, "/proj/sub%20dir/caf%C3%A9.txt", "hello").result_int(),
              201);
    EXPECT_EQ(exchange(http::verb::put, "//proj//empty", "").result_int(), 201);
    EXPECT_EQ(readFile(fs::path(store) / "proj" / "sub dir" / "café.txt"), "hello");

    auto got = exchange(http::verb::get, "/proj/sub%20dir/caf%C3%A9.txt");
    EXPECT_EQ(got.result_int(), 200);
    EXPECT_EQ(got.body(), "hello");
    EXPECT_EQ(got[http::field::content_length], "5");
    EXPECT_EQ(exchange(http::verb::get, "/proj/empty").body(), "");

    for (const char *dir : {"/proj", "/proj/"}) {
        auto listing = exchange(http::verb::get, dir);
        EXPECT_EQ(listing.result_int(), 200);
        EXPECT_EQ(listing["morvane-file-type"], "directory");
        EXPECT_EQ(listing.body(), "empty\nsub dir/\n");
    }
    EXPECT_EQ(exchange(http::verb::get, "/nothing").result_int(), 404);
    // A file where a directory must go.
    EXPECT_EQ(exchange(http::verb::put, "/proj/empty/x", "1").result_int(), 409);
    EXPECT_EQ(exchange(http::verb::put, "/proj", "1").result_int(), 409);

    EXPECT_EQ(exchange(http::verb::delete_, "/proj").result_int(), 200);
    EXPECT_FALSE(fs::exists(fs::path(store) / "proj"));
    EXPECT_EQ(exchange(http::verb::delete_, "/proj").result_int(), 404);
}

TEST_F(FileServerTest, ExpectContinueChecksBeforeTheBody)
{
    fs::create_directories(fs::path(store) / "d");
    // Refused before any byte of the body: the answer comes instead of 100.
    asio::write(socket,
                asio::buffer(std::string("PUT /d HTTP/1.1\r\nContent-Length: 3\r\n"
                                         "Expect: 100-continue\r\n\r\n")));
    std::string head(12, '\0');
    asio::read(socket, asio::buffer(&head[0], head.size()));
    EXPECT_EQ(head, "HTTP/1.1 409");

    tcp::socket second(io);
    second.connect(socket.remote_endpoint());
    asio::write(second,
                asio::buffer(std::string("PUT /d/f HTTP/1.1\r\nContent-Length: 3\r\n"
                                         "Expect: 100-continue\r\n\r\n")));
    std::string interim(25, '\0');
    asio::read(second, asio::buffer(&interim[0], interim.size()));
    EXPECT_EQ(interim, "HTTP/1.1 100 Continue\r\n\r\n");
    asio::write(second, asio::buffer(std::string("abc")));
    http::response<http::string_body> final;
    http::read(second, buffer, final);
    EXPECT_EQ(final.result_int(), 201);
    EXPECT_EQ(readFile(fs::path(store) / "d" / "f"), "abc");
    // No temporary file is left beside it.
    EXPECT_EQ(
        std::distance(fs::directory_iterator(fs::path(store) / "d"), fs::directory_iterator()), 1);
}

TEST_F(FileServerTest, HostilePathsNeverLeaveTheStore)
{
    fs::create_symlink(outside, fs::path(store) / "link");
    fs::create_directories(fs::path(store) / "in");
    fs::create_symlink(fs::path(store) / "in", fs::path(store) / "inner");

    for (const char *target :
         {"/../../etc/passwd", "/%2e%2e/etc/passwd", "/a/%2E%2E/%2e%2e/etc/passwd", "/a/b%00c",
          "/link/secret", "/link"}) {
        SCOPED_TRACE(target);
        EXPECT_EQ(rawStatus(std::string("GET ") + target + " HTTP/1.1\r\n\r\n"), "403");
        EXPECT_EQ(
            rawStatus(std::string("PUT ") + target + "/x HTTP/1.1\r\nContent-Length: 2\r\n\r\nno"),
            "403");
        EXPECT_EQ(rawStatus(std::string("DELETE ") + target + "/secret HTTP/1.1\r\n\r\n"), "403");
    }
    EXPECT_EQ(rawStatus("GET /%zz HTTP/1.1\r\n\r\n"), "400");
    for (const char *root : {"/", "", "//", "/./"}) {
        SCOPED_TRACE(root);
        EXPECT_EQ(rawStatus(std::string("DELETE ") + (*root ? root : "/") + " HTTP/1.1\r\n\r\n"),
                  "403");
        EXPECT_EQ(rawStatus(std::string("PUT ") + (*root ? root : "/")
                            + " HTTP/1.1\r\nContent-Length: 1\r\n\r\nx"),
                  "403");
    }
    // A link that stays inside works; deleting a link never touches its target.
    EXPECT_EQ(exchange(http::verb::put, "/inner/ok", "1").result_int(), 201);
    EXPECT_TRUE(fs::exists(fs::path(store) / "in" / "ok"));
    EXPECT_EQ(exchange(http::verb::delete_, "/link").result_int(), 200);
    EXPECT_EQ(readFile(outside / "secret"), "keep out");
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);
    EXPECT_TRUE(fs::exists(fs::path(store) / "in"));
}

TEST_F(FileServerTest, FaultsHitOnlyMatchingRequestsAndEnd)
{
    exchange(http::verb::put, "/f", std::string(5000, 'x'));
    sim::HttpFault fault;
    fault.kind = sim::HttpFault::Kind::LengthOff;
    fault.method = "GET";
    fault.lengthDelta = -10;
    fault.times = 1;
    service->setHttpFault(fault);
    EXPECT_EQ(exchange(http::verb::get, "/f").body().size(), 4990u);

    tcp::socket second(io);
    second.connect(socket.remote_endpoint());
    fault.kind = sim::HttpFault::Kind::DropAfter;
    fault.bytes = 100;
    service->setHttpFault(fault);
    asio::write(second, asio::buffer(std::string("GET /f HTTP/1.1\r\n\r\n")));
    std::string all;
    boost::system::error_code ec;
    char chunk[4096];
    for (size_t n; (n = second.read_some(asio::buffer(chunk), ec)) > 0 || !ec;)
        all.append(chunk, n);
    EXPECT_EQ(all.size(), 100u);

    // Used up: the next answer is whole again.
    tcp::socket third(io);
    third.connect(socket.remote_endpoint());
    socket = std::move(third);
    buffer.clear();
    EXPECT_EQ(exchange(http::verb::get, "/f").body().size(), 5000u);
}

} // namespace
