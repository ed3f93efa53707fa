#!/usr/bin/env bash
# The generated ops.h as a reader meets it: one comment block per type, followed only by the
# operations an application calls; every runtime-facing form in ops_runtime.h instead; every
# exported function declared exactly once across the two.
#
#   header_test.sh GENERATED_INCLUDE_DIR DOMAIN
set -euo pipefail
dir=$1/$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

types=$(grep -c '^typedef struct' "$dir/types.h")
blocks=$(grep -c '^/\* ==== ' "$dir/ops.h")
[ "$blocks" -eq "$types" ] || fail "ops.h has $blocks type blocks for $types types"
grep -q "^#include \"$2/ops_runtime.h\"" "$dir/ops.h" || fail "ops.h does not include ops_runtime.h"

# Before ops_runtime.h is included, nothing the runtime alone calls.
runtime_forms='_(internal|create_cr|destroy_cr|clone_cr|len_cr|set_cr|set_mem_cr|is_valid_cr|offset_update|offset_remove|post_copyout_cleanup|state_flag_[a-z_]+|set_all_state_tracking_flag|get_luid|variant_data_index_cap|get_oid_count|get_object_references|initialize|set_instance_embedded|marshal_for_clone|typeinfo_initialize|bundle_[a-z_]+|trace_init)\('
if grep -nE "$runtime_forms" "$dir/ops.h" | head -n 5 | grep .; then
    fail "ops.h declares runtime-facing forms among the application's operations"
fi

# Every exported function is declared once; nothing is declared that is not exported.
sed -nE 's/^[A-Z_]+_API [^(]*[ *]([A-Za-z_0-9]+)\(.*/\1/p' "$dir/ops.h" "$dir/ops_runtime.h" | sort >"$work/declared.txt"
dups=$(uniq -d "$work/declared.txt" | head -n 3)
[ -z "$dups" ] || fail "declared more than once: $dups"
sed -nE 's/^"([^"]+)",$/\1/p' "$dir/exports.inc" | sort >"$work/exported.txt"
missing=$(comm -13 "$work/declared.txt" "$work/exported.txt" | grep -vE '_type_info_internal$|_registered_handler$|_trace_module_id$|_optable' | head -n 3 || true)
[ -z "$missing" ] || fail "exported but declared in neither header: $missing"
extra=$(comm -23 "$work/declared.txt" "$work/exported.txt" | head -n 3)
[ -z "$extra" ] || fail "declared but not exported: $extra"
echo "$2/ops.h: $blocks type blocks, $(wc -l <"$work/declared.txt") functions declared across ops.h and ops_runtime.h"
