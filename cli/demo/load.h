// ovrin-sm demo --clients N: one session manager serving many clients at once, with faults.
//
// The session manager is one process with one runtime handle for the whole run and an epoll loop
// over a Unix stream socket in a directory only this user (and the group given by --group) can
// enter. Each healthy client is a thread of the demo's own process with its own runtime handle and
// its own connection, playing the demo's script --count times; client k numbers its sessions
// k*count+1 onwards, so no two clients send the same messages and an answer delivered to the wrong
// client would not check. Each misbehaving client is a process of its own, so that it can be
// killed or take another user's identity. Frames and the checks on arrival are the demo's.
//
// The pieces: load_server.cpp (the session manager), load_clients.cpp (the healthy clients and the
// faulty peers), load_run.cpp (the processes, the report and the verdict).
#ifndef OVRIN_CLI_DEMO_LOAD_H
#define OVRIN_CLI_DEMO_LOAD_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>

#include "cli/demo/latency.h"
#include "cli/demo/options.h"

namespace ovrin::demo::load {

// The faults one run can mix in, each played by one peer of its own.
enum Fault : unsigned {
    F_KILL = 1u << 0,     // killed (SIGKILL) in the middle of a frame
    F_DAMAGE = 1u << 1,   // a frame whose message is altered
    F_TRUNCATE = 1u << 2, // a frame whose message is cut short
    F_OVERSIZE = 1u << 3, // a frame announced longer than the limit
    F_STALL = 1u << 4,    // keeps sending and never reads an answer
    F_SILENT = 1u << 5,   // connects and says nothing
    F_STRANGER = 1u << 6, // another user (needs root): refused
};
constexpr int kFaultCount = 7;
const char *fault_name(int index); // "kill", "damage", ... in bit order
// "kill,stall" or "all" into bits, or an error naming the unknown fault.
bool parse_faults(const std::string &text, unsigned &faults, std::string &error);

// Why the session manager let a connection go.
enum Cause {
    C_DONE,      // the client hung up between frames
    C_MID_FRAME, // the client went away in the middle of a frame
    C_DAMAGED,
    C_TRUNCATED,
    C_OVERSIZE,
    C_STALLED, // its answers piled up past the output limit
    C_SILENT,
    C_GONE,     // it went away before its answers could be written
    C_REFUSED,  // neither this user nor the group
    C_TOO_MANY, // more connections than the run has clients
    C_COUNT
};
const char *cause_text(Cause c);

// The session manager's settings, from the command line.
struct ServerConfig {
    uid_t uid;
    bool group_given;
    gid_t group;
    long idle_ms, max_frame, out_limit;
    long max_connections;
};

// One sample of the session manager over the run.
struct Sample {
    double t;          // seconds since it began serving
    uint64_t messages; // frames received and sent so far
    long rss_kib;
};

// What the session manager tells the demo at the end (written through a pipe).
struct ServerReport {
    uint64_t accepted = 0, received = 0, intact = 0, sent = 0;
    uint64_t write_waits = 0; // answers that waited in a queue for the socket to drain
    uint64_t causes[C_COUNT] = {};
    double cpu_seconds = 0, system_seconds = 0, seconds = 0; // processor time (all, in the kernel), wall time
    long rss_start = 0, rss_peak = 0, rss_end = 0, rss_first_tenth = 0, rss_last_tenth = 0;
    uint64_t live_allocations = 0;
    int fds_start = 0, fds_end = 0;
    // From a connection's bytes read to its answers handed to the kernel, per wakeup that answered.
    Latency service;
    uint32_t samples = 0; // followed by this many Sample records
};

// Serves the clients that connect to listener until `control` reaches its end, then writes its
// report to `report`. The exit status of the session manager's process.
int serve(const ServerConfig &config, int listener, int control, int report);

// The descriptors this process has open.
int open_descriptors();

// The whole run: the exit status (0 only on a PASS verdict).
int run_load(const Options &opt);

// ------------------------------------------------------------------ the peers

// What one healthy client saw.
struct ClientResult {
    long sessions = 0, sent = 0, received = 0, intact = 0;
    uint64_t live = 0;
    std::string problem; // the first thing that went wrong, empty when nothing did
    Latency latency;
};

// Client `index` plays `count` sessions on its own handle and connection to `path`.
void run_client(const Options &opt, const std::string &path, long index, ClientResult &result);

// The misbehaving peers: one per fault asked for, and beside the stranger, when a group is given,
// a member of the group (another user whose group is that one), which must be let in and served.
enum Role { R_KILL, R_DAMAGE, R_TRUNCATE, R_OVERSIZE, R_STALL, R_SILENT, R_STRANGER, R_MEMBER };
const char *role_name(Role r);

// Starts the process that plays role r with sessions numbered from key+1; its pid, or -1. Its
// end: exit 0 when it met what it expected (R_KILL: killed by SIGKILL, R_STRANGER refused at the
// directory: kRefusedByDirectory); any other end is a failure, said on standard error.
pid_t start_peer(const Options &opt, const std::string &path, Role r, long key);
constexpr int kRefusedByDirectory = 10;

} // namespace ovrin::demo::load

#endif
