// SPDX-License-Identifier: Apache-2.0
// The call chain of a log on x86-64: the frame records where they are sound, else return addresses on the stack.
#include "fault/log_walk.h"

#if defined(__x86_64__)

#include "backtrace.h"
#include "fault/backtrace_internal.h"
#include "fault/safe_memory.h"
#include "stack_info.h"

namespace qv::fault {
namespace {

constexpr unsigned long kWord = sizeof(unsigned long);
constexpr unsigned long kStackAlignment = 16;   // of the frame pointer, in code that keeps it
constexpr unsigned long kFarthest = 64UL << 20; // no stack frame is larger
constexpr int kSearchedWords = 4096;
constexpr int kMaxSearched = 8; // return addresses shown without a frame record

// The entries of a walk, as qv_backtrace_spec() gives them.
struct call_chain {
    unsigned long *addrs;
    unsigned long *frames;
    int max;
    int count;
    unsigned long bottom;

    void add(unsigned long addr)
    {
        if (count == max)
            return;
        addrs[count] = addr;
        frames[count] = kNoFrameMark;
        count++;
    }
};

class stack_reader {
public:
    bool load(unsigned long address, unsigned long *word) { return memory_.load(address, word); }
    safe_memory *memory() { return &memory_; }

    // Calls are 2 to 7 bytes long: e8 and a distance, or ff with 2 in bits 3 to 5 of the byte that follows.
    bool is_return_address(unsigned long address)
    {
        constexpr unsigned kLongest = 7;
        constexpr unsigned kDirect = 5;
        unsigned char code[kLongest];
        if (!is_known_code(address) || memory_.copy(address - kLongest, code, kLongest) != kLongest)
            return false;
        if (code[kLongest - kDirect] == 0xe8)
            return true;
        for (unsigned at = 0; at + 1 < kLongest; at++) {
            if (code[at] == 0xff && (code[at + 1] & 0x38) == 0x10)
                return true;
        }
        return false;
    }

    // A record whose caller has one as well, or is the outermost.
    bool is_record(unsigned long record)
    {
        unsigned long link, return_address, callers_return;
        if (record % kStackAlignment != 0 || !load(record, &link) || !load(record + kWord, &return_address))
            return false;
        if (link <= record || link - record > kFarthest || link % kWord != 0 || !is_return_address(return_address))
            return false;
        return load(link + kWord, &callers_return) && (is_return_address(callers_return) || is_outermost(link, record));
    }

    // Whether the link of `record` leads to a record that is linked to 0. Code without frame pointers may leave a
    // pointer to data beside a return address, and data often begins with 0; so what has no return address has to be on
    // the same stack. A thread's outermost record has one, so the mapping list is rarely read.
    bool is_outermost(unsigned long outermost, unsigned long record)
    {
        unsigned long link, return_address;
        return load(outermost, &link) && link == 0 && load(outermost + kWord, &return_address) &&
               (is_return_address(return_address) || are_on_one_stack(record, outermost));
    }

private:
    // Without a mapping list the answer is yes.
    bool are_on_one_stack(unsigned long record, unsigned long link)
    {
        if (record < stack_start_ || record >= stack_end_) {
            stack_start_ = 0;
            stack_end_ = ~0UL;
            qv_get_thread_stack_info(record, &stack_start_, &stack_end_);
        }
        return link >= stack_start_ && link < stack_end_;
    }

    // The kernel copies: a frame pointer that is none may lead into memory that another thread unmaps.
    safe_memory memory_{safe_memory::subject::module};
    unsigned long stack_start_ = 0, stack_end_ = 0; // the mapping of the last record asked for, read once
};

// A link to a record below or far away is sound only where the stack was changed, as for a handler on an alternate one.
bool is_sound_link(unsigned long record, unsigned long link, unsigned long farthest, stack_reader *reader)
{
    unsigned long return_address;
    return link == 0 || (link > record && link - record <= farthest) ||
           (link != record && reader->load(link + kWord, &return_address) && reader->is_return_address(return_address));
}

// Ends the chain before the first record that is reached a second time, or by a link that is not sound. The last link
// is not judged: nothing was read there. `first` is the entry of the record at `record`.
// @return the last record that has an entry
unsigned long cut_broken_chain(call_chain *chain, int first, unsigned long record, unsigned long farthest,
                               stack_reader *reader)
{
    for (int i = first; i + 1 < chain->count; i++) {
        unsigned long link = chain->frames[i];
        bool is_known = link == record;
        for (int j = first; j < i && !is_known; j++)
            is_known = chain->frames[j] == link;
        if (is_known || !is_sound_link(record, link, farthest, reader)) {
            chain->count = i + 1;
            chain->bottom = record;
            break;
        }
        record = link;
    }
    return record;
}

// Ends a chain before the first record whose return address is no code. A search may find a record that an earlier call
// left on the stack: its link may lead to what other calls have written there since.
void cut_at_data(call_chain *chain, int first)
{
    for (int i = first + 1; i < chain->count; i++) {
        if (!is_known_code(chain->addrs[i])) {
            chain->count = i;
            chain->bottom = chain->frames[i - 1];
        }
    }
}

// In code that keeps no frame pointer, the register may point anywhere. A record that is linked downwards may still be
// the outermost record, whose link is any value that the register held.
bool is_good_start(unsigned long fp, unsigned long sp, unsigned long return_address, unsigned long link,
                   stack_reader *reader)
{
    unsigned long word;
    if (link == fp)
        return false;
    bool is_above_stack_pointer = !reader->load(sp, &word) || (fp >= sp && fp - sp < kFarthest);
    bool is_linked_upwards = link == 0 || link > fp;
    return (is_above_stack_pointer && is_linked_upwards) || reader->is_return_address(return_address);
}

// Adds the return addresses from `sp` up to the next record, and returns that record, or 0.
unsigned long search_record(unsigned long sp, int *searched, call_chain *chain, stack_reader *reader)
{
    unsigned long word;
    for (int i = 0; i < kSearchedWords && reader->load(sp, &word); i++, sp += kWord) {
        if (reader->is_record(sp))
            return sp;
        if (*searched < kMaxSearched && reader->is_return_address(word)) {
            chain->add(word);
            ++*searched;
        }
    }
    return 0;
}

// Whether the last link leads to a record that is linked to 0, above the last record that has an entry.
bool is_complete(const call_chain &chain, unsigned long last, stack_reader *reader)
{
    return chain.bottom > last && chain.bottom - last <= kFarthest && reader->is_outermost(chain.bottom, last);
}

// Functions that keep a frame record and functions that do not may alternate: after a chain the search goes on.
// @return whether there was a record
bool search_stack(unsigned long sp, call_chain *chain, stack_reader *reader)
{
    int searched = 0;
    bool is_found = false;
    sp = round_up_to_word(sp);
    while (unsigned long record = search_record(sp, &searched, chain, reader)) {
        int first = chain->count;
        chain->count += walk_records(reader->memory(), record, chain->addrs + first, chain->frames + first,
                                     chain->max - first, &chain->bottom);
        if (chain->count == first)
            break;
        is_found = true;
        cut_at_data(chain, first);
        unsigned long last = cut_broken_chain(chain, first, record, kFarthest, reader);
        if (is_complete(*chain, last, reader))
            break;
        sp = last + 2 * kWord;
    }
    return is_found;
}

// A chain that ends in code without frame records, such as a callback from the C library, continues at higher
// addresses. The outermost function has no record above it, so its chain is not extended.
void resume_above(unsigned long record, unsigned long sp, call_chain *chain, stack_reader *reader)
{
    int count = chain->count;
    unsigned long bottom = chain->bottom;
    bool is_on_stack = record >= sp && record - sp < kFarthest;
    if (count == chain->max || !is_on_stack || is_complete(*chain, record, reader))
        return;
    if (!reader->is_return_address(chain->addrs[count - 1]))
        return;
    if (search_stack(record + 2 * kWord, chain, reader))
        return;
    chain->count = count;
    chain->bottom = bottom;
}

} // namespace

int walk_for_log(const machine_context &machine, unsigned long *addrs, unsigned long *frames, int max,
                 unsigned long *bottom)
{
    constexpr unsigned long kAnyDistance = ~0UL;
    unsigned long fp = machine.frame_pointer(), pc = machine.program_counter(), sp = machine.stack_pointer();
    stack_reader reader;
    call_chain chain = {addrs, frames, max, 0, 0};
    chain.count = walk_frames(reader.memory(), fp, pc, 0, addrs, frames, max, &chain.bottom);
    int first = is_code(pc) ? 1 : 0;
    unsigned long record = round_up_to_word(fp);
    if (chain.count > first && is_good_start(record, sp, addrs[first], frames[first], &reader)) {
        record = cut_broken_chain(&chain, first, record, kAnyDistance, &reader);
        resume_above(record, sp, &chain, &reader);
    } else {
        chain.count = first;
        chain.bottom = 0;
        search_stack(sp, &chain, &reader);
    }
    *bottom = chain.bottom;
    return chain.count;
}

} // namespace qv::fault

#endif
