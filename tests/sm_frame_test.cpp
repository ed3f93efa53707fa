// The bundle frame: the module node in the runtime's module list, adoption of the bundle and its
// four dependent bundles, registry binding and the variant cap every type has (the variant dump
// is held against the expected layouts in sm_layout_test.cpp).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "frame/module_list.h"
#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"

namespace {

using BundleHandle = RuntimeFixture;

const mgx_module_node_t *bundle_module() {
    for (const mgx_module_node_t *n = mgx_module_tot_root.first; n; n = n->next)
        if (!std::strcmp(n->domain_name, "ovrin_sm")) return n;
    return nullptr;
}

std::vector<const mgx_type_info_t *> descriptors() {
    std::vector<const mgx_type_info_t *> out;
    for (const void *const *d = bundle_module()->descriptor_table; *d; ++d)
        out.push_back(static_cast<const mgx_type_info_t *>(*d));
    return out;
}

std::vector<mgx_hook_record_t> variant_info_updates(const mgx_handle_t *h) {
    std::vector<mgx_hook_record_t> out;
    for (size_t i = 0; i < mgx_hook_count(h); ++i)
        if (mgx_hook_entry(h, i)->kind == MGX_HOOK_UPDATE_VARIANT_INFO) out.push_back(*mgx_hook_entry(h, i));
    return out;
}

// ------------------------------------------------------------------ module list

// The domain names along the list, one per line, after checking its links: every node's back
// link, the count and the head's last link.
std::string chain(const mgx_module_root_t &root) {
    std::string names;
    uint32_t n = 0;
    mgx_module_node_t *const *link = &root.first;
    for (mgx_module_node_t *m = root.first; m; link = &m->next, m = m->next, ++n) {
        EXPECT_EQ(m->prev_next, link) << m->domain_name;
        names += std::string(m->domain_name) + "\n";
    }
    EXPECT_EQ(root.count, n);
    EXPECT_EQ(root.last_next, link);
    return names;
}

TEST(ModuleList, LinksAtTheTailUnlinksAnywhereAndLinksOnlyOncePerImage) {
    mgx_module_root_t root = {0, nullptr, &root.first};
    mgx_module_node_t a{"a", nullptr, nullptr, nullptr}, b{"b", nullptr, nullptr, nullptr}, c{"c", nullptr, nullptr, nullptr};
    uint8_t linked[3] = {}; // each image's "already linked" flag
    for (mgx_module_node_t *n : {&a, &b, &c}) ovrin::frame::link_module(root, *n, linked[n->domain_name[0] - 'a']);
    EXPECT_EQ(chain(root), "a\nb\nc\n");
    ovrin::frame::unlink_module(root, b); // from the middle
    EXPECT_EQ(chain(root), "a\nc\n");
    EXPECT_TRUE(b.next == nullptr && b.prev_next == nullptr);
    ovrin::frame::unlink_module(root, c); // the tail: the head's last link moves back
    EXPECT_EQ(chain(root), "a\n");
    ovrin::frame::unlink_module(root, a);
    ovrin::frame::unlink_module(root, a); // a second unload does nothing
    EXPECT_EQ(chain(root), "");
    ovrin::frame::link_module(root, a, linked[0]); // the flag stays set: no relinking
    EXPECT_EQ(chain(root), "");
    EXPECT_EQ(linked[0], 1);
}

// The loaded library's node is in the runtime's list; a second image of the library (a copy
// under another name) links its own node at load and takes it out again at unload, leaving the
// first image's node in place.
TEST(ModuleList, LoadingAndUnloadingAnImageLinksAndUnlinksItsNode) {
    ASSERT_NE(bundle_module(), nullptr);
    const std::string before = chain(mgx_module_tot_root);
    Dl_info info{};
    ASSERT_TRUE(dladdr(reinterpret_cast<void *>(&ovrin_sm_typeinfo_initialize), &info));
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("ovrin_sm_image_" + std::to_string(getpid()));
    fs::create_directories(dir);
    fs::path copy = dir / "libovrin_sm_copy.so";
    fs::copy_file(info.dli_fname, copy, fs::copy_options::overwrite_existing);

    const mgx_module_node_t *first = bundle_module();
    void *image = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(image, nullptr) << dlerror();
    EXPECT_EQ(chain(mgx_module_tot_root), before + "ovrin_sm\n");
    EXPECT_EQ(dlclose(image), 0);
    EXPECT_EQ(chain(mgx_module_tot_root), before);
    EXPECT_EQ(bundle_module(), first);
    fs::remove_all(dir);
}

// ------------------------------------------------------------------ bundle adoption

std::string bundle_calls() {
    std::string out;
    for (size_t i = 0; i < mgx_bundle_call_count(); ++i) out += std::string(mgx_bundle_call(i)) + "\n";
    return out;
}

TEST(BundleHandler, RegistersAndUnregistersTheFourBundlesInOrder) {
    void *arg = reinterpret_cast<void *>(0x5a5a0);
    mgx_bundle_calls_clear();
    EXPECT_EQ(ovrin_sm_bundle_handler_unregister(arg), 0u); // without a registration
    EXPECT_EQ(bundle_calls(), "if_common_bundle_handler_unregister(0x5a5a0)\nplatform_comm_bundle_handler_unregister()\n"
                              "aaa_common_bundle_handler_unregister()\naaa_proxy_bundle_handler_unregister()\n");
    mgx_bundle_calls_clear();
    EXPECT_EQ(ovrin_sm_bundle_handler_register(0xA1, arg), 0u);
    EXPECT_EQ(ovrin_sm_bundle_registered_handler, 0xA1u);
    EXPECT_EQ(bundle_calls(), "if_common_bundle_handler_register(0xa1, 0x5a5a0)\nplatform_comm_bundle_handler_register(0xa1)\n"
                              "aaa_common_bundle_handler_register(0xa1)\naaa_proxy_bundle_handler_register(0xa1)\n");
    EXPECT_EQ(ovrin_sm_bundle_handler_register(0xB2, nullptr), 0xA1u); // not counted: B replaces A
    EXPECT_EQ(mgx_bundle_call_count(), 8u);
    EXPECT_EQ(ovrin_sm_bundle_handler_unregister(nullptr), 0xB2u);
    EXPECT_EQ(ovrin_sm_bundle_registered_handler, 0u);
    EXPECT_EQ(mgx_bundle_call_count(), 12u);
}

// ------------------------------------------------------------------ registry binding

// Takes over a handle's registry allocator: counts the calls and hands out blocks filled with
// garbage, so that the registered copies cannot lean on zeroed memory.
struct DirtyRegistryAllocator {
    std::vector<std::pair<uint32_t, size_t>> calls;
    std::vector<std::unique_ptr<unsigned char[]>> blocks;

    static void *alloc(void *ctx, uint32_t luid, size_t size) {
        auto *self = static_cast<DirtyRegistryAllocator *>(ctx);
        self->calls.emplace_back(luid, size);
        self->blocks.emplace_back(new unsigned char[size]);
        std::memset(self->blocks.back().get(), 0xAB, size);
        return self->blocks.back().get();
    }
    explicit DirtyRegistryAllocator(mgx_handle_t *h) {
        h->reg_alloc = alloc;
        h->reg_mem_ctx = this;
    }
};

// The variant-info refreshes of one initialisation: one per type in registration order, of the
// handle's registered copy from the static descriptor; arg 1 marks a new registration.
void expect_refreshes(mgx_handle_t *h, uint32_t luid, const std::function<bool(size_t)> &is_new) {
    std::vector<const mgx_type_info_t *> statics = descriptors();
    std::vector<mgx_hook_record_t> updates = variant_info_updates(h);
    ASSERT_EQ(updates.size(), 79u);
    for (size_t i = 0; i < updates.size(); ++i) {
        SCOPED_TRACE(statics[i]->type_name);
        EXPECT_EQ(updates[i].object, mgx_handle_registry_lookup(h, statics[i]->fingerprint_text));
        EXPECT_EQ(updates[i].container, statics[i]);
        EXPECT_EQ(updates[i].arg, is_new(i) ? 1 : 0);
        EXPECT_EQ(updates[i].luid, luid);
    }
}

TEST_F(BundleHandle, TypeinfoInitializeRegistersACopyOfEveryDescriptorOnceThenOnlyRefreshes) {
    DirtyRegistryAllocator allocator(h);
    mgx_handle_set_domain_mode(h, 3);
    ovrin_sm_typeinfo_initialize(h, 7, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(mgx_handle_registry_count(h), 79u);
    EXPECT_EQ(allocator.calls, decltype(allocator.calls)(79, {MGX_LUID_NONE, 288}));
    for (const mgx_type_info_t *d : descriptors()) {
        SCOPED_TRACE(d->type_name);
        auto *copy = static_cast<const mgx_type_info_reg_t *>(mgx_handle_registry_lookup(h, d->fingerprint_text));
        ASSERT_TRUE(copy != nullptr && static_cast<const void *>(copy) != static_cast<const void *>(d));
        EXPECT_EQ(std::memcmp(&copy->info, d, offsetof(mgx_type_info_t, registry_slot)), 0);
        EXPECT_TRUE(copy->info.registry_slot == -1 && copy->info.registry_mode == 3u);
        EXPECT_TRUE(copy->runtime_words[0] == nullptr && copy->runtime_words[1] == nullptr);
    }
    expect_refreshes(h, 7, [](size_t) { return true; });

    mgx_hook_clear(h);
    ovrin_sm_typeinfo_initialize(h, 7, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(allocator.calls.size(), 79u);
    expect_refreshes(h, 7, [](size_t) { return false; });
}

// A registration that is already there, made elsewhere or by an earlier run that stopped at a
// failed allocation, is kept as it is, whatever it holds; a later run registers the rest.
TEST_F(BundleHandle, TypeinfoInitializeKeepsWhatIsRegisteredAndStopsAtAFailedAllocation) {
    const char *fingerprint = _sess_mgr_conn_hdl_type_info_internal.fingerprint_text;
    mgx_type_info_reg_t foreign{};
    std::snprintf(foreign.info.type_name, sizeof foreign.info.type_name, "registered elsewhere");
    h->reg_insert(h->reg_ctx, 0, fingerprint, &foreign);
    mgx_handle_fail_registry_allocation(h, 10);
    ovrin_sm_typeinfo_initialize(h, 0, &err);
    EXPECT_EQ(take_err(), 12u);
    EXPECT_EQ(mgx_handle_registry_count(h), 10u); // the first type's and nine copies

    mgx_hook_clear(h);
    ovrin_sm_typeinfo_initialize(h, 0, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(mgx_handle_registry_lookup(h, fingerprint), &foreign);
    expect_refreshes(h, 0, [](size_t i) { return i >= 10; });
}

// ------------------------------------------------------------------ per-type operations

template <auto Cap> int64_t widened(uint32_t index) { return Cap(index); }

// Records look at the low byte only and answer a signed variant; enumerations keep the other
// bytes of the word. Both cap at the type's last variant and keep negative (unknown) variants.
TEST(VariantCap, CapsToTheLastVariantAndKeepsNegatives) {
    const std::pair<int64_t (*)(uint32_t), std::vector<std::pair<uint32_t, int64_t>>> cases[] = {
        {widened<sess_mgr_conn_hdl_variant_data_index_cap>, {{0x05, 0}, {0x80, -128}, {0x1234, 0}}},
        {widened<sess_mgr_session_start_variant_data_index_cap>, {{1, 1}, {2, 1}, {0xFF, -1}}},
        {widened<sm_peer_state_variant_data_index_cap>, {{0x05, 0}, {0x1234, 0x1200}, {0x12FF, 0x12FF}}},
        {widened<ovrin_sm_in_event_type_variant_data_index_cap>, {{0x103, 0x102}, {0x180, 0x180}}},
    };
    for (size_t row = 0; row < std::size(cases); ++row)
        for (auto [index, capped] : cases[row].second)
            EXPECT_EQ(cases[row].first(index), capped) << "row " << row << std::hex << ", index 0x" << index;
}

} // namespace
