// ovrin-sm demo: frames over the socket (a 4-byte big-endian length, then the encoded message),
// and what a demo process reads of itself.
#ifndef OVRIN_CLI_DEMO_FRAMING_H
#define OVRIN_CLI_DEMO_FRAMING_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ovrin::demo {

constexpr uint32_t kMaxFrame = 1u << 20;

bool write_all(int fd, const uint8_t *p, size_t n);
bool read_all(int fd, uint8_t *p, size_t n);
bool send_frame(int fd, const std::vector<uint8_t> &bytes);
// A frame, or false when the peer is gone or announces a length no message of this library has.
bool receive_frame(int fd, std::vector<uint8_t> &bytes);

// Frames read in chunks: one read takes every frame that has come (a step's answers come together).
class FrameReader {
public:
    explicit FrameReader(int fd) : fd_(fd) {}
    // As receive_frame.
    bool next(std::vector<uint8_t> &bytes);
    // True when bytes have come that no frame has taken yet.
    bool holding() const { return end_ > start_; }

private:
    bool fill(size_t want); // at least want bytes from start_ on
    int fd_;
    std::vector<uint8_t> buf_;
    size_t start_ = 0, end_ = 0;
};

// This process's resident set size and its peak, in KiB as the kernel counts them; false when
// /proc does not say.
bool resident_kib(long &rss, long &peak);

// The status a forked process ends with by _exit (which runs no exit handlers): under
// LeakSanitizer, 1 when the process leaks, so that a child's leak is not missed.
int child_status(int status);

} // namespace ovrin::demo

#endif
