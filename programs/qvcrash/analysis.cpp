// SPDX-License-Identifier: Apache-2.0
#include "analysis.h"

#include "allocation_trace.h"
#include "mcache.h"
#include "recursion.h"
#include "text_scanner.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <numeric>

namespace qvcrash {
namespace {

constexpr std::size_t kFramePointer = 29;
constexpr std::size_t kLinkRegister = 30;
constexpr std::uint64_t kNullRange = 65536;    // nothing is mapped below it, so such an address is null and an offset
constexpr std::uint64_t kStackReach = 1 << 20; // how far from the stack pointer one frame's data may lie
constexpr std::size_t kMaxGroups = 20;
constexpr std::size_t kMaxLines = 10000;

std::string hex(std::uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string quoted_function(const explained_frame &frame)
{
    std::string text = describe(frame.where);
    return text.empty() ? std::string() : ", in " + text;
}

// ---- the frames ----

std::vector<explained_frame> explain_frames(const crash_log &log, const module_map &modules)
{
    std::vector<explained_frame> frames;
    for (std::size_t i = 0; i < log.frames.size(); i++) {
        explained_frame frame;
        frame.logged = log.frames[i];
        // The walk starts with the program counter where that is code, which it is not after a wild jump.
        bool is_pc = i == 0 && log.pc && frame.logged.code.address == *log.pc;
        frame.origin = is_pc ? frame_origin::program_counter : frame_origin::frame_record;
        frame.where = modules.resolve(frame.logged.code, !is_pc);
        frames.push_back(std::move(frame));
    }
    return frames;
}

const source_frame *outermost(const resolved_address &where)
{
    return where.frames.empty() ? nullptr : &where.frames.back();
}

bool is_same_function(const resolved_address &a, const resolved_address &b)
{
    const source_frame *first = outermost(a), *second = outermost(b);
    return first != nullptr && second != nullptr && a.module == b.module && first->function == second->function;
}

// Whether the function at the program counter has saved the link register: the walk sees its caller then, and what the
// register holds was left by a call that has returned.
bool has_saved_link_register(const crash_log &log, const module_map &modules)
{
    const used_module *module = log.pc ? modules.module_at(*log.pc) : nullptr;
    if (module == nullptr || module->file == nullptr || module->sameness == identity::differs)
        return false;
    return !module->file->keeps_link_register(*log.pc - *module->bias).value_or(true);
}

// A function that has not saved the link register yet, or never does, is missing from the walk's second place. A value
// within the function itself was left there by a call that has returned.
void add_link_register(const crash_log &log, const module_map &modules, std::vector<explained_frame> *frames)
{
    std::optional<std::uint64_t> value = register_value(log, kLinkRegister);
    if (log.from != machine::aarch64 || !value || *value == 0 || has_saved_link_register(log, modules))
        return;
    bool is_in_walk = std::any_of(frames->begin(), frames->end(),
                                  [&](const explained_frame &frame) { return frame.logged.code.address == *value; });
    const used_module *module = modules.module_at(*value);
    if (is_in_walk || module == nullptr || !module->file->follows_call(*value - *module->bias).value_or(false))
        return;
    explained_frame frame;
    frame.origin = frame_origin::link_register;
    frame.logged.code.address = *value;
    frame.where = modules.resolve(*value, true);
    bool has_pc = !frames->empty() && frames->front().origin == frame_origin::program_counter;
    if (has_pc && is_same_function(frames->front().where, frame.where))
        return;
    frames->insert(frames->begin() + (has_pc ? 1 : 0), std::move(frame));
}

// Where on the stack the walk took each frame's return address from: after the link of the frame before. A walk that
// does not begin with the program counter begins at the frame pointer.
std::vector<std::uint64_t> places_of(const crash_log &log, const std::vector<explained_frame> &frames)
{
    constexpr std::uint64_t kReturnAddressOffset = 8;
    std::vector<std::uint64_t> places;
    bool has_pc = !frames.empty() && frames.front().origin == frame_origin::program_counter;
    std::uint64_t record = has_pc ? 0 : register_value(log, kFramePointer).value_or(0);
    for (const explained_frame &frame : frames) {
        bool is_record = frame.origin == frame_origin::frame_record && record != 0;
        places.push_back(is_record ? record + kReturnAddressOffset : 0);
        record = frame.logged.frame_address;
    }
    return places;
}

// A call that does not return may end a function, and the next one's start then follows a call. On a stack such an
// address is a function pointer.
bool is_function_pointer(const used_module &module, std::uint64_t address)
{
    return module.file != nullptr && module.sameness != identity::differs &&
           module.file->is_function_start(address - *module.bias);
}

// What the details found on the stack and the walk does not have, in its place between the frames.
void add_found_words(const crash_log &log, const module_map &modules, std::vector<explained_frame> *frames)
{
    if (!log.details)
        return;
    constexpr std::size_t kMaxAdded = 24;
    std::vector<std::uint64_t> places = places_of(log, *frames);
    std::vector<explained_frame> merged;
    std::size_t next = 0;
    std::size_t added = 0;
    for (const found_word &word : log.details->found) {
        bool is_in_walk = std::any_of(frames->begin(), frames->end(), [&word](const explained_frame &frame) {
            return frame.logged.code.address == word.address;
        });
        const used_module *module = modules.module_at(word.address);
        if (is_in_walk || module == nullptr || added == kMaxAdded || is_function_pointer(*module, word.address))
            continue;
        while (next < frames->size() && places[next] < word.place)
            merged.push_back(std::move((*frames)[next++]));
        explained_frame frame;
        // Calls push the return address on x86-64 only.
        bool is_top = log.from == machine::x86_64 && log.sp == word.place;
        frame.origin = is_top ? frame_origin::stack_top : frame_origin::stack_scan;
        frame.logged.code.address = word.address;
        frame.where = modules.resolve(word.address, true);
        merged.push_back(std::move(frame));
        added++;
    }
    while (next < frames->size())
        merged.push_back(std::move((*frames)[next++]));
    *frames = std::move(merged);
}

std::vector<explained_thread> explain_threads(const crash_log &log, const module_map &modules)
{
    std::vector<explained_thread> threads;
    if (!log.details)
        return threads;
    for (const detailed_thread &thread : log.details->threads) {
        explained_thread explained{thread, {}, {}};
        if (thread.pc)
            explained.at = modules.resolve(*thread.pc, false);
        // What the thread says of itself needs no candidates from its stack.
        for (const found_word &word : thread.walk.empty() ? thread.found : thread.walk)
            explained.calls.push_back(modules.resolve(word.address, word.address != thread.pc));
        threads.push_back(std::move(explained));
    }
    return threads;
}

bool is_same_place(const explained_frame &a, const explained_frame &b)
{
    return a.logged.code.address == b.logged.code.address && a.origin == b.origin && a.repeats == b.repeats;
}

// Recursion to the end of the stack fills the walk with one frame.
void collapse_repeats(std::vector<explained_frame> *frames)
{
    std::vector<explained_frame> kept;
    for (explained_frame &frame : *frames) {
        if (!kept.empty() && kept.back().logged.code.address == frame.logged.code.address)
            kept.back().repeats++;
        else
            kept.push_back(std::move(frame));
    }
    *frames = std::move(kept);
}

// Functions that call one another fill it with a few. Of several cycles that begin at a frame the one that covers most
// is kept; an unfinished last round stays as it is.
void collapse_cycles(std::vector<explained_frame> *frames)
{
    std::vector<explained_frame> kept;
    auto is_same = [frames](std::size_t a, std::size_t b) { return is_same_place((*frames)[a], (*frames)[b]); };
    for (std::size_t i = 0; i < frames->size();) {
        std::size_t period = 1, times = 1;
        for (std::size_t candidate = 2; candidate <= kLongestCycle; candidate++) {
            std::size_t rounds = repeating_frames(i, frames->size(), candidate, is_same) / candidate;
            if (rounds * candidate > period * times) {
                period = candidate;
                times = rounds;
            }
        }
        if (times > 1) {
            (*frames)[i].cycle_frames = period;
            (*frames)[i].cycle_times = times;
        }
        std::move(frames->begin() + static_cast<std::ptrdiff_t>(i),
                  frames->begin() + static_cast<std::ptrdiff_t>(i + period), std::back_inserter(kept));
        i += period * times;
    }
    *frames = std::move(kept);
}

// ---- the cause ----

bool is_named(const explained_frame &frame, std::string_view name)
{
    if (frame.logged.code.symbol == name)
        return true;
    // The prefix of the C library's internal names for its functions.
    constexpr std::string_view kInner = "__GI_";
    return std::any_of(frame.where.frames.begin(), frame.where.frames.end(), [&](const source_frame &f) {
        std::string_view function = f.function;
        if (function.starts_with(kInner))
            function.remove_prefix(kInner.size());
        return function == name || (function.starts_with(name) && function.substr(name.size()).starts_with('('));
    });
}

// A thread's outermost functions. What lies above them on the stack are arguments and function pointers.
bool is_outermost(const explained_frame &frame)
{
    constexpr std::string_view kOutermost[] = {"__libc_start_call_main",
                                               "__libc_start_main",
                                               "__libc_start_main_impl",
                                               "_start",
                                               "start_thread",
                                               "clone",
                                               "__clone",
                                               "clone3",
                                               "__clone3"};
    return std::any_of(std::begin(kOutermost), std::end(kOutermost), [&](auto name) { return is_named(frame, name); });
}

void cut_above_outermost(std::vector<explained_frame> *frames)
{
    auto is_walked = [](const explained_frame &frame) { return frame.origin == frame_origin::frame_record; };
    auto first = std::find_if(frames->begin(), frames->end(),
                              [&](const explained_frame &frame) { return is_walked(frame) && is_outermost(frame); });
    frames->erase(std::remove_if(first, frames->end(), std::not_fn(is_outermost)), frames->end());
}

struct known_function {
    const char *name;
    const char *meaning;
};

// Functions that end a process on purpose, the most telling first.
constexpr known_function kEndings[] = {
    {"mcache_error", "The object cache found one of its rules broken."},
    {"__assert_fail", "An assertion failed."},
    {"__assert", "An assertion failed."},
    {"__assert_perror_fail", "An assertion on an error number failed."},
    {"__stack_chk_fail", "A function's stack frame was overrun: its guard word had changed."},
    {"__fortify_fail", "A checked C library call would have overrun its destination."},
    {"__chk_fail", "A checked C library call would have overrun its destination."},
    {"malloc_printerr", "The C library found the heap damaged."},
    {"__libc_fatal", "The C library ended the process."},
    {"__cxa_pure_virtual", "A pure virtual function was called: the object is being made or destroyed."},
    {"std::terminate", "std::terminate() was called, as after an exception that nobody catches."},
    {"__gnu_cxx::__verbose_terminate_handler", "An exception was thrown that nobody catches."},
    {"__cxa_throw", "An exception was thrown that nobody catches."},
};

const explained_frame *find_function(const std::vector<explained_frame> &frames, std::string_view name)
{
    auto found =
        std::find_if(frames.begin(), frames.end(), [&](const explained_frame &frame) { return is_named(frame, name); });
    return found != frames.end() ? &*found : nullptr;
}

// The object cache's codes that the function can have crashed for.
std::string cache_rule(const std::vector<explained_frame> &frames)
{
    if (find_function(frames, "mcache_free") != nullptr)
        return " In mcache_free(): no cache (1), a pointer that is not this cache's (4), or a double free or an "
               "overrun (5).";
    if (find_function(frames, "mcache_alloc") != nullptr)
        return " In mcache_alloc(): no cache (1), or a free list that was overwritten (2, 3).";
    return {};
}

bool explain_by_function(const crash_log &log, const std::vector<explained_frame> &frames,
                         std::vector<std::string> *causes)
{
    for (const known_function &known : kEndings) {
        if (find_function(frames, known.name) == nullptr)
            continue;
        std::string text = known.meaning;
        bool is_cache = std::strcmp(known.name, "mcache_error") == 0;
        if (is_cache && log.details && log.details->misuse)
            return true; // said exactly already
        if (is_cache)
            text += cache_rule(frames);
        causes->push_back(std::move(text));
        return true;
    }
    return false;
}

// Words that memory is filled with on purpose.
struct poison {
    std::uint64_t word;
    std::uint64_t mask;
    const char *meaning;
};

constexpr std::uint64_t kAllBits = ~0ULL;
constexpr std::uint64_t kSmallOffset = 0xFFF;

constexpr poison kPoisons[] = {
    {0xDEADDEADDEADDEAD, kAllBits ^ kSmallOffset, "the object cache's guard word: it was read behind an object"},
    {0xA68F25E04B37D14C, kAllBits ^ kSmallOffset, "the magic number of an object cache's page"},
};

// One byte eight times over, the last of them perhaps moved by an offset: what fill patterns look like. The C library's
// string functions keep words of the bytes 0x01, 0x7F and 0x80 in registers.
bool is_repeated_byte(std::uint64_t value)
{
    std::uint64_t byte = value >> 56;
    if (byte == 0x01 || byte == 0x7F || byte == 0x80)
        return false;
    std::uint64_t filled = byte * 0x0101010101010101ULL;
    return byte != 0 && byte != 0xFF && (value ^ filled) >> 16 == 0;
}

std::string poison_in(std::uint64_t value)
{
    for (const poison &known : kPoisons) {
        if ((value & known.mask) == (known.word & known.mask))
            return known.meaning;
    }
    if (is_repeated_byte(value))
        return "a fill pattern: memory that was freed or never set";
    return {};
}

// Addresses of user space and of the kernel differ in their upper bits only, which are all equal: 17 of them on x86-64,
// which reports no address for other pointers, 16 on AArch64.
bool is_canonical(std::uint64_t value, machine from = machine::x86_64)
{
    int bits = from == machine::aarch64 ? 48 : 47;
    std::uint64_t upper = value >> bits;
    return upper == 0 || upper == kAllBits >> bits;
}

bool is_near(std::uint64_t a, std::uint64_t b, std::uint64_t reach)
{
    return (a > b ? a - b : b - a) < reach;
}

// The registers with values, and the one of the first argument, whose slot of the table does not have it.
std::vector<register_slot> known_registers(const crash_log &log)
{
    std::vector<register_slot> known = log.registers;
    if (log.details && log.details->first_argument)
        known.push_back({"The first argument's register", *log.details->first_argument});
    return known;
}

// The AArch64 kernel reports a fault's address without its top byte. A register may have the whole pointer; a pattern
// can be completed without one.
std::uint64_t faulting_pointer(const crash_log &log)
{
    constexpr int kTagShift = 56;
    constexpr std::uint64_t kAddressBits = kAllBits >> 8;
    std::uint64_t fault = *log.fault;
    if (log.from != machine::aarch64 || fault < kNullRange || fault >> kTagShift != 0)
        return fault;
    for (const register_slot &slot : known_registers(log)) {
        if (slot.value >> kTagShift != 0 && is_near(slot.value & kAddressBits, fault, kSmallOffset))
            return (slot.value & ~kAddressBits) | fault;
    }
    std::uint64_t completed = fault | ((fault >> (kTagShift - 8)) & 0xFF) << kTagShift;
    return poison_in(completed).empty() ? fault : completed;
}

void explain_poisoned_registers(const crash_log &log, std::vector<std::string> *causes)
{
    for (const register_slot &slot : known_registers(log)) {
        std::string meaning = poison_in(slot.value);
        if (!meaning.empty())
            causes->push_back(slot.name + " holds " + hex(slot.value) + ", " + meaning + ".");
    }
}

// What an address outside all code points to, as far as it says something: "the stack", or a module's data.
std::string describe_data(const crash_log &log, std::uint64_t address, const module_map &modules)
{
    const log_details *details = log.details ? &*log.details : nullptr;
    if (details != nullptr && details->stack_start && address >= *details->stack_start && address < *details->stack_end)
        return "the stack";
    const used_module *module = modules.module_at(address);
    return module != nullptr ? module->logged_path + '+' + hex(address - *module->bias) : std::string();
}

// The return instruction of AArch64 leaves the register that it jumps through as it was; calls set it. The program
// counter lacks the register's top byte.
bool is_after_return(const crash_log &log)
{
    std::optional<std::uint64_t> link = register_value(log, kLinkRegister);
    return log.from == machine::aarch64 && log.pc && link && *link != 0 && (*link ^ *log.pc) << 8 == 0;
}

bool is_at_return(const crash_log &log, const module_map &modules)
{
    const used_module *module = log.pc ? modules.module_at(*log.pc) : nullptr;
    return module != nullptr && module->file != nullptr && module->sameness != identity::differs &&
           module->file->is_return(*log.pc - *module->bias).value_or(false);
}

constexpr char kOverwrittenReturn[] =
    "A function returned to no code: its return address on the stack was overwritten, as by a local array's overrun";

// After a jump, unlike after a bad access, the program counter lies in no code.
bool explain_jump(const crash_log &log, const std::vector<explained_frame> &frames, const module_map &modules,
                  std::vector<std::string> *causes)
{
    bool has_pc = !frames.empty() && frames.front().origin == frame_origin::program_counter;
    const used_module *gone = log.pc ? modules.module_at(*log.pc) : nullptr;
    if (gone != nullptr && gone->is_gone) {
        causes->push_back("The code at " + hex(*log.pc) + " is gone: " + gone->logged_path + " was unloaded.");
        return true;
    }
    bool is_jump = log.pc && (*log.pc < kNullRange || (log.fault && *log.pc == *log.fault) || !has_pc);
    if (!is_jump)
        return false;
    const explained_frame *caller =
        frames.empty() ? nullptr : &frames[has_pc ? std::min<std::size_t>(1, frames.size() - 1) : 0];
    std::string from =
        caller != nullptr && !describe(caller->where).empty() ? ", called from " + describe(caller->where) : "";
    std::string target = describe_data(log, *log.pc, modules);
    if (is_after_return(log))
        causes->push_back(std::string(kOverwrittenReturn) + ", to " + hex(*log.pc) + '.');
    else if (*log.pc < kNullRange)
        causes->push_back("Jump through a null pointer" + (*log.pc == 0 ? std::string() : " plus " + hex(*log.pc)) +
                          from + ".");
    else
        causes->push_back("Jump through a wild pointer, to " + hex(*log.pc) + ", which is no code" +
                          (target.empty() ? "" : " but in " + target) + from + ".");
    return true;
}

// The kernel's mapping of the stack says more than distances do.
bool explain_stack_by_range(const crash_log &log, const std::vector<explained_frame> &frames,
                            std::vector<std::string> *causes)
{
    constexpr std::uint64_t kGuardReach = 1 << 16;
    const log_details *details = log.details ? &*log.details : nullptr;
    if (details == nullptr || !details->stack_start || !log.fault || !log.sp)
        return false;
    bool is_below = *log.fault < *details->stack_start && *details->stack_start - *log.fault <= kGuardReach;
    bool is_sp_at_end = *log.sp < *details->stack_start + kGuardReach;
    if (!is_below || !is_sp_at_end)
        return false;
    causes->push_back("Stack overflow: " + hex(*log.fault) + " lies below the stack, which begins at " +
                      hex(*details->stack_start) + (frames.empty() ? "" : quoted_function(frames.front())) + ".");
    return true;
}

bool explain_stack(const crash_log &log, const std::vector<explained_frame> &frames, std::vector<std::string> *causes)
{
    if (!log.fault || !log.sp || *log.sp < kNullRange || *log.fault < kNullRange ||
        !is_near(*log.fault, *log.sp, kStackReach))
        return false;
    auto is_above = [&](const explained_frame &frame) { return frame.logged.frame_address >= *log.fault; };
    bool is_beyond_frames = !frames.empty() && std::none_of(frames.begin(), frames.end(), is_above);
    if (is_beyond_frames && *log.fault > *log.sp) {
        causes->push_back("The end of the stack was passed upwards, at " + hex(*log.fault) +
                          ": a local array was overrun" + quoted_function(frames.front()) + ".");
        return true;
    }
    bool has_room = log.details && log.details->stack_start; // the stack pointer lies in the stack's mapping
    if (has_room)
        return false;
    causes->push_back("Stack overflow: " + hex(*log.fault) + " was touched with the stack pointer at " + hex(*log.sp) +
                      (frames.empty() ? "" : quoted_function(frames.front())) + ".");
    return true;
}

// Whether the kernel gave this reason; false for a log without details.
bool has_code(const crash_log &log, int code)
{
    return log.details && log.details->code == code;
}

// The x86-64 processor reports no address for a pointer with unequal upper bits, nor for a misaligned operand of an
// instruction that requires alignment.
bool is_hidden_address(const crash_log &log)
{
    if (log.from != machine::x86_64 || *log.fault != 0)
        return false;
    if (log.details && log.details->code)
        return *log.details->code == SI_KERNEL;
    return std::any_of(log.registers.begin(), log.registers.end(),
                       [](const register_slot &slot) { return !is_canonical(slot.value); });
}

std::string describe_hidden_address(const crash_log &log, const module_map &modules)
{
    if (is_at_return(log, modules))
        return kOverwrittenReturn;
    std::string text = "A pointer that is no address was followed (the processor reports none then), or ";
    return text + (log.details && log.details->code ? "an operand is misaligned" : "a null pointer");
}

std::string describe_bus_error(const crash_log &log)
{
    if (has_code(log, BUS_ADRALN))
        return "The address " + hex(*log.fault) + " is not aligned for the instruction";
    if (has_code(log, BUS_ADRERR))
        return "The file that is mapped at " + hex(*log.fault) + " ends before it, or has no room on its device";
    return "The memory at " + hex(*log.fault) + " cannot be accessed";
}

std::string describe_refused_address(const crash_log &log, const module_map &modules)
{
    std::string address = hex(*log.fault);
    std::string data = describe_data(log, *log.fault, modules);
    std::string place = data.empty() ? address : address + ", in " + data + ',';
    if (has_code(log, SEGV_MAPERR))
        return "Nothing is mapped at the address " + place;
    if (has_code(log, SEGV_ACCERR))
        return "The address " + place +
               " is mapped, but not for this access: read-only memory was written, or memory "
               "without access was touched";
    return "The address " + place + " may not be accessed so";
}

std::string describe_access(const crash_log &log, const module_map &modules)
{
    if (is_hidden_address(log))
        return describe_hidden_address(log, modules);
    if (*log.fault == 0)
        return "A null pointer was followed";
    if (*log.fault < kNullRange)
        return "A member at offset " + std::to_string(*log.fault) + " of a null pointer was touched";
    std::uint64_t pointer = faulting_pointer(log);
    if (std::string meaning = poison_in(pointer); !meaning.empty())
        return "The address " + hex(pointer) + " is " + meaning;
    if (!is_canonical(pointer, log.from))
        return "A pointer that is no address, " + hex(pointer) + ", was followed";
    return log.signal == SIGBUS ? describe_bus_error(log) : describe_refused_address(log, modules);
}

void explain_access(const crash_log &log, const std::vector<explained_frame> &frames, const module_map &modules,
                    std::vector<std::string> *causes)
{
    if (!log.fault || explain_stack_by_range(log, frames, causes) || explain_jump(log, frames, modules, causes) ||
        explain_stack(log, frames, causes))
        return;
    std::string where = frames.empty() ? std::string() : quoted_function(frames.front());
    causes->push_back(describe_access(log, modules) + where + '.');
    explain_poisoned_registers(log, causes);
}

bool is_division(const crash_log &log)
{
    return !log.details || !log.details->code || *log.details->code == FPE_INTDIV;
}

// Nothing at the program counter caused a signal that a process sent. abort() sends one too.
bool explain_sent_signal(const crash_log &log, std::vector<std::string> *causes)
{
    if (!log.details || !log.details->code || *log.details->code > 0 || log.signal == SIGABRT)
        return false;
    if (log.details->sender == log.details->pid)
        causes->push_back("The process sent itself the signal, as by kill() or raise().");
    return true;
}

void explain_fatal_signal(const crash_log &log, const std::vector<explained_frame> &frames, const module_map &modules,
                          std::vector<std::string> *causes)
{
    if (explain_by_function(log, frames, causes) || explain_sent_signal(log, causes))
        return;
    std::string where = frames.empty() ? std::string() : quoted_function(frames.front());
    switch (log.signal.value_or(0)) {
    case SIGSEGV:
    case SIGBUS:
        explain_access(log, frames, modules, causes);
        break;
    case SIGILL:
        causes->push_back("An instruction that the processor does not have, or a trap" + where + ".");
        break;
    case SIGTRAP:
        causes->push_back("A trap instruction" + where + ".");
        break;
    case SIGFPE:
        causes->push_back(
            (is_division(log) ? "A whole number was divided by 0, or the smallest one by -1" : "An arithmetic error") +
            where + ".");
        break;
    case SIGABRT:
        causes->push_back("The process called abort(), or was sent the signal" + where + ".");
        break;
    default:
        break;
    }
}

std::string describe_misuse(const cache_misuse &misuse)
{
    std::string object = misuse.object != 0 ? " of object " + hex(misuse.object) : std::string();
    std::string where = "Object cache \"" + misuse.cache + "\": ";
    switch (misuse.code) {
    case MCACHE_NULL_CACHE:
        return "An object cache was used through a null pointer.";
    case MCACHE_LOST_FREE_LIST:
        return where + "a page with free slots has an empty free list (code 2): freed memory was written to.";
    case MCACHE_SLOT_IN_USE:
        return where + "a slot of the free list is allocated (code 3)" + object + ": freed memory was written to.";
    case MCACHE_FOREIGN_OBJECT:
        return where + "a pointer was freed that is none of its objects (code 4)" + object + ".";
    case MCACHE_BAD_OBJECT:
        if (misuse.guard == MCACHE_GUARD)
            return where + "double free" + object + " (code 5).";
        return where + "overrun" + object + " (code 5): the guard word behind it holds " + hex(misuse.guard) + ".";
    default:
        return where + "code " + std::to_string(misuse.code) + object + ".";
    }
}

// What the process knew itself.
void explain_by_details(const crash_log &log, std::vector<std::string> *causes)
{
    if (!log.details)
        return;
    const log_details &details = *log.details;
    for (const std::string &circle : details.deadlocks)
        causes->push_back("Deadlock: thread " + circle + ".");
    bool is_foreign = details.sender && details.pid && *details.sender != *details.pid;
    if (is_foreign && log.kind != log_kind::term)
        causes->push_back("Process " + std::to_string(*details.sender) + " of user " +
                          std::to_string(details.sender_uid.value_or(0)) + " sent the signal.");
    if (!details.abort_message.empty())
        causes->push_back("The C library said: " + details.abort_message);
    if (details.misuse)
        causes->push_back(describe_misuse(*details.misuse));
    for (const auto &[thread, note] : details.notes) {
        if (details.tid == thread)
            causes->push_back("The thread's note: " + note);
    }
}

std::vector<std::string> explain_causes(const crash_log &log, const std::vector<explained_frame> &frames,
                                        const module_map &modules)
{
    std::vector<std::string> causes;
    explain_by_details(log, &causes);
    switch (log.kind) {
    case log_kind::coredump:
        explain_fatal_signal(log, frames, modules, &causes);
        break;
    case log_kind::attach:
        causes.push_back("A dump was requested; the process went on.");
        break;
    case log_kind::term:
        if (log.sender && *log.sender > 0)
            causes.push_back("Process " + std::to_string(*log.sender) + " sent the signal.");
        else
            causes.push_back("The kernel or the process itself sent the signal.");
        break;
    default:
        break;
    }
    return causes;
}

// ---- everything else ----

std::string make_headline(const crash_log &log)
{
    std::string text = log.process.empty() ? "A process" : log.process;
    if (log.id)
        text += (log.is_thread_id ? ", thread " : ", process ") + std::to_string(*log.id);
    if (log.from != machine::unknown)
        text += std::string(", ") + name_of(log.from);
    switch (log.kind) {
    case log_kind::coredump:
        text += ": ended by ";
        break;
    case log_kind::attach:
        text += ": dump request by ";
        break;
    case log_kind::term:
        text += ": told to end by ";
        break;
    case log_kind::backtrace:
        return text + ": a backtrace";
    case log_kind::allocation:
        return "A trace of allocations";
    case log_kind::text:
        return "A text with code addresses";
    case log_kind::unknown:
        return "Nothing of a crash log is in this file";
    }
    return text + (log.signal ? describe_signal(*log.signal) : "an unknown signal");
}

std::vector<explained_register> explain_registers(const crash_log &log, const module_map &modules)
{
    std::vector<explained_register> known;
    for (const register_slot &slot : log.registers) {
        if (slot.value != 0 && modules.module_at(slot.value) != nullptr)
            known.push_back({slot.name, slot.value, modules.resolve(slot.value, false)});
    }
    return known;
}

std::vector<std::string> make_remarks(const crash_log &log, const module_map &modules)
{
    std::vector<std::string> remarks;
    auto add = [&](std::string text) {
        if (std::find(remarks.begin(), remarks.end(), text) == remarks.end())
            remarks.push_back(std::move(text));
    };
    for (const std::string &problem : log.problems)
        add("Log: " + problem + ".");
    if (log.is_mixture)
        add("Log: several threads wrote their dumps into this file at the same time. The first one is explained; its "
            "registers and frames may be another thread's.");
    else if (!log.tail.empty())
        add("Log: " + std::to_string(log.tail.size()) + " bytes of an older, longer log follow; they are left out.");
    bool has_unsure = false;
    for (const auto &module : modules.modules()) {
        if (module->sameness == identity::missing)
            add("No file for " + module->logged_path + ".");
        else if (module->sameness == identity::differs)
            add(module->found_path + " is not the file that was running: the log's addresses do not fit it.");
        has_unsure |= module->sameness == identity::unknown;
        if (module->sameness != identity::missing && module->sameness != identity::differs &&
            !module->file->has_lines())
            add("No debug information for " + module->found_path + ".");
    }
    if (has_unsure)
        add("The log names no build ids, so whether the files are those that were running cannot be known.");
    return remarks;
}

std::vector<code_reference> references_of(const crash_log &log)
{
    std::vector<code_reference> references;
    for (const logged_frame &frame : log.frames)
        references.push_back(frame.code);
    return references;
}

void explain_trace(std::string_view text, symbolizer *symbols, analysis *result)
{
    allocation_trace trace = parse_allocation_trace(text);
    std::vector<code_reference> references;
    for (const live_group &group : trace.groups)
        references.push_back(group.caller);
    result->modules = symbols->load(result->log, references);
    std::size_t count = std::min(trace.groups.size(), kMaxGroups);
    for (std::size_t i = 0; i < count; i++) {
        const live_group &group = trace.groups[i];
        result->groups.push_back(
            {group.caller, result->modules.resolve(group.caller, true), group.blocks, group.bytes});
    }
    std::uint64_t bytes = std::accumulate(trace.groups.begin(), trace.groups.end(), std::uint64_t{0},
                                          [](std::uint64_t sum, const live_group &group) { return sum + group.bytes; });
    result->causes.push_back(std::to_string(trace.calls) + " calls; " + std::to_string(bytes) + " bytes in " +
                             std::to_string(trace.live_blocks) + " blocks were not freed.");
    if (trace.unknown_frees != 0)
        result->remarks.push_back(std::to_string(trace.unknown_frees) +
                                  " blocks were freed that the trace does not know.");
}

void explain_text(std::string_view text, symbolizer *symbols, analysis *result)
{
    struct referring_line {
        std::string_view text;
        std::vector<code_reference> codes;
    };
    std::vector<referring_line> lines;
    std::vector<code_reference> references;
    while (!text.empty() && lines.size() < kMaxLines) {
        std::size_t end = std::min(text.find('\n'), text.size());
        referring_line line{text.substr(0, end), {}};
        std::string_view rest = line.text;
        while (std::optional<found_reference> found = find_reference(rest)) {
            line.codes.push_back(found->code);
            references.push_back(found->code);
            rest.remove_prefix(found->end);
        }
        lines.push_back(std::move(line));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    result->modules = symbols->load(result->log, references);
    for (const referring_line &line : lines) {
        explained_line explained{std::string(line.text), {}};
        for (const code_reference &code : line.codes)
            explained.where.push_back(result->modules.resolve(code, true));
        result->lines.push_back(std::move(explained));
    }
}

} // namespace

analysis explain(std::string_view text, const std::string &file_name, symbolizer *symbols)
{
    std::string plain;
    text = with_plain_lines(text, &plain);
    analysis result;
    result.file_name = file_name;
    result.log = parse_crash_log(text, file_name);
    const crash_log &log = result.log;
    if (log.kind == log_kind::allocation) {
        explain_trace(text, symbols, &result);
    } else if (log.kind == log_kind::text) {
        explain_text(text, symbols, &result);
    } else {
        result.modules = symbols->load(log, references_of(log));
        result.frames = explain_frames(log, result.modules);
        add_link_register(log, result.modules, &result.frames);
        add_found_words(log, result.modules, &result.frames);
        cut_above_outermost(&result.frames);
        result.causes = explain_causes(log, result.frames, result.modules);
        collapse_repeats(&result.frames);
        collapse_cycles(&result.frames);
        result.threads = explain_threads(log, result.modules);
        result.registers = explain_registers(log, result.modules);
    }
    result.headline = make_headline(log);
    std::vector<std::string> remarks = make_remarks(log, result.modules);
    result.remarks.insert(result.remarks.end(), remarks.begin(), remarks.end());
    return result;
}

std::string describe(const resolved_address &where)
{
    return where.frames.empty() ? std::string() : describe(where.frames.front());
}

std::string describe(const source_frame &frame)
{
    std::string text = frame.function;
    if (!frame.file.empty()) {
        text += text.empty() ? "" : " at ";
        text += frame.file;
        if (frame.line != 0)
            text += ':' + std::to_string(frame.line);
    }
    return text;
}

std::string describe_signal(int signal)
{
    // Numbers 32 and up differ between C libraries in name only.
    const char *name = ::sigabbrev_np(signal);
    const char *description = ::sigdescr_np(signal);
    if (name == nullptr || description == nullptr)
        return "signal " + std::to_string(signal);
    return std::string("SIG") + name + " (" + description + ")";
}

} // namespace qvcrash
