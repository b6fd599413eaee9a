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
    EXPECT_TRUE(parseContentLength("3000000000", length)); // past 2 GiB
    EXPECT_EQ(length, 3000000000LL);
    for (const char *bad : {"", "-1", "1e3", "0x10", "99999999999999999999", "2000000000000"})
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

TEST(HttpReader, TargetsAreOriginFormWithoutDotSegments)
{
    const QList<QPair<const char *, const char *>> cases = {
        {"", "/"},          {"proj", "/proj"},       {"/a/b/", "/a/b/"},         {"//a//b", "/a/b"},
        {"/a/./b", "/a/b"}, {"/a/b/..", "/a/"},      {"/a/../../b", "/b"},       {"/.", "/"},
        {"/a/..", "/"},     {"a/b/../c/.", "/a/c/"}, {"/a/.b/..c", "/a/.b/..c"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(normalizeTarget(c.first), c.second) << c.first;
    for (const char *root : {"", "/", "//", "/.", "/./", "/a/..", "..", "/../a", "a/../../b"})
        EXPECT_TRUE(namesStoreRoot(root)) << root;
    for (const char *below : {"/a", "a/b/..", "/..a", "/a/./"})
        EXPECT_FALSE(namesStoreRoot(below)) << below;
}

TEST(HttpReader, FramingFollowsTheStatusAndHeaders)
{
    qint64 length = 0;
    using H = QMap<QString, QString>;
    EXPECT_EQ(framingOf("GET", 200, H {{"content-length", "12"}}, length), Framing::Length);
    EXPECT_EQ(length, 12);
    EXPECT_EQ(framingOf("GET", 200, H {{"content-length", "7, 7"}}, length), Framing::Length);
    EXPECT_EQ(framingOf("GET", 200, H {{"content-length", "7, 8"}}, length), Framing::Bad);
    // Chunked wins over a length; chunked not last is read to the close.
    EXPECT_EQ(framingOf("GET", 200,
                        H {{"transfer-encoding", "gzip, Chunked"}, {"content-length", "3"}},
                        length),
              Framing::Chunked);
    EXPECT_EQ(framingOf("GET", 200, H {{"transfer-encoding", "chunked, gzip"}}, length),
              Framing::UntilClose);
    EXPECT_EQ(framingOf("GET", 200, H {}, length), Framing::UntilClose);
    for (int code : {100, 204, 304})
        EXPECT_EQ(framingOf("GET", code, H {{"content-length", "5"}}, length), Framing::None);
    EXPECT_EQ(framingOf("HEAD", 200, H {{"content-length", "5"}}, length), Framing::None);

    EXPECT_TRUE(keepsAlive("HTTP/1.1", H {}));
    EXPECT_FALSE(keepsAlive("HTTP/1.1", H {{"connection", "Keep-Alive, Close"}}));
    EXPECT_FALSE(keepsAlive("HTTP/1.0", H {}));
    EXPECT_TRUE(keepsAlive("HTTP/1.0", H {{"connection", "keep-alive"}}));

    qint64 size = 0;
    EXPECT_TRUE(parseChunkSize("1aF;name=value\r\n", size));
    EXPECT_EQ(size, 0x1af);
    for (const char *bad : {"\r\n", "-1\r\n", "0x10\r\n", "g\r\n", "ffffffffffff\r\n"})
        EXPECT_FALSE(parseChunkSize(bad, size)) << bad;
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
    EXPECT_TRUE(parseResponseBytes("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n"
                                   "morvane-file-type: directory\r\n\r\n"
                                   "4\r\na/\nb\r\n0\r\n\r\n"));
    EXPECT_FALSE(parseResponseBytes("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n"
                                    "morvane-file-type: directory\r\n\r\n"
                                    "5\r\n../x\n\r\n0\r\n\r\n"));
    EXPECT_FALSE(parseResponseBytes("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                    "2\r\nabc\r\n0\r\n\r\n"));
    EXPECT_FALSE(parseResponseBytes("HTTP/1.1 200 OK\r\nmorvane-file-type: directory\r\n"
                                    "Content-Length: 5\r\n\r\n../x\n"));
}

} // namespace
