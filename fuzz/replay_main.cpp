// Runs a fuzz target's entry function once on each saved input, without
// libFuzzer: a regression on a corpus input then fails the ordinary test run,
// not only the clang fuzz build. Arguments are files or folders (read
// recursively, in name order so that a failure names the same file each run).

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

namespace {

// The input being run, for the crash handler (which may only write bytes).
std::string g_current;

extern "C" void onFatalSignal(int sig)
{
    static const char prefix[] = "\ncrashed on input: ";
    ssize_t ignored = ::write(STDERR_FILENO, prefix, sizeof prefix - 1);
    ignored = ::write(STDERR_FILENO, g_current.data(), g_current.size());
    ignored = ::write(STDERR_FILENO, "\n", 1);
    (void)ignored;
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

bool readFile(const fs::path &path, std::string &bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE_OR_FOLDER...\n", argv[0]);
        return 2;
    }
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        const fs::path arg(argv[i]);
        if (fs::is_directory(arg, ec)) {
            for (const auto &entry : fs::recursive_directory_iterator(arg, ec))
                if (entry.is_regular_file())
                    inputs.push_back(entry.path());
        } else if (fs::is_regular_file(arg, ec)) {
            inputs.push_back(arg);
        }
        if (ec) {
            std::fprintf(stderr, "cannot read %s: %s\n", argv[i], ec.message().c_str());
            return 2;
        }
    }
    // An empty corpus is a wrong path, not a pass.
    if (inputs.empty()) {
        std::fprintf(stderr, "no input files under the given paths\n");
        return 2;
    }
    std::sort(inputs.begin(), inputs.end());
    for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        std::signal(sig, onFatalSignal);
    std::string bytes;
    for (const fs::path &p : inputs) {
        if (!readFile(p, bytes)) {
            std::fprintf(stderr, "cannot read %s\n", p.c_str());
            return 2;
        }
        g_current = p.string();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
