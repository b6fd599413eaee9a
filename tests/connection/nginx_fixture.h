#pragma once

// The fixture of the transfers against nginx (tests/support/nginx_server.h):
// one server for the suite, one synchronizer for each case, and operations
// run to their end.
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

namespace nginx_test {

namespace fs = std::filesystem;
using test::k_nginxXsltModule;
using test::Nginx;
using test::nginxBinary;

inline void writeFile(wz::project::ProjectModel &model, const QString &path,
                      const QByteArray &bytes)
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

inline QMap<QString, QByteArray> contents(wz::project::ProjectModel &model)
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
        if (!test::waitUntil([&] { return ended > before; }))
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

    static inline Nginx *server = nullptr;
    static inline QString startError;
    std::unique_ptr<RK::HttpProjectSynchronizer> sync;
    int ended = 0;
    QStringList reasons;
};

} // namespace nginx_test
