/*
 * What every nasctrl header shares: linkage, visibility, result codes and the list link.
 *
 * All functions of the library have C linkage and default visibility, take and return plain C types and never let a
 * C++ exception out. Integers are in the machine's byte order unless a header says otherwise.
 */
#ifndef NASCTRL_BASE_H
#define NASCTRL_BASE_H

#include <stddef.h>
#include <stdint.h>

/* Around declarations: C linkage in C++, nothing in C. */
#ifdef __cplusplus
#define NASCTRL_BEGIN_DECLS extern "C" {
#define NASCTRL_END_DECLS }
#else
#define NASCTRL_BEGIN_DECLS
#define NASCTRL_END_DECLS
#endif

/* Marks what crosses the boundary, in both directions. */
#define NASCTRL_API __attribute__((visibility("default")))

/* Results. Functions return 0 for success and one of these, or a negative errno value, for failure. */
#define NAS_OK 0U
#define NAS_ERROR 1U
#define NAS_INVALID 0xFFFFFFFFU /* malformed input, or no match in a look-up */

NASCTRL_BEGIN_DECLS

/* A link of a circular doubly linked list. An empty list's head points at itself, as does a record that is in none. */
typedef struct {
    void *next; /* the link of the next record, or the head */
    void *prev; /* the same, backwards */
} list_link;

NASCTRL_END_DECLS

#endif
