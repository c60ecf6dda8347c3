#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the page on a long run, with its pictures, from the samples of soak_living. tools/soak --report calls it.

    report.py SAMPLES --page FILE --pictures DIR

All that the page says of the run comes from the samples. A run that was cut short, or still goes on, gives a page that
says so.
"""
import argparse
import collections
import datetime
import json
import os
import pathlib
import statistics
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "bench"))
import plot

MIB = 1024 * 1024
MOST_POINTS = 200  # of a line in a picture
MOST_FAILURES = 20  # on the page
STEADY_SHARE = 0.02  # of its mean: what a steady quantity may rise during the run
SHORTEST = 1800  # seconds: a shorter run shows how caches and arenas fill, not what grows
DAEMONS = ("traced", "light")

ACTIVITIES = {
    "allocations": "allocations by the two threads of each daemon that only allocate, with the blocks' content checked",
    "cache_objects": "objects allocated from and freed to object caches",
    "table_operations": "sessions opened or closed in identifier pools, hash tables and name tables",
    "timers": "sorted timers fired",
    "ticks": "timers of the wheel fired",
    "forks": "children forked, which allocate and exit",
    "commands": "programs run",
    "log_lines": "log lines, looked for in their file",
    "trace_lines": "trace lines, looked for in their file",
    "full_traces": "full traces, with blocks that are not freed looked for in the report",
    "trace_files": "trace files, written by SIGUSR2 and read to their end",
    "dumps": "dump requests (signals 14, 51 and 52, to a process or one of its threads), with their logs read to the end",
    "crashes": "crashes of busy hosts beside the daemons, with their logs read to the end",
    "crash_rounds": "rounds of `tools/soak --crashes`",
    "setting_writes": "settings written",
    "setting_reads": "settings read by the daemons meanwhile",
    "setting_kills": "setting writers killed by SIGKILL while they wrote, and the file checked",
    "setting_cuts": "of them, kills between two writes, which leave the file without its last settings",
    "vr_requests": "requests to the daemons' services, each in its virtual router",
    "vr_tables": "rounds of requests to the stand-in kernel's tables",
    "inspections": "runs of `qvstat`",
}

LATENCIES = {
    "timer_lateness": "sorted timer: from its expiry to its callback",
    "fork": "fork of a daemon, work and end of the child, wait",
    "log_line": "a line into a log file",
    "leak_report": "`qv_mtrace_stat()` in full tracing",
    "dump": "from the dump signal to the whole log, seen by a reader that polls",
    "crash_log": "from the fault to the end of the process, log included",
    "setting_write": "`qv_setenv()`",
    "vr_request": "request and answer in a virtual router",
    "inspection": "a run of `qvstat`",
}

# What a daemon holds: field, name, unit.
HELD = (("rss", "resident memory", MIB), ("private_dirty", "private dirty memory", MIB),
        ("heap", "heap in use, lowest of a minute", MIB), ("light_heap", "heap by the light statistics", MIB),
        ("mappings", "mappings", 1), ("descriptors", "descriptors", 1), ("threads", "threads", 1))


class Run:
    """The records of a file of samples. The last line may be cut."""

    def __init__(self, path):
        records = collections.defaultdict(list)
        for line in path.read_text(errors="replace").splitlines():
            try:
                record = json.loads(line)
            except ValueError:
                continue
            records[record["kind"]].append(record)
        self.samples, self.failures, self.remarks = (records[kind] for kind in ("sample", "failure", "remark"))
        if not records["start"] or len(self.samples) < 2:
            sys.exit(f"{path}: fewer than two samples")
        self.start, self.end = records["start"][0], (records["end"] or [None])[0]
        self.seconds = self.samples[-1]["seconds"]

    def failure_count(self):
        return (self.end or self.samples[-1])["failures"]

    def series(self, *path):
        """[(seconds, value)] of a member of the samples."""
        series = [(sample["seconds"], value) for sample in self.samples if (value := member(sample, path)) is not None]
        return lowest_of_minutes(series) if path[-1] == "heap" else series

    def tenth(self, series, first):
        """The values of the run's first or last tenth, one at least."""
        bound = self.seconds * (0.1 if first else 0.9)
        values = [value for seconds, value in series if (seconds <= bound if first else seconds >= bound)]
        return values or [series[0 if first else -1][1]]


def member(sample, path):
    for name in path:
        sample = sample.get(name, {})
    return sample if sample != {} else None


def lowest_of_minutes(series):
    """Without the table of a full trace, which is in the heap for some seconds of each minute and would hide a leak."""
    whole_minutes = max(series[-1][0] // 60, 1) if series else 0  # what is left at the end joins the last one
    minutes = collections.defaultdict(list)
    for seconds, value in series:
        minutes[min(seconds // 60, whole_minutes - 1)].append((value, seconds))
    return [(seconds, value) for value, seconds in map(min, minutes.values())]


def slope(series):
    """Of the straight line that fits best, a second."""
    middle_x = statistics.fmean(x for x, _ in series)
    middle_y = statistics.fmean(y for _, y in series)
    spread = sum((x - middle_x) ** 2 for x, _ in series)
    return sum((x - middle_x) * (y - middle_y) for x, y in series) / spread if spread else 0.0


# ---- texts ----


def duration_text(seconds):
    minutes = round(seconds / 60)
    if seconds < 120:
        return f"{seconds:.0f} s"
    return f"{minutes // 60} h {minutes % 60} min" if minutes >= 60 else f"{minutes} min"


def time_text(microseconds):
    for size, unit in ((1e6, "s"), (1e3, "ms")):
        if microseconds >= size:
            return f"{microseconds / size:.3g} {unit}"
    return f"{microseconds:.0f} µs"


def amount_text(value, unit):
    return f"{value / MIB:.2f} MiB" if unit == MIB else f"{value:.1f}".removesuffix(".0")


def change_text(value, unit):
    if unit == MIB:
        return f"{value / 1024:+.1f} KiB"
    return f"{value:+.2f}" if abs(value) >= 0.005 else "0"


class Page:
    def __init__(self, run, page, pictures):
        self.run, self.page, self.pictures = run, page, pictures

    def write(self):
        self.pictures.mkdir(parents=True, exist_ok=True)
        text = "\n".join(self.head() + self.activities() + self.memory() + self.latencies())
        self.page.write_text(text + "\n")

    def picture(self, name, title, panels):
        target = self.pictures / f"{name}.svg"
        target.write_text(plot.figure(panels))
        return ["", f"![{title}]({os.path.relpath(target, self.page.parent)})"]

    # ---- what ran ----

    def head(self):
        run, start = self.run, self.run.start
        date = datetime.datetime.fromtimestamp(start["time"], datetime.timezone.utc)
        loads = [value for _, value in run.series("load")]
        cpu = run.samples[-1]["cpu_seconds"] / run.seconds
        return ["# A long run", "", "<!-- Written by tools/soak --report. Do not edit. -->", "",
                "Two daemons use the library through its public interface for hours: threads that allocate, keep tables, run",
                "timers, write logs, fork children and serve in a virtual router of the stand-in kernel. One traces its",
                "allocations, again and again; the other one has the light statistics. Meanwhile they are asked for dumps and",
                "inspected from outside, the writers of the settings that they read are killed, and other processes crash beside",
                "them. Each result is checked. `tools/soak --hours 2 --report` runs it and writes this page.", "",
                f"**{self.verdict()}**", "",
                f"Started on {date:%Y-%m-%d at %H:%M} UTC; version {start['version']}; {start['processors']} processors, "
                f"{start['processor'] or start['machine']}; {start['memory'] / 1024**3:.1f} GiB; {start['kernel'].partition('-')[0]} "
                f"{start['machine']}. Load average {statistics.fmean(loads):.1f} (at most {max(loads):.1f}), to "
                f"which the run adds {100 * cpu:.1f} % of one processor. {len(run.samples)} samples.", *self.failures(), *self.remarks()]

    def verdict(self):
        run, planned = self.run, self.run.start["planned"]
        count = run.failure_count()
        found = "no failure" if count == 0 else "1 failure" if count == 1 else f"{count} failures"
        text = f"{found[0].upper()}{found[1:]} in {duration_text(run.seconds)}."
        if run.end is None or run.seconds < 0.99 * planned:
            fate = "was stopped" if run.end else "had not ended when this was written"
            text += f" The run was planned for {duration_text(planned)} and {fate}."
        if run.seconds < SHORTEST:
            return text + " It is too short to say what grows."
        grown = self.grown()
        return text + (f" What grew: {', '.join(grown)}." if grown else " Neither memory nor descriptors grew.")

    def failures(self):
        lines = [f"- after {duration_text(failure['seconds'])}: {failure['text']}" for failure in self.run.failures]
        more = [f"- and {len(lines) - MOST_FAILURES} more"] if len(lines) > MOST_FAILURES else []
        return ["", "## Failures", "", *lines[:MOST_FAILURES], *more] if lines else []

    def remarks(self):
        """What people found out about the run, as tools/soak --remark added it to the samples."""
        lines = [f"- {remark['text']}" for remark in self.run.remarks]
        return ["", "## Remarks", "", *lines] if lines else []

    def activities(self):
        counts = self.run.samples[-1]["counts"]
        rows = [f"| {counts[name]:,} | {text} |" for name, text in ACTIVITIES.items() if name in counts]
        return ["", "## What was done", "", "| | |", "|---:|---|", *rows]

    # ---- memory and descriptors ----

    def settled(self, series):
        """Without the first tenth, in which caches and arenas fill."""
        return [point for point in series if point[0] > 0.1 * self.run.seconds] or series

    def held(self):
        """(name, unit, series) of all that should stay steady."""
        rows = [(f"{daemon}: {name}", unit, self.run.series(daemon, field)) for daemon in DAEMONS
                for field, name, unit in HELD]
        rows.append(("files in the sandbox", 1, self.run.series("files")))
        # The light statistics stop in the daemon that traces.
        return [(name, unit, series) for name, unit, series in rows if series and any(value for _, value in series)]

    def grows(self, series):
        settled = self.settled(series)
        rise = slope(settled) * self.run.seconds
        return rise > STEADY_SHARE * statistics.fmean(value for _, value in settled)

    def grown(self):
        return [name for name, _, series in self.held() if self.grows(series)]

    def judgement(self, series):
        if self.run.seconds < SHORTEST:
            return "-"
        return "yes" if self.grows(series) else "no"

    def memory(self):
        lines = ["", "## Memory and descriptors", "",
                 "The means of the first and the last tenth, and the growth an hour by a linear fit that leaves out the first tenth.",
                 f"A quantity grows when the fit rises by more than {100 * STEADY_SHARE:.0f} % of its mean during the run.", "",
                 "| | first tenth | last tenth | an hour | grows |", "|---|---:|---:|---:|---|"]
        for name, unit, series in self.held():
            first, last = (statistics.fmean(self.run.tenth(series, end)) for end in (True, False))
            hourly = slope(self.settled(series)) * 3600
            lines.append(f"| {name} | {amount_text(first, unit)} | {amount_text(last, unit)} | {change_text(hourly, unit)} | "
                         f"{self.judgement(series)} |")
        return lines + self.memory_picture() + self.descriptor_picture()

    def memory_picture(self):
        panels = [self.linear_panel(f"Memory of the daemon \"{daemon}\", MiB",
                                    {name: (daemon, field) for field, name, unit in HELD
                                     if unit == MIB and (daemon, field) != ("traced", "light_heap")}, MIB)
                  for daemon in DAEMONS]
        return self.picture("memory", "Memory over time", panels)

    def descriptor_picture(self):
        panels = [self.linear_panel("Descriptors and threads", {f"{daemon}: {field}": (daemon, field)
                                                                for field in ("descriptors", "threads") for daemon in DAEMONS}),
                  self.linear_panel("Mappings, and files in the sandbox",
                                    {f"{daemon}: mappings": (daemon, "mappings") for daemon in DAEMONS} | {"files": ("files",)})]
        return self.picture("descriptors", "Descriptors over time", panels)

    def linear_panel(self, title, lines, unit=1):
        return plot.Panel(title, "minutes", {name: self.thinned(self.run.series(*path), max, 1 / unit)
                                             for name, path in lines.items()},
                          across=plot.Linear, upwards=lambda *range_: plot.Linear(*range_, room=1.5), dots=False)

    def thinned(self, series, choose, scale=1.0):
        """At most so many points as a picture has room for, each chosen from those that it replaces, by minutes."""
        size = -(-len(series) // MOST_POINTS)
        parts = [series[i:i + size] for i in range(0, len(series), size)]
        return [(round(part[0][0] / 60, 2), choose(value for _, value in part) * scale) for part in parts]

    # ---- latencies ----

    def latencies(self):
        lines = ["", "## Latencies", "",
                 "Each percentile is at most a sixteenth too high: it is the end of a step of a histogram.", "",
                 "| | times | median | 99 % | 99.9 % | most |", "|---|---:|---:|---:|---:|---:|"]
        for name, text in LATENCIES.items():
            series = [sample["latencies"][name] for sample in self.run.samples if sample["latencies"][name]["n"]]
            if not series:
                continue
            most = max(entry["max"] for entry in series)
            shares = [min(series[-1][share], most) for share in ("all_p50", "all_p99", "all_p999")]
            lines.append(f"| {text} | {sum(entry['n'] for entry in series):,} | "
                         f"{' | '.join(map(time_text, [*shares, most]))} |")
        panels = [self.latency_panel(title, *names) for title, names in (
            ("Timers and answers", ("timer_lateness", "vr_request")), ("Logs", ("log_line", "dump", "crash_log")),
            ("Settings and reports", ("setting_write", "leak_report")), ("Children and inspections", ("fork", "inspection")))]
        return lines + self.picture("latency", "Latencies over time", panels)

    def latency_panel(self, title, *names):
        lines = {}
        for name in names:
            for share, choose, text in (("p50", statistics.median, "median"), ("max", max, "most")):
                series = self.run.series("latencies", name, share)
                if series and (share == "max" or self.is_frequent(name)):
                    lines[f"{name.replace('_', ' ')}, {text}"] = [
                        (minutes, max(value, 1000.0)) for minutes, value in self.thinned(series, choose, 1000.0)]
        # Room for the names of the lines.
        return plot.Panel(title, "minutes", lines, across=plot.Linear, dots=False,
                          upwards=lambda values, *range_: plot.times([*values, 20 * max(values)], *range_))

    def is_frequent(self, name):
        """Whether a sample usually has several values, so that their median differs from the highest."""
        return statistics.median(sample["latencies"][name]["n"] for sample in self.run.samples) > 2


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("samples", type=pathlib.Path)
    parser.add_argument("--page", type=pathlib.Path, required=True)
    parser.add_argument("--pictures", type=pathlib.Path, required=True)
    options = parser.parse_args()
    Page(Run(options.samples), options.page, options.pictures).write()


if __name__ == "__main__":
    main()
