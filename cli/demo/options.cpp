// ovrin-sm demo: the command line.
#include <cstdlib>
#include <cstring>

#include "cli/demo/demo.h"

namespace ovrin::demo {

bool parse(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (!std::strcmp(a, "--xml")) o.render = Render::xml;
        else if (!std::strcmp(a, "--hex")) o.render = Render::hex;
        else if (!std::strcmp(a, "--quiet")) o.render = Render::none;
        else if (!std::strcmp(a, "--trace") && i + 1 < argc) o.trace = argv[++i];
        else if ((!std::strcmp(a, "--count") || !std::strcmp(a, "--corrupt") || !std::strcmp(a, "--memory-every")) &&
                 i + 1 < argc) {
            char *end = nullptr;
            long v = std::strtol(argv[++i], &end, 10);
            if (!*argv[i] || *end || v < 1 || v > 1000000000L) return false;
            if (!std::strcmp(a, "--count")) o.count = v;
            else if (!std::strcmp(a, "--memory-every")) o.memory_every = v;
            else o.corrupt = static_cast<int>(v);
        } else
            return false;
    }
    return true;
}

} // namespace ovrin::demo
