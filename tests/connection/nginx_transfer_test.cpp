// Push, merge, pull and remove against a standard HTTP server nobody here
// wrote: nginx from the distribution, started by the test on a free loopback
// port with WebDAV PUT and DELETE, and the dialect's directory listing made
// from its XML index by an XSLT stylesheet, sent chunked.
#include "nginx_fixture.h"

#include "http_connection_p.h"

#include <QTcpSocket>

namespace {

using namespace nginx_test;

TEST_F(NginxTransferTest, TreeRoundTripsThroughPushMergePullAndRemove)
{
    auto source = newModel();
    for (int i = 0; i < 296; ++i)
        writeFile(*source, QStringLiteral("dir%1/sub/file%2.txt").arg(i % 7).arg(i),
                  QByteArray::number(i).repeated(1 + i % 50));
    writeFile(*source, QStringLiteral("with space/a b.txt"), "spaced");
    writeFile(*source, QStringLiteral("café/naïve ü.txt"), "non-ASCII");
    writeFile(*source, QStringLiteral("empty"), QByteArray());
    QByteArray big(20 << 20, Qt::Uninitialized);
    for (int i = 0; i < big.size(); ++i)
        big[i] = char((i * 2654435761u) >> 13);
    writeFile(*source, QStringLiteral("big.bin"), big);
    source->setMetadata(QStringLiteral("name"), QStringLiteral("round trip"));
    const auto sent = contents(*source);
    ASSERT_EQ(sent.size(), 300);

    EXPECT_EQ(push(*source, QStringLiteral("/projects/tree")), QString());
    EXPECT_TRUE(fs::exists(server->root() / "projects/tree/café/naïve ü.txt"));

    auto back = newModel();
    EXPECT_EQ(pull(*back, QStringLiteral("/projects/tree")), QString());
    EXPECT_EQ(contents(*back), sent);
    EXPECT_EQ(back->getMetadata(), source->getMetadata());

    // A merge keeps what stands; a plain push replaces it.
    auto extra = newModel();
    writeFile(*extra, QStringLiteral("added.txt"), "added");
    EXPECT_EQ(push(*extra, QStringLiteral("/projects/tree"), true), QString());
    EXPECT_TRUE(fs::exists(server->root() / "projects/tree/big.bin"));
    EXPECT_TRUE(fs::exists(server->root() / "projects/tree/added.txt"));
    EXPECT_EQ(push(*extra, QStringLiteral("projects/tree")), QString());
    EXPECT_FALSE(fs::exists(server->root() / "projects/tree/big.bin"));
    EXPECT_TRUE(fs::exists(server->root() / "projects/tree/added.txt"));

    // Remove, and a second remove of what is gone; the root never goes.
    EXPECT_EQ(remove(QStringLiteral("/projects/tree")), QString());
    EXPECT_FALSE(fs::exists(server->root() / "projects/tree"));
    EXPECT_EQ(remove(QStringLiteral("/projects/tree")), QString());
    for (const char *root : {"/.", "/./", "/projects/..", "/.."})
        EXPECT_TRUE(
            remove(QString::fromLatin1(root)).startsWith("Could not DELETE remote project.\n"))
            << root;
    EXPECT_TRUE(fs::exists(server->root() / "projects"));

    // Pulling what is not there fails and names the answer.
    auto none = newModel();
    EXPECT_EQ(pull(*none, QStringLiteral("/projects/tree")),
              "could not check for remote files\nGET /projects/tree/ answered 404 Not Found");
}

// The listing really comes chunked, and a directory asked without its "/"
// is reached through nginx's redirect.
TEST_F(NginxTransferTest, ChunkedListingAndRedirectToTheSlash)
{
    fs::create_directories(server->root() / "plain/sub");
    QFile(QString::fromStdString((server->root() / "plain/sub/x.txt").native()))
        .open(QIODevice::WriteOnly);

    QTcpSocket raw;
    raw.connectToHost(QHostAddress::LocalHost, quint16(server->port()));
    ASSERT_TRUE(raw.waitForConnected(2000));
    raw.write("GET /plain/ HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (raw.state() == QAbstractSocket::ConnectedState && raw.waitForReadyRead(2000))
        answer += raw.readAll();
    answer += raw.readAll();
    EXPECT_TRUE(answer.toLower().contains("transfer-encoding: chunked")) << answer.toStdString();

    RK::TransferLimits limits;
    limits.noDataTimeout = 5000;
    RK::HttpConnection http("127.0.0.1", server->port(), limits);
    ASSERT_TRUE(http.open()) << http.error().toStdString();
    RK::HttpResponse response;
    ASSERT_TRUE(http.get(QStringLiteral("/plain/sub"), response)) << http.error().toStdString();
    EXPECT_EQ(response.code, 200);
    EXPECT_EQ(response.headers.value("morvane-file-type"), "directory");
    EXPECT_EQ(response.body, "x.txt\n");
    QStringList files;
    ASSERT_TRUE(http.listTree(QStringLiteral("plain"), files)) << http.error().toStdString();
    EXPECT_EQ(files, QStringList {"sub/x.txt"});
}

} // namespace
