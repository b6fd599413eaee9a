// The HTTP response reader's parsing on raw bytes, and its fuzz corpus replayed.
#include "http_helpers_p.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

using namespace RK::HttpHelpers;

TEST(HttpReader, StatusAndHeaderLinesComeWithoutTheirTerminator)
{
    int code = 0;
    QString text;
    QMap<QString, QString> headers;
    EXPECT_EQ(parseResponseLine("HTTP/1.1 200 OK\r\n", false, code, text, headers),
              LineResult::Status);
    EXPECT_EQ(code, 200);
    EXPECT_EQ(text, "OK");
    EXPECT_EQ(parseResponseLine("Content-Length: 12\r\n", true, code, text, headers),
              LineResult::Header);
    EXPECT_EQ(parseResponseLine("morvane-file-type:directory\n", true, code, text, headers),
              LineResult::Header);
    EXPECT_EQ(headers.value("content-length"), "12");
    EXPECT_EQ(headers.value("morvane-file-type"), "directory");
    EXPECT_EQ(parseResponseLine("\r\n", true, code, text, headers), LineResult::End);
    // One blank only, a line that is no answer, a header without a colon, a NUL.
    EXPECT_EQ(parseResponseLine("HTTP/1.1 200\r\n", false, code, text, headers), LineResult::Bad);
    EXPECT_EQ(parseResponseLine("haHTTP/1.1 200 OK\r\n", false, code, text, headers),
              LineResult::Bad);
    EXPECT_EQ(parseResponseLine("no colon\r\n", true, code, text, headers), LineResult::Bad);
    EXPECT_EQ(parseResponseLine(QByteArray("a: b\0c\r\n", 8), true, code, text, headers),
              LineResult::Bad);
}

TEST(HttpReader, LengthsAndListingsAreChecked)
{
    qint64 length = 0;
    EXPECT_TRUE(parseContentLength(" 12 ", length));
    EXPECT_EQ(length, 12);
    for (const char *bad : {"", "-1", "1e3", "0x10", "99999999999999999999", "3000000000"})
        EXPECT_FALSE(parseContentLength(bad, length)) << bad;

    QStringList names;
    QString error;
    EXPECT_TRUE(parseListing("a.txt\n\nsub dir/\ncafé\n", names, error));
    EXPECT_EQ(names, (QStringList {"a.txt", "sub dir/", "café"}));
    for (const char *bad :
         {"../x\n", "..\n", "./\n", "/etc/passwd\n", "a/b\n", "a\r\nb\n", "x\ty\n"}) {
        EXPECT_FALSE(parseListing(bad, names, error)) << bad;
        EXPECT_TRUE(error.startsWith("the robot listed")) << error.toStdString();
    }
    // A name can never end the request line it goes into.
    EXPECT_EQ(encodePath("/a b/c\r\nd%?#é"), QByteArray("/a%20b/c%0D%0Ad%25%3F%23%C3%A9"));
}

TEST(HttpReader, CorpusReplaysWithoutHarm)
{
    const QDir corpus(QStringLiteral(NIMIOB_HTTP_CORPUS));
    const QStringList files = corpus.entryList(QDir::Files);
    ASSERT_FALSE(files.isEmpty());
    for (const QString &name : files) {
        QFile f(corpus.filePath(name));
        ASSERT_TRUE(f.open(QIODevice::ReadOnly));
        const QByteArray bytes = f.readAll();
        nimiobFuzzHttpResponse(reinterpret_cast<const unsigned char *>(bytes.constData()),
                               size_t(bytes.size()));
    }
    EXPECT_TRUE(parseResponseBytes("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"));
    EXPECT_FALSE(parseResponseBytes("HTTP/1.1 200 OK\r\nmorvane-file-type: directory\r\n"
                                    "Content-Length: 5\r\n\r\n../x\n"));
}

} // namespace
