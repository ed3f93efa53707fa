// The bundle's type tables, compiled into the seed writer as its private copy.
#include "ovrin_sm_internal/tables.inc"
