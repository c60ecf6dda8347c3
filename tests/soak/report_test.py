#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The report on a long run: its page and pictures from made-up samples."""
import json
import pathlib
import sys
import tempfile
import unittest
import xml.etree.ElementTree

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import report

START = {"kind": "start", "time": 1767323045, "kernel": "Linux 6.1.0-9-local", "machine": "x86_64", "version": "1.2.3",
         "processor": "Sample", "processors": 4, "memory": 8 * 1024**3, "planned": 7200.0, "period": 5.0}
SILENT = {"n": 0}


def latency(n, most):
    return {"n": n, "p50": 100, "p99": 900, "max": most, "all_p50": 110, "all_p99": 950, "all_p999": 9999}


def daemon(rss):
    return {"rss": rss, "private_dirty": 4 << 20, "mappings": 90, "heap": 2 << 20, "light_heap": 0, "descriptors": 10,
            "threads": 9}


def sample(seconds, rss=8 << 20, failures=0):
    latencies = {name: SILENT for name in report.LATENCIES} | {"timer_lateness": latency(20, 2000 + seconds)}
    return {"kind": "sample", "seconds": seconds, "load": 1.5, "cpu_seconds": seconds * 0.05, "failures": failures,
            "files": 10, "traced": daemon(8 << 20), "light": daemon(rss), "latencies": latencies,
            "counts": {name: 1000 * (i + 1) for i, name in enumerate(report.ACTIVITIES)}}


def end(seconds, failures=0):
    return {"kind": "end", "seconds": seconds, "failures": failures}


class ReportTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)

    def page(self, *records, tail=""):
        samples = self.folder / "samples.jsonl"
        samples.write_text("".join(json.dumps(record) + "\n" for record in (START, *records)) + tail)
        page = self.folder / "soak.md"
        report.Page(report.Run(samples), page, self.folder / "soak").write()
        return page.read_text()

    def steady(self, last=7200):
        return [sample(seconds) for seconds in range(0, last + 1, 60)]

    def row(self, page, start):
        return next(line for line in page.splitlines() if line.startswith(f"| {start} |"))

    def test_a_whole_run_without_failures(self):
        page = self.page(*self.steady(), end(7201))
        self.assertIn("**No failure in 2 h 0 min. Neither memory nor descriptors grew.**", page)
        self.assertNotIn("## Failures", page)
        self.assertIn("2026-01-02 at 03:04 UTC; version 1.2.3; 4 processors, Sample; 8.0 GiB; Linux 6.1.0 x86_64", page)
        self.assertIn("adds 5.0 % of one processor. 121 samples.", page)

    def test_failures_are_counted_and_listed(self):
        page = self.page(*self.steady(), {"kind": "failure", "seconds": 90, "text": "a child is lost"}, end(7201, 1))
        self.assertIn("**1 failure in 2 h 0 min.", page)
        self.assertIn("- after 90 s: a child is lost", page)

    def test_remarks_are_listed(self):
        page = self.page(*self.steady(), {"kind": "remark", "text": "A build ran beside it."}, end(7201))
        self.assertIn("## Remarks\n\n- A build ran beside it.\n", page)

    def test_failures_of_a_run_that_has_not_ended(self):
        page = self.page(sample(0), sample(3600, failures=3))
        self.assertIn("**3 failures in 1 h 0 min. The run was planned for 2 h 0 min and had not ended when this", page)

    def test_a_run_that_was_stopped_says_so(self):
        page = self.page(*self.steady(3600), end(3601))
        self.assertIn("No failure in 1 h 0 min. The run was planned for 2 h 0 min and was stopped. Neither", page)

    def test_a_short_run_does_not_judge_growth(self):
        page = self.page(*[sample(seconds, rss=(8 << 20) + seconds * 10000) for seconds in range(0, 601, 5)], end(601))
        self.assertIn("It is too short to say what grows.", page)
        self.assertTrue(self.row(page, "light: resident memory").endswith("| - |"))

    def test_two_samples_are_enough(self):
        self.assertIn("| light: threads | 9 | 9 | 0 | - |", self.page(sample(5), sample(6)))

    def test_growth_is_found_and_its_rate(self):
        leaking = [sample(seconds, rss=(8 << 20) + seconds * 1024) for seconds in range(0, 7201, 60)]
        page = self.page(*leaking, end(7201))
        self.assertIn("What grew: light: resident memory.", page)
        self.assertEqual("| light: resident memory | 8.35 MiB | 14.68 MiB | +3600.0 KiB | yes |",
                         self.row(page, "light: resident memory"))
        self.assertTrue(self.row(page, "traced: resident memory").endswith("| +0.0 KiB | no |"))

    def test_a_leak_shows_beside_the_table_of_a_trace(self):
        samples = [sample(seconds) for seconds in range(0, 7201, 5)]
        for i, entry in enumerate(samples):
            entry["traced"]["heap"] = (2 << 20) + i * 100 + (6 << 20) * (i % 3 == 0)
        page = self.page(*samples, end(7201))
        self.assertIn("What grew: traced: heap in use, lowest of a minute.", page)
        self.assertIn("| +70.3 KiB | yes |", self.row(page, "traced: heap in use, lowest of a minute"))

    def test_filling_at_the_start_is_no_growth(self):
        filling = [sample(seconds, rss=(8 << 20) if seconds > 600 else 1 << 20) for seconds in range(0, 7201, 60)]
        self.assertIn("Neither memory nor descriptors grew.", self.page(*filling, end(7201)))

    def test_percentiles_are_those_of_the_whole_run_and_below_the_highest_value(self):
        page = self.page(*self.steady(3600))
        self.assertEqual("| sorted timer: from its expiry to its callback | 1,220 | 110 µs | 950 µs | 5.6 ms | 5.6 ms |",
                         self.row(page, "sorted timer: from its expiry to its callback"))
        self.assertNotIn("a run of `qvstat` |", page.partition("## Latencies")[2])

    def test_a_line_that_was_cut_is_left_out(self):
        page = self.page(*self.steady(), tail=json.dumps(sample(7260))[:-20])
        self.assertIn("121 samples.", page)

    def test_pictures_are_linked_and_have_a_line_for_each_series(self):
        page = self.page(*self.steady())
        for name, lines in (("memory", 7), ("descriptors", 7), ("latency", 2)):
            self.assertIn(f"](soak/{name}.svg)", page)
            picture = xml.etree.ElementTree.parse(self.folder / "soak" / f"{name}.svg")
            self.assertEqual(lines, len(picture.findall("{http://www.w3.org/2000/svg}polyline")), name)

    def test_a_picture_of_a_long_run_stays_small(self):
        self.page(*[sample(seconds) for seconds in range(0, 36000, 5)])
        self.assertLess((self.folder / "soak/memory.svg").stat().st_size, 40000)


if __name__ == "__main__":
    unittest.main()
