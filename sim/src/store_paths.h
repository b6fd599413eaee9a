#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace sim {

// Why a request target cannot name a path of the store.
enum class Refusal { None, BadRequest, Forbidden };

// Target to store-relative components: percent-decoded, "//" and "." dropped;
// "..", NUL and a bad escape refused.
Refusal splitTarget(std::string target, std::vector<std::string> &parts);

// Whether `p` is `root` or below it, both canonical.
bool isInside(const std::filesystem::path &root, const std::filesystem::path &p);

// Walks the first `count` of `parts` from `root`, following links only while
// they stay inside. With `makeDirs` missing directories are created. "" when
// the walk leaves the store; `conflict` when a non-directory stands where a
// directory must.
std::filesystem::path walk(const std::filesystem::path &root, const std::vector<std::string> &parts,
                           size_t count, bool makeDirs, bool &conflict);

// A directory's listing: one name a line, sorted, sub-directories with a
// trailing "/"; names holding a line break are left out.
std::string listing(const std::filesystem::path &dir);

} // namespace sim
