// SPDX-License-Identifier: Apache-2.0
#include "group.h"

#include "printable.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

namespace qvcrash {
namespace {

constexpr char kFormat[] = "qvcrash-group-1";
constexpr long kSecondsPerDay = 86400;

using group_map = std::unordered_map<std::string, log_group>;

// What one thread has counted.
struct partial_result {
    group_map groups;
    std::uint64_t logs = 0;
    std::uint64_t others = 0;
};

void count_log(const source_log &source, const signature_maker &make_signature, partial_result *result)
{
    crash_log log = parse_crash_log(source.text, source.name, log_extent::signature);
    if (log.kind != log_kind::coredump) {
        result->others++;
        return;
    }
    result->logs++;
    log_group &group = result->groups[make_signature(log)];
    group.days[source.when / kSecondsPerDay]++;
    if (group.count == 0 || source.when < group.first)
        group.first = source.when;
    if (group.count == 0 || source.when > group.last) {
        group.last = source.when;
        group.example = source.name;
    }
    group.count++;
}

void merge(const log_group &part, log_group *whole)
{
    if (whole->count == 0 || part.first < whole->first)
        whole->first = part.first;
    if (whole->count == 0 || part.last > whole->last) {
        whole->last = part.last;
        whole->example = part.example;
    }
    whole->count += part.count;
    for (auto [day, count] : part.days)
        whole->days[day] += count;
}

std::string date_time(std::time_t when)
{
    std::tm utc;
    char text[32];
    ::gmtime_r(&when, &utc);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string date(long day)
{
    return date_time(day * kSecondsPerDay).substr(0, 10);
}

} // namespace

group_result group_logs(const std::vector<std::string> &paths, const signature_maker &make_signature, unsigned threads,
                        read_progress *progress)
{
    std::vector<partial_result> parts(threads);
    read_logs(
        paths, threads, [&](unsigned thread, const source_log &log) { count_log(log, make_signature, &parts[thread]); },
        progress);

    group_result result;
    group_map groups;
    for (const partial_result &part : parts) {
        result.logs += part.logs;
        result.others += part.others;
        for (const auto &[signature, group] : part.groups)
            merge(group, &groups[signature]);
    }
    for (auto &[signature, group] : groups) {
        group.signature = readable_signature(signature);
        result.groups.push_back(std::move(group));
    }
    std::sort(result.groups.begin(), result.groups.end(), [](const log_group &a, const log_group &b) {
        return a.count != b.count ? a.count > b.count : a.signature < b.signature;
    });
    result.unreadable = progress->unreadable;
    return result;
}

std::string groups_text(const group_result &result)
{
    std::string text;
    for (const log_group &group : result.groups) {
        char line[128];
        std::snprintf(line, sizeof line, "%8llu  %s  %s  ", static_cast<unsigned long long>(group.count),
                      date_time(group.first).substr(0, 10).c_str(), date_time(group.last).substr(0, 10).c_str());
        text += line + printable(group.signature) + "\n          " + printable(group.example) + '\n';
    }
    return text + std::to_string(result.logs) + " crash logs in " + std::to_string(result.groups.size()) + " groups, " +
           std::to_string(result.others) + " other files, " + std::to_string(result.unreadable) + " unreadable\n";
}

std::string groups_json(const group_result &result)
{
    using json = nlohmann::ordered_json;
    std::string text;
    for (const log_group &group : result.groups) {
        json days = json::object();
        for (auto [day, count] : group.days)
            days[date(day)] = count;
        json object = {{"format", kFormat},
                       {"signature", group.signature},
                       {"count", group.count},
                       {"first", date_time(group.first)},
                       {"last", date_time(group.last)},
                       {"example", group.example},
                       {"days", std::move(days)}};
        text += object.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
    }
    return text;
}

} // namespace qvcrash
