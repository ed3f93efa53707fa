// What the targets that read files share: a scratch directory of the process's own, files written
// into it, the tool's output silenced around a command, and the peak of the C++ heap while a
// reader runs (tests/sm_heap.cpp counts it).
#ifndef OVRIN_FUZZ_FUZZ_FILES_H
#define OVRIN_FUZZ_FUZZ_FILES_H

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz/fuzz_types.h"
#include "tests/quiet.h"
#include "tests/sm_heap.h"

extern "C" void __sanitizer_set_report_fd(void *fd) __attribute__((weak));

namespace fuzz {

// A directory made for this process under $TMPDIR (or /tmp), named after the process id, and
// removed when the process exits normally. A process that aborts (a finding) leaves its own, so
// each new one first removes those whose process is gone.
inline const std::string &scratch_dir() {
    struct Scratch {
        std::string path;
        Scratch() {
            namespace fs = std::filesystem;
            const char *tmp = std::getenv("TMPDIR");
            const fs::path parent = tmp && *tmp ? tmp : "/tmp";
            const std::string prefix = "ovrin-fuzz-";
            std::error_code ec;
            for (const auto &e : fs::directory_iterator(parent, ec)) {
                std::string name = e.path().filename().string();
                if (name.compare(0, prefix.size(), prefix) != 0) continue;
                long pid = std::strtol(name.c_str() + prefix.size(), nullptr, 10);
                if (pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) fs::remove_all(e.path(), ec);
            }
            path = (parent / (prefix + std::to_string(::getpid()) + "-XXXXXX")).string();
            if (!mkdtemp(path.data())) die("cannot make a scratch directory " + path);
        }
        ~Scratch() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    };
    static const Scratch dir;
    return dir.path;
}

inline void write_file(const std::string &path, const uint8_t *data, size_t n) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) die("cannot write " + path);
    for (size_t done = 0; done < n;) {
        ssize_t w = ::write(fd, data + done, n - done);
        if (w <= 0) die("cannot write " + path);
        done += static_cast<size_t>(w);
    }
    ::close(fd);
}

// Standard output and error go to /dev/null while it lives: the tool's commands print a line per
// emission or record. Sanitizer reports keep the real standard error.
class Quiet {
    // Taken before standard error goes: the first Quiet keeps a copy of the real one for reports.
    struct KeepReports {
        KeepReports() {
            static const int report_fd = [] {
                int fd = ::dup(2);
                if (__sanitizer_set_report_fd && fd >= 0)
                    __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
                return fd;
            }();
            (void)report_fd;
        }
    } keep_reports_;
    ovrin::testing::Quiet quiet_; // made after keep_reports_, as declared
};

} // namespace fuzz

#endif
