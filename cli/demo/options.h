// ovrin-sm demo: the command line, read into Options.
#ifndef OVRIN_CLI_DEMO_OPTIONS_H
#define OVRIN_CLI_DEMO_OPTIONS_H

#include <sys/types.h>

#include <string>

namespace ovrin::demo {

enum class Render { print, xml, hex, none };

struct Options {
    Render render = Render::print;
    long count = 1;
    // Frame of the first session (1-based, both directions in order) whose sender inverts the
    // second half of the encoding before sending it: the receiver must notice.
    int corrupt = 0;
    // Binary trace file both processes append their emissions to ("ovrin-sm trace FILE" reads it).
    const char *trace = nullptr;
    // Each process reports its resident memory and its handle's live allocations after every
    // this many sessions (0: never), so that a long run shows whether anything grows.
    long memory_every = 0;

    // The load run (load.h): with clients > 0, one session manager serves this many clients at
    // once, each playing `count` sessions.
    long clients = 0;
    unsigned faults = 0;      // bits of load::Fault: misbehaving peers mixed in
    bool json = false;        // the report as one JSON object
    bool group_given = false; // peers whose group is `group` are let in beside this user's
    gid_t group = 0;
    std::string group_name;
    long think_us = 0;       // each client's pause between one exchange and the next
    long idle_ms = 2000;     // a client silent this long is dropped
    long max_frame = 65536;  // the longest frame the session manager takes
    long out_limit = 262144; // the most answer bytes it queues for a client that does not read
};

// Reads the command line into o: -1 to go on, otherwise the exit status (the help was shown, or
// a usage error named what is wrong).
int parse(int argc, char **argv, Options &o);

} // namespace ovrin::demo

#endif
