/*
 * The version of the ovrin_sm package: the headers a program was compiled with (the macros) and
 * the library it runs with (ovrin_sm_version()). Until 1.0 a new minor version may change the
 * library's interface, so the library's SONAME carries the minor version (libovrin_sm.so.0.1) and
 * a program is never loaded with another 0.x; a program can also compare the two at start-up.
 */
#ifndef OVRIN_SM_VERSION_H
#define OVRIN_SM_VERSION_H

#define OVRIN_SM_VERSION_MAJOR 0
#define OVRIN_SM_VERSION_MINOR 1
#define OVRIN_SM_VERSION_PATCH 0
/* "MAJOR.MINOR.PATCH" */
#define OVRIN_SM_VERSION_STRING "0.1.0"
/* MAJOR * 10000 + MINOR * 100 + PATCH, for comparisons in #if */
#define OVRIN_SM_VERSION_NUMBER (OVRIN_SM_VERSION_MAJOR * 10000 + OVRIN_SM_VERSION_MINOR * 100 + OVRIN_SM_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* The version of the libovrin_sm the program runs with, as "MAJOR.MINOR.PATCH". */
__attribute__((visibility("default"))) const char *ovrin_sm_version(void);

#ifdef __cplusplus
}
#endif

#endif
