#include <wz/project/project_model.h>

#include <wz/log.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

using wz::project::PathNotFound;
using wz::project::PathOutsideRoot;
using wz::project::ProjectError;
using wz::project::ProjectModel;

namespace {

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly)) << path.toStdString();
    f.write(bytes);
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
}

// A project next to a directory it must never reach, with links that try to.
class ProjectModelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(tmp.isValid());
        root = tmp.path() + "/project";
        outside = tmp.path() + "/outside";
        ASSERT_TRUE(QDir().mkpath(root + "/sub/deeper"));
        ASSERT_TRUE(QDir().mkpath(outside));
        writeFile(outside + "/secret", "secret");
        writeFile(root + "/main.xml", "<main/>");
        writeFile(root + "/sub/deeper/a.txt", "a");
        writeFile(root + "/.hidden", "h");
        link(outside, root + "/escape");
        link(outside + "/secret", root + "/escape_file");
        link(outside + "/not_yet", root + "/dangling");
        link(root + "/sub/deeper/a.txt", root + "/inner_link");
        link(root + "/sub", root + "/sub_link");
        model.open(root);
    }

    static void link(const QString &target, const QString &at)
    {
        ASSERT_EQ(
            ::symlink(QFile::encodeName(target).constData(), QFile::encodeName(at).constData()), 0);
    }

    QStringList outsideEntries() const
    {
        return QDir(outside).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }

    QTemporaryDir tmp;
    QString root;
    QString outside;
    ProjectModel model;
};

} // namespace

TEST_F(ProjectModelTest, PathsLeavingTheRootAreRefusedEverywhere)
{
    const QStringList hostile = {"../outside/secret",
                                 "sub/../../outside/secret",
                                 "sub/..",
                                 "/etc/passwd",
                                 QDir(outside).absoluteFilePath("secret"),
                                 "escape/secret",
                                 "escape_file",
                                 "escape/new_file",
                                 "dangling",
                                 "sub_link/../../outside/secret",
                                 QString("main.xml") + QChar(0) + "x"};
    for (const QString &path : hostile) {
        SCOPED_TRACE(path.toStdString());
        wz::log::LogCapture capture;
        EXPECT_EQ(model.fopen(path, "rb"), nullptr);
        EXPECT_EQ(model.fopen(path, "wb"), nullptr);
        EXPECT_EQ(model.fopen(path, "ab"), nullptr);
        EXPECT_TRUE(capture.contains(wz::LogLevel_Warning, "wz.project", "refused"));
        EXPECT_FALSE(model.mkdir(path + "/dir", true));
        EXPECT_FALSE(model.exists(path));
        EXPECT_THROW(model.fileSize(path), PathOutsideRoot);
        EXPECT_THROW(model.importFile(root + "/main.xml", path, true), ProjectError);
    }
    // Nothing leaked out, nothing was created or truncated there.
    EXPECT_EQ(outsideEntries(), QStringList {"secret"});
    EXPECT_EQ(readFile(outside + "/secret"), "secret");

    // A PathOutsideRoot is a PathNotFound, so the transfer code that catches
    // the latter copes with both.
    try {
        model.fileSize("../outside/secret");
        FAIL() << "no exception";
    } catch (const PathNotFound &e) {
        EXPECT_NE(std::string(e.what()).find("\"..\" would leave the project root"),
                  std::string::npos)
            << e.what();
    }
}

TEST_F(ProjectModelTest, LinksInsideTheRootAndDoubledSlashesWork)
{
    EXPECT_EQ(model.fileSize("inner_link"), 1u);
    EXPECT_EQ(model.fileSize("sub//deeper///a.txt"), 1u);
    EXPECT_EQ(model.fileSize("./sub/./deeper/a.txt"), 1u);
    EXPECT_TRUE(model.mkdir("sub_link/new", false));
    EXPECT_TRUE(QDir(root + "/sub/new").exists());

    FILE *f = model.fopen("sub_link//new/out.bin", "wb");
    ASSERT_NE(f, nullptr);
    std::fputs("xyz", f);
    std::fclose(f);
    EXPECT_EQ(readFile(root + "/sub/new/out.bin"), "xyz");
}

TEST_F(ProjectModelTest, FileListHasRelativeSortedPathsAndSkipsLinksOut)
{
    EXPECT_EQ(model.getFileList("", true, true, false),
              (QStringList {".hidden", "inner_link", "main.xml", "sub/deeper/a.txt"}));
    EXPECT_EQ(model.getFileList("sub", true, false, false),
              (QStringList {"sub/deeper", "sub/deeper/a.txt"}));
    EXPECT_EQ(model.getFileList("sub//deeper", false, true, false),
              QStringList {"sub/deeper/a.txt"});
    EXPECT_EQ(model.getFileList("", false, false, false),
              (QStringList {".hidden", "inner_link", "main.xml", "sub"}));

    ASSERT_TRUE(model.setMetadata("name", "demo"));
    EXPECT_FALSE(model.getFileList("", true, true, false).contains(".metadata"));
    EXPECT_TRUE(model.getFileList("", true, true, true).contains(".metadata"));

    wz::log::LogCapture capture;
    EXPECT_TRUE(model.getFileList("..", true, true, false).isEmpty());
    EXPECT_TRUE(model.getFileList("missing", true, true, false).isEmpty());
    EXPECT_TRUE(capture.contains("wz.project", "refused"));
    EXPECT_TRUE(capture.contains("wz.project", "no directory \"missing\""));
}

TEST_F(ProjectModelTest, FilesAndDirectoriesOfTheProject)
{
    EXPECT_THROW(model.fileSize("nothing.txt"), PathNotFound);
    EXPECT_THROW(model.fileSize("sub"), PathNotFound);
    EXPECT_EQ(model.fopen("sub", "rb"), nullptr);
    EXPECT_EQ(model.fopen("", "rb"), nullptr);
    EXPECT_EQ(model.fopen("a/b/c.txt", "wb"), nullptr); // directories are not made by fopen
    EXPECT_EQ(model.fopen("main.xml", "r; rm -rf /"), nullptr);
    EXPECT_EQ(model.fopen("main.xml", "x"), nullptr);

    EXPECT_FALSE(model.mkdir("x/y/z", false));
    EXPECT_TRUE(model.mkdir("x/y/z", true));
    EXPECT_TRUE(model.mkdir("x/y/z", true)); // exists already: fine
    EXPECT_TRUE(model.mkdir(".", true));
    EXPECT_FALSE(model.mkdir("main.xml", true));

    FILE *f = model.fopen("x/y/z/data.bin", "wb");
    ASSERT_NE(f, nullptr);
    const std::string bytes(5000, '\x01');
    EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
    std::fclose(f);
    EXPECT_EQ(model.fileSize("x/y/z/data.bin"), 5000u);
    f = model.fopen("x/y/z/data.bin", "rb");
    ASSERT_NE(f, nullptr);
    std::string back(6000, '\0');
    EXPECT_EQ(std::fread(&back[0], 1, back.size(), f), 5000u);
    std::fclose(f);
}

TEST_F(ProjectModelTest, MetadataLivesInTheProjectFile)
{
    EXPECT_TRUE(model.setMetadata("name", "My behaviour"));
    EXPECT_TRUE(model.setMetadata("uuid", "a: b: c")); // only the first ": " separates
    EXPECT_TRUE(model.setMetadata("colon:", " leading space"));

    wz::log::LogCapture capture;
    EXPECT_FALSE(model.setMetadata("", "v"));
    EXPECT_FALSE(model.setMetadata("a: b", "v"));
    EXPECT_FALSE(model.setMetadata("k", "two\nlines"));
    EXPECT_TRUE(capture.contains("wz.project", "cannot be written as one \"key: value\" line"));

    EXPECT_EQ(readFile(root + "/.metadata"),
              "colon::  leading space\nname: My behaviour\nuuid: a: b: c\n");

    ProjectModel reopened;
    reopened.open(root);
    EXPECT_EQ(reopened.getMetadata(), model.getMetadata());
    EXPECT_EQ(reopened.getMetadata().value("uuid"), "a: b: c");
    EXPECT_EQ(reopened.getMetadata().value("colon:"), " leading space");
    EXPECT_TRUE(reopened.removeMetadata("name"));
    EXPECT_FALSE(reopened.removeMetadata("name"));
    EXPECT_EQ(readFile(root + "/.metadata"), "colon::  leading space\nuuid: a: b: c\n");
}

TEST(ProjectModel, NewProjectsAndImports)
{
    QTemporaryDir tmp;
    ASSERT_TRUE(tmp.isValid());
    writeFile(tmp.path() + "/app.pkg", QByteArray(1000, 'p'));

    QString tempRoot;
    {
        ProjectModel model;
        EXPECT_FALSE(model.isOpen());
        EXPECT_THROW(model.importFile(tmp.path() + "/app.pkg", "app.pkg", false), ProjectError);
        EXPECT_FALSE(model.setMetadata("k", "v"));
        EXPECT_TRUE(model.getFileList("", true, true, false).isEmpty());

        model.createNew();
        tempRoot = model.rootPath();
        ASSERT_TRUE(QDir(tempRoot).exists());
        model.importFile(tmp.path() + "/app.pkg", "app.pkg", false);
        model.importFile(tmp.path() + "/app.pkg", "nested/dir/copy.pkg", false);
        EXPECT_EQ(model.fileSize("app.pkg"), 1000u);
        EXPECT_EQ(model.getFileList("", true, true, false),
                  (QStringList {"app.pkg", "nested/dir/copy.pkg"}));
        EXPECT_THROW(model.importFile(tmp.path() + "/app.pkg", "app.pkg", false), ProjectError);
        model.importFile(tmp.path() + "/app.pkg", "app.pkg", true);
        EXPECT_THROW(model.importFile(tmp.path() + "/none", "x", true), ProjectError);
        EXPECT_THROW(model.importFile(tmp.path() + "/app.pkg", "nested", true), ProjectError);
    }
    EXPECT_FALSE(QDir(tempRoot).exists()); // the private directory went with the model

    ProjectModel model;
    model.createNew(tmp.path() + "/fresh/project");
    EXPECT_TRUE(model.getFileList("", true, false, true).isEmpty());
    ProjectModel other;
    EXPECT_THROW(other.createNew(tmp.path()), ProjectError); // not empty
    EXPECT_THROW(other.open(tmp.path() + "/missing"), ProjectError);
    EXPECT_THROW(other.open(tmp.path() + "/app.pkg"), ProjectError);
}
