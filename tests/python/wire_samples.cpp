// Writes, for the Python package's tests, the encoding of every type of the bundle it is linked
// with, filled by the tests' filler (every field a distinct value, each union member in turn),
// untracked and tracked: DIR/TYPE-ARM-u and DIR/TYPE-ARM-t, the bytes alone. The same program is
// built once per catalogue.
//
//   wire_samples DIR
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/sm_type_ops.h"

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: wire_samples DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::filesystem::create_directories(dir);
    for (bool tracked : {false, true}) {
        mgx_handle_t *h = mgx_handle_create();
        mgx_handle_set_state_tracking(h, tracked, tracked ? MGX_STTR_TRACKED : MGX_STTR_UNTRACKED);
        const std::vector<typeops::Ops> &types = typeops::all();
        for (size_t i = 0; i < types.size(); ++i) {
            const typeops::Ops &o = types[i];
            for (unsigned a = 0; a < o.arms(); ++a) {
                void *instance = typeops::make_filled(o, h, static_cast<unsigned>(i), a);
                uint32_t err = 0;
                std::vector<uint8_t> wire = typeops::encode(o, h, instance, &err);
                o.destroy(h, 1, instance);
                const std::string name = std::string(o.name) + "-" + std::to_string(a) + (tracked ? "-t" : "-u");
                if (err) {
                    std::fprintf(stderr, "wire_samples: %s does not encode: error %u\n", name.c_str(), err);
                    return 1;
                }
                std::ofstream out(dir / name, std::ios::binary);
                out.write(reinterpret_cast<const char *>(wire.data()), static_cast<std::streamsize>(wire.size()));
                if (!out) {
                    std::fprintf(stderr, "wire_samples: cannot write %s\n", (dir / name).c_str());
                    return 1;
                }
            }
        }
        if (mgx_handle_live_allocations(h) != 0) {
            std::fprintf(stderr, "wire_samples: the filled instances leaked\n");
            return 1;
        }
        mgx_handle_destroy(h);
    }
    return 0;
}
