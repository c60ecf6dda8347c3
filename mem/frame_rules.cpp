// SPDX-License-Identifier: Apache-2.0
// The unwind tables are those of the Linux Standard Base: an index sorted by address (.eh_frame_hdr) of descriptions
// (FDE) that share a preamble (CIE). Both are lists of call frame instructions. Encodings that compilers do not use for
// shared code are not read.
#include "mem/frame_rules.h"

#include "fault/find_object.h"
#include "mem/pointer_hash.h"
#include "mem/record_checksum.h"

#include <bit>
#include <cstddef>
#include <cstring>
#include <sys/auxv.h>

namespace qv::frame_rules {
namespace {

// ---- reading ----

template <typename Value>
Value load(std::uintptr_t address)
{
    Value value;
    std::memcpy(&value, reinterpret_cast<const void *>(address), sizeof value);
    return value;
}

// Reads upwards. At the end it fails, and every further value is 0.
class reader {
public:
    reader(std::uintptr_t at, std::uintptr_t end) : at_(at), end_(end) {}

    std::uintptr_t at() const { return at_; }
    bool is_at_end() const { return at_ >= end_; }
    bool has_failed() const { return failed_; }

    template <typename Value>
    Value get()
    {
        if (at_ > end_ || end_ - at_ < sizeof(Value)) {
            failed_ = true;
            at_ = end_;
            return 0;
        }
        Value value = load<Value>(at_);
        at_ += sizeof(Value);
        return value;
    }

    void skip(std::uint64_t bytes)
    {
        failed_ |= at_ > end_ || bytes > end_ - at_;
        at_ = failed_ ? end_ : at_ + bytes;
    }

    std::uint64_t unsigned_leb128()
    {
        std::uint64_t value = 0;
        for (unsigned shift = 0; !failed_; shift += 7) {
            auto byte = get<std::uint8_t>();
            if (shift < 64)
                value |= std::uint64_t{byte & 0x7fU} << shift;
            if ((byte & 0x80) == 0)
                break;
        }
        return value;
    }

    std::int64_t signed_leb128()
    {
        std::uint64_t value = 0;
        unsigned shift = 0;
        for (;;) {
            auto byte = get<std::uint8_t>();
            if (shift < 64)
                value |= std::uint64_t{byte & 0x7fU} << shift;
            shift += 7;
            if ((byte & 0x80) != 0 && !failed_)
                continue;
            if ((byte & 0x40) != 0 && shift < 64)
                value |= ~std::uint64_t{0} << shift;
            return static_cast<std::int64_t>(value);
        }
    }

private:
    std::uintptr_t at_, end_;
    bool failed_ = false;
};

// ---- finding the description ----

// A call may be the last instruction of its function.
constexpr std::uintptr_t address_in_call(std::uintptr_t return_address)
{
    return return_address - 1;
}

constexpr std::uint8_t kOffsetFromHere = 0x1b;  // pointer encodings: a signed 32-bit offset from its own place,
constexpr std::uint8_t kOffsetFromIndex = 0x3b; // from the index,
constexpr std::uint8_t kIndirect = 0x80;        // to a pointer;
constexpr std::uint8_t kCount32 = 0x03;         // an unsigned 32-bit number

module find_module(std::uintptr_t address)
{
    fault::found_object found;
    if (fault::find_object == nullptr || fault::find_object(reinterpret_cast<void *>(address), &found) != 0)
        return {};
    return {reinterpret_cast<std::uintptr_t>(found.start), reinterpret_cast<std::uintptr_t>(found.end),
            reinterpret_cast<std::uintptr_t>(found.unwind_index), found.map};
}

table read_index(const module &in)
{
    constexpr std::size_t kHeaderSize = 12;
    constexpr std::uint8_t kSupported[] = {1, kOffsetFromHere, kCount32, kOffsetFromIndex};
    if (!in.holds(in.index, kHeaderSize) ||
        std::memcmp(reinterpret_cast<const void *>(in.index), kSupported, sizeof kSupported) != 0)
        return {};
    table result = {in.index, in.index + kHeaderSize, load<std::uint32_t>(in.index + 8)};
    return in.holds(result.rows, result.count * table::kRowSize) ? result : table{};
}

std::int64_t first_offset(const table &in, std::size_t row)
{
    return load<std::int32_t>(in.rows + row * table::kRowSize);
}

std::uintptr_t description_of(const table &in, std::size_t row)
{
    std::intptr_t offset = load<std::int32_t>(in.rows + row * table::kRowSize + 4);
    return in.index + static_cast<std::uintptr_t>(offset);
}

// The number of rows that begin at the address or before it. The last of them describes it, if one does.
std::size_t count_up_to(const table &in, std::uintptr_t address)
{
    auto target = static_cast<std::int64_t>(address - in.index);
    std::size_t low = 0, high = in.count;
    while (low < high) {
        std::size_t middle = (low + high) / 2;
        if (first_offset(in, middle) <= target)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

struct record {
    std::uintptr_t address = 0;
    std::size_t size = 0; // 0 for none
};

// A CIE or an FDE, if it lies within the module.
inline record record_at(const module &in, std::uintptr_t address)
{
    constexpr std::uint32_t kLongest = 4096; // 64-bit lengths are not read either
    if (!in.holds(address, 2 * sizeof(std::uint32_t)))
        return {};
    auto length = load<std::uint32_t>(address);
    if (length < 2 * sizeof length || length % sizeof length != 0 || length > kLongest ||
        !in.holds(address, sizeof length + length))
        return {};
    return {address, sizeof length + length};
}

// What describes a function.
struct description {
    record fde, cie;
    bool is_found() const { return fde.size != 0 && cie.size != 0; }
};

inline description read_description(const module &in, std::uintptr_t address)
{
    record fde = record_at(in, address);
    if (fde.size == 0)
        return {};
    std::uintptr_t field = address + sizeof(std::uint32_t);
    return {fde, record_at(in, field - load<std::uint32_t>(field))};
}

// ---- evaluating it ----

struct saved {
    enum { same, at_offset, nowhere, other } where = same; // nowhere: the caller's value is lost
    std::int64_t offset = 0;                               // from the frame's end
};

// What holds from one address of a function to the next.
struct frame_row {
    std::uint64_t end_register = ~0ULL; // none: the end is given by an expression
    std::int64_t end_offset = 0;
    saved frame_pointer, return_address;
};

struct preamble {
    std::uint64_t code_unit = 1;
    std::int64_t data_unit = 1;
    bool is_supported = false;
    std::uintptr_t instructions = 0, end = 0;
};

preamble read_preamble(const record &cie, const architecture &machine)
{
    if (load<std::uint32_t>(cie.address + 4) != 0)
        return {};
    preamble result;
    result.end = cie.address + cie.size;
    reader from(cie.address + 8, result.end);
    auto version = from.get<std::uint8_t>();
    char augmentation[8] = {};
    for (char &c : augmentation) {
        c = static_cast<char>(from.get<std::uint8_t>());
        if (c == '\0')
            break;
    }
    result.code_unit = from.unsigned_leb128();
    result.data_unit = from.signed_leb128();
    std::uint64_t return_address = version == 1 ? from.get<std::uint8_t>() : from.unsigned_leb128();
    if ((version != 1 && version != 3) || augmentation[0] != 'z' || augmentation[7] != '\0' ||
        return_address != machine.return_address)
        return {};
    std::uint64_t data_size = from.unsigned_leb128();
    reader data(from.at(), result.end);
    from.skip(data_size);
    bool knows_pointers = false;
    for (const char *c = augmentation + 1; *c != '\0'; c++) {
        if (*c == 'R')
            knows_pointers = data.get<std::uint8_t>() == kOffsetFromHere;
        else if (*c == 'L')
            data.get<std::uint8_t>();
        else if (*c == 'B') // AArch64: return addresses are signed with the other key
            continue;
        else if (*c == 'P' && (data.get<std::uint8_t>() & ~kIndirect) == kOffsetFromHere)
            data.skip(sizeof(std::int32_t));
        else
            return {}; // 'S': the frame of a signal handler, among others
    }
    result.instructions = from.at();
    result.is_supported = knows_pointers && !from.has_failed() && !data.has_failed();
    return result;
}

class evaluation {
public:
    evaluation(const preamble &shared, const architecture &machine) : shared_(shared), machine_(machine) {}

    frame_row current;

    // Runs instructions up to the last row that begins at the target or before it. False for what is not supported.
    bool run(reader from, std::uintptr_t begin, std::uintptr_t target)
    {
        location_ = begin;
        while (!from.is_at_end() && location_ <= target) {
            if (!step(from) || from.has_failed())
                return false;
        }
        return true;
    }

    void finish_preamble() { initial_ = current; }

private:
    void set(std::uint64_t which, saved value)
    {
        if (saved *s = slot(which); s != nullptr)
            *s = value;
    }

    saved *slot(std::uint64_t which)
    {
        if (which == machine_.frame_pointer)
            return &current.frame_pointer;
        return which == machine_.return_address ? &current.return_address : nullptr;
    }

    void restore(std::uint64_t which)
    {
        if (which == machine_.frame_pointer)
            current.frame_pointer = initial_.frame_pointer;
        if (which == machine_.return_address)
            current.return_address = initial_.return_address;
    }

    void advance(std::uint64_t units) { location_ += units * shared_.code_unit; }

    std::int64_t scaled(std::uint64_t units) const { return static_cast<std::int64_t>(units) * shared_.data_unit; }

    bool step(reader &from)
    {
        auto code = from.get<std::uint8_t>();
        std::uint64_t operand = code & 0x3fU;
        switch (code >> 6) {
        case 1: // DW_CFA_advance_loc
            advance(operand);
            return true;
        case 2: // DW_CFA_offset
            set(operand, {saved::at_offset, scaled(from.unsigned_leb128())});
            return true;
        case 3: // DW_CFA_restore
            restore(operand);
            return true;
        default:
            return extended_step(code, from);
        }
    }

    bool extended_step(std::uint8_t code, reader &from)
    {
        std::uint64_t which;
        switch (code) {
        case 0x00: // DW_CFA_nop
            return true;
        case 0x02: // DW_CFA_advance_loc1, 2, 4
            advance(from.get<std::uint8_t>());
            return true;
        case 0x03:
            advance(from.get<std::uint16_t>());
            return true;
        case 0x04:
            advance(from.get<std::uint32_t>());
            return true;
        case 0x05: // DW_CFA_offset_extended
            which = from.unsigned_leb128();
            set(which, {saved::at_offset, scaled(from.unsigned_leb128())});
            return true;
        case 0x06: // DW_CFA_restore_extended
            restore(from.unsigned_leb128());
            return true;
        case 0x07: // DW_CFA_undefined: of the return address, the outermost frame
            set(from.unsigned_leb128(), {saved::nowhere, 0});
            return true;
        case 0x08: // DW_CFA_same_value
            set(from.unsigned_leb128(), {saved::same, 0});
            return true;
        case 0x09: // DW_CFA_register
            set(from.unsigned_leb128(), {saved::other, 0});
            from.unsigned_leb128();
            return true;
        case 0x0a: // DW_CFA_remember_state
            if (remembered_ == kMostRemembered)
                return false;
            stack_[remembered_++] = current;
            return true;
        case 0x0b: // DW_CFA_restore_state
            if (remembered_ == 0)
                return false;
            current = stack_[--remembered_];
            return true;
        case 0x0c: // DW_CFA_def_cfa
            current.end_register = from.unsigned_leb128();
            current.end_offset = static_cast<std::int64_t>(from.unsigned_leb128());
            return true;
        case 0x0d: // DW_CFA_def_cfa_register
            current.end_register = from.unsigned_leb128();
            return true;
        case 0x0e: // DW_CFA_def_cfa_offset
            current.end_offset = static_cast<std::int64_t>(from.unsigned_leb128());
            return true;
        case 0x10: // DW_CFA_expression, val_expression
        case 0x16:
            set(from.unsigned_leb128(), {saved::other, 0});
            from.skip(from.unsigned_leb128());
            return true;
        case 0x11: // DW_CFA_offset_extended_sf
            which = from.unsigned_leb128();
            set(which, {saved::at_offset, from.signed_leb128() * shared_.data_unit});
            return true;
        case 0x2d: // DW_CFA_AARCH64_negate_ra_state: the return address is signed from here on, or no more
            return true;
        case 0x2e: // DW_CFA_GNU_args_size
            from.unsigned_leb128();
            return true;
        default: // DW_CFA_def_cfa_expression, among others
            return false;
        }
    }

    static constexpr int kMostRemembered = 4;

    const preamble &shared_;
    const architecture &machine_;
    std::uintptr_t location_ = 0;
    frame_row initial_;
    frame_row stack_[kMostRemembered];
    int remembered_ = 0;
};

// Stores an offset in words. False if it is not one of whole words, or too large.
template <typename Words>
bool to_words(std::int64_t offset, Words *words)
{
    std::int64_t exact = offset / static_cast<std::int64_t>(kWord);
    *words = static_cast<Words>(exact);
    return *words == exact && offset % static_cast<std::int64_t>(kWord) == 0;
}

rule rule_of(const frame_row &at, const architecture &machine)
{
    rule found;
    found.is_known = true;
    found.is_outermost = at.return_address.where == saved::nowhere;
    if (found.is_outermost)
        return found;
    found.from_frame_pointer = at.end_register == machine.frame_pointer;
    found.saves_frame_pointer = at.frame_pointer.where == saved::at_offset;
    bool is_supported = (found.from_frame_pointer || at.end_register == machine.stack_pointer) &&
                        at.return_address.where == saved::at_offset &&
                        (at.frame_pointer.where == saved::at_offset || at.frame_pointer.where == saved::same) &&
                        to_words(at.end_offset, &found.end_words) &&
                        to_words(at.frame_pointer.offset, &found.frame_pointer_words) &&
                        to_words(at.return_address.offset, &found.return_address_words);
    return is_supported ? found : rule{};
}

rule evaluate(const description &of, std::uintptr_t target, const architecture &machine)
{
    preamble shared = read_preamble(of.cie, machine);
    if (!shared.is_supported)
        return {};
    reader from(of.fde.address + 8, of.fde.address + of.fde.size);
    std::uintptr_t begin = from.at();
    begin += static_cast<std::uintptr_t>(std::intptr_t{from.get<std::int32_t>()});
    auto length = from.get<std::uint32_t>();
    from.skip(from.unsigned_leb128());
    if (from.has_failed() || target < begin || target - begin >= length)
        return {};
    evaluation of_frame(shared, machine);
    if (!of_frame.run(reader(shared.instructions, shared.end), 0, 0))
        return {};
    of_frame.finish_preamble();
    if (!of_frame.run(from, begin, target))
        return {};
    return rule_of(of_frame.current, machine);
}

// ---- kept rules ----
//
// By the hash of the return address. A module may be unloaded and another one loaded at its place. So an entry holds
// only while the index is at the same place, and its row leads to a description with the same bytes. A module that is
// never unloaded needs no such check.

constexpr int kSlotBits = 10;

struct alignas(64) entry { // on one cache line
    std::uint64_t version; // odd while a thread writes the others. A thread that finds it odd leaves the entry alone
    std::uintptr_t return_address;
    std::uint64_t packed; // the rule
    std::uintptr_t index;
    std::size_t row;
    std::uint64_t checksum;
};

constinit entry entries[1U << kSlotBits] = {};

std::uint64_t checksum_of(const record &of, std::uint64_t before)
{
    return checksum_of_words(reinterpret_cast<const void *>(of.address), of.size, before ^ of.address);
}

std::uint64_t checksum_of(const description &of)
{
    return checksum_of(of.cie, checksum_of(of.fde, 0));
}

template <typename Value>
Value acquire(const Value &value)
{
    return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
}

template <typename Value>
void release(Value &to, Value value)
{
    __atomic_store_n(&to, value, __ATOMIC_RELEASE);
}

entry &entry_of(std::uintptr_t return_address)
{
    return entries[mem::pointer_hash(return_address, kSlotBits)];
}

// A rule without the facts by which it is checked. Not known if the entry is another address's.
rule read_rule(const entry &kept, std::uintptr_t return_address)
{
    std::uint64_t version = acquire(kept.version);
    std::uintptr_t address = acquire(kept.return_address);
    std::uint64_t packed = acquire(kept.packed);
    if (version % 2 != 0 || acquire(kept.version) != version || address != return_address)
        return {};
    return std::bit_cast<rule>(packed);
}

// False if the entry is another's.
bool read_kept(const entry &kept, std::uintptr_t return_address, const module &in, const table &rows, rule *found)
{
    std::uint64_t version = acquire(kept.version);
    entry copy = {version,           acquire(kept.return_address), acquire(kept.packed), acquire(kept.index),
                  acquire(kept.row), acquire(kept.checksum)};
    if (version % 2 != 0 || acquire(kept.version) != version)
        return false;
    if (copy.return_address != return_address || copy.index != rows.index || copy.row >= rows.count)
        return false;
    description of = read_description(in, description_of(rows, copy.row));
    if (!of.is_found() || checksum_of(of) != copy.checksum)
        return false;
    *found = std::bit_cast<rule>(copy.packed);
    return true;
}

void keep(entry &to, const entry &fresh)
{
    std::uint64_t version = acquire(to.version);
    if (version % 2 != 0 ||
        !__atomic_compare_exchange_n(&to.version, &version, version + 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
        return;
    release(to.return_address, fresh.return_address);
    release(to.packed, fresh.packed);
    release(to.index, fresh.index);
    release(to.row, fresh.row);
    release(to.checksum, fresh.checksum);
    release(to.version, version + 2);
}

// Whether a module stays loaded as long as the kept rules exist.
//
// The loader's list of modules is in the order of loading. What a program starts with is loaded before any of its code
// runs, the loader itself included, and is never unloaded. So the entries up to the loader's stay for the life of the
// process and are linked as they are: reading them needs no lock. A loader that was started as a program has no base.
bool is_permanent(const link_map *map)
{
    if (map == find_module(reinterpret_cast<std::uintptr_t>(entries)).map)
        return true; // the library, which may be loaded later
    fault::found_object loader;
    if (fault::find_object(reinterpret_cast<void *>(::getauxval(AT_BASE)), &loader) != 0)
        return false;
    for (const link_map *each = loader.map; each != nullptr; each = each->l_prev) {
        if (each == map)
            return true;
    }
    return false;
}

[[gnu::cold, gnu::noinline]] rule find_and_keep(entry &kept, std::uintptr_t return_address, const module &in,
                                                const table &rows, const architecture &machine)
{
    std::uintptr_t target = address_in_call(return_address);
    std::size_t count = count_up_to(rows, target);
    if (count == 0)
        return {};
    std::size_t row = count - 1;
    description of = read_description(in, description_of(rows, row));
    if (!of.is_found())
        return {};
    rule found = evaluate(of, target, machine);
    found.is_permanent = is_permanent(in.map);
    keep(kept, {0, return_address, std::bit_cast<std::uint64_t>(found), rows.index, row, checksum_of(of)});
    return found;
}

} // namespace

// A separate function: it needs a large frame, and a walk calls it for few frames.
[[gnu::noinline]] void finder::enter_module(std::uintptr_t address)
{
    in_ = find_module(address);
    rows_ = read_index(in_);
}

[[gnu::noinline]] rule finder::find_in_module(std::uintptr_t return_address)
{
    if (std::uintptr_t address = address_in_call(return_address); !in_.holds(address, 1))
        enter_module(address);
    if (rows_.count == 0)
        return {};
    entry &kept = entry_of(return_address);
    rule found;
    if (read_kept(kept, return_address, in_, rows_, &found)) [[likely]]
        return found;
    return find_and_keep(kept, return_address, in_, rows_, machine_);
}

rule finder::find(std::uintptr_t return_address)
{
    rule found = read_rule(entry_of(return_address), return_address);
    return found.is_permanent ? found : find_in_module(return_address);
}

} // namespace qv::frame_rules
