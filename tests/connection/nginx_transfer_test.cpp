// Push, merge, pull and remove against a standard HTTP server nobody here
// wrote: nginx from the distribution, started by the test on a free loopback
// port with WebDAV PUT and DELETE, and the dialect's directory listing made
// from its XML index by an XSLT stylesheet, sent chunked.
#include <connection/http_project_synchronizer.h>

#include "http_connection_p.h"
#include "nginx_server.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

namespace {

namespace fs = std::filesystem;
using test::k_nginxXsltModule;
using test::Nginx;
using test::nginxBinary;

bool processUntil(const std::function<bool()> &done, int ms)
{
    return test::processEventsUntil(done, ms);
}

void writeFile(wz::project::ProjectModel &model, const QString &path, const QByteArray &bytes)
{
    const QString dir = QFileInfo(path).path();
    if (dir != QLatin1String(".")) {
        ASSERT_TRUE(model.mkdir(dir, true));
    }
    FILE *f = model.fopen(path, QStringLiteral("wb"));
    ASSERT_NE(f, nullptr);
    if (!bytes.isEmpty()) {
        EXPECT_EQ(fwrite(bytes.constData(), 1, size_t(bytes.size()), f), size_t(bytes.size()));
    }
    fclose(f);
}

QMap<QString, QByteArray> contents(wz::project::ProjectModel &model)
{
    QMap<QString, QByteArray> all;
    for (const QString &f : model.getFileList(QString(), true, true, false)) {
        QFile file(model.rootPath() + QLatin1Char('/') + f);
        all[f] = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }
    return all;
}

class NginxTransferTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        if (nginxBinary().isEmpty())
            return;
        server = new Nginx;
        if (!server->start(startError)) {
            delete server;
            server = nullptr;
        }
    }
    static void TearDownTestSuite()
    {
        delete server;
        server = nullptr;
    }
    void SetUp() override
    {
        if (nginxBinary().isEmpty())
            GTEST_SKIP() << "nginx is not installed: scripts/dev.sh deps installs it";
        ASSERT_TRUE(QFileInfo::exists(QString::fromLatin1(k_nginxXsltModule)))
            << "nginx's XSLT module is missing: scripts/dev.sh deps installs it";
        ASSERT_NE(server, nullptr) << startError.toStdString();
        sync = std::make_unique<RK::HttpProjectSynchronizer>();
        sync->setNoDataTimeout(5000);
        QObject::connect(sync.get(), &RK::ProjectSynchronizer::done, [this] { ++ended; });
        QObject::connect(sync.get(), &RK::ProjectSynchronizer::aborted, [this](const QString &why) {
            ++ended;
            reasons << why;
        });
    }

    // Runs one operation to its end; its error, "" for done().
    QString run(const std::function<void()> &start)
    {
        const int before = ended;
        const int failures = reasons.size();
        start();
        if (!processUntil([&] { return ended > before; }, 8000))
            return QStringLiteral("<no end>");
        return reasons.size() > failures ? reasons.last() : QString();
    }
    QString push(wz::project::ProjectModel &m, const QString &path, bool merge = false)
    {
        return run([&] {
            if (merge)
                sync->pushMerge("127.0.0.1", server->port(), &m, path,
                                wz::project::ArchiveFormat_Plain);
            else
                sync->push("127.0.0.1", server->port(), &m, path, wz::project::ArchiveFormat_Plain);
        });
    }
    QString pull(wz::project::ProjectModel &m, const QString &path)
    {
        return run([&] {
            sync->pull("127.0.0.1", server->port(), path, &m, wz::project::ArchiveFormat_Plain);
        });
    }
    QString remove(const QString &path)
    {
        return run([&] {
            sync->remove("127.0.0.1", server->port(), path, wz::project::ArchiveFormat_Plain);
        });
    }
    static std::unique_ptr<wz::project::ProjectModel> newModel()
    {
        auto m = std::make_unique<wz::project::ProjectModel>();
        m->createNew();
        return m;
    }

    static Nginx *server;
    static QString startError;
    std::unique_ptr<RK::HttpProjectSynchronizer> sync;
    int ended = 0;
    QStringList reasons;
};

Nginx *NginxTransferTest::server = nullptr;
QString NginxTransferTest::startError;

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

// nginx closes a kept-alive connection after 1000 requests: the transfer
// goes on over a new one, both ways.
TEST_F(NginxTransferTest, ManySmallFilesOutlastTheKeepAliveLimit)
{
    auto source = newModel();
    for (int i = 0; i < 1500; ++i)
        writeFile(*source, QStringLiteral("f%1/%2.txt").arg(i % 10).arg(i), QByteArray::number(i));
    EXPECT_EQ(push(*source, QStringLiteral("/many")), QString());
    auto back = newModel();
    EXPECT_EQ(pull(*back, QStringLiteral("/many")), QString());
    EXPECT_EQ(contents(*back), contents(*source));
    EXPECT_EQ(remove(QStringLiteral("/many")), QString());
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
