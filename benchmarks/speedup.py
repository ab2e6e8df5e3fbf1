# SPDX-License-Identifier: MIT
"""How much faster one search is on many workers.

    python benchmarks/speedup.py [--workers 4 8 16] [--trials 300] [--quick] [--output FILE]

An evaluation sleeps 20 to 60 ms, drawn once for each point, as a simulation elsewhere would take
its time; workers are threads. The whole run counts: the start, where as many points are wanted as
there are workers, and the end, where points ahead would lie beyond the budget. The trials are
checked to be the same for any number of workers. Prints, and writes, a table in Markdown.
"""

import argparse
import math
import random
import struct
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import Quenloft
from class_sweep.functions import CLASSES

SECONDS = 0.02, 0.06


def rosenbrock(x):
    return sum(100 * (b - a * a) ** 2 + (1 - a) ** 2 for a, b in zip(x, x[1:]))


def quadratic(x):
    return sum((i + 1) * (v - 0.3 * i / len(x)) ** 2 for i, v in enumerate(x))


def problems():
    """Name, function, bounds."""
    for name, numbers in (("2D hard", (1, 2)), ("3D simple", (1, 2)), ("5D simple", (1, 2))):
        for number in numbers:
            chosen = CLASSES[name]
            yield f"GKLS {name}, {number}", chosen.function(number), chosen.bounds
    yield "Rosenbrock, 4 variables", rosenbrock, [(-2.0, 2.0)] * 4
    yield "quadratic, 6 variables", quadratic, [(-1.0, 1.5)] * 6


def sleeping(function):
    def evaluate(x):
        draw = random.Random(struct.pack(f"{len(x)}d", *x))
        time.sleep(draw.uniform(*SECONDS))
        return function(x)

    return evaluate


def measure(function, bounds, trials, workers):
    """Seconds of a whole run, and its result."""
    with ThreadPoolExecutor(workers) as threads:
        start = time.perf_counter()
        result = Quenloft.minimize(
            sleeping(function), bounds, maxfun=trials, workers=threads if workers > 1 else 1
        )
        return time.perf_counter() - start, result


def table(counts, trials, chosen):
    lines = [
        "| function | 1 worker | " + " | ".join(f"{n} workers" for n in counts) + " |",
        "|---|---:|" + "---:|" * len(counts),
    ]
    speedups = {n: [] for n in counts}
    surplus = dict.fromkeys(counts, 0)
    for name, function, bounds in chosen:
        seconds, expected = measure(function, bounds, trials, 1)
        row = f"| {name} | {seconds:.1f} s |"
        for n in counts:
            faster, result = measure(function, bounds, trials, n)
            if list(result.history.x) != list(expected.history.x):
                raise SystemExit(f"{name}: {n} workers made other trials than one")
            speedups[n].append(seconds / faster)
            surplus[n] += len(result.surplus)
            row += f" {speedups[n][-1]:.1f} |"
        print(row, file=sys.stderr, flush=True)
        lines.append(row)
    means = [math.exp(sum(map(math.log, s)) / len(s)) for s in speedups.values()]
    lines.append("| **geometric mean** | | " + " | ".join(f"**{m:.1f}**" for m in means) + " |")
    made = trials * len(chosen)
    shares = [f"{n / made:.0%}" for n in surplus.values()]
    lines.append("| evaluations not needed | | " + " | ".join(shares) + " |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--workers", type=int, nargs="+", default=[4, 8, 16], metavar="N")
    parser.add_argument("--trials", type=int, default=300, metavar="N")
    parser.add_argument("--quick", action="store_true", help="one function, to see that it works")
    parser.add_argument("--output", type=Path, metavar="FILE", help="replace the table in FILE")
    options = parser.parse_args()
    chosen = list(problems())[: 1 if options.quick else None]
    text = table(options.workers, options.trials, chosen)
    print(text)
    if options.output:
        begin, end = "<!-- speedup.py -->\n", "<!-- end -->"
        before, rest = options.output.read_text(encoding="utf-8").split(begin)
        after = rest.split(end, 1)[1]
        options.output.write_text(before + begin + text + "\n" + end + after, encoding="utf-8")


if __name__ == "__main__":
    main()
