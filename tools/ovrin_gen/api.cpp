// What the bundle exports, in one place: the per-type entry points, the bundle functions and the
// bundle data. The public prototypes, the wrappers, the linker's export list and the tests'
// expected symbol set are all generated from these lists.
#include "tools/ovrin_gen/emit.h"

namespace gen {

const std::vector<EntryPoint> &entry_points() {
    static const std::vector<EntryPoint> list = {
        {"get_luid", k_all, "uint32_t", "mgx_handle_t *h, uint32_t luid", "mgx_get_luid(h, luid)"},
        {"variant_data_index_cap", k_composite, "int8_t", "uint32_t index", "ovrin::record_variant_cap($table, index)"},
        {"variant_data_index_cap", k_enum, "uint32_t", "uint32_t index", "ovrin::enum_variant_cap($table, index)"},
    };
    return list;
}

const std::vector<BundleSymbol> &bundle_functions() {
    static const std::vector<BundleSymbol> list = {
        {"ovrin_sm_bundle_handler_register", "uint64_t ovrin_sm_bundle_handler_register(uint64_t handler, void *arg)"},
        {"ovrin_sm_bundle_handler_unregister", "uint64_t ovrin_sm_bundle_handler_unregister(void *arg)"},
        {"ovrin_sm_typeinfo_initialize", "void ovrin_sm_typeinfo_initialize(mgx_handle_t *h, uint32_t luid, uint32_t *err)"},
        {"ovrin_sm_type_variant_dump", "void ovrin_sm_type_variant_dump(int (*print)(const char *format, ...))"},
        {"mgx_ovrin_sm_trace_init", "int mgx_ovrin_sm_trace_init(void)"},
    };
    return list;
}

const std::vector<BundleSymbol> &bundle_data() {
    static const std::vector<BundleSymbol> list = {
        {"ovrin_sm_bundle_registered_handler", "extern uint64_t ovrin_sm_bundle_registered_handler"},
        {"g_mgx_ovrin_sm_trace_module_id", "extern uint16_t g_mgx_ovrin_sm_trace_module_id"},
        {"g_mgx_ovrin_sm_stub_trace_module_id", "extern uint16_t g_mgx_ovrin_sm_stub_trace_module_id"},
    };
    return list;
}

bool has_entry_point(const EntryPoint &e, const Type &t) {
    unsigned bit = t.kind == TypeKind::record ? k_record : t.kind == TypeKind::union_ ? k_union : k_enum;
    return (e.kinds & bit) != 0;
}

namespace {

struct TypeMessage {
    const char *record_text;
    const char *enum_text;
};

const std::vector<const char *> &bundle_message_list() {
    static const std::vector<const char *> list = {
#define OVRIN_BUNDLE_MESSAGE(id, text) text,
#include "ops/messages.def"
    };
    return list;
}

const std::vector<TypeMessage> &type_message_list() {
    static const std::vector<TypeMessage> list = {
#define OVRIN_TYPE_MESSAGE(id, record_text, enum_text) {record_text, enum_text},
#include "ops/messages.def"
    };
    return list;
}

} // namespace

unsigned bundle_message_count() { return static_cast<unsigned>(bundle_message_list().size()); }
unsigned type_message_count() { return static_cast<unsigned>(type_message_list().size()); }

std::vector<std::string> trace_texts(const Catalogue &c) {
    std::vector<std::string> texts(bundle_message_list().begin(), bundle_message_list().end());
    for (const auto &t : c.types)
        for (const TypeMessage &m : type_message_list())
            texts.push_back(replace_all(t->is_enum() ? m.enum_text : m.record_text, "<type>", t->name));
    return texts;
}

std::vector<std::string> exported_names(const Catalogue &c) {
    std::vector<std::string> names;
    for (const BundleSymbol &s : bundle_functions()) names.push_back(s.name);
    for (const BundleSymbol &s : bundle_data()) names.push_back(s.name);
    for (const auto &t : c.types) names.push_back("_" + t->name + "_type_info_internal");
    for (const auto &t : c.types)
        for (const EntryPoint &e : entry_points())
            if (has_entry_point(e, *t)) names.push_back(t->name + "_" + e.op);
    return names;
}

} // namespace gen
