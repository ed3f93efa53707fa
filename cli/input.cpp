// Bounded reads of the tool's input files.
#include "cli/input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace ovrin::input {

namespace {

std::string size_text(size_t bytes) {
    if (bytes >= (size_t{1} << 30) && bytes % (size_t{1} << 30) == 0) return std::to_string(bytes >> 30) + " GiB";
    return std::to_string(bytes >> 20) + " MiB";
}

// Reads fd to its end into out, starting with room for expected bytes and growing to at most
// limit + 1, which tells an input over the limit without holding more of it.
bool read_bounded(int fd, const std::string &name, size_t expected, size_t limit, const char *what, std::vector<uint8_t> &out,
                  std::string &error) try {
    size_t got = 0;
    out.resize(std::min(expected, limit) + 1);
    for (;;) {
        if (got == out.size()) {
            if (got > limit) {
                error = name + " is larger than " + size_text(limit) + ", " + what;
                return false;
            }
            out.resize(std::min(std::max(out.size() * 2, size_t{1} << 16), limit + 1));
        }
        ssize_t n = ::read(fd, out.data() + got, out.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = "cannot read " + name + ": " + std::strerror(errno);
            return false;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    out.resize(got);
    return true;
} catch (const std::bad_alloc &) {
    error = "cannot read " + name + ": " + std::strerror(ENOMEM);
    out = {};
    return false;
}

} // namespace

bool read(const std::string &path, size_t limit, const char *what, std::vector<uint8_t> &out, std::string &error) {
    out.clear();
    if (path == "-") return read_bounded(STDIN_FILENO, "standard input", 0, limit, what, out, error);
    struct stat st {};
    int fd = mgx::elf::detail::open_for_reading(path, false, st, error); // pipes are read, bounded
    if (fd < 0) return false;
    bool ok = false;
    if (S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) > limit)
        error = path + " is larger than " + size_text(limit) + ", " + what;
    else ok = read_bounded(fd, path, S_ISREG(st.st_mode) ? static_cast<size_t>(st.st_size) : 0, limit, what, out, error);
    ::close(fd);
    return ok;
}

// Regular files only, or standard input for "-": a library named by a trace file may be a FIFO
// nobody writes to, which a blocking read would wait on for ever.
std::optional<mgx::elf::File> read_library(const std::string &path, std::string &error) {
    if (path != "-") return mgx::elf::read(path, error);
    std::vector<uint8_t> bytes;
    if (!read(path, file_limit, "the limit for a library file", bytes, error)) return std::nullopt;
    return mgx::elf::parse(std::move(bytes), "standard input", error);
}

} // namespace ovrin::input
