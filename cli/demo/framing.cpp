// ovrin-sm demo: frames over the socket (a 4-byte big-endian length, then the encoded message),
// and what a demo process reads of itself (its memory, its leaks).
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/demo/framing.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace ovrin::demo {

bool write_all(int fd, const uint8_t *p, size_t n) {
    while (n) {
        ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL); // a vanished peer is an error, not a signal
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool read_all(int fd, uint8_t *p, size_t n) {
    while (n) {
        ssize_t r = ::read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool send_frame(int fd, const std::vector<uint8_t> &bytes) {
    const uint32_t n = static_cast<uint32_t>(bytes.size());
    // One write for the frame: the peer wakes once for it.
    std::vector<uint8_t> frame{uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
    frame.insert(frame.end(), bytes.begin(), bytes.end());
    return write_all(fd, frame.data(), frame.size());
}

bool receive_frame(int fd, std::vector<uint8_t> &bytes) {
    uint8_t head[4];
    if (!read_all(fd, head, 4)) return false;
    const uint32_t n = uint32_t(head[0]) << 24 | uint32_t(head[1]) << 16 | uint32_t(head[2]) << 8 | head[3];
    if (n == 0 || n > kMaxFrame) return false;
    bytes.resize(n);
    return read_all(fd, bytes.data(), n);
}

bool FrameReader::fill(size_t want) {
    while (end_ - start_ < want) {
        if (start_ > 0) { // what is left goes to the front
            std::memmove(buf_.data(), buf_.data() + start_, end_ - start_);
            end_ -= start_;
            start_ = 0;
        }
        if (buf_.size() < std::max(want, size_t{4096})) buf_.resize(std::max(want, size_t{4096}));
        ssize_t r = ::read(fd_, buf_.data() + end_, buf_.size() - end_);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        end_ += static_cast<size_t>(r);
    }
    return true;
}

bool FrameReader::next(std::vector<uint8_t> &bytes) {
    if (!fill(4)) return false;
    const uint8_t *head = buf_.data() + start_;
    const uint32_t n = uint32_t(head[0]) << 24 | uint32_t(head[1]) << 16 | uint32_t(head[2]) << 8 | head[3];
    if (n == 0 || n > kMaxFrame || !fill(4 + size_t{n})) return false;
    bytes.assign(buf_.begin() + static_cast<std::ptrdiff_t>(start_ + 4),
                 buf_.begin() + static_cast<std::ptrdiff_t>(start_ + 4 + n));
    start_ += 4 + size_t{n};
    return true;
}

int child_status(int status) {
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0) return 1;
#endif
    return status;
}

bool resident_kib(long &rss, long &peak) {
    rss = peak = -1;
    FILE *f = std::fopen("/proc/self/status", "r");
    if (!f) return false;
    char line[256];
    while (std::fgets(line, sizeof line, f)) {
        std::sscanf(line, "VmRSS: %ld", &rss);
        std::sscanf(line, "VmHWM: %ld", &peak);
    }
    std::fclose(f);
    return rss >= 0 && peak >= 0;
}

} // namespace ovrin::demo
