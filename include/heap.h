/* SPDX-License-Identifier: Apache-2.0 */
/* heap.h - a priority queue of element pointers: the contract between the sorted timers and their heap library.
 *
 * This is a library of its own, libheap.so.1. libcommon.so imports these five functions and never defines them, so a
 * system with a heap library of its own supplies it under that name; what it has to honour stands here in full.
 *
 * A heap holds pointers to elements that stay the caller's. One callback orders them; another is told each element's
 * position whenever the heap places it, on insertion and whenever it moves, and that position is what deletes it.
 * Positions count from 1, and the element that comes out first is always at 1. An element that leaves is not told.
 *
 *     void *heap = __heap_new(comes_before, set_index, 16);
 *     __heap_insert(heap, timer);                       // set_index(timer, p)
 *     __heap_delete(heap, p);
 *
 * Insertion and deletion cost O(log n) comparisons, looking at an element O(1). A position that holds no element is
 * answered, never followed: 0, one beyond the end, any in an empty heap. A stale position that another element has
 * taken over removes that one. Not locked; callbacks must not call back into the heap. Not for signal handlers.
 */
#ifndef LIBCOMMON_HEAP_H
#define LIBCOMMON_HEAP_H

#include "libcommon_api.h"

QV_BEGIN_DECLS

/** Non-zero when a must come out before b. A strict order: 0 for equal elements. */
typedef int (*heap_higher_priority_fn)(const void *a, const void *b);

/** Told that element stands at position, 1 or more, until the next call for it or its removal. */
typedef void (*heap_set_index_fn)(void *element, unsigned int position);

/**
 * Makes an empty heap.
 * @param initial_size  elements to make room for at first; the room doubles when it is used up
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

/** Frees the heap, not its elements; null is let pass. */
QV_API void __heap_free(void *heap);

QV_END_DECLS

#endif
