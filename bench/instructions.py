"""Counts the machine instructions of one operation of each case, native and baseline, under
valgrind's callgrind: the same figure every run for the same build, whatever else the machine does,
so that a change's effect shows even when it is smaller than the noise of the timings.

Each count is the difference between two runs of a case that differ only in how many operations
they make, divided by that difference: start-up and warm-up cancel out.

    python bench/instructions.py                    # every single-threaded case (a few minutes)
    python bench/instructions.py --cases held,daily
    PYTHONPATH=/path/to/a/build python -S bench/instructions.py   # another build of the module
"""

from __future__ import annotations

import argparse
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile

import run

HERE = os.path.dirname(os.path.abspath(__file__))

# Run under callgrind: makes `count` operations of one case on one side.
ONE_CASE = """\
import sys, timeit
sys.path.insert(0, {here!r})
import baseline, run
from engines import decision_bounds
module = decision_bounds if {side!r} == "native" else baseline
statement, namespace = run.CASES[{case!r}][2](module)
timer = timeit.Timer(statement, globals=namespace)
timer.timeit(1000)
timer.timeit({count})
"""


def instructions(case, side, count):
    """All the instructions that a run making `count` operations executes."""
    with tempfile.TemporaryDirectory() as scratch:
        script = ONE_CASE.format(here=HERE, side=side, case=case, count=count)
        # Without the site packages when this runs without them: a build on PYTHONPATH is then the one measured.
        python = [sys.executable, *(["-S"] if sys.flags.no_site else [])]
        out = subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={scratch}/out", *python, "-c", script],
            capture_output=True, text=True, check=True,
        )
    return int(re.search(r"Collected : (\d+)", out.stderr).group(1))


def per_operation(case, side, few=2000, many=12000):
    return (instructions(case, side, many) - instructions(case, side, few)) / (many - few)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--cases", help="comma-separated cases (default: every single-threaded one)")
    args = parser.parse_args(argv)
    if shutil.which("valgrind") is None:
        parser.error("valgrind is not installed")
    chosen = args.cases.split(",") if args.cases else list(run.CASES)
    unknown = [c for c in chosen if c not in run.CASES]
    if unknown:
        parser.error(f"unknown case(s): {', '.join(unknown)}")
    print(f"{'case':16} {'native':>9} {'baseline':>9} {'ratio':>7}   instructions per operation")
    ratios = []
    for case in chosen:
        native, baseline = per_operation(case, "native"), per_operation(case, "baseline")
        ratios.append(baseline / native)
        print(f"{case:16} {native:9.0f} {baseline:9.0f} {baseline / native:7.2f}", flush=True)
    geomean = math.exp(sum(map(math.log, ratios)) / len(ratios))
    print(f"{'geometric mean':16} {'':9} {'':9} {geomean:7.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
