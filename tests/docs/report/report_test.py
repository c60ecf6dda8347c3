#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The report on performance: its page from stored results, and what it does with programs that fail."""
import json
import pathlib
import sys
import tempfile
import types
import unittest
import xml.etree.ElementTree

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent.parent
sys.path.insert(0, str(ROOT / "bench"))
sys.dont_write_bytecode = True
import plot
import report

# Writes a result for every benchmark that the filter names, all of which take 7 ns.
PROGRAM = """#!/usr/bin/env python3
import json, re, sys
arguments = dict(argument[2:].split("=", 1) for argument in sys.argv[1:])
names = re.search(r"\\^\\((.*)\\)\\$", arguments["benchmark_filter"]).group(1).split("|")
runs = [{"name": name, "run_type": "iteration", "real_time": 7, "cpu_time": 7, "time_unit": "ns"} for name in names]
with open(arguments["benchmark_out"], "w") as out:
    json.dump({"benchmarks": runs}, out)
"""
FAILING = "#!/bin/sh\necho 'no such peer' >&2\nexit 3\n"


class ReportTest(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)
        self.folder = pathlib.Path(self.scratch.name)

    def page(self):
        page = self.folder / "performance.md"
        report.Page(report.Table(HERE / "table.toml"), report.Results(HERE / "results"), self.folder / "bench", page).write()
        return page.read_text()

    def row(self, start):
        return next(line for line in self.page().splitlines() if line.startswith(f"| {start}"))

    def measure(self, **options):
        settings = {"results": self.folder / "results", "build": self.folder, "quick": False, "resume": False,
                    "rounds": 2, "minutes": 5, "growth": True} | options
        report.Measurement(types.SimpleNamespace(**settings), report.Table(HERE / "table.toml")).run()
        return report.Results(settings["results"])

    def install(self, name, text):
        program = self.folder / "bench" / f"{name}_bench"
        program.parent.mkdir(exist_ok=True)
        program.write_text(text)
        program.chmod(0o755)

    def test_the_clock_is_shown(self):
        self.assertIn("a cycle took 0.40 to 0.50 ns, 0.45 in the median.", self.page())

    def test_ratios_are_of_medians_and_judged_by_the_goals_in_the_heading(self):
        self.assertIn("| operation | list (goal 1) | ring (goal 2) | met | floor |", self.page())
        self.assertEqual("| push, 1,000 elements | 0.80 | 2.7 | no | 0.65 [1] |", self.row("push, 1,000 "))

    def test_a_miss_that_is_smaller_than_the_scatter_is_said_to_be(self):
        self.assertEqual("| push, 1,000,000 elements | 1.02 | 1.36 | within scatter | 0.91 [1] |", self.row("push, 1,000,000"))

    def test_peers_of_single_rows_share_a_column(self):
        self.assertEqual("| in time | list: 1.21, absent: - | 12 ns | 0.25 of list; at most 20 ns | no | [1] | 120: list 1.20 |",
                         self.row("in time"))

    def test_rates_and_differences(self):
        self.assertIn("50 million a second | at least 5 million a second | yes", self.row("a rate"))
        self.assertIn("2.1 ns more | at most 3 ns more | yes", self.row("a difference"))

    def test_what_misses_its_goal_is_listed_first(self):
        head = self.page().partition("## Queues")[0]
        self.assertIn("Of 6 rows with a goal, 3 meet it, 1 miss it by less than the samples scatter, 2 miss it:", head)
        self.assertIn("- Queues: push, 1,000 elements: 2.7 of ring, goal 2 (has a floor)", head)

    def test_counters_are_compared_with_one_other_program(self):
        self.assertIn("| mine / theirs | 0.92 (goal 1) | 0.86 |", self.page())

    def test_what_has_no_result_is_a_dash_and_noted(self):
        self.assertIn("| what has no result | list: - | - | 1 | - | - | - |", self.page())
        notes = self.page().partition("## Not measured")[2]
        self.assertIn("broken, round 0: ended with status 3", notes)
        self.assertIn("broken ours", notes)
        self.assertIn("queue pop/absent", notes)

    def test_the_machine_and_the_versions_are_on_the_page(self):
        self.assertIn("2026-01-02: 2 processors, Sample; L1 32K; 4.0 GiB; Linux 6; g++ 12", self.page())
        self.assertIn("libqueue-dev 1.2.", self.page())

    def test_the_picture_has_a_line_for_each_side_and_its_bends_are_named(self):
        page = self.page()
        self.assertIn("![Growing queues](bench/queues.svg)", page)
        self.assertIn("- push: 83 ns at 1,000, 208 ns at 1,000,000; bends upwards at 100,000. The cause.", page)
        picture = xml.etree.ElementTree.parse(self.folder / "bench/queues.svg")
        self.assertEqual(2, len(picture.findall("{http://www.w3.org/2000/svg}polyline")))

    def test_a_straight_line_has_no_bend(self):
        self.assertEqual([], plot.bends([(10, 10), (100, 100), (1000, 1000)]))
        self.assertEqual([100], plot.bends([(10, 10), (100, 10), (1000, 100)]))

    def test_a_program_that_fails_or_is_absent_leaves_the_others(self):
        self.install("queue", PROGRAM)
        self.install("broken", FAILING)
        results = self.measure()
        self.assertEqual(7, results.time(("queue", "pop/ours")))
        self.assertEqual(2, len(results.samples["queue", "push/ours/1000"]))
        self.assertEqual(1, len(results.growth["queue", "push/ours/1000"]))
        self.assertEqual("ended with status 3: no such peer", results.notes["broken, round 0"])
        self.assertIn("start, round 1", results.notes)

    def test_a_resumed_report_runs_only_what_is_missing(self):
        self.install("queue", PROGRAM)
        self.measure()
        self.install("queue", FAILING)
        self.install("start", PROGRAM)
        results = self.measure(resume=True)
        self.assertEqual(7, results.time(("queue", "pop/ours")))
        self.assertEqual(7, results.time(("start", "start/ours/real_time")))
        self.assertNotIn("start, round 1", results.notes)

    def test_quick_leaves_out_large_sizes(self):
        self.install("queue", PROGRAM)
        results = self.measure(quick=True)
        self.assertIsNotNone(results.time(("queue", "push/ours/1000")))
        self.assertIsNone(results.time(("queue", "push/ours/1000000")))

    def test_without_time_nothing_is_started(self):
        self.install("queue", PROGRAM)
        results = self.measure(minutes=0)
        self.assertEqual({}, results.samples)
        self.assertIn("queue, round 0", results.notes["the report's time was over"])

    def test_the_real_table_names_programs_and_floors_that_exist(self):
        table = report.Table(ROOT / "bench/performance.toml")
        for program, settings in table.programs.items():
            source = ROOT / "bench" / (settings.get("run", program) + "_bench.cpp")
            self.assertTrue(source.exists() or "command" in settings, program)
        for family in table.families:
            for row in family["rows"]:
                self.assertIn(row.program, table.programs)
                self.assertIn(row.entry.get("floor", "clock"), table.floors)
                self.assertLessEqual(set(row.entry.get("goal", {}) if isinstance(row.entry.get("goal"), dict) else {}),
                                     set(row.peers), row.operation)


if __name__ == "__main__":
    unittest.main()
