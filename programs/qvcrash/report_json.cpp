// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace qvcrash {
namespace {

using json = nlohmann::ordered_json;

constexpr char kFormat[] = "qvcrash-show-1";

// Addresses are texts: JSON's numbers lose bits above 2^53 in many readers.
std::string hex(std::uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

json address_of(const std::optional<std::uint64_t> &value)
{
    return value ? json(hex(*value)) : json(nullptr);
}

const char *name_of(identity sameness)
{
    switch (sameness) {
    case identity::same:
        return "same";
    case identity::differs:
        return "differs";
    case identity::missing:
        return "missing";
    case identity::unknown:
        break;
    }
    return "unknown";
}

const char *name_of(frame_origin origin)
{
    switch (origin) {
    case frame_origin::program_counter:
        return "program-counter";
    case frame_origin::link_register:
        return "link-register";
    case frame_origin::stack_top:
        return "stack-top";
    case frame_origin::stack_scan:
        return "stack-scan";
    case frame_origin::frame_record:
        break;
    }
    return "frame-record";
}

void add_place(const resolved_address &where, json *object)
{
    if (where.module != nullptr)
        (*object)["module"] = where.module->logged_path;
    (*object)["offset"] = address_of(where.offset);
    json functions = json::array();
    for (const source_frame &source : where.frames) {
        json entry = {{"function", source.function}, {"inlined", source.is_inlined}};
        if (!source.file.empty()) {
            entry["file"] = source.file;
            entry["line"] = source.line;
        }
        functions.push_back(std::move(entry));
    }
    (*object)["functions"] = std::move(functions);
}

json frames_of(const analysis &result)
{
    json frames = json::array();
    for (const explained_frame &frame : result.frames) {
        json entry = {{"origin", name_of(frame.origin)}, {"address", hex(frame.logged.code.address)}};
        add_place(frame.where, &entry);
        if (!entry.contains("module") && !frame.logged.code.file.empty())
            entry["module"] = frame.logged.code.file;
        entry["repeats"] = frame.repeats;
        if (frame.cycle_times != 0)
            entry["cycle"] = {{"frames", frame.cycle_frames}, {"times", frame.cycle_times}};
        frames.push_back(std::move(entry));
    }
    return frames;
}

json modules_of(const analysis &result)
{
    json modules = json::array();
    for (const auto &module : result.modules.modules()) {
        json entry = {
            {"path", module->logged_path}, {"identity", name_of(module->sameness)}, {"bias", address_of(module->bias)}};
        if (module->file != nullptr) {
            entry["file"] = module->found_path;
            entry["build_id"] = module->file->build_id();
            entry["debug_information"] = module->file->has_lines();
        }
        modules.push_back(std::move(entry));
    }
    return modules;
}

json groups_of(const analysis &result)
{
    json groups = json::array();
    for (const explained_group &group : result.groups) {
        json entry = {{"bytes", group.bytes}, {"blocks", group.blocks}};
        add_place(group.where, &entry);
        groups.push_back(std::move(entry));
    }
    return groups;
}

json lines_of(const analysis &result)
{
    json lines = json::array();
    for (const explained_line &line : result.lines) {
        json entry = {{"text", line.text}, {"places", json::array()}};
        for (const resolved_address &where : line.where) {
            json place = json::object();
            add_place(where, &place);
            entry["places"].push_back(std::move(place));
        }
        lines.push_back(std::move(entry));
    }
    return lines;
}

json registers_of(const analysis &result)
{
    json registers = json::object();
    for (const register_slot &slot : result.log.registers)
        registers[slot.name] = hex(slot.value);
    return registers;
}

json threads_of(const analysis &result)
{
    json threads = json::array();
    for (const explained_thread &explained : result.threads) {
        const detailed_thread &thread = explained.thread;
        json entry = {{"id", thread.id}, {"state", std::string(1, thread.state)}, {"name", thread.name}};
        if (thread.system_call)
            entry["system_call"] = *thread.system_call;
        if (thread.waits_at)
            entry["waits_at"] = hex(*thread.waits_at);
        if (thread.owner)
            entry["waits_for"] = *thread.owner;
        json calls = json::array();
        for (const resolved_address &call : explained.calls) {
            json place = json::object();
            add_place(call, &place);
            calls.push_back(std::move(place));
        }
        entry["calls"] = std::move(calls);
        threads.push_back(std::move(entry));
    }
    return threads;
}

json notes_of(const log_details &details)
{
    json notes = json::array();
    for (const auto &[thread, note] : details.notes)
        notes.push_back({{"thread", thread}, {"text", note}});
    return notes;
}

template <typename Number>
json number_or_null(const std::optional<Number> &number)
{
    return number ? json(*number) : json(nullptr);
}

} // namespace

std::string report_json(const analysis &result)
{
    const crash_log &log = result.log;
    json object = {{"format", kFormat},
                   {"log", result.file_name},
                   {"kind", name_of(log.kind)},
                   {"machine", name_of(log.from)},
                   {"process", log.process},
                   {"id", number_or_null(log.id)},
                   {"is_thread", log.is_thread_id},
                   {"signal", number_or_null(log.signal)},
                   {"sender", number_or_null(log.sender)},
                   {"headline", result.headline},
                   {"causes", result.causes},
                   {"fault", address_of(log.fault)},
                   {"pc", address_of(log.pc)},
                   {"sp", address_of(log.sp)},
                   {"pstate", address_of(log.state)},
                   {"registers", registers_of(result)},
                   {"frames", frames_of(result)},
                   {"modules", modules_of(result)}};
    if (log.kind == log_kind::allocation)
        object["groups"] = groups_of(result);
    if (log.kind == log_kind::text)
        object["lines"] = lines_of(result);
    if (log.details) {
        object["details"] = {{"complete", log.details->is_complete},
                             {"time", number_or_null(log.details->time)},
                             {"program", log.details->program},
                             {"thread_name", log.details->thread_name},
                             {"abort_message", log.details->abort_message},
                             {"notes", notes_of(*log.details)},
                             {"deadlocks", log.details->deadlocks},
                             {"threads", threads_of(result)},
                             {"stack", log.details->stack},
                             {"code", log.details->code_bytes},
                             {"lines", log.details->lines}};
    }
    object["host_text"] = log.host_text;
    object["tail_bytes"] = log.tail.size();
    object["remarks"] = result.remarks;
    // Logs may hold bytes that are no UTF-8.
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace qvcrash
