// Replays inputs through a fuzz target's code without libFuzzer: linked with one fuzz/*_fuzz.cpp,
// it calls LLVMFuzzerTestOneInput on every file named or found under a directory named, each in a
// process of its own, so that one failing input does not hide the others.
//
//   ovrin_fuzz_replay_TARGET [--pending] [--seconds N] PATH...
//
// Status 0 when every input ran clean. An input that runs longer than N seconds (60) fails, as a
// hang. With --pending the inputs are findings whose fixes have not landed: each must still fail,
// and one that runs clean is reported so that it moves to the regression inputs.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) __attribute__((weak));

namespace fs = std::filesystem;

namespace {

// Runs one input in a child; true when it returned normally.
bool runs_clean(const fs::path &file, unsigned seconds, int *argc, char ***argv) {
    std::ifstream in(file, std::ios::binary);
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::fflush(nullptr);
    pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        return false;
    }
    if (child == 0) {
        alarm(seconds);
        if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(argc, argv);
        // An input held in a block of its own size, as libFuzzer gives it.
        std::vector<uint8_t> exact(bytes);
        LLVMFuzzerTestOneInput(exact.data(), exact.size());
        std::exit(0); // as the target's process ends: its scratch files go, leak checks run
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        std::fprintf(stderr, "%s: still running after %u seconds\n", file.c_str(), seconds);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

int main(int argc, char **argv) {
    bool pending = false;
    unsigned seconds = 60;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--pending")) {
            pending = true;
            continue;
        }
        if (!std::strcmp(argv[i], "--seconds") && i + 1 < argc) {
            seconds = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
            continue;
        }
        fs::path p = argv[i];
        if (fs::is_directory(p)) {
            for (const auto &e : fs::recursive_directory_iterator(p))
                if (e.is_regular_file() && e.path().filename().string()[0] != '.') files.push_back(e.path());
        } else if (fs::exists(p)) {
            files.push_back(p);
        } else {
            std::fprintf(stderr, "%s: no such input\n", p.c_str());
            return 2;
        }
    }
    std::sort(files.begin(), files.end());
    unsigned wrong = 0;
    for (const fs::path &f : files) {
        bool clean = runs_clean(f, seconds, &argc, &argv);
        if (clean == pending) {
            ++wrong;
            std::fprintf(stderr, pending ? "%s: now runs clean; move it to the regression inputs\n" : "%s: FAILED\n", f.c_str());
        }
    }
    std::printf("%zu inputs replayed%s, %u %s\n", files.size(), pending ? " (pending findings)" : "", wrong,
                pending ? "now clean" : "failed");
    return wrong ? 1 : 0;
}
