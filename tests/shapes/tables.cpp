// The second catalogue's type tables, compiled once into the test program as a private copy, so that tests
// can walk the same fields, offsets and variants that the generic operations walk.
#include "shapes_internal/tables.inc"
#include "tests/private_tables.h"

OVRIN_PRIVATE_BUNDLE("shapes")
