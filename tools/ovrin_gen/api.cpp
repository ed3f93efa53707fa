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
        // Lifecycle: records, unions and enumerations alike.
        {"create", k_all, "$T *", "mgx_handle_t *h, uint32_t luid", "static_cast<$T *>(ovrin::create($table, h, luid))"},
        {"create_internal", k_all, "$T *", "mgx_handle_t *h, uint32_t luid",
         "static_cast<$T *>(ovrin::create_internal($table, h, luid))"},
        {"create_cr", k_all, "$T *", "mgx_handle_t *h", "static_cast<$T *>(ovrin::create_cr($table, h))"},
        {"initialize", k_all, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, const void *descriptor, int use_write_hook, int header_only, "
         "uint32_t flags_to_set, uint8_t *sttr_base, uint32_t *err",
         "ovrin::initialize($table, h, luid, instance, descriptor, use_write_hook, header_only, flags_to_set, sttr_base, "
         "err)"},
        {"set_instance_embedded", k_all, "void", "mgx_handle_t *h, uint32_t luid, $T *instance",
         "ovrin::set_instance_embedded($table, h, luid, instance)"},
        {"destroy", k_all, "void", "mgx_handle_t *h, uint32_t luid, $T *instance", "ovrin::destroy($table, h, luid, instance)"},
        {"destroy_internal", k_all, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, int free_it",
         "ovrin::destroy_internal($table, h, luid, instance, free_it)"},
        {"destroy_cr", k_all, "void", "mgx_handle_t *h, $T *instance", "ovrin::destroy_cr($table, h, instance)"},
        {"sizeof", k_composite, "uint32_t", "mgx_handle_t *h", "ovrin::size_of($table, h)"},
        {"sizeof", k_enum, "uint32_t", "void", "sizeof($T)"},
        {"sizeof_internal", k_composite, "uint32_t",
         "mgx_handle_t *h, const $T *instance, int include_state_flags, int flags_only",
         "ovrin::size_of_internal($table, h, instance, include_state_flags, flags_only)"},
        {"get_oid_count", k_all, "uint32_t", "mgx_handle_t *h, uint32_t luid, const $T *instance, uint32_t *err",
         "ovrin::get_oid_count($table, h, luid, instance, err)"},
        {"get_object_references", k_all, "void",
         "mgx_handle_t *h, uint32_t luid, const $T *instance, uint64_t *array, uint32_t count, uint32_t *err",
         "ovrin::get_object_references($table, h, luid, instance, array, count, err)"},
        // Compare, hash and validity.
        {"compare", k_composite, "int32_t", "const $T *a, const $T *b", "ovrin::compare($table, a, b)"},
        {"hash", k_composite, "uint32_t", "const $T *instance, uint32_t seed", "ovrin::hash($table, instance, seed)"},
        {"is_valid_cr", k_composite, "mgx_boolean", "mgx_handle_t *h, const $T *instance, uint32_t member_index, uint32_t flags",
         "ovrin::is_valid_cr($table, h, instance, member_index, flags)"},
        // Wire form and clone: records and unions.
        {"len", k_composite, "uint32_t", "mgx_handle_t *h, uint32_t luid, const $T *instance", "$wire_length(h, luid, instance)"},
        {"len_cr", k_composite, "uint32_t", "mgx_handle_t *h, const $T *instance",
         "ovrin::wire::length_cr(h, instance, $wire_length)"},
        {"marshal", k_composite, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, uint8_t *buf, const $T *instance, int32_t space, uint32_t *err",
         "$wire_encode(h, luid, buf, instance, space, true, err)"},
        {"marshal_for_clone", k_composite, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, uint8_t *buf, const $T *instance, int32_t space, uint32_t *err",
         "$wire_encode(h, luid, buf, instance, space, false, err)"},
        {"unmarshal", k_composite, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const uint8_t *buf, $T *instance, int32_t length, uint32_t flags, "
         "uint32_t *err",
         "$wire_decode(h, luid, buf, instance, length, flags, err)"},
        {"adjust_variant", k_composite, "uint32_t", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::adjust_variant($table, h, luid, instance, err)"},
        {"clone", k_composite, "void",
         "mgx_handle_t *h, uint32_t luid, const $T *source, $T **destination, uint8_t *buf, uint32_t length, "
         "uint32_t *err",
         "ovrin::clone($table, h, luid, source, reinterpret_cast<void **>(destination), buf, length, err)"},
        {"clone_internal", k_composite, "void",
         "mgx_handle_t *h, uint32_t luid, const $T *source, $T **destination, uint8_t *buf, uint32_t length, "
         "uint32_t *err",
         "ovrin::clone_internal($table, h, luid, source, reinterpret_cast<void **>(destination), buf, length, err)"},
        {"clone_cr", k_composite, "$T *", "mgx_handle_t *h, const $T *source, uint32_t work_space_min",
         "static_cast<$T *>(ovrin::clone_cr($table, h, source, work_space_min))"},
        // XML and print forms: records and unions.
        {"to_xml", k_composite, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const $T *instance, uint32_t size, "
         "uint8_t state_flag, uint32_t *err",
         "ovrin::to_xml($table, h, luid, name, buf, instance, size, state_flag, err)"},
        {"toxml_cr", k_composite, "uint32_t", "mgx_handle_t *h, const $T *instance, char *buf, uint32_t size",
         "ovrin::toxml_cr($table, h, instance, buf, size)"},
        {"from_xml", k_composite, "void",
         "mgx_handle_t *h, uint32_t luid, const char *path, void *doc, $T *instance, uint32_t *err, char *msg, "
         "uint32_t msg_size",
         "ovrin::from_xml($table, h, luid, path, doc, instance, err, msg, msg_size)"},
        {"print", k_composite, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const $T *instance, "
         "uint32_t size, uint32_t *err",
         "ovrin::print($table, h, luid, buf, indent, name, instance, size, err)"},
        {"print_cr", k_composite, "int32_t", "mgx_handle_t *h, const $T *instance, char *buf, uint32_t size",
         "ovrin::print_cr($table, h, instance, buf, size)"},
        // JSON form: records, unions and enumerations alike.
        {"to_json", k_all, "int64_t", "mgx_handle_t *h, const $T *instance, uint32_t flags, char **text, size_t *size",
         "ovrin::to_json($table, h, instance, flags, text, size)"},
        {"from_json", k_all, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const char *json, size_t length, $T *instance, uint32_t flags, "
         "ovrin_json_error *error",
         "ovrin::from_json($table, h, luid, json, length, instance, flags, error)"},
        // Field access and state tracking.
        {"get", k_composite, "$T *", "mgx_handle_t *h, uint32_t luid, $T *instance",
         "static_cast<$T *>(ovrin::get($table, h, luid, instance))"},
        {"set", k_composite, "void", "mgx_handle_t *h, uint32_t luid, $T *dst, $T *src, uint32_t *err",
         "ovrin::set($table, h, luid, dst, src, err)"},
        {"get_all", k_composite, "void", "mgx_handle_t *h, uint32_t luid, const $T *instance$GET_ALL_PARAMS, uint32_t *err",
         "ovrin::get_all($table, h, luid, instance, {$GET_ALL_ARGS}, err)"},
        {"set_all", k_composite, "void", "mgx_handle_t *h, uint32_t luid, $T *instance$SET_ALL_PARAMS, uint32_t *err",
         "ovrin::set_all($table, h, luid, instance, {$SET_ALL_ARGS}, err)"},
        {"set_all_state_tracking_flag", k_composite, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, uint8_t value",
         "ovrin::set_all_state_tracking_flag($table, h, luid, instance, value)"},
        {"post_copyout_cleanup", k_composite, "void", "mgx_handle_t *h, uint32_t luid, $T *dst, $T *src, uint32_t *err",
         "ovrin::post_copyout_cleanup($table, h, luid, dst, src, err)"},
        {"offset_update", k_composite, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, uint8_t *flag_base, uint32_t *err",
         "ovrin::offset_update($table, h, luid, instance, flag_base, err)"},
        {"offset_remove", k_composite, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::offset_remove($table, h, luid, instance, err)"},
        // Enumerations.
        {"map_to_user_value", k_enum, "uint32_t", "uint32_t value", "ovrin::enum_map_to_user_value($table, value)"},
        {"map_to_internal_value", k_enum, "uint32_t", "uint32_t value", "ovrin::enum_map_to_internal_value($table, value)"},
        {"adjust_variant", k_enum, "uint32_t", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::enum_adjust_variant($table, h, luid, instance, err)"},
        {"compare", k_enum, "int32_t", "const $T *a, const $T *b", "ovrin::enum_compare(a, b)"},
        {"hash", k_enum, "uint32_t", "const $T *instance, uint32_t seed", "ovrin::enum_hash(instance, seed)"},
        {"len", k_enum, "uint32_t", "void", "ovrin::enum_wire_length"},
        {"len_cr", k_enum, "uint32_t", "mgx_handle_t *h", "ovrin::enum_len_cr(h)"},
        {"get", k_enum, "$T *", "mgx_handle_t *h, uint32_t luid, $T *instance",
         "static_cast<$T *>(ovrin::enum_get(h, luid, instance))"},
        {"get_value", k_enum, "uint32_t", "mgx_handle_t *h, uint32_t luid, const $T *instance, uint32_t *err",
         "ovrin::enum_get_value(h, luid, instance, err)"},
        {"set", k_enum, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, const $T *source, uint32_t *err",
         "ovrin::enum_set($table, h, luid, instance, source, err)"},
        {"set_value", k_enum, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t value, uint32_t *err",
         "ovrin::enum_set_value($table, h, luid, instance, value, err)"},
        {"marshal", k_enum, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, uint8_t *buf, const $T *instance, int32_t space, uint32_t *err",
         "ovrin::enum_marshal($table, h, luid, buf, instance, space, err)"},
        {"unmarshal", k_enum, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const uint8_t *buf, $T *instance, int32_t length, uint32_t flags, "
         "uint32_t *err",
         "ovrin::enum_unmarshal($table, h, luid, buf, instance, length, flags, err)"},
        {"print", k_enum, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const $T *obj, uint32_t size, "
         "uint32_t *err",
         "ovrin::enum_print($table, h, luid, buf, indent, name, obj, size, err)"},
        {"print_cr", k_enum, "uint32_t", "mgx_handle_t *h, const $T *obj, char *buf, uint32_t size",
         "ovrin::enum_print_cr($table, h, obj, buf, size)"},
        {"to_xml", k_enum, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const $T *obj, uint32_t size, uint8_t state_flag, "
         "uint32_t *err",
         "ovrin::enum_to_xml($table, h, luid, name, buf, obj, size, state_flag, err)"},
        {"toxml_cr", k_enum, "uint32_t", "mgx_handle_t *h, const $T *obj, char *buf, uint32_t size",
         "ovrin::enum_toxml_cr($table, h, obj, buf, size)"},
        {"from_xml", k_enum, "void",
         "mgx_handle_t *h, uint32_t luid, const char *path, void *doc, $T *obj, uint32_t *err, char *msg, "
         "uint32_t msg_size",
         "ovrin::enum_from_xml($table, h, luid, path, doc, obj, err, msg, msg_size)"},
        {"is_valid_cr", k_enum, "mgx_boolean", "mgx_handle_t *h, uint32_t value", "ovrin::enum_is_valid_cr($table, h, value)"},
    };
    return list;
}

namespace {

// Fields held inline as one element, reached by the per-field accessors.
bool single_element(const Field &f) { return f.shape == Shape::scalar; }
// Those whose set only reads the value: primitives and enumerations.
bool set_by_value_copy(const Field &f) { return single_element(f) && (f.prim || f.type->is_enum()); }
// Nested records and unions: their set may move union members out of the value.
bool set_by_instance_copy(const Field &f) { return single_element(f) && !set_by_value_copy(f); }
bool has_value(const Field &f) {
    return single_element(f) && f.prim &&
           (*f.prim == Prim::u8 || *f.prim == Prim::u16 || *f.prim == Prim::u32 || *f.prim == Prim::u64 ||
            *f.prim == Prim::boolean);
}
// A union's discriminator is read and written by value too, as the user value of its enumeration.
bool discriminator(const Field &f) { return f.discriminator; }

} // namespace

// Composite fields.
namespace {

bool is_member(const Field &f) { return f.shape == Shape::member; }
bool is_string(const Field &f) { return f.shape == Shape::var_string; }
bool is_fixed_array(const Field &f) { return f.shape == Shape::fixed_array; }
bool is_var_array(const Field &f) { return f.shape == Shape::var_array; }
bool is_array(const Field &f) { return is_fixed_array(f) || is_var_array(f); }
// A count field named <array>_length already is <array>_length_get/_get_value through its own
// scalar accessors; the other variable arrays get length accessors of their own.
bool needs_length_accessors(const Field &f) { return is_var_array(f) && f.companion_name != f.name + "_length"; }
// Members and strings have one flag byte of their own; arrays have theirs per element.
bool has_own_flag(const Field &f) { return is_member(f) || is_string(f); }
// Fixed arrays read and written by value: integers in their own width, enumerations as user values.
bool fixed_of_integers(const Field &f) {
    return is_fixed_array(f) && f.prim &&
           (*f.prim == Prim::u8 || *f.prim == Prim::u16 || *f.prim == Prim::u32 || *f.prim == Prim::u64 ||
            *f.prim == Prim::boolean);
}
bool fixed_of_enums(const Field &f) { return is_fixed_array(f) && f.type && f.type->is_enum(); }

} // namespace

// The per-field families (accessors, state flags, array elements, strings, union members) go here,
// each entry selecting its fields with `applies`.
const std::vector<FieldEntryPoint> &field_entry_points() {
    static const std::vector<FieldEntryPoint> list = {
        // Field access and state tracking.
        {"get", k_composite, single_element, "$FT *", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "static_cast<$FT *>(ovrin::field_get($table, $field, h, luid, instance, err))"},
        {"set", k_composite, set_by_value_copy, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, const $FT *value, uint32_t *err",
         "ovrin::field_set($table, $field, h, luid, instance, value, err)"},
        {"set", k_composite, set_by_instance_copy, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, $FT *value, uint32_t *err",
         "ovrin::field_set($table, $field, h, luid, instance, value, err)"},
        // Integers and booleans: compiled per field over the runtime's functions of their kind.
        {"get_value", k_composite, has_value, "$FT", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::scalar_get_value<$FT_get, $FT_get_value, $index, $from, offsetof($T, $F)>($table, h, luid, instance, err)"},
        {"set_value", k_composite, has_value, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, $FT value, uint32_t *err",
         "ovrin::scalar_set_value<$FT_get, $FT_set_value, $index, $from, $last, offsetof($T, $F)>($table, h, luid, instance, "
         "value, err)"},
        {"get_value", k_composite, discriminator, "uint32_t", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "static_cast<uint32_t>(ovrin::field_get_value($table, $field, h, luid, instance, err))"},
        {"set_value", k_composite, discriminator, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t value, uint32_t *err",
         "ovrin::field_set_value($table, $field, h, luid, instance, value, err)"},
        {"state_flag_get", k_composite, single_element, "uint8_t", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::state_flag_get($table, $field, h, luid, instance, err)"},
        {"state_flag_set", k_composite, single_element, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint8_t value, uint32_t *err",
         "ovrin::state_flag_set($table, $field, h, luid, instance, value, err)"},
        // Composite fields.
        {"get", k_composite, is_member, "$FT *", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "static_cast<$FT *>(ovrin::member_get($table, $field, h, luid, instance, err))"},
        {"set", k_composite, is_member, "void", "mgx_handle_t *h, uint32_t luid, $T *instance, $FT *member, uint32_t *err",
         "ovrin::member_set($table, $field, h, luid, instance, member, err)"},
        {"set_cr", k_composite, is_member, "uint32_t", "mgx_handle_t *h, $T *instance, $FT *member",
         "ovrin::member_set_cr($table, $field, h, instance, member)"},
        {"get_detach", k_composite, is_member, "$FT *", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "static_cast<$FT *>(ovrin::member_get_detach($table, $field, h, luid, instance, err))"},
        {"state_flag_get", k_composite, has_own_flag, "uint8_t", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::state_flag_get($table, $field, h, luid, instance, err)"},
        {"state_flag_set", k_composite, has_own_flag, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint8_t value, uint32_t *err",
         "ovrin::state_flag_set($table, $field, h, luid, instance, value, err)"},
        {"get", k_composite, is_fixed_array, "$FT *",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, uint32_t *err",
         "static_cast<$FT *>(ovrin::fixed_get($table, $field, h, luid, instance, index, err))"},
        {"get_value", k_composite, fixed_of_integers, "$FT",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, uint32_t *err",
         "static_cast<$FT>(ovrin::fixed_get_value($table, $field, h, luid, instance, index, err))"},
        {"get_value", k_composite, fixed_of_enums, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, uint32_t *err",
         "static_cast<uint32_t>(ovrin::fixed_get_value($table, $field, h, luid, instance, index, err))"},
        {"set", k_composite, is_fixed_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, const $FT *value, uint32_t *err",
         "ovrin::fixed_set($table, $field, h, luid, instance, index, value, err)"},
        {"set_value", k_composite, fixed_of_integers, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, $FT value, uint32_t *err",
         "ovrin::fixed_set_value($table, $field, h, luid, instance, index, value, err)"},
        {"set_value", k_composite, fixed_of_enums, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, uint32_t value, uint32_t *err",
         "ovrin::fixed_set_value($table, $field, h, luid, instance, index, value, err)"},
        {"get_mem", k_composite, is_fixed_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, $FT *buffer, int32_t length, uint32_t *err",
         "ovrin::fixed_get_mem($table, $field, h, luid, instance, buffer, length, err)"},
        {"set_mem", k_composite, is_fixed_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, const $FT *buffer, int32_t length, uint32_t *err",
         "ovrin::fixed_set_mem($table, $field, h, luid, instance, buffer, length, err)"},
        {"set_mem_cr", k_composite, is_fixed_array, "uint32_t",
         "mgx_handle_t *h, $T *instance, const $FT *buffer, int32_t length",
         "ovrin::fixed_set_mem_cr($table, $field, h, instance, buffer, length)"},
        {"state_flag_get", k_composite, is_array, "uint8_t",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, uint32_t *err",
         "ovrin::element_flag_get($table, $field, h, luid, instance, index, err)"},
        {"state_flag_set", k_composite, is_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, uint8_t value, uint32_t *err",
         "ovrin::element_flag_set($table, $field, h, luid, instance, index, value, err)"},
        {"state_flag_whole_get", k_composite, is_array, "uint8_t", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::state_flag_get($table, $field, h, luid, instance, err)"},
        {"state_flag_whole_set", k_composite, is_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint8_t value, uint32_t *err",
         "ovrin::state_flag_set($table, $field, h, luid, instance, value, err)"},
        {"state_flag_get_arr", k_composite, is_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint8_t **flags, uint32_t *err",
         "ovrin::flag_array_get($table, $field, h, luid, instance, flags, err)"},
        {"state_flag_set_arr", k_composite, is_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, const uint8_t *flags, uint32_t count, uint32_t *err",
         "ovrin::flag_array_set($table, $field, h, luid, instance, flags, count, err)"},
        {"length_get", k_composite, needs_length_accessors, "u_int32 *",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::var_length_get($table, $field, h, luid, instance, err)"},
        {"length_get_value", k_composite, needs_length_accessors, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t *err",
         "ovrin::var_length_get_value($table, $field, h, luid, instance, err)"},
        {"get", k_composite, is_var_array, "$FT *", "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, uint32_t *err",
         "static_cast<$FT *>(ovrin::var_get($table, $field, h, luid, instance, index, err))"},
        {"set", k_composite, is_var_array, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, uint32_t index, $FT *value, uint32_t *err",
         "ovrin::var_set($table, $field, h, luid, instance, index, value, 1, err)"},
        {"set_cr", k_composite, is_var_array, "uint32_t", "mgx_handle_t *h, $T *instance, uint32_t index, $FT *value, int deep",
         "ovrin::var_set_cr($table, $field, h, instance, index, value, deep)"},
        {"remove_elements", k_composite, is_var_array, "void", "mgx_handle_t *h, uint32_t luid, $T *instance",
         "ovrin::var_remove_elements($table, $field, h, luid, instance)"},
        {"set", k_composite, is_string, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, const char *text, uint32_t length, uint32_t *err",
         "ovrin::string_set($table, $field, h, luid, instance, text, length, err)"},
        {"set_cr", k_composite, is_string, "uint32_t", "mgx_handle_t *h, $T *instance, const char *text, uint32_t length",
         "ovrin::string_set_cr($table, $field, h, instance, text, length)"},
        {"get", k_composite, is_string, "void",
         "mgx_handle_t *h, uint32_t luid, $T *instance, char *buffer, uint32_t size, uint32_t *err",
         "ovrin::string_get($table, $field, h, luid, instance, buffer, size, err)"},
    };
    return list;
}

const std::vector<BundleSymbol> &bundle_functions() {
    static const std::vector<BundleSymbol> list = {
        {"@D@_bundle_handler_register", "uint64_t @D@_bundle_handler_register(uint64_t handler, void *arg)"},
        {"@D@_bundle_handler_unregister", "uint64_t @D@_bundle_handler_unregister(void *arg)"},
        {"@D@_typeinfo_initialize", "void @D@_typeinfo_initialize(mgx_handle_t *h, uint32_t luid, uint32_t *err)"},
        {"@D@_type_variant_dump", "void @D@_type_variant_dump(int (*print)(const char *format, ...))"},
        {"mgx_@D@_trace_init", "int mgx_@D@_trace_init(void)"},
        {"@D@_version", "const char *@D@_version(void)"},
    };
    return list;
}

const std::vector<BundleSymbol> &bundle_data() {
    static const std::vector<BundleSymbol> list = {
        {"@D@_bundle_registered_handler", "extern uint64_t @D@_bundle_registered_handler"},
        {"g_mgx_@D@_trace_module_id", "extern uint16_t g_mgx_@D@_trace_module_id"},
        {"g_mgx_@D@_stub_trace_module_id", "extern uint16_t g_mgx_@D@_stub_trace_module_id"},
    };
    return list;
}

namespace {

bool has_kind(unsigned kinds, const Type &t) {
    unsigned bit = t.kind == TypeKind::record ? k_record : t.kind == TypeKind::union_ ? k_union : k_enum;
    return (kinds & bit) != 0;
}

std::string element_c_type(const Field &f) {
    if (f.shape == Shape::var_string) return "char";
    return f.prim ? prim_c_type(*f.prim) : f.type->name;
}

// The varying part of the _get_all and _set_all parameter lists: one output pointer or one value
// per field, named after the field; an enumeration comes out as its 32-bit user value.
std::string all_params(const Type &t, bool outputs) {
    std::string s;
    for (const Field &f : t.fields) {
        if (!(outputs ? readable_by_all(f) : settable_by_all(f))) continue;
        s += ", " + std::string(f.prim ? prim_c_type(*f.prim) : "uint32_t") + (outputs ? " *" : " ") + f.name;
    }
    return s;
}

std::string all_args(const Type &t, bool outputs) {
    std::string s;
    for (const Field &f : t.fields)
        if (outputs ? readable_by_all(f) : settable_by_all(f)) s += (s.empty() ? "" : ", ") + f.name;
    return s;
}

std::string fill_in(std::string text, const Type &t, const Field *f, size_t field_index) {
    if (text.find("_ALL_") != std::string::npos) {
        text = replace_all(text, "$GET_ALL_PARAMS", all_params(t, true));
        text = replace_all(text, "$GET_ALL_ARGS", all_args(t, true));
        text = replace_all(text, "$SET_ALL_PARAMS", all_params(t, false));
        text = replace_all(text, "$SET_ALL_ARGS", all_args(t, false));
    }
    std::string table = "ovrin::table::" + t.name;
    if (f) {
        text = replace_all(text, "$index", std::to_string(field_index));
        text = replace_all(text, "$from", std::to_string(f->from));
        text = replace_all(text, "$last", std::to_string(t.n_variants - 1));
        text = replace_all(text, "$field", table + ".fields[" + std::to_string(field_index) + "]");
        text = replace_all(text, "$FT", element_c_type(*f));
        text = replace_all(text, "$F", f->name);
    }
    text = replace_all(text, "$table", table);
    text = replace_all(text, "$wire", "ovrin::wire_code::" + t.name);
    return replace_all(text, "$T", t.name);
}

} // namespace

std::vector<Wrapper> wrappers_of(const Type &t) {
    std::vector<Wrapper> out;
    for (const EntryPoint &e : entry_points())
        if (has_kind(e.kinds, t))
            out.push_back({t.name + "_" + e.op, fill_in(e.result, t, nullptr, 0), fill_in(e.params, t, nullptr, 0),
                           fill_in(e.call, t, nullptr, 0), e.op, nullptr});
    for (const FieldEntryPoint &e : field_entry_points()) {
        if (!has_kind(e.kinds, t)) continue;
        for (size_t i = 0; i < t.fields.size(); ++i) {
            const Field &f = t.fields[i];
            if (e.applies && !e.applies(f)) continue;
            out.push_back({t.name + "_" + f.name + "_" + e.op, fill_in(e.result, t, &f, i), fill_in(e.params, t, &f, i),
                           fill_in(e.call, t, &f, i), e.op, &f});
        }
    }
    return out;
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
    for (const BundleSymbol &s : optable_symbols()) names.push_back(s.name);
    for (const auto &t : c.types) names.push_back("_" + t->name + "_type_info_internal");
    for (const auto &t : c.types)
        for (const Wrapper &w : wrappers_of(*t)) names.push_back(w.name);
    return names;
}

} // namespace gen
