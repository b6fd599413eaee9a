#pragma once

#include <wz/project/api.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

namespace wz {
namespace project {

// How a project travels. Carried through transfers; only the plain tree of
// files (0) exists today.
enum ArchiveFormat { ArchiveFormat_Plain = 0, ArchiveFormat_Packed = 1 };

class WZPROJECT_API ProjectError : public std::runtime_error
{
public:
    explicit ProjectError(const std::string &what);
    ~ProjectError() override;
};

// A path that names nothing in the project.
class WZPROJECT_API PathNotFound : public ProjectError
{
public:
    explicit PathNotFound(const std::string &what);
    ~PathNotFound() override;
};

// A path that would leave the project's root. For the project it names
// nothing, so code that catches PathNotFound also catches this.
class WZPROJECT_API PathOutsideRoot : public PathNotFound
{
public:
    explicit PathOutsideRoot(const std::string &what);
    ~PathOutsideRoot() override;
};

// A behaviour project held in one local directory, its root. Every path given
// to it is relative to the root, with '/' as separator; doubled slashes and
// "." segments are ignored. A path that is absolute, holds a ".." segment or
// reaches through a symbolic link to outside the root is refused, whatever
// its origin. Metadata (key: value pairs) live in the file ".metadata" at the
// root, one pair a line, and are kept in step with it.
//
// Failure reporting: operations that take paths from the robot (fopen, mkdir,
// setMetadata) never throw; they log a warning in category "wz.project" and
// return null or false. Local set-up (createNew, open, importFile) throws
// ProjectError; fileSize throws PathNotFound.
//
// Thread safety: one thread at a time (the transfer thread while it runs).
class WZPROJECT_API ProjectModel : public QObject
{
public:
    explicit ProjectModel(QObject *parent = nullptr);
    ~ProjectModel() override;

    ProjectModel(const ProjectModel &) = delete;
    ProjectModel &operator=(const ProjectModel &) = delete;

    // A new empty project. Without a directory, in a private temporary one
    // that goes with the model; with one, the directory is made if needed
    // and must be empty.
    void createNew();
    void createNew(const QString &directory);
    // An existing project directory, with its metadata file if any.
    void open(const QString &directory);

    bool isOpen() const;
    QString rootPath() const; // canonical; empty before createNew/open

    // Copies the local file `source` into the project at `destination`
    // (relative), making its directories. An existing destination is
    // replaced only with `overwrite`.
    void importFile(const QString &source, const QString &destination, bool overwrite);

    // Files (and, unless filesOnly, directories) under `directory` ("" is
    // the root), with paths relative to the root, sorted. Symbolic links are
    // listed only when they are files inside the root; linked directories
    // are not followed. The metadata file is listed only with
    // includeMetadata.
    QStringList getFileList(const QString &directory, bool recursive, bool filesOnly,
                            bool includeMetadata) const;

    bool exists(const QString &path) const;
    uint64_t fileSize(const QString &path) const; // throws PathNotFound

    // C stdio file of the project, or null (and a log line) when refused or
    // when it cannot be opened. Modes: r, w, a, optionally with b and +.
    // The caller closes it with fclose.
    FILE *fopen(const QString &path, const QString &mode);

    // Makes a directory (and its parents with `parents`). True when it exists
    // afterwards.
    bool mkdir(const QString &path, bool parents);

    QMap<QString, QString> getMetadata() const;
    // Stores one pair and rewrites the metadata file. An empty key, a key
    // holding ": " or a line break, or a value holding a line break cannot be
    // written in that file and is refused (false, and a log line).
    bool setMetadata(const QString &key, const QString &value);
    bool removeMetadata(const QString &key);

    struct Impl;

private:
    std::unique_ptr<Impl> d;
};

} // namespace project
} // namespace wz
