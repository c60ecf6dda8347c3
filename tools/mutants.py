#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The work of tools/mutate: see there and docs/mutation.md.

The tree is copied, and the copy configured once; each mutant changes one line of the copy, rebuilds the shared object
alone and runs the test programs, which load it. The tree itself is never touched.
"""
import argparse
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys

PRODUCTS = ("base", "container", "fault", "log", "mem", "net", "platform", "time", "util")
CASE_SECONDS = 30
RUN_SECONDS = 300
MOST_MEMORY = 4 << 30  # of a process: a mutant may allocate in an endless loop

# Each operator: its name, what it looks for, and what it puts in its place. One mutant a match.
OPERATORS = [
    ("comparison", r"(?<![<>=!-])<(?![<=])(?= )", "<="),
    ("comparison", r"(?<![<>=!-])>(?![>=])(?= )", ">="),
    ("comparison", r"<=(?!>)", "<"),
    ("comparison", r"(?<!<)>=", ">"),
    ("comparison", r"==", "!="),
    ("comparison", r"!=", "=="),
    ("logic", r"&&", "||"),
    ("logic", r"(?<=\S) \|\| (?=\S)", " && "),
    ("constant", r"(?<![\w.\"'])0(?![\w.\"'])", "1"),
    ("constant", r"(?<![\w.\"'])([1-9]\d*)(?=[uUlL]*(?![\w.\"']))", lambda m: str(int(m[1]) + 1)),
    ("constant", r"\btrue\b", "false"),
    ("constant", r"\bfalse\b", "true"),
    ("off by one", r" \+ 1\b", ""),
    ("off by one", r" - 1\b", ""),
    ("arithmetic", r" \+ (?=\w)", " - "),
    ("arithmetic", r" - (?=\w)", " + "),
    ("branch", r"\bif \((?!constexpr)(.*)\)( \{)?$", lambda m: f"if (!({m[1]})){m[2] or ''}"),
]

# A whole statement on a line: a call, an assignment, a count. Declarations and returns stay.
STATEMENT = re.compile(r"^\s*(?!return\b|using\b|struct\b|goto\b|case\b|break\b|continue\b|static_assert\b)"
                       r"(?:[\w:>.\-\[\]*()]+ (?:[-+|&^]|<<|>>)?= .*|[\w:>.\-]+\(.*\)|[\w:>.\-\[\]]+(?:\+\+|--)|"
                       r"(?:\+\+|--)[\w:>.\-\[\]]+);(?:\s*//.*)?$")


def code_of(line):
    """The line without its comment; none of it where it is no code."""
    stripped = line.strip()
    if stripped.startswith(("//", "/*", "*", "#", "static_assert", "template", "using ", "extern ")):
        return ""
    return line.split(" //")[0]


def in_text(line, position):
    return line[:position].count('"') % 2 == 1


def mutants_of(lines):
    for number, line in enumerate(lines):
        code = code_of(line)
        if not code.strip():
            continue
        for name, pattern, replacement in OPERATORS:
            for match in re.finditer(pattern, code):
                if in_text(code, match.start()):
                    continue
                put = replacement(match) if callable(replacement) else replacement
                yield number, name, code[:match.start()] + put + code[match.end():]
        if STATEMENT.match(line):
            yield number, "dropped statement", ""


def limit_memory():
    resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))


class Workshop:
    """The copy of the tree and its build."""

    def __init__(self, root):
        self.tree = root / "build" / "mutate" / "tree"
        self.build = root / "build" / "mutate" / "build"
        shutil.rmtree(self.tree, ignore_errors=True)
        shutil.copytree(root, self.tree, ignore=shutil.ignore_patterns("build", ".git"))
        self.run("cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                 "-DLIBCOMMON_BUILD_BENCH=OFF", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", check=True)

    @staticmethod
    def run(*command, check=False):
        """Whether the command succeeds. A checked one may take its time, and ends the program if it fails."""
        with subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, start_new_session=True, preexec_fn=limit_memory) as child:
            try:
                output, _ = child.communicate(timeout=None if check else RUN_SECONDS)
            except subprocess.TimeoutExpired:
                os.killpg(child.pid, signal.SIGKILL)
                child.communicate()
                return False
        if check and child.returncode != 0:
            sys.exit(output.decode(errors="replace")[-4000:])
        return child.returncode == 0

    def builds(self, *targets, check=False):
        return self.run("cmake", "--build", self.build, "--target", *targets, check=check)

    def passes(self, tests):
        return self.run("ctest", "--test-dir", self.build, "-L", "^(" + "|".join(tests) + ")$", "-j", os.cpu_count(),
                        "--timeout", CASE_SECONDS, "--stop-on-failure", "--no-tests=error")


def sources_of(root, family):
    found = [path.relative_to(root) for folder in PRODUCTS for path in sorted((root / folder).glob("**/*"))
             if path.suffix in (".cpp", ".h")]
    found = [path for path in found if f"/{path.with_suffix('')}".endswith("/" + family)]
    if not found:
        sys.exit(f"mutate: no source of that name: {family}")
    return found


def main():
    parser = argparse.ArgumentParser(prog="mutate")
    parser.add_argument("root", type=pathlib.Path)
    parser.add_argument("family")
    parser.add_argument("--tests", nargs="+", help="test programs; FAMILY_test if not given")
    parser.add_argument("--limit", type=int, default=0, help="at most so many mutants a source, evenly chosen; 0 for all")
    arguments = parser.parse_args()
    tests = arguments.tests or [arguments.family.split("/")[-1] + "_test"]

    workshop = Workshop(arguments.root)
    workshop.builds("libcommon", *tests, check=True)
    if not workshop.passes(tests):
        sys.exit("mutate: the tests fail without a mutant")

    counts = {"killed": 0, "refused by the compiler": 0, "survived": 0}
    for source in sources_of(arguments.root, arguments.family):
        file = workshop.tree / source
        original = file.read_text()
        lines = original.split("\n")
        mutants = list(mutants_of(lines))
        step = max(1, -(-len(mutants) // arguments.limit)) if arguments.limit else 1
        for number, name, changed in mutants[::step]:
            file.write_text("\n".join(lines[:number] + [changed] + lines[number + 1:]))
            if not workshop.builds("libcommon"):
                verdict = "refused by the compiler"
            elif workshop.passes(tests):
                verdict = "survived"
                print(f"{source}:{number + 1}: {name}\n  - {lines[number].strip()}\n  + {changed.strip()}", flush=True)
            else:
                verdict = "killed"
            counts[verdict] += 1
        file.write_text(original)
    print(", ".join(f"{count} {verdict}" for verdict, count in counts.items()))


main()
