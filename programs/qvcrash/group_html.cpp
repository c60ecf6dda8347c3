// SPDX-License-Identifier: Apache-2.0
#include "group.h"

#include <algorithm>
#include <cstdio>

namespace qvcrash {
namespace {

constexpr int kChartWidth = 240;
constexpr int kChartHeight = 28;
constexpr long kMaxDays = 120; // on one chart; older days fall into its first column

std::string escaped(std::string_view text)
{
    std::string result;
    for (char c : text) {
        switch (c) {
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '&':
            result += "&amp;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
        }
    }
    return result;
}

std::string day_text(std::time_t when)
{
    std::tm utc;
    char text[32];
    ::gmtime_r(&when, &utc);
    std::strftime(text, sizeof text, "%Y-%m-%d", &utc);
    return text;
}

// A bar a day, the newest day of all groups at the right edge.
std::string chart(const log_group &group, long first_day, long last_day)
{
    long count = last_day - first_day + 1;
    std::vector<std::uint64_t> bars(static_cast<std::size_t>(count));
    for (auto [day, logs] : group.days)
        bars[static_cast<std::size_t>(std::max(day, first_day) - first_day)] += logs;
    double highest = static_cast<double>(std::max<std::uint64_t>(1, *std::max_element(bars.begin(), bars.end())));
    double width = static_cast<double>(kChartWidth) / static_cast<double>(count);

    char text[256];
    std::snprintf(text, sizeof text,
                  "<svg width=\"%d\" height=\"%d\" role=\"img\" aria-label=\"logs a day, at most %.0f\">", kChartWidth,
                  kChartHeight, highest);
    std::string result = text;
    for (std::size_t i = 0; i < bars.size(); i++) {
        if (bars[i] == 0)
            continue;
        double height = std::max(1.0, kChartHeight * static_cast<double>(bars[i]) / highest);
        std::snprintf(text, sizeof text,
                      "<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\"><title>%s: %llu</title></rect>",
                      width * static_cast<double>(i), kChartHeight - height, std::max(0.8, width * 0.85), height,
                      day_text((first_day + static_cast<long>(i)) * 86400).c_str(),
                      static_cast<unsigned long long>(bars[i]));
        result += text;
    }
    return result + "</svg>";
}

constexpr char kHead[] = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>Crash groups</title>
<style>
body { font: 14px/1.4 system-ui, sans-serif; margin: 2em; color: #222; background: #fff; }
table { border-collapse: collapse; width: 100%; }
th { text-align: left; border-bottom: 2px solid #888; white-space: nowrap; }
th button { all: unset; cursor: pointer; font-weight: 600; padding: .3em .6em; }
th button:focus-visible { outline: 2px solid #06c; }
td { border-bottom: 1px solid #ddd; padding: .3em .6em; vertical-align: top; }
td.date { white-space: nowrap; }
td.number { text-align: right; font-variant-numeric: tabular-nums; }
td.signature { font-family: ui-monospace, monospace; overflow-wrap: anywhere; }
td.signature small { color: #666; }
svg rect { fill: #b3392f; }
@media (prefers-color-scheme: dark) {
  body { color: #ddd; background: #1b1b1b; } td { border-color: #444; } td.signature small { color: #999; } svg rect { fill: #e5675c; }
}
</style></head><body>
)";

constexpr char kTableHead[] = R"(<table><thead><tr>
<th aria-sort="descending"><button data-kind="number">Logs</button></th><th><button data-kind="text">First</button></th>
<th><button data-kind="text">Last</button></th><th>Logs a day</th><th><button data-kind="text">Signature</button></th>
</tr></thead><tbody>
)";

constexpr char kFoot[] = R"(</tbody></table>
<script>
for (const button of document.querySelectorAll('th button')) {
  button.addEventListener('click', () => {
    const cell = button.parentElement, column = cell.cellIndex, body = document.querySelector('tbody');
    const falling = cell.getAttribute('aria-sort') !== 'descending';
    for (const other of document.querySelectorAll('th')) other.removeAttribute('aria-sort');
    cell.setAttribute('aria-sort', falling ? 'descending' : 'ascending');
    const key = row => row.cells[column].dataset.key;
    const compare = button.dataset.kind === 'number' ? (a, b) => key(a) - key(b) : (a, b) => key(a).localeCompare(key(b));
    const rows = [...body.rows].sort((a, b) => falling ? compare(b, a) : compare(a, b));
    body.append(...rows);
  });
}
</script></body></html>
)";

std::string row(const log_group &group, long first_day, long last_day)
{
    std::string first = day_text(group.first), last = day_text(group.last), count = std::to_string(group.count);
    std::string signature = escaped(group.signature);
    return "<tr><td class=\"number\" data-key=\"" + count + "\">" + count + "</td><td class=\"date\" data-key=\"" +
           first + "\">" + first + "</td><td class=\"date\" data-key=\"" + last + "\">" + last + "</td><td>" +
           chart(group, first_day, last_day) + "</td><td class=\"signature\" data-key=\"" + signature + "\">" +
           signature + "<br><small>" + escaped(group.example) + "</small></td></tr>\n";
}

} // namespace

std::string groups_html(const group_result &result)
{
    std::string page = kHead;
    page += "<h1>" + std::to_string(result.logs) + " crash logs, " + std::to_string(result.groups.size()) +
            " groups</h1>\n";
    page += kTableHead;
    if (!result.groups.empty()) {
        long first_day = result.groups.front().days.begin()->first, last_day = first_day;
        for (const log_group &group : result.groups) {
            first_day = std::min(first_day, group.days.begin()->first);
            last_day = std::max(last_day, group.days.rbegin()->first);
        }
        first_day = std::max(first_day, last_day - kMaxDays + 1);
        for (const log_group &group : result.groups)
            page += row(group, first_day, last_day);
    }
    return page + kFoot;
}

} // namespace qvcrash
