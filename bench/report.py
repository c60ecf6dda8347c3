#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the benchmarks and writes docs/performance.md with its pictures. tools/bench --report calls it.

    report.py measure --build DIR --results DIR [--quick] [--resume] [--minutes N] [--growth]
    report.py write   --results DIR --page FILE --pictures DIR

bench/performance.toml says what the page shows: the rows, their peers, goals and floors. Between the two steps lies a
folder of results: <program>.<round>.json as Google Benchmark writes it, environment.json, notes.json with what could not
be measured, and instructions.json with the counts for AArch64. Nothing on the page but the sentences of that table
comes from anywhere else.

A round runs every program once, with few repetitions. So the samples of one benchmark lie minutes apart, a run that is
cut short still has all of the rows, and --resume runs only what is missing.
"""
import argparse
import datetime
import json
import os
import pathlib
import re
import resource
import statistics
import subprocess
import sys
import time
import tomllib

sys.dont_write_bytecode = True
import plot

ROOT = pathlib.Path(__file__).resolve().parent.parent
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
PROGRAM_SECONDS = 240  # a program that takes longer is given up
LARGE = 1000000  # sizes from here on are left out by --quick
MOST_SCATTER = 0.05  # a goal that is missed by more than this is missed, however the samples scatter
NONE = "-"
OVER = "the report's time was over"


# ---- the table ----


class Table:
    """bench/performance.toml, with each row that has sizes taken apart into one for each size."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = tomllib.load(file)
        self.programs = self.data["program"]
        self.floors = self.data.get("floor", {})
        self.families = self.data["family"]
        self.pictures = self.data.get("picture", [])
        for family in self.families:
            family["rows"] = [row for entry in family.get("row", []) for row in self.expand(family, entry)]

    def expand(self, family, entry):
        for size in entry.get("n", [None]):
            yield Row(self, family, entry, size)

    def locate(self, name, program):
        """"program:name", or a name of the given program."""
        before, colon, after = name.partition(":")
        return (before, after) if colon and before in self.programs else (program, name)

    def names(self):
        """Every (program, benchmark) that a row or a load table needs."""
        found = {self.cycle()}
        for family in self.families:
            for row in family["rows"]:
                found |= row.names()
            for name in family.get("members", {}).values():
                found.add((family["program"], name))
        return found

    def cycle(self):
        return self.locate(self.data["cycle"]["name"], None)

    def growth_names(self):
        return {(panel["program"], name) for picture in self.pictures for panel in picture["panel"]
                for line in lines_of(panel).values() for name in line.values()}


def lines_of(panel):
    """Title of each line -> {size: benchmark}."""
    return {title: {n: panel["name"].format(who=who.format(n=n), n=n) for n in panel["n"]}
            for title, who in panel["lines"].items()}


class Row:
    def __init__(self, table, family, entry, size):
        self.table, self.family, self.entry = table, family, entry
        self.program = entry.get("program", family["program"])
        self.operation = entry["operation"].format(n=f"{size:,}" if size else "")
        self.size = size
        self.ours = self.place(entry.get("ours", "ours"))
        self.peers = {title: self.place(who) for title, who in entry.get("peers", family.get("peers", {})).items()}
        goal = entry.get("goal", family.get("goal", {}))
        self.goals = goal if isinstance(goal, dict) else {title: goal for title in self.peers}
        self.floor_parts = [self.place(part) for part in entry.get("floor_is", [])]
        self.difference = self.place(entry["difference_to"]) if "difference_to" in entry else None

    def place(self, who):
        """What a row, a peer or a floor is measured by. A name with a program before it is complete."""
        program, name = self.table.locate(who, self.program)
        form = self.entry.get("name", "{who}") if name == who else "{who}"
        return program, form.format(who=name.format(n=self.size), n=self.size)

    def names(self):
        extra = [self.difference] if self.difference else []
        return {self.ours, *self.peers.values(), *self.floor_parts, *extra}


# ---- results ----


class Results:
    """Samples of each benchmark, in nanoseconds, and its counters.

    Those of the pictures are kept apart: they are not interleaved with the peers', and some peers have none.
    """

    def __init__(self, folder):
        self.samples, self.growth, self.counters = {}, {}, {}
        for path in sorted(folder.glob("*.*.json")):
            program, turn = path.name.split(".")[:2]
            try:
                self.read(program, json.loads(path.read_text()), self.growth if turn == "growth" else self.samples)
            except (ValueError, KeyError):
                continue  # cut short; notes.json says so
        self.environment = read_json(folder / "environment.json", {})
        self.notes = read_json(folder / "notes.json", {})
        self.instructions = read_json(folder / "instructions.json", {})

    def read(self, program, document, samples):
        for run in document["benchmarks"]:
            if run.get("run_type") == "aggregate" or run.get("error_occurred"):
                continue
            name = run.get("run_name", run["name"])
            wall = ("/real_time" in name or "/manual_time" in name) and not name.endswith("/threads:1")
            key = program, name
            samples.setdefault(key, []).append(
                run["real_time" if wall else "cpu_time"] * NANOSECONDS[run["time_unit"]])
            if samples is self.growth:
                continue  # tables alone show counters
            for counter, value in run.items():
                if isinstance(value, (int, float)):
                    self.counters.setdefault(key, {}).setdefault(counter, []).append(value)

    def time(self, key):
        return statistics.median(self.samples[key]) if key in self.samples else None

    def growth_time(self, key):
        return statistics.median(self.growth[key]) if key in self.growth else self.time(key)

    def counter(self, key, counter):
        values = self.counters.get(key, {}).get(counter)
        return statistics.median(values) if values else None

    def scatter(self, key):
        """Half the distance of the quartiles, as a part of the median."""
        values = self.samples.get(key, [])
        if len(values) < 4:
            return MOST_SCATTER
        low, middle, high = statistics.quantiles(values, n=4)
        return (high - low) / 2 / middle

    def count(self, key):
        return self.instructions.get(key[0], {}).get(key[1])


def read_json(path, otherwise):
    try:
        return json.loads(path.read_text())
    except (OSError, ValueError):
        return otherwise


# ---- measuring ----


class Measurement:
    def __init__(self, options, table):
        self.options, self.table = options, table
        self.folder = options.results
        self.folder.mkdir(parents=True, exist_ok=True)
        if not options.resume:
            for path in self.folder.glob("*.json"):
                if path.name != "instructions.json":
                    path.unlink()
        self.notes = read_json(self.folder / "notes.json", {})
        self.notes.pop(OVER, None)
        self.begin = time.monotonic()

    def run(self):
        write_json(self.folder / "environment.json", environment())
        rounds = 1 if self.options.quick else self.options.rounds
        wanted = group(self.table.names())
        for turn in range(rounds):
            self.run_programs(wanted, turn)
            if turn == 0 and self.options.growth:  # early, since the further rounds are what can be spared
                self.run_programs(group(self.table.growth_names()), "growth")
        write_json(self.folder / "notes.json", self.notes)
        print(f"measured in {(time.monotonic() - self.begin) / 60:.1f} minutes, "
              f"{processor_seconds() / 60:.1f} of processor time", flush=True)

    def run_programs(self, programs, turn):
        for program, names in programs.items():
            self.run_program(program, names, turn)

    def seconds_left(self):
        return self.options.minutes * 60 - (time.monotonic() - self.begin)

    def run_program(self, program, names, turn):
        target = self.folder / f"{program}.{turn}.json"
        if target.exists():
            return
        if self.seconds_left() <= 0:
            self.notes.setdefault(OVER, []).append(f"{program}, round {turn}")
            return
        settings = self.table.programs[program]
        if turn != "growth" and turn >= settings.get("rounds", turn + 1):
            return
        names = {name for name in names if not (self.options.quick and is_large(name))}
        if not names:
            return
        began, used = time.monotonic(), processor_seconds()
        partial = target.with_suffix(".partial")
        try:
            interleaved = turn != "growth" and settings.get("interleaved", True)
            self.start(settings, program, names, partial, interleaved)
            json.loads(partial.read_text())
            partial.rename(target)
            self.notes.pop(f"{program}, round {turn}", None)
        except (OSError, ValueError, subprocess.SubprocessError) as error:
            self.notes[f"{program}, round {turn}"] = describe(error)
            partial.unlink(missing_ok=True)
        print(f"  {program} round {turn}: {time.monotonic() - began:.1f} s, "
              f"{processor_seconds() - used:.1f} s of processor time", flush=True)

    def start(self, settings, program, names, target, interleaved):
        quick = self.options.quick
        executable = self.options.build / "bench" / (settings.get("run", program) + "_bench")
        repetitions = 1 if quick else settings.get("repetitions", 3)
        seconds = 0.005 if quick else settings.get("min_time", 0.05)
        alternatives = "|".join(sorted(map(re.escape, names))).replace("\\-", "-").replace("\\:", ":")
        command = [executable, f"--benchmark_filter=^({alternatives})$", f"--benchmark_repetitions={repetitions}",
                   f"--benchmark_min_time={seconds}", f"--benchmark_out={target}", "--benchmark_out_format=json",
                   f"--benchmark_enable_random_interleaving={str(interleaved).lower()}"]
        if "command" in settings:
            command = [part.format(root=ROOT, build=self.options.build, out=target) for part in settings["command"]]
            if quick:
                raise OSError("left out by --quick")
        variables = {**os.environ, **settings.get("env", {}), **(settings.get("quick_env", {}) if quick else {})}
        for name in settings.get("without_env", []):
            variables.pop(name, None)
        limit = max(1, min(PROGRAM_SECONDS, self.seconds_left() + 60))
        subprocess.run(command, env=variables, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE, timeout=limit, check=True)


def processor_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def is_large(name):
    return any(part.isdigit() and int(part) >= LARGE for part in name.split("/"))


def describe(error):
    if isinstance(error, subprocess.CalledProcessError):
        lines = (error.stderr or b"").decode(errors="replace").strip().splitlines()
        return f"ended with status {error.returncode}" + (f": {lines[-1]}" if lines else "")
    if isinstance(error, subprocess.TimeoutExpired):
        return "took too long"
    if isinstance(error, ValueError):
        return "wrote no results"
    return str(error)


def group(names):
    programs = {}
    for program, name in sorted(names):
        programs.setdefault(program, set()).add(name)
    return programs


def write_json(path, value):
    path.write_text(json.dumps(value, indent=1, sort_keys=True) + "\n")


def output_of(*command):
    try:
        return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              text=True, check=False).stdout.strip()
    except OSError:
        return ""


def environment():
    packages = (ROOT / "bench/packages.txt").read_text().split() + ["libc6", "coreutils"]
    form = "${binary:Package} ${Version}\n"
    versions = output_of("dpkg-query", "-W", "-f", form, *packages).splitlines()
    return {
        "date": datetime.date.today().isoformat(),
        "processor": processor(),
        "caches": caches(),
        "memory_GiB": round(os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30, 1),
        # Without the suffix, by which kernels name who built them.
        "kernel": f"{os.uname().sysname} {os.uname().release.split('-')[0]} {os.uname().machine}",
        "compiler": output_of("g++", "--version").partition("\n")[0],
        "load": round(os.getloadavg()[0], 1),
        "versions": sorted({line.replace(":amd64", "") for line in versions}),
    }


def processor():
    text = pathlib.Path("/proc/cpuinfo").read_text()
    name = re.search(r"model name\s*: (.*)", text)
    return f"{os.cpu_count()} processors, {name.group(1) if name else os.uname().machine}"


def caches():
    found = []
    for index in sorted(pathlib.Path("/sys/devices/system/cpu/cpu0/cache").glob("index*")):
        kind, level, size = ((index / part).read_text().strip() for part in ("type", "level", "size"))
        if kind != "Instruction":
            found.append(f"L{level} {size}")
    return ", ".join(found)


# ---- the page ----


def ratio_text(ratio):
    if ratio is None:
        return NONE
    if ratio >= 9.95:
        return f"{ratio:.0f}"
    return f"{ratio:.1f}" if ratio >= 1.995 else f"{ratio:.2f}"


def time_text(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.2g} ns" if nanoseconds < 10 else f"{nanoseconds:.0f} ns"


class Judgement:
    """Met, missed, or missed by less than the samples scatter."""

    def __init__(self):
        self.verdicts, self.missed = [], []

    def add(self, met, near, what):
        self.verdicts.append("yes" if met else "within scatter" if near else "no")
        if not met and not near:
            self.missed.append(what)

    def text(self):
        for verdict in ("no", "within scatter", "yes"):
            if verdict in self.verdicts:
                return verdict
        return NONE


class Page:
    def __init__(self, table, results, pictures, page):
        self.table, self.results = table, results
        self.pictures, self.page = pictures, page
        self.lines, self.missed, self.counts = [], [], {"yes": 0, "within scatter": 0, "no": 0}
        self.not_measured = set()

    def write(self):
        body = []
        for family in self.table.families:
            body += self.family(family)
        body += self.growth()
        text = "\n".join(self.head() + body + self.tail()) + "\n"
        self.page.write_text(text)

    def head(self):
        place = self.results.environment
        goals = sum(self.counts.values())
        lines = ["# Performance", "",
                 "<!-- Written by tools/bench --report from bench/performance.toml. Do not edit. -->", "",
                 *self.table.data["introduction"].strip().splitlines(), ""]
        lines += [f"Measured on {place.get('date', 'an unknown day')}: {place.get('processor', '')}; "
                  f"{place.get('caches', '')}; {place.get('memory_GiB', '?')} GiB; {place.get('kernel', '')}; "
                  f"{place.get('compiler', '')}; load average at the start {place.get('load', '?')}; {self.clock()}.", ""]
        lines += [f"Of {goals} rows with a goal, {self.counts['yes']} meet it, {self.counts['within scatter']} miss it "
                  f"by less than the samples scatter, {self.counts['no']} miss it:", ""]
        lines += self.missed or ["- none"]
        return lines + [""]

    def clock(self):
        """A virtual machine is told no clock, and neighbours on the same processor change it."""
        count = self.table.data["cycle"]["count"]
        cycles = sorted(value / count for value in self.results.samples.get(self.table.cycle(), []))
        if not cycles:
            return "the clock was not measured"
        return f"a cycle took {cycles[0]:.2f} to {cycles[-1]:.2f} ns, {statistics.median(cycles):.2f} in the median"

    def tail(self):
        lines = ["", "## Peers' versions", "", ", ".join(self.results.environment.get("versions", [])) + "."]
        notes = dict(self.results.notes)
        if self.not_measured:
            notes["no result for"] = ", ".join(sorted(self.not_measured))
        if notes:
            lines += ["", "## Not measured in this run", ""]
            lines += [f"- {what}: {', '.join(why) if isinstance(why, list) else why}" for what, why in
                      sorted(notes.items())]
        return lines

    # ---- tables of rows ----

    def family(self, family):
        lines = [f"## {family['title']}", ""]
        if "text" in family:
            lines += [family["text"].strip(), ""]
        if "members" in family:
            lines += self.members(family)
        if family["rows"]:
            lines += self.rows(family)
        if "notes" in family:
            lines += [family["notes"].strip(), ""]
        return lines

    def rows(self, family):
        """The family's own peers have a column each, with its goal in the heading; those of single rows share one."""
        rows = family["rows"]
        common = [title for title in family.get("peers", {}) if any(title in row.peers for row in rows)]
        shared_goals = "goal" in family and not any("goal" in row.entry or "limit" in row.entry for row in rows)
        floors = list(dict.fromkeys(row.entry["floor"] for row in rows if "floor" in row.entry))
        columns = {"operation": lambda row, _: row.operation}
        for title in common:
            goal = f" (goal {family['goal'][title]:g})" if shared_goals and title in family["goal"] else ""
            columns[title + goal] = lambda row, judgement, title=title: self.ratio(row, title, judgement)
        if any(title not in common for row in rows for title in row.peers):
            columns["others" if common else "ours / peer"] = lambda row, judgement: self.others(row, common, judgement)
        if any("limit" in row.entry or "show" in row.entry for row in rows):
            columns["measured"] = self.absolute
        if not shared_goals and any(goal_text(row) != NONE for row in rows):
            columns["goal"] = lambda row, _: goal_text(row)
        if any(row.goals or "limit" in row.entry for row in rows):
            columns["met"] = lambda _, judgement: judgement.text()
        if floors:
            columns["floor"] = lambda row, _: self.floor(row, floors)
        if any(self.results.count(row.ours) for row in rows):
            columns["AArch64 instructions"] = lambda row, _: self.instructions(row)
        lines = ["| " + " | ".join(columns) + " |", "|---" * len(columns) + "|"]
        for row in rows:
            judgement = Judgement()
            lines.append("| " + " | ".join(cell(row, judgement) for cell in columns.values()) + " |")
            self.count(family["title"], row.operation, judgement, "floor" in row.entry)
        lines.append("")
        for number, name in enumerate(floors, 1):
            lines += [f"Floor {number}: {self.table.floors[name].strip()}", ""]
        return lines

    def others(self, row, common, judgement):
        found = [(title, self.ratio(row, title, judgement)) for title in row.peers if title not in common]
        return ", ".join(f"{title}: {ratio}" for title, ratio in found) or NONE

    def ratio(self, row, title, judgement):
        if title not in row.peers:
            return NONE
        peer = row.peers[title]
        ours, theirs = self.time(row.ours), self.time(peer)
        if not ours or not theirs:
            return NONE
        ratio = ours / theirs
        if title in row.goals:
            scatter = min(MOST_SCATTER, (self.results.scatter(row.ours)**2 + self.results.scatter(peer)**2)**0.5)
            goal = row.goals[title]
            judgement.add(round(ratio, 2) <= goal, ratio <= goal * (1 + scatter),
                          f"{ratio_text(ratio)} of {title}, goal {goal:g}")
        return ratio_text(ratio)

    def time(self, key):
        value = self.results.time(key)
        if value is None:
            self.not_measured.add(f"{key[0]} {key[1]}")
        return value

    def absolute(self, row, judgement):
        entry = row.entry
        if "limit" not in entry and "show" not in entry:
            return NONE
        kind = entry.get("show", "time")
        value = self.quantity(row, kind)
        if value is None:
            return NONE
        limit = entry.get("limit")
        if limit is not None:
            at_least = kind == "rate"
            judgement.add(value >= limit if at_least else value <= limit, not at_least and value <= limit * 1.02,
                          f"{amount_text(value, kind)}, goal {amount_text(limit, kind)}")
        return amount_text(value, kind)

    def quantity(self, row, kind):
        ours = self.time(row.ours)
        if ours is None:
            return None
        if kind == "difference":
            theirs = self.time(row.difference)
            return None if theirs is None else ours - theirs
        if kind in ("rate", "item"):
            rate = self.results.counter(row.ours, "items_per_second")
            return None if not rate else rate if kind == "rate" else 1e9 / rate
        if kind.startswith("us_"):
            value = self.results.counter(row.ours, kind)
            return None if value is None else value * 1e3
        return ours

    def floor(self, row, floors):
        if "floor" not in row.entry:
            return NONE
        text = f"[{floors.index(row.entry['floor']) + 1}]"
        parts = [self.time(part) for part in row.floor_parts]
        ours = self.time(row.ours)
        if parts and ours and all(parts):
            text = f"{ratio_text(ours / sum(parts))} {text}"
        return text

    def instructions(self, row):
        ours = self.results.count(row.ours)
        if not ours:
            return NONE
        peers = [f"{title} {ratio_text(ours / theirs)}" for title, key in row.peers.items()
                 if (theirs := self.results.count(key))]
        return f"{ours:.0f}" + (f": {', '.join(peers)}" if peers else "")

    def count(self, title, operation, judgement, has_floor=False):
        verdict = judgement.text()
        if verdict == NONE:
            return
        self.counts[verdict] += 1
        if verdict == "no":
            floor = " (has a floor)" if has_floor else ""
            self.missed.append(f"- {title}: {operation}: {'; '.join(judgement.missed)}{floor}")

    # ---- the cost of a library that does nothing ----

    def members(self, family):
        columns = family["columns"]
        lines = ["| program | " + " | ".join(columns) + " |", "|---" * (len(columns) + 1) + "|"]
        values = {}
        for title, name in family["members"].items():
            key = family["program"], name
            values[title] = [self.time(key) if counter == "time" else self.results.counter(key, counter)
                             for counter in columns.values()]
            cells = [NONE if value is None else time_text(value) if counter == "time" else f"{value:,.0f}"
                     for value, counter in zip(values[title], columns.values())]
            lines.append(f"| {title} | " + " | ".join(cells) + " |")
        ours, peer = values[family["ours"]], values[family["compared_with"]]
        ratios = [None if not a or not b else a / b for a, b in zip(ours, peer)]
        cells = [ratio_text(ratio) + (" (goal 1)" if column in family["judged"] else "")
                 for ratio, column in zip(ratios, columns)]
        lines.append(f"| {family['ours']} / {family['compared_with']} | " + " | ".join(cells) + " |")
        judgement = Judgement()
        for ratio, column in zip(ratios, columns):
            if ratio is not None and column in family["judged"]:
                judgement.add(round(ratio, 2) <= 1, ratio <= 1.02, f"{column} {ratio_text(ratio)}")
        self.count(family["title"], f"against {family['compared_with']}", judgement)
        return lines + [""]

    # ---- growth ----

    def growth(self):
        lines = []
        for picture in self.table.pictures:
            panels = [self.panel(panel) for panel in picture["panel"]]
            if not any(panel.lines for panel in panels):
                continue
            self.pictures.mkdir(parents=True, exist_ok=True)
            target = self.pictures / picture["file"]
            target.write_text(plot.figure(panels))
            link = os.path.relpath(target, self.page.parent)
            lines += [f"### {picture['title']}", "", f"![{picture['title']}]({link})", ""]
            for panel, data in zip(panels, picture["panel"]):
                bends = self.bends(panel)
                lines.append(f"- {panel.title}: {bends} {data.get('why', '')}".rstrip())
            lines.append("")
        if lines:
            lines = ["## Growth", "", self.table.data["growth_introduction"].strip(), "", *lines]
        return lines

    def panel(self, data):
        found = {}
        for title, names in lines_of(data).items():
            points = [(n, value / (n if data.get("per") == "n" else data.get("per", 1))) for n, name in names.items()
                      if (value := self.results.growth_time((data["program"], name))) is not None]
            if points:
                found[title] = points
        return plot.Panel(data["title"], data["axis"], found)

    @staticmethod
    def bends(panel):
        """Where ours grows by more than the step before, as a power of the size."""
        points = next(iter(panel.lines.values()), [])
        if len(points) < 2:
            return "not measured."
        bends = plot.bends(points)
        span = f"{time_text(points[0][1])} at {points[0][0]:,}, {time_text(points[-1][1])} at {points[-1][0]:,}"
        if not bends:
            return f"{span}; no bend."
        return f"{span}; bends upwards at " + ", ".join(f"{n:,}" for n in bends) + "."


def goal_text(row):
    goals = {}
    for title, goal in row.goals.items():
        if title in row.peers:
            goals.setdefault(goal, []).append(title)
    parts = [f"{goal:g}" if len(titles) == len(row.peers) else f"{goal:g} of {', '.join(titles)}"
             for goal, titles in goals.items()]
    if "limit" in row.entry:
        kind = row.entry.get("show", "time")
        parts.append(("at least " if kind == "rate" else "at most ") + amount_text(row.entry["limit"], kind))
    return "; ".join(parts) or NONE


def amount_text(value, kind):
    if kind == "rate":
        return f"{value / 1e6:.3g} million a second" if value >= 1e6 else f"{value:,.0f} a second"
    return time_text(value) + (" more" if kind == "difference" else "")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("step", choices=["measure", "write"])
    parser.add_argument("--table", type=pathlib.Path, default=ROOT / "bench/performance.toml")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/bench")
    parser.add_argument("--results", type=pathlib.Path, required=True)
    parser.add_argument("--page", type=pathlib.Path, default=ROOT / "docs/performance.md")
    parser.add_argument("--pictures", type=pathlib.Path, default=ROOT / "docs/bench")
    parser.add_argument("--quick", action="store_true", help="small sizes, one repetition: to try the report itself")
    parser.add_argument("--resume", action="store_true", help="keep the results that are there")
    parser.add_argument("--growth", action="store_true", help="measure what the pictures show as well")
    parser.add_argument("--rounds", type=int, default=5, help="how often each program is run (5)")
    parser.add_argument("--minutes", type=float, default=25, help="no program is started after this time")
    options = parser.parse_args()
    table = Table(options.table)
    if options.step == "measure":
        Measurement(options, table).run()
    else:
        Page(table, Results(options.results), options.pictures, options.page).write()


if __name__ == "__main__":
    main()
