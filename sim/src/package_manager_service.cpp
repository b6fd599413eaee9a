#include "file_server.h"

#include <sim/device_services.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>

#include <boost/uuid/detail/md5.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace sim {

namespace fs = std::filesystem;

namespace {

const char *const kNewerMethods[] = {"installCheckMd5", "removePkg", "packageIcon"};
constexpr size_t kManifestLimit = 64 * 1024;

std::string md5Hex(const std::string &bytes)
{
    boost::uuids::detail::md5 hash;
    hash.process_bytes(bytes.data(), bytes.size());
    boost::uuids::detail::md5::digest_type digest;
    hash.get_digest(digest);
    std::string hex;
    char piece[3];
    for (unsigned word : digest)
        for (int shift = 0; shift < 32; shift += 8) { // each word holds its bytes little end first
            std::snprintf(piece, sizeof piece, "%02x", (word >> (24 - shift)) & 0xff);
            hex += piece;
        }
    return hex;
}

// A tiny picture (binary PPM) of the package, coloured from its uuid.
std::string iconFor(const std::string &uuid)
{
    const unsigned h = static_cast<unsigned>(std::hash<std::string>()(uuid));
    std::string ppm = "P6\n4 4\n255\n";
    for (int i = 0; i < 16; ++i) {
        ppm += char(h & 0xff);
        ppm += char((h >> 8) & 0xff);
        ppm += char((h >> 16) & 0xff);
    }
    return ppm;
}

} // namespace

struct PackageRecord
{
    std::map<std::string, std::string> fields; // uuid, version, author, ...
    std::string name;
    std::string path;

    wz::AnyValue toAny() const
    {
        wz::AnyValue::Map m;
        for (const char *key : {"uuid", "version", "author", "channel", "organization", "date",
                                "typeVersion", "installer"}) {
            const auto it = fields.find(key);
            m[key] = it == fields.end() ? std::string() : it->second;
        }
        m["path"] = path;
        wz::AnyValue::Map elems;
        elems["name"] = name;
        const std::string icon = iconFor(fields.at("uuid"));
        elems["icon"] = wz::Buffer(icon.data(), icon.size());
        m["elems"] = wz::AnyValue(elems);
        return wz::AnyValue(m);
    }
};

struct PackageManagerService::State
{
    mutable std::mutex mutex;
    std::unique_ptr<FileServer> server;
    int generation = 2;
    std::map<std::string, PackageRecord> packages;
    std::map<std::string, std::string> sessions; // key -> directory on the robot
    int nextSession = 1;
};

PackageManagerService::PackageManagerService() : Service("PackageManager"), d(new State) { }

PackageManagerService::~PackageManagerService()
{
    stop();
}

void PackageManagerService::describe(ServiceBuilder &b)
{
    b.method("_getHttpTransferPort", [this]() { return robot().httpTransferPort(); });

    b.method("getPackages", [this]() {
        std::lock_guard<std::mutex> lock(d->mutex);
        wz::AnyValue::List list;
        for (const auto &p : d->packages)
            list.push_back(p.second.toAny());
        return wz::AnyValue(list);
    });
    b.method("getPackage", [this](const std::string &uuid) {
        std::lock_guard<std::mutex> lock(d->mutex);
        const auto it = d->packages.find(uuid);
        if (it == d->packages.end())
            throw std::runtime_error("package \"" + uuid + "\" not found");
        return it->second.toAny();
    });

    // Reads the manifest at `path` (as the robot sees it: a path of the store)
    // and installs it; false when that uuid is installed already.
    auto installFrom = [this](const std::string &path, const std::string &md5) {
        std::string file;
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            if (d->server)
                file = d->server->resolve(path);
        }
        std::ifstream in(file, std::ios::binary);
        if (file.empty() || !in)
            throw std::runtime_error("cannot read package file " + path);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (bytes.size() > kManifestLimit)
            throw std::runtime_error("package file " + path + " is too large");
        if (!md5.empty() && md5 != md5Hex(bytes))
            throw std::runtime_error("checksum mismatch for " + path);
        PackageRecord record;
        std::istringstream lines(bytes);
        std::string line;
        while (std::getline(lines, line)) {
            const auto sep = line.find(": ");
            if (sep == std::string::npos)
                continue;
            const std::string key = line.substr(0, sep);
            (key == "name" ? record.name : record.fields[key]) = line.substr(sep + 2);
        }
        const std::string uuid = record.fields["uuid"];
        if (uuid.empty() || uuid.find('/') != std::string::npos)
            throw std::runtime_error("package file " + path + " has no valid uuid");
        record.fields["installer"] = "desktop";
        record.path = "/packages/" + uuid;
        wz::AnyValue event;
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            if (d->packages.count(uuid))
                return false;
            d->packages[uuid] = record;
            event = record.toAny();
        }
        robot().memory().raiseMicroEvent("packageInstalled", event);
        return true;
    };
    auto removeOne = [this](const std::string &uuid) {
        wz::AnyValue event;
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            const auto it = d->packages.find(uuid);
            if (it == d->packages.end())
                return false;
            event = it->second.toAny();
            d->packages.erase(it);
        }
        robot().memory().raiseMicroEvent("packageRemoved", event);
        return true;
    };
    auto icon = [this](const std::string &uuid) {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->packages.count(uuid))
            throw std::runtime_error("package \"" + uuid + "\" not found");
        return iconFor(uuid);
    };

    b.method("installCheckMd5", [installFrom](const std::string &path, const std::string &md5) {
        return installFrom(path, md5);
    });
    b.method("install",
             [installFrom](const std::string &path, const std::string &, const std::string &md5) {
                 try {
                     return installFrom(path, md5) ? 0 : 2;
                 } catch (const std::exception &e) {
                     wz::log::LogStream(wz::LogLevel_Warning, "sim.packages", "install")
                         << e.what();
                     return 1;
                 }
             });
    b.method("removePkg", [removeOne](const std::string &uuid) {
        if (!removeOne(uuid))
            throw std::runtime_error("package \"" + uuid + "\" not found");
    });
    b.method("remove", [removeOne](const std::string &uuid) { return removeOne(uuid) ? 0 : 1; });
    b.method("packageIcon", [icon](const std::string &uuid) { return icon(uuid); });
    b.method("getPackageIcon", [icon](const std::string &uuid) {
        try {
            const std::string bytes = icon(uuid);
            return wz::AnyValue(wz::Buffer(bytes.data(), bytes.size()));
        } catch (const std::exception &) {
            return wz::AnyValue();
        }
    });

    b.method("_openFileTransferSession", [this](const std::string &name) {
        std::string clean;
        for (char c : name)
            clean += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->server)
            throw std::runtime_error("no file server");
        const std::string key = clean + "-" + std::to_string(d->nextSession++);
        const std::string dir = "/sessions/" + key;
        fs::create_directories(fs::path(d->server->store()) / "sessions" / key);
        d->sessions[key] = dir;
        return wz::AnyValue(wz::AnyValue::List {key, dir});
    });
    b.method("_closeFileTransferSession", [this](const std::string &key) {
        std::lock_guard<std::mutex> lock(d->mutex);
        const auto it = d->sessions.find(key);
        if (it == d->sessions.end())
            throw std::runtime_error("no transfer session \"" + key + "\"");
        std::error_code ec;
        if (d->server)
            fs::remove_all(fs::path(d->server->store()) / "sessions" / key, ec);
        d->sessions.erase(it);
    });
}

void PackageManagerService::start()
{
    if (robot().httpTransferPort() != 0)
        return;
    try {
        auto server = std::make_unique<FileServer>(robot().options().storeDir);
        robot().setHttpTransferPort(server->port());
        std::lock_guard<std::mutex> lock(d->mutex);
        d->server = std::move(server);
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, "sim", __FUNCTION__)
            << "no file server: " << e.what();
    }
}

void PackageManagerService::stop()
{
    std::unique_ptr<FileServer> server;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        server.swap(d->server);
    }
    server.reset();
}

void PackageManagerService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first == "generation") {
            if (field.second.kind() != wz::AnyValue::Kind::Int
                || (field.second.toInt() != 1 && field.second.toInt() != 2))
                throw std::runtime_error("generation is 1 or 2");
        } else if (field.first == "packages") {
            if (field.second.kind() != wz::AnyValue::Kind::String
                || field.second.toStr() != "clear")
                throw std::runtime_error("packages takes \"clear\"");
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
    for (const auto &field : settings.toMap()) {
        if (field.first == "generation")
            setGeneration(static_cast<int>(field.second.toInt()));
        else
            clearPackages();
    }
}

void PackageManagerService::setGeneration(int generation)
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->generation = generation;
    }
    for (const char *method : kNewerMethods) {
        if (generation == 1)
            robot().scenario().removeMethod(name(), method);
        else
            robot().scenario().restoreMethod(name(), method);
    }
}

int PackageManagerService::generation() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->generation;
}

std::string PackageManagerService::storeDir() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->server ? d->server->store() : std::string();
}

void PackageManagerService::setHttpFault(const HttpFault &fault)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (d->server)
        d->server->setFault(fault);
}

int PackageManagerService::httpFaultsTaken() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->server ? d->server->faultsTaken() : 0;
}

std::vector<std::string> PackageManagerService::installedUuids() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    std::vector<std::string> uuids;
    for (const auto &p : d->packages)
        uuids.push_back(p.first);
    return uuids;
}

void PackageManagerService::clearPackages()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->packages.clear();
}

std::vector<std::string> PackageManagerService::openSessions() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    std::vector<std::string> keys;
    for (const auto &s : d->sessions)
        keys.push_back(s.first);
    return keys;
}

} // namespace sim
