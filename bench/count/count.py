#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Counts instructions of the benchmarked operations on AArch64, ours and the peers', for tools/bench --instructions.

    count.py --build DIR --peers DIR --work DIR --out FILE [PROGRAM...]

Compiles each benchmark program for AArch64 with bench/count/benchmark/benchmark.h in place of Google Benchmark, against
the cross build and the unpacked packages of the peers, and runs it in the user-mode emulator with the counting plug-in.
Times mean nothing there, the number of instructions does: it includes those of libraries, not those of the kernel.
"""
import argparse
import json
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "bench"))
sys.dont_write_bytecode = True
import report

CROSS = pathlib.Path("/usr/aarch64-linux-gnu")
COMPILER = "aarch64-linux-gnu-g++"
TRIPLET = "aarch64-linux-gnu"
SECONDS = 200  # for a program

# The programs that are counted, with the peers that are linked. What is mostly the kernel's work is not.
PROGRAMS = {
    "stimer": ["EVENT event", "EV ev", "UV uv"],
    "atimer": ["EVENT event", "EV ev", "UV uv"],
    "debug_trace": [],
    "hashtbl": ["GLIB glib-2.0"],
    "name2id": ["GLIB glib-2.0"],
    "rbtree": [],
    "idpool": ["JUDY Judy"],
    "idtable": ["JUDY Judy", "GLIB glib-2.0"],
    "qv_hash": [],
    "mcache": ["GLIB glib-2.0", "MIMALLOC mimalloc"],
    "qv_mtrace": [],
    "backtrace": [],
    "signal_format": [],
    "crc": ["LIBDEFLATE deflate", "ZLIB z", "ISAL isal"],
    "base64": ["CRYPTO crypto", "GLIB glib-2.0"],
    "cp_rwlock": [],
    "vrsock": [],
}


class Counter:
    def __init__(self, options):
        self.options = options
        self.peers = options.peers / "usr"
        options.work.mkdir(parents=True, exist_ok=True)
        self.plugin = options.work / "plugin.so"

    def build_plugin(self):
        subprocess.run(["cc", "-O2", "-shared", "-fPIC", "-fvisibility=hidden", "-o", self.plugin,
                        ROOT / "bench/count/plugin.c"], check=True)

    def compile(self, program, libraries):
        target = self.options.work / program
        includes = [ROOT / "bench/count", ROOT, ROOT / "include", self.peers / "include",
                    self.peers / "include" / TRIPLET, self.peers / "include/glib-2.0",
                    self.peers / "include/mimalloc-2.0", self.peers / "lib" / TRIPLET / "glib-2.0/include"]
        folders = [self.options.build, self.peers / "lib" / TRIPLET, self.options.peers / "lib" / TRIPLET]
        flags = [f"-I{include}" for include in includes[:3]] + [f"-isystem{include}" for include in includes[3:]]
        flags += [f"-L{folder}" for folder in folders] + [f"-Wl,-rpath-link,{folder}" for folder in folders]
        names = [library.split() for library in libraries]
        flags += [f"-DHAVE_{name}" for name, _ in names]
        subprocess.run([COMPILER, "-std=c++20", "-O3", "-DNDEBUG", "-w", "-fno-exceptions", "-fno-rtti", "-o", target,
                        ROOT / f"bench/{program}_bench.cpp", *(ROOT / "bench").glob(f"{program}_peer.cpp"),
                        ROOT / "bench/count/main.cpp", *flags, "-lcommon",
                        *(f"-l{library}" for _, library in names), "-lresolv", "-pthread"], check=True)
        return target

    def run(self, executable, names):
        """name -> instructions of one operation."""
        counts = self.options.work / "counts"
        folders = [self.options.build, self.peers / "lib" / TRIPLET, self.options.peers / "lib" / TRIPLET]
        process = subprocess.run(
            ["qemu-aarch64", "-L", CROSS, "-cpu", "max", "-E", f"LD_LIBRARY_PATH={':'.join(map(str, folders))}",
             "-plugin", f"{self.plugin},out={counts}", executable, *sorted(names)],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=SECONDS,
            check=False)
        sums = [int(line) for line in counts.read_text().split()]
        empty = sums[1] if len(sums) > 1 else 0
        found = {}
        for line, total in zip(process.stdout.splitlines(), sums[3::2]):
            name, divisor, pairs = line.rsplit(" ", 2)
            if int(divisor) > 0:
                found[name] = round((total - int(pairs) * empty) / int(divisor), 1)
        return found


def is_counted(name):
    """Not what takes long to fill, nor what depends on a second thread or process."""
    return not (report.is_large(name) or "contended" in name or name.endswith("threads:2"))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name in ("build", "peers", "work", "out"):
        parser.add_argument(f"--{name}", type=pathlib.Path, required=True)
    parser.add_argument("programs", nargs="*", help="those that are counted again (all)")
    options = parser.parse_args()
    counter = Counter(options)
    counter.build_plugin()
    wanted = report.group(report.Table(ROOT / "bench/performance.toml").names())
    results = report.read_json(options.out, {})
    for program in options.programs or PROGRAMS:
        results.pop(program, None)
        names = {name for name in wanted.get(program, []) if is_counted(name)}
        try:
            results[program] = counter.run(counter.compile(program, PROGRAMS[program]), names)
        except (OSError, ValueError, subprocess.SubprocessError) as error:
            print(f"  {program}: {report.describe(error)}", flush=True)
            continue
        missing = sorted(names - set(results[program]))
        print(f"  {program}: {len(results[program])} counts" + (f", none of {', '.join(missing)}" if missing else ""),
              flush=True)
        report.write_json(options.out, results)


if __name__ == "__main__":
    main()
