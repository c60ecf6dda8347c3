/* SPDX-License-Identifier: Apache-2.0 */
/* heap.h - a priority queue of element pointers: the contract between the sorted timers and their heap library.
 *
 * This is a separate library, libheap.so.1. libcommon.so imports the first five functions and never defines them, so a
 * system with a heap library of its own supplies it under that name; what it has to honour is stated here in full.
 * __heap_new_keyed() is optional: libcommon.so uses it where the loaded library has it (a weak reference).
 *
 * A heap holds pointers to elements that stay the caller's. One callback orders them; another receives each element's
 * position whenever the heap places it, on insertion and whenever it moves, and that position is what deletes it.
 * Positions count from 1, and the element that comes out first is always at 1. An element that leaves is not reported.
 *
 *     void *heap = __heap_new(comes_before, set_index, 16);
 *     __heap_insert(heap, timer);                       // set_index(timer, p)
 *     __heap_delete(heap, p);
 *
 * Insertion and deletion cost O(log n) comparisons, reading an element O(1). A position that holds no element is
 * refused, never followed: 0, one beyond the end, any in an empty heap. A stale position that another element has
 * since been given removes that one. Not locked; callbacks must not call back into the heap. Not for signal handlers.
 */
#ifndef LIBCOMMON_HEAP_H
#define LIBCOMMON_HEAP_H

#include "libcommon_api.h"

#include <stddef.h>
#include <sys/time.h>

QV_BEGIN_DECLS

/** Non-zero when a must come out before b. A strict order: 0 for equal elements. */
typedef int (*heap_higher_priority_fn)(const void *a, const void *b);

/** Receives the position of element, 1 or more, valid until the next call for it or its removal. */
typedef void (*heap_set_index_fn)(void *element, unsigned int position);

/**
 * Makes an empty heap.
 * @param initial_size  elements to allocate room for at first; the room doubles when it is used up
 * @return the heap, for __heap_free(); null when there is no memory
 */
QV_API void *__heap_new(heap_higher_priority_fn higher_priority, heap_set_index_fn set_index,
                        unsigned int initial_size);

/** Puts an element in. @return 0, or -1 when there is no memory (the heap is then as before) or for a null heap */
QV_API int __heap_insert(void *heap, void *element);

/** Takes the element at a position out. @return 0, or -1 when there is none there or for a null heap */
QV_API int __heap_delete(void *heap, unsigned int position);

/** The element at a position, the earliest for position 0 as well; null when there is none there or for a null heap. */
QV_API void *__heap_element(void *heap, unsigned int position);

/** Frees the heap, not its elements; null is ignored. */
QV_API void __heap_free(void *heap);

/** Where an element keeps what a keyed heap reads and writes, as offsets from the element's address in bytes. */
typedef struct heap_layout {
    size_t time_offset;         /* a struct timeval: the key, compared by seconds, then microseconds, both signed */
    size_t position_offset;     /* an int: receives the position plus position_bias */
    unsigned int position_bias; /* for elements whose 0 means that they are in no heap */
} heap_layout;

/**
 * Makes an empty heap that orders elements by the time at layout->time_offset and stores their positions itself.
 *
 * The five functions work on it as on one from __heap_new() whose callbacks compare that time and store that position,
 * but call nothing: the heap keeps the key beside the pointer, for 16 bytes an element. The time is read at insertion;
 * an element's time must not change while it is in the heap. Positions are valid at once and the earliest element is
 * always at 1, but up to 64 others wait until it leaves before they are sorted: one that is deleted before that is
 * never compared with the others.
 *
 * Where the process has replaced one of the five, the heap is made by __heap_new() with the given callbacks instead.
 * @param higher_priority, set_index  do what the layout says
 * @param layout                      copied; both members lie within every element, aligned for their types
 * @return the heap, for __heap_free(); null when there is no memory
 */
QV_API void *__heap_new_keyed(heap_higher_priority_fn higher_priority, heap_set_index_fn set_index,
                              unsigned int initial_size, const struct heap_layout *layout);

QV_END_DECLS

#endif
