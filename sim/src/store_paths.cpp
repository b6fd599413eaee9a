// The store half of the file server: request targets to paths inside the
// store, and directory listings in the robot's format.
#include "store_paths.h"

#include <wz/log.h>

#include <algorithm>
#include <sstream>
#include <system_error>

namespace sim {

namespace fs = std::filesystem;

namespace {

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

// Target to store-relative components: percent-decoded, "//" and "." dropped;
// "..", NUL and a bad escape refused.
Refusal splitTarget(std::string target, std::vector<std::string> &parts)
{
    parts.clear();
    // An absolute-form target names the path after its authority.
    const auto scheme = target.find("://");
    if (scheme != std::string::npos && target.compare(0, 4, "http") == 0) {
        const auto slash = target.find('/', scheme + 3);
        target = slash == std::string::npos ? "/" : target.substr(slash);
    }
    std::string decoded;
    decoded.reserve(target.size());
    for (size_t i = 0; i < target.size(); ++i) {
        if (target[i] != '%') {
            decoded += target[i];
            continue;
        }
        if (i + 2 >= target.size() || hexValue(target[i + 1]) < 0 || hexValue(target[i + 2]) < 0)
            return Refusal::BadRequest;
        decoded += char(hexValue(target[i + 1]) * 16 + hexValue(target[i + 2]));
        i += 2;
    }
    if (decoded.find('\0') != std::string::npos)
        return Refusal::Forbidden;
    std::string part;
    std::istringstream in(decoded);
    while (std::getline(in, part, '/')) {
        if (part.empty() || part == ".")
            continue;
        if (part == "..")
            return Refusal::Forbidden;
        parts.push_back(part);
    }
    return Refusal::None;
}

bool isInside(const fs::path &root, const fs::path &p)
{
    const std::string r = root.native();
    const std::string s = p.native();
    return s == r || (s.size() > r.size() && s.compare(0, r.size(), r) == 0 && s[r.size()] == '/');
}

// Walks `parts` from `root`, following links only while they stay inside.
// With `makeDirs` missing directories are created. "" when the walk leaves
// the store; `conflict` when a non-directory stands where a directory must.
fs::path walk(const fs::path &root, const std::vector<std::string> &parts, size_t count,
              bool makeDirs, bool &conflict)
{
    conflict = false;
    fs::path current = root;
    for (size_t i = 0; i < count; ++i) {
        fs::path next = current / parts[i];
        std::error_code ec;
        const auto status = fs::symlink_status(next, ec);
        if (fs::is_symlink(status)) {
            const fs::path target = fs::weakly_canonical(next, ec);
            if (ec || !isInside(root, target))
                return {};
            next = target;
        }
        const bool last = i + 1 == count;
        if (!last || makeDirs) {
            const auto st = fs::status(next, ec);
            if (!fs::exists(st)) {
                if (!makeDirs)
                    return next; // missing: the caller answers 404
                if (!fs::create_directory(next, ec) && ec)
                    return {};
            } else if (!fs::is_directory(st)) {
                conflict = true;
                return next;
            }
        }
        current = next;
    }
    return current;
}

std::string listing(const fs::path &dir)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().native();
        if (std::any_of(name.begin(), name.end(), [](char c) { return c == '\n' || c == '\r'; })) {
            wz::log::LogStream(wz::LogLevel_Warning, "sim.http", __FUNCTION__)
                << ("not listing a name with a line break in " + dir.native());
            continue;
        }
        std::error_code sec;
        names.push_back(fs::is_directory(entry.path(), sec) ? name + "/" : name);
    }
    std::sort(names.begin(), names.end());
    std::string body;
    for (const auto &n : names)
        body += n + "\n";
    return body;
}

} // namespace sim
