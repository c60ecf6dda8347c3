// SPDX-License-Identifier: Apache-2.0
// tail_queue.h - an intrusive queue: records are appended at the end and removed from anywhere.
//
// A queue is any record with `first` (the first node or null) and `last` (the address of the pointer that the next
// node will be stored in: the last node's `next`, or `first` when empty). A node is any record with `next` and `prev`,
// the latter the address of the pointer that points at this node. So *node.prev == &node for every linked node,
// *queue.last == nullptr always, and no operation needs a case for the first node. Queues and nodes must not move.
//
//     name2id_tbl: first ──> entry.next ──> entry.next ──> null
//                  last ─────────────────────────┘ (its address)
#ifndef LIBCOMMON_BASE_TAIL_QUEUE_H
#define LIBCOMMON_BASE_TAIL_QUEUE_H

namespace qv::base {

template <typename Queue>
inline void tail_queue_init(Queue &queue)
{
    queue.first = nullptr;
    queue.last = &queue.first;
}

template <typename Queue, typename Node>
inline void tail_queue_append(Queue &queue, Node &node)
{
    node.next = nullptr;
    node.prev = queue.last;
    *queue.last = &node;
    queue.last = &node.next;
}

// The node's own links are left as they were. The queue is touched only when the node is its first or last.
template <typename Queue, typename Node>
inline void tail_queue_unlink(Queue &queue, Node &node)
{
    if (node.next != nullptr)
        node.next->prev = node.prev;
    else
        queue.last = node.prev;
    *node.prev = node.next;
}

} // namespace qv::base

#endif
