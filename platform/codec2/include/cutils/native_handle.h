// <cutils/native_handle.h>: descriptors and numbers in one block of memory.
#pragma once

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// native_handle_t: a plain record, freed by its owner with the functions below.  [any thread]
typedef struct native_handle {
    int version;  // sizeof(native_handle_t)
    int numFds;
    int numInts;
    int data[0];  // numFds descriptors, then numInts numbers
} native_handle_t;

// A handle with room for both, contents undefined; null when a number is negative or memory is out.
native_handle_t* native_handle_create(int numFds, int numInts);

// Closes the descriptors. 0, or a negative errno when `h` is of another version.
int native_handle_close(const native_handle_t* h);

// Frees the handle, not the descriptors. 0, or a negative errno when `h` is of another version.
int native_handle_delete(native_handle_t* h);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
