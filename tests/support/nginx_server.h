#pragma once

// nginx from the distribution as a standard HTTP server for the project
// transfers: started in the foreground on a free loopback port, with WebDAV
// PUT and DELETE, and the dialect's directory listing (with its header) made
// from nginx's XML index by an XSLT stylesheet, sent chunked. Its prefix,
// pid, logs and temporary files live in a temporary directory of its own.
// Shared by the integration test and the transfer benchmark.

#include "wait_until.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <filesystem>
#include <functional>
#include <memory>

namespace test {

inline const char *const k_nginxXsltModule
    = "/usr/lib/nginx/modules/ngx_http_xslt_filter_module.so";

inline QString nginxBinary()
{
    QString found = QStandardPaths::findExecutable(QStringLiteral("nginx"));
    if (found.isEmpty())
        found = QStandardPaths::findExecutable(
            QStringLiteral("nginx"), {QStringLiteral("/usr/sbin"), QStringLiteral("/sbin")});
    return found;
}

// One nginx in the foreground, its prefix, pid, logs and temporary files in
// a directory of its own; it goes with the object.
class Nginx
{
public:
    bool start(QString &why)
    {
        if (!m_dir.isValid()) {
            why = QStringLiteral("no temporary directory");
            return false;
        }
        const QString d = m_dir.path();
        QDir().mkpath(d + QStringLiteral("/root"));
        QFile xsl(d + QStringLiteral("/listing.xsl"));
        if (!xsl.open(QIODevice::WriteOnly))
            return false;
        // Sub-directories with their "/", then files; one name a line.
        xsl.write(R"(<?xml version="1.0"?>
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
<xsl:output method="text" encoding="UTF-8" media-type="text/plain"/>
<xsl:template match="/list">
<xsl:for-each select="directory"><xsl:value-of select="."/><xsl:text>/&#10;</xsl:text></xsl:for-each>
<xsl:for-each select="file"><xsl:value-of select="."/><xsl:text>&#10;</xsl:text></xsl:for-each>
</xsl:template>
</xsl:stylesheet>
)");
        xsl.close();
        for (int attempt = 0; attempt < 3; ++attempt) {
            QTcpServer probe;
            if (!probe.listen(QHostAddress::LocalHost)) {
                why = QStringLiteral("no free port");
                return false;
            }
            m_port = probe.serverPort();
            probe.close();
            if (!writeConfig(why))
                return false;
            m_process = std::make_unique<QProcess>();
            m_process->setProcessChannelMode(QProcess::MergedChannels);
            m_process->start(nginxBinary(),
                             {QStringLiteral("-p"), d, QStringLiteral("-c"),
                              d + QStringLiteral("/nginx.conf"), QStringLiteral("-e"),
                              d + QStringLiteral("/error.log")});
            if (!m_process->waitForStarted(5000)) {
                why = QStringLiteral("nginx did not start: ") + m_process->errorString();
                return false;
            }
            if (waitUntil([this] { return accepts() || m_process->state() != QProcess::Running; })
                && m_process->state() == QProcess::Running)
                return true;
            why = QString::fromLocal8Bit(m_process->readAll()) + log();
            stop();
        }
        return false;
    }

    void stop()
    {
        if (m_process && m_process->state() != QProcess::NotRunning) {
            m_process->terminate();
            if (!m_process->waitForFinished(5000))
                m_process->kill();
            m_process->waitForFinished(5000);
        }
        m_process.reset();
    }

    ~Nginx() { stop(); }

    int port() const { return m_port; }
    std::filesystem::path root() const
    {
        return std::filesystem::path(m_dir.path().toStdString()) / "root";
    }
    QString log() const
    {
        QFile f(m_dir.path() + QStringLiteral("/error.log"));
        return f.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(f.readAll()) : QString();
    }

private:
    bool accepts() const
    {
        QTcpSocket s;
        s.connectToHost(QHostAddress::LocalHost, quint16(m_port));
        return s.waitForConnected(200);
    }

    bool writeConfig(QString &why)
    {
        const QString d = m_dir.path();
        QFile conf(d + QStringLiteral("/nginx.conf"));
        if (!conf.open(QIODevice::WriteOnly)) {
            why = QStringLiteral("cannot write the configuration");
            return false;
        }
        // One process in the foreground: no user switch, nothing outside d.
        // keepalive_requests stays at its default of 1000.
        conf.write(QStringLiteral(R"(load_module %3;
daemon off;
master_process off;
pid %1/nginx.pid;
error_log %1/error.log warn;
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path %1/body;
  proxy_temp_path %1/proxy;
  fastcgi_temp_path %1/fastcgi;
  uwsgi_temp_path %1/uwsgi;
  scgi_temp_path %1/scgi;
  server {
    listen 127.0.0.1:%2;
    root %1/root;
    client_max_body_size 0;
    dav_methods PUT DELETE;
    create_full_put_path on;
    index .no-index-here;
    location ~ /$ {
      autoindex on;
      autoindex_format xml;
      xslt_stylesheet %1/listing.xsl;
      add_header morvane-file-type directory;
      # Server-side includes drop the length: every listing goes chunked.
      ssi on;
      ssi_types text/plain;
    }
  }
}
)")
                       .arg(d)
                       .arg(m_port)
                       .arg(QString::fromLatin1(k_nginxXsltModule))
                       .toUtf8());
        return true;
    }

    QTemporaryDir m_dir;
    std::unique_ptr<QProcess> m_process;
    int m_port = 0;
};

} // namespace test
