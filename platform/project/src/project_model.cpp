#include <wz/project/project_model.h>

#include <wz/log.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace wz {
namespace project {

ProjectError::ProjectError(const std::string &what) : std::runtime_error(what) { }
ProjectError::~ProjectError() = default;
PathNotFound::PathNotFound(const std::string &what) : ProjectError(what) { }
PathNotFound::~PathNotFound() = default;
PathOutsideRoot::PathOutsideRoot(const std::string &what) : PathNotFound(what) { }
PathOutsideRoot::~PathOutsideRoot() = default;

namespace {

const char *const kCategory = "wz.project";
const char *const kMetadataFile = ".metadata";

// For messages: control characters (a NUL would cut the text short) are
// shown escaped.
std::string quoted(const QString &s)
{
    static const char hex[] = "0123456789abcdef";
    std::string out = "\"";
    for (unsigned char c : s.toStdString()) {
        if (c < 0x20 || c == 0x7f) {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 0xf];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string errnoText(int err)
{
    return std::strerror(err);
}

std::string realPath(const std::string &path)
{
    char buf[PATH_MAX];
    if (!::realpath(path.c_str(), buf))
        return std::string();
    return buf;
}

// Where a relative path lands: the deepest part that exists, resolved
// physically, and the segments below it that do not exist yet.
struct Resolved
{
    std::string existing;
    std::vector<std::string> missing;

    std::string full() const
    {
        std::string out = existing;
        for (const std::string &m : missing)
            out += "/" + m;
        return out;
    }
};

} // namespace

struct ProjectModel::Impl
{
    std::unique_ptr<QTemporaryDir> tempDir;
    std::string root; // canonical, no trailing slash
    QMap<QString, QString> metadata;

    bool inside(const std::string &path) const
    {
        return path == root
            || (path.size() > root.size() && path.compare(0, root.size(), root) == 0
                && path[root.size()] == '/');
    }

    void requireOpen() const
    {
        if (root.empty())
            throw ProjectError("no project is open: call createNew() or open() first");
    }

    Resolved resolve(const QString &relative) const
    {
        requireOpen();
        if (relative.contains(QChar(0)))
            throw PathOutsideRoot("path " + quoted(relative)
                                  + " refused: it holds a NUL character");
        if (relative.startsWith('/'))
            throw PathOutsideRoot("absolute path " + quoted(relative)
                                  + " refused: paths are relative to the project root");
        std::vector<std::string> segments;
        for (const QString &s : relative.split('/', Qt::SkipEmptyParts)) {
            if (s == ".")
                continue;
            if (s == "..")
                throw PathOutsideRoot("path " + quoted(relative)
                                      + " refused: \"..\" would leave the project root");
            segments.push_back(QFile::encodeName(s).toStdString());
        }

        Resolved r;
        r.existing = root;
        for (std::size_t i = 0; i < segments.size(); ++i) {
            const std::string next = r.existing + "/" + segments[i];
            struct stat st;
            if (::lstat(next.c_str(), &st) != 0) {
                if (errno != ENOENT)
                    throw PathNotFound("path " + quoted(relative) + ": " + errnoText(errno));
                r.missing.assign(segments.begin() + static_cast<std::ptrdiff_t>(i), segments.end());
                return r;
            }
            if (S_ISLNK(st.st_mode)) {
                const std::string target = realPath(next);
                if (target.empty())
                    throw PathOutsideRoot("path " + quoted(relative)
                                          + " refused: the symbolic link " + segments[i]
                                          + " leads nowhere");
                if (!inside(target))
                    throw PathOutsideRoot("path " + quoted(relative)
                                          + " refused: the symbolic link " + segments[i]
                                          + " leads outside the project root");
                r.existing = target;
            } else {
                r.existing = next;
            }
            if (i + 1 < segments.size()) {
                struct stat dst;
                if (::stat(r.existing.c_str(), &dst) != 0 || !S_ISDIR(dst.st_mode))
                    throw PathNotFound("path " + quoted(relative) + ": " + segments[i]
                                       + " is not a directory");
            }
        }
        return r;
    }

    void loadMetadata()
    {
        metadata.clear();
        QFile file(QFile::decodeName((root + "/" + kMetadataFile).c_str()));
        struct stat st;
        const std::string path = root + "/" + kMetadataFile;
        if (::lstat(path.c_str(), &st) != 0)
            return;
        if (!S_ISREG(st.st_mode)) {
            log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                << "metadata file of " << root << " is not a plain file; ignored";
            return;
        }
        if (!file.open(QIODevice::ReadOnly)) {
            log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                << "cannot read " << path << ": " << file.errorString().toStdString();
            return;
        }
        const QList<QByteArray> lines = file.readAll().split('\n');
        for (const QByteArray &line : lines) {
            const int sep = line.indexOf(": ");
            if (sep <= 0)
                continue;
            metadata.insert(QString::fromUtf8(line.left(sep)),
                            QString::fromUtf8(line.mid(sep + 2)));
        }
    }

    bool saveMetadata()
    {
        const std::string path = root + "/" + kMetadataFile;
        struct stat st;
        if (::lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
            log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                << "metadata file " << path << " is not a plain file; not written";
            return false;
        }
        QByteArray text;
        for (auto it = metadata.constBegin(); it != metadata.constEnd(); ++it)
            text += it.key().toUtf8() + ": " + it.value().toUtf8() + "\n";
        QFile file(QFile::decodeName(path.c_str()));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)
            || file.write(text) != text.size()) {
            log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                << "cannot write " << path << ": " << file.errorString().toStdString();
            return false;
        }
        return true;
    }

    void list(const std::string &dirAbs, const QString &prefix, bool recursive, bool filesOnly,
              bool includeMetadata, QStringList &out) const
    {
        DIR *dir = ::opendir(dirAbs.c_str());
        if (!dir) {
            log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                << "cannot list " << dirAbs << ": " << errnoText(errno);
            return;
        }
        std::vector<std::string> names;
        while (struct dirent *e = ::readdir(dir)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                names.push_back(e->d_name);
        }
        ::closedir(dir);

        for (const std::string &name : names) {
            const std::string abs = dirAbs + "/" + name;
            const QString rel = prefix + QFile::decodeName(name.c_str());
            struct stat st;
            if (::lstat(abs.c_str(), &st) != 0)
                continue; // vanished meanwhile
            if (S_ISLNK(st.st_mode)) {
                const std::string target = realPath(abs);
                struct stat tst;
                if (target.empty() || !inside(target) || ::stat(target.c_str(), &tst) != 0) {
                    log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                        << "symbolic link " << rel.toStdString()
                        << " leads outside the project root or nowhere; not listed";
                    continue;
                }
                if (S_ISREG(tst.st_mode))
                    out << rel;
                // A linked directory is not followed: it could loop, and its
                // files are reachable under their own names.
                continue;
            }
            if (S_ISDIR(st.st_mode)) {
                if (!filesOnly)
                    out << rel;
                if (recursive)
                    list(abs, rel + "/", recursive, filesOnly, includeMetadata, out);
            } else if (S_ISREG(st.st_mode)) {
                if (rel == QLatin1String(kMetadataFile) && !includeMetadata)
                    continue;
                out << rel;
            }
        }
    }
};

ProjectModel::ProjectModel(QObject *parent) : QObject(parent), d(new Impl) { }

ProjectModel::~ProjectModel() = default;

void ProjectModel::createNew()
{
    auto temp = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/wzproject-XXXXXX");
    if (!temp->isValid())
        throw ProjectError("cannot make a temporary project directory: "
                           + temp->errorString().toStdString());
    const std::string root = realPath(QFile::encodeName(temp->path()).toStdString());
    if (root.empty())
        throw ProjectError("cannot resolve the temporary project directory");
    d->tempDir = std::move(temp);
    d->root = root;
    d->metadata.clear();
}

void ProjectModel::createNew(const QString &directory)
{
    if (directory.isEmpty())
        throw ProjectError("createNew: empty directory name");
    if (!QDir().mkpath(directory))
        throw ProjectError("cannot make the project directory " + quoted(directory));
    QDir dir(directory);
    if (!dir.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)
             .isEmpty())
        throw ProjectError("cannot make a new project in " + quoted(directory)
                           + ": the directory is not empty");
    const std::string root = realPath(QFile::encodeName(directory).toStdString());
    if (root.empty())
        throw ProjectError("cannot resolve the project directory " + quoted(directory));
    d->tempDir.reset();
    d->root = root;
    d->metadata.clear();
}

void ProjectModel::open(const QString &directory)
{
    const std::string root = realPath(QFile::encodeName(directory).toStdString());
    struct stat st;
    if (root.empty() || ::stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw ProjectError("cannot open the project " + quoted(directory) + ": no such directory");
    d->tempDir.reset();
    d->root = root;
    d->loadMetadata();
}

bool ProjectModel::isOpen() const
{
    return !d->root.empty();
}

QString ProjectModel::rootPath() const
{
    return QFile::decodeName(d->root.c_str());
}

void ProjectModel::importFile(const QString &source, const QString &destination, bool overwrite)
{
    const QFileInfo info(source);
    if (!info.isFile() || !info.isReadable())
        throw ProjectError("cannot import " + quoted(source) + ": not a readable file");
    Resolved r = d->resolve(destination);
    if (r.missing.empty() && r.existing == d->root)
        throw ProjectError("cannot import to the project root itself; give a file name");
    const std::string target = r.full();
    struct stat st;
    if (::stat(target.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode))
            throw ProjectError("cannot import to " + quoted(destination) + ": it is a directory");
        if (!overwrite)
            throw ProjectError("cannot import to " + quoted(destination) + ": it exists already");
        ::unlink(target.c_str());
    }
    const QString parent = QFileInfo(destination).path();
    if (!mkdir(parent, true))
        throw ProjectError("cannot make the directory of " + quoted(destination));
    // Resolve again: the directories exist now and are confined.
    const std::string finalTarget = d->resolve(destination).full();
    if (!QFile::copy(source, QFile::decodeName(finalTarget.c_str())))
        throw ProjectError("cannot copy " + quoted(source) + " to " + quoted(destination));
}

QStringList ProjectModel::getFileList(const QString &directory, bool recursive, bool filesOnly,
                                      bool includeMetadata) const
{
    QStringList out;
    try {
        const Resolved r = d->resolve(directory);
        struct stat st;
        if (!r.missing.empty() || ::stat(r.existing.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                << "no directory " << quoted(directory) << " in the project";
            return out;
        }
        QString prefix = QFile::decodeName(r.existing.substr(d->root.size()).c_str());
        if (prefix.startsWith('/'))
            prefix.remove(0, 1);
        if (!prefix.isEmpty())
            prefix += '/';
        d->list(r.existing, prefix, recursive, filesOnly, includeMetadata, out);
    } catch (const ProjectError &e) {
        log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__) << e.what();
        return QStringList();
    }
    out.sort();
    return out;
}

bool ProjectModel::exists(const QString &path) const
{
    try {
        const Resolved r = d->resolve(path);
        struct stat st;
        return r.missing.empty() && ::stat(r.existing.c_str(), &st) == 0;
    } catch (const ProjectError &) {
        return false;
    }
}

uint64_t ProjectModel::fileSize(const QString &path) const
{
    const Resolved r = d->resolve(path);
    struct stat st;
    if (!r.missing.empty() || ::stat(r.existing.c_str(), &st) != 0)
        throw PathNotFound("file " + quoted(path) + " not found in the project");
    if (!S_ISREG(st.st_mode))
        throw PathNotFound(quoted(path) + " is not a file of the project");
    return static_cast<uint64_t>(st.st_size);
}

FILE *ProjectModel::fopen(const QString &path, const QString &mode)
{
    static const QRegularExpression modes("^[rwa](b\\+?|\\+b?)?$");
    if (!modes.match(mode).hasMatch()) {
        log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
            << "fopen " << quoted(path) << ": unsupported mode " << quoted(mode);
        return nullptr;
    }
    try {
        const Resolved r = d->resolve(path);
        if (r.missing.empty() && r.existing == d->root)
            throw PathNotFound("the project root is not a file");
        if (r.missing.size() > 1)
            throw PathNotFound("the directory of " + quoted(path) + " does not exist");
        const std::string target = r.full();
        struct stat st;
        if (r.missing.empty() && ::stat(target.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
            throw PathNotFound(quoted(path) + " is not a file");
        // "e": close on exec, so no child process inherits project files.
        const std::string cmode = mode.toStdString() + "e";
        FILE *f = ::fopen(target.c_str(), cmode.c_str());
        if (!f)
            throw ProjectError("cannot open " + quoted(path) + ": " + errnoText(errno));
        return f;
    } catch (const ProjectError &e) {
        log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__) << "fopen: " << e.what();
        return nullptr;
    }
}

bool ProjectModel::mkdir(const QString &path, bool parents)
{
    try {
        const Resolved r = d->resolve(path);
        struct stat st;
        if (r.missing.empty()) {
            if (::stat(r.existing.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                return true;
            throw ProjectError(quoted(path) + " exists and is not a directory");
        }
        if (!parents && r.missing.size() > 1)
            throw PathNotFound("the parent of " + quoted(path) + " does not exist");
        std::string current = r.existing;
        for (const std::string &segment : r.missing) {
            current += "/" + segment;
            if (::mkdir(current.c_str(), 0755) != 0 && errno != EEXIST)
                throw ProjectError("cannot make " + quoted(path) + ": " + errnoText(errno));
        }
        // A concurrent writer could have raced a link in; check where it landed.
        const std::string landed = realPath(current);
        if (landed.empty() || !d->inside(landed))
            throw PathOutsideRoot("directory " + quoted(path) + " did not land inside the root");
        return true;
    } catch (const ProjectError &e) {
        log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__) << "mkdir: " << e.what();
        return false;
    }
}

QMap<QString, QString> ProjectModel::getMetadata() const
{
    return d->metadata;
}

bool ProjectModel::setMetadata(const QString &key, const QString &value)
{
    if (!isOpen()) {
        log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
            << "setMetadata: no project is open";
        return false;
    }
    if (key.isEmpty() || key.contains(": ") || key.contains('\n') || value.contains('\n')) {
        log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
            << "setMetadata: pair " << quoted(key) << ": " << quoted(value)
            << " refused: it cannot be written as one \"key: value\" line";
        return false;
    }
    d->metadata.insert(key, value);
    return d->saveMetadata();
}

bool ProjectModel::removeMetadata(const QString &key)
{
    if (!isOpen() || !d->metadata.contains(key))
        return false;
    d->metadata.remove(key);
    return d->saveMetadata();
}

} // namespace project
} // namespace wz
