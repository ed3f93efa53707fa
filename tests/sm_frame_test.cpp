// The bundle frame: the module node in the runtime's module list, adoption of the bundle and its
// four dependent bundles, registry binding, the variant dump, trace registration and the two
// per-type operations every type has.
#include <dlfcn.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "frame/module_list.h"
#include "mgx/runtime.h"
#include "tests/prim_fixture.h"
#include "ovrin_sm/ops.h"

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

TEST(ModuleList, LinksAtTheTailUnlinksAnywhereAndLinksOnlyOncePerImage) {
    mgx_module_root_t root = {0, nullptr, &root.first};
    mgx_module_node_t a{"a", nullptr, nullptr, nullptr}, b{"b", nullptr, nullptr, nullptr}, c{"c", nullptr, nullptr, nullptr};
    uint8_t a_linked = 0, b_linked = 0, c_linked = 0;
    ovrin::frame::link_module(root, a, a_linked);
    ovrin::frame::link_module(root, b, b_linked);
    ovrin::frame::link_module(root, c, c_linked);
    EXPECT_EQ(root.count, 3u);
    EXPECT_EQ(root.first, &a);
    EXPECT_EQ(a.next, &b);
    EXPECT_EQ(b.prev_next, &a.next);
    EXPECT_EQ(root.last_next, &c.next);

    ovrin::frame::unlink_module(root, b); // from the middle
    EXPECT_EQ(a.next, &c);
    EXPECT_EQ(c.prev_next, &a.next);
    EXPECT_EQ(b.next, nullptr);
    EXPECT_EQ(b.prev_next, nullptr);
    ovrin::frame::unlink_module(root, c); // the tail: the head's last link moves back
    EXPECT_EQ(root.last_next, &a.next);
    ovrin::frame::unlink_module(root, a);
    EXPECT_EQ(root.count, 0u);
    EXPECT_EQ(root.first, nullptr);
    EXPECT_EQ(root.last_next, &root.first);

    ovrin::frame::unlink_module(root, a); // a second unload does nothing
    EXPECT_EQ(root.count, 0u);
    ovrin::frame::link_module(root, a, a_linked); // the flag stays set: no relinking
    EXPECT_EQ(root.count, 0u);
    EXPECT_EQ(root.first, nullptr);
    EXPECT_EQ(a_linked, 1);
}

TEST(ModuleList, TheLoadedBundleIsLinkedWithItsDescriptorTable) {
    const mgx_module_node_t *node = bundle_module();
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(*node->prev_next, node);
    uint32_t walked = 0;
    for (const mgx_module_node_t *n = mgx_module_tot_root.first; n; n = n->next) ++walked;
    EXPECT_EQ(walked, mgx_module_tot_root.count);
}

// A second image of the library (a copy under another name) links its own node at load and
// takes it out again at unload, leaving the first image's node in place.
TEST(ModuleList, LoadingAndUnloadingAnImageLinksAndUnlinksItsNode) {
    Dl_info info{};
    ASSERT_TRUE(dladdr(reinterpret_cast<void *>(&ovrin_sm_typeinfo_initialize), &info));
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("ovrin_sm_image_" + std::to_string(getpid()));
    fs::create_directories(dir);
    fs::path copy = dir / "libovrin_sm_copy.so";
    fs::copy_file(info.dli_fname, copy, fs::copy_options::overwrite_existing);

    uint32_t before = mgx_module_tot_root.count;
    mgx_module_node_t **tail_before = mgx_module_tot_root.last_next;
    void *image = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(image, nullptr) << dlerror();
    EXPECT_EQ(mgx_module_tot_root.count, before + 1);
    mgx_module_node_t *added = *tail_before;
    ASSERT_NE(added, nullptr);
    EXPECT_NE(added, bundle_module());
    EXPECT_STREQ(added->domain_name, "ovrin_sm");
    EXPECT_EQ(mgx_module_tot_root.last_next, &added->next);

    EXPECT_EQ(dlclose(image), 0);
    EXPECT_EQ(mgx_module_tot_root.count, before);
    EXPECT_EQ(mgx_module_tot_root.last_next, tail_before);
    EXPECT_EQ(*tail_before, nullptr);
    EXPECT_NE(bundle_module(), nullptr);
    fs::remove_all(dir);
}

// ------------------------------------------------------------------ bundle adoption

std::vector<std::string> bundle_calls() {
    std::vector<std::string> out;
    for (size_t i = 0; i < mgx_bundle_call_count(); ++i) out.push_back(mgx_bundle_call(i));
    return out;
}

TEST(BundleHandler, RegistersAndUnregistersTheFourBundlesInOrder) {
    int arg_object = 0;
    void *arg = &arg_object;
    char arg_text[32];
    std::snprintf(arg_text, sizeof arg_text, "%p", arg);

    mgx_bundle_calls_clear();
    EXPECT_EQ(ovrin_sm_bundle_handler_unregister(arg), 0u); // without a registration
    EXPECT_EQ(bundle_calls(), (std::vector<std::string>{
                                  std::string("if_common_bundle_handler_unregister(") + arg_text + ")",
                                  "platform_comm_bundle_handler_unregister()",
                                  "aaa_common_bundle_handler_unregister()",
                                  "aaa_proxy_bundle_handler_unregister()",
                              }));

    mgx_bundle_calls_clear();
    EXPECT_EQ(ovrin_sm_bundle_handler_register(0xA1, arg), 0u);
    EXPECT_EQ(ovrin_sm_bundle_registered_handler, 0xA1u);
    EXPECT_EQ(bundle_calls(), (std::vector<std::string>{
                                  std::string("if_common_bundle_handler_register(0xa1, ") + arg_text + ")",
                                  "platform_comm_bundle_handler_register(0xa1)",
                                  "aaa_common_bundle_handler_register(0xa1)",
                                  "aaa_proxy_bundle_handler_register(0xa1)",
                              }));
    EXPECT_EQ(ovrin_sm_bundle_handler_register(0xB2, nullptr), 0xA1u); // not counted: B replaces A
    EXPECT_EQ(mgx_bundle_call_count(), 8u);
    EXPECT_EQ(ovrin_sm_bundle_handler_unregister(nullptr), 0xB2u);
    EXPECT_EQ(ovrin_sm_bundle_registered_handler, 0u);
    EXPECT_EQ(mgx_bundle_call_count(), 12u);
}

TEST(Trace, ModuleRegistersOnceUnderItsName) {
    mgx_ovrin_sm_trace_init();
    uint16_t id = g_mgx_ovrin_sm_trace_module_id;
    EXPECT_NE(id, 0);
    EXPECT_STREQ(mgx_trace_module_name(id), "mgx_ovrin_sm");
    mgx_ovrin_sm_trace_init();
    EXPECT_EQ(g_mgx_ovrin_sm_trace_module_id, id);
    EXPECT_EQ(g_mgx_ovrin_sm_stub_trace_module_id, 0);
}

// ------------------------------------------------------------------ registry binding

// Wraps a handle's registry allocator: counts the calls, can fill the blocks with garbage first,
// and otherwise hands out the runtime's own blocks.
struct RegistryAllocator {
    mgx_alloc_fn inner = nullptr;
    void *inner_ctx = nullptr;
    std::vector<std::pair<uint32_t, size_t>> calls;
    bool dirty = false;
    std::vector<std::unique_ptr<unsigned char[]>> own;

    static void *alloc(void *ctx, uint32_t luid, size_t size) {
        auto *self = static_cast<RegistryAllocator *>(ctx);
        self->calls.emplace_back(luid, size);
        if (!self->dirty) return self->inner(self->inner_ctx, luid, size);
        self->own.emplace_back(new unsigned char[size]);
        std::memset(self->own.back().get(), 0xAB, size);
        return self->own.back().get();
    }
    void install(mgx_handle_t *h) {
        inner = h->reg_alloc;
        inner_ctx = h->reg_mem_ctx;
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
    RegistryAllocator allocator;
    allocator.dirty = true; // the copy must not depend on zeroed memory
    allocator.install(h);
    mgx_handle_set_domain_mode(h, 3);
    uint32_t err = 0;
    ovrin_sm_typeinfo_initialize(h, 7, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(mgx_handle_registry_count(h), 79u);
    ASSERT_EQ(allocator.calls.size(), 79u);
    for (auto [luid, size] : allocator.calls) {
        EXPECT_EQ(luid, MGX_LUID_NONE);
        EXPECT_EQ(size, 288u);
    }
    for (const mgx_type_info_t *d : descriptors()) {
        SCOPED_TRACE(d->type_name);
        auto *copy = static_cast<const mgx_type_info_reg_t *>(mgx_handle_registry_lookup(h, d->fingerprint_text));
        ASSERT_NE(copy, nullptr);
        ASSERT_NE(static_cast<const void *>(copy), static_cast<const void *>(d));
        EXPECT_EQ(std::memcmp(&copy->info, d, offsetof(mgx_type_info_t, registry_slot)), 0);
        EXPECT_EQ(copy->info.registry_slot, -1);
        EXPECT_EQ(copy->info.variant_info, d->variant_info);
        EXPECT_EQ(copy->info.registry_mode, 3u);
        EXPECT_EQ(copy->runtime_words[0], nullptr);
        EXPECT_EQ(copy->runtime_words[1], nullptr);
    }
    expect_refreshes(h, 7, [](size_t) { return true; });

    mgx_hook_clear(h);
    ovrin_sm_typeinfo_initialize(h, 7, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(allocator.calls.size(), 79u);
    EXPECT_EQ(mgx_handle_registry_count(h), 79u);
    expect_refreshes(h, 7, [](size_t) { return false; });
}

// A registration that is already there is kept as it is, whatever it holds.
TEST_F(BundleHandle, TypeinfoInitializeKeepsAnExistingRegistration) {
    const mgx_type_info_t *conn_hdl = &_sess_mgr_conn_hdl_type_info_internal;
    mgx_type_info_reg_t foreign{};
    std::snprintf(foreign.info.type_name, sizeof foreign.info.type_name, "registered elsewhere");
    h->reg_insert(h->reg_ctx, 0, conn_hdl->fingerprint_text, &foreign);
    uint32_t err = 0;
    ovrin_sm_typeinfo_initialize(h, 0, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(mgx_handle_registry_lookup(h, conn_hdl->fingerprint_text), &foreign);
    EXPECT_STREQ(foreign.info.type_name, "registered elsewhere");
    expect_refreshes(h, 0, [](size_t i) { return i != 0; });
}

TEST_F(BundleHandle, TypeinfoInitializeStopsAtAFailedAllocation) {
    mgx_handle_fail_registry_allocation(h, 10);
    uint32_t err = 0;
    ovrin_sm_typeinfo_initialize(h, 0, &err);
    EXPECT_EQ(err, 12u);
    EXPECT_EQ(mgx_handle_last_error(h), 12u);
    EXPECT_EQ(mgx_handle_registry_count(h), 9u);
    std::vector<const mgx_type_info_t *> statics = descriptors();
    for (size_t i = 0; i < statics.size(); ++i)
        EXPECT_EQ(mgx_handle_registry_lookup(h, statics[i]->fingerprint_text) != nullptr, i < 9) << statics[i]->type_name;
    EXPECT_EQ(variant_info_updates(h).size(), 9u);

    // a later run completes the registration and keeps the nine
    mgx_hook_clear(h);
    err = 0;
    ovrin_sm_typeinfo_initialize(h, 0, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(mgx_handle_registry_count(h), 79u);
    expect_refreshes(h, 0, [](size_t i) { return i >= 9; });
}

// ------------------------------------------------------------------ variant dump

std::string dumped;

int capture(const char *format, ...) {
    char line[256];
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    dumped += line;
    return n;
}

TEST(VariantDump, PrintsEveryTypesVariantsInRegistrationOrder) {
    dumped.clear();
    ovrin_sm_type_variant_dump(capture);
    EXPECT_EQ(dumped.rfind("n_variants 1\nvariant 0 used length 16 alloc slop 8\n"
                           "n_variants 1\nvariant 0 used length 24 alloc slop 8\n",
                           0),
              0u)
        << dumped.substr(0, 200);
    EXPECT_NE(dumped.find("n_variants 3\nvariant 0 used length 200 alloc slop 32\nvariant 1 used length 208 alloc slop 24\n"
                          "variant 2 used length 216 alloc slop 16\nn_variants 1\nvariant 0 used length 176 alloc slop 16\n"),
              std::string::npos);
    size_t lines = 0;
    for (char ch : dumped) lines += ch == '\n';
    EXPECT_EQ(lines, 79u + 88u); // 79 counts and 88 variants (72 types of one, 5 of two, 2 of three)
}

TEST(VariantDump, ATypeWithoutVariantInfoIsTracedAndSkipped) {
    mgx_ovrin_sm_trace_init();
    mgx_type_variant_info_t *saved = _sess_mgr_conn_hdl_type_info_internal.variant_info;
    _sess_mgr_conn_hdl_type_info_internal.variant_info = nullptr;
    mgx_trace_clear();
    dumped.clear();
    ovrin_sm_type_variant_dump(capture);
    _sess_mgr_conn_hdl_type_info_internal.variant_info = saved;

    EXPECT_EQ(dumped.rfind("n_variants 1\nvariant 0 used length 24 alloc slop 8\n", 0), 0u); // starts at the second type
    ASSERT_EQ(mgx_trace_count(), 1u);
    EXPECT_STREQ(mgx_trace_text(0), "type variant cached info is NULL during usage dump");
    EXPECT_EQ(mgx_trace_severity(0), 3);
    EXPECT_EQ(mgx_trace_module(0), g_mgx_ovrin_sm_trace_module_id);
}

// ------------------------------------------------------------------ per-type operations

template <auto Cap> int64_t widened(uint32_t index) { return Cap(index); }

// Records look at the low byte only and answer a signed variant; enumerations keep the other
// bytes of the word. Both cap at the type's last variant and keep negative (unknown) variants.
TEST(VariantCap, CapsToTheLastVariantAndKeepsNegatives) {
    const std::pair<int64_t (*)(uint32_t), std::vector<std::pair<uint32_t, int64_t>>> cases[] = {
        {widened<sess_mgr_conn_hdl_variant_data_index_cap>, {{0x05, 0}, {0xFF, -1}, {0x80, -128}, {0x1234, 0}, {0x81, -127}}},
        {widened<sess_mgr_session_start_variant_data_index_cap>, {{0, 0}, {1, 1}, {2, 1}, {0x7F, 1}, {0xFF, -1}}},
        {widened<ovrin_smd_in_event_variant_data_index_cap>, {{2, 2}, {3, 2}}},
        {widened<ovrin_smd_resp_event_variant_data_index_cap>, {{0x101, 0}}},
        {widened<sm_peer_state_variant_data_index_cap>, {{0x05, 0}, {0x1234, 0x1200}, {0x12FF, 0x12FF}, {0x1200, 0x1200}}},
        {widened<ovrin_sm_in_event_type_variant_data_index_cap>,
         {{0x102, 0x102}, {0x103, 0x102}, {0x17F, 0x102}, {0x180, 0x180}}},
    };
    for (size_t row = 0; row < std::size(cases); ++row)
        for (auto [index, capped] : cases[row].second)
            EXPECT_EQ(cases[row].first(index), capped) << "row " << row << std::hex << ", index 0x" << index;
}

TEST_F(BundleHandle, GetLuidForwardsToTheRuntime) {
    mgx_handle_set_descriptor_luid(h, 9);
    for (uint32_t luid : {5u, MGX_LUID_NONE}) {
        EXPECT_EQ(sess_mgr_session_start_get_luid(h, luid), mgx_get_luid(h, luid));
        EXPECT_EQ(ovrin_smd_resp_event_get_luid(h, luid), mgx_get_luid(h, luid));
        EXPECT_EQ(sm_peer_state_get_luid(h, luid), mgx_get_luid(h, luid));
    }
    EXPECT_EQ(sess_mgr_conn_hdl_get_luid(h, MGX_LUID_NONE), 9u);
}

} // namespace
