# SPDX-License-Identifier: MIT
"""How much faster the engine is than the plain form of the same search.

Builds benchmarks/engine (CMake, a C++ compiler and Google Benchmark are needed), runs whole
searches with a native objective in the engine with one thread, in the engine with two threads and
in the plain form, in turn, and prints tables of the times, their ratios and the work done. Leave
the machine alone meanwhile: the ratios of two threads are of elapsed time.

    python benchmarks/engine_table.py
    python benchmarks/engine_table.py --large --markdown docs/performance.md

The exit status is 1 when two forms did not make the same search, and with --check when a goal was
missed.
"""

from __future__ import annotations

import argparse
import datetime
import json
import os
import platform
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from statistics import median
from typing import Any, Callable, NamedTuple, Optional

ROOT = Path(__file__).resolve().parent.parent
DIMENSIONS = (2, 3, 4, 8, 16, 32)


class Size(NamedTuple):
    """Searches of one size; `plain_repeats` is less where the plain form takes long."""

    dimension: int
    trials: int
    plain_repeats: int
    goal: float  # of one thread, to the plain form
    goal_of_two: Optional[float]  # of two threads, to one

    @property
    def prefix(self) -> str:
        return f"search/N:{self.dimension}/trials:{self.trials}/"


SIZES = [
    Size(2, 10_000, 5, 4.0, None),
    Size(2, 100_000, 5, 4.0, None),
    Size(3, 5_000, 5, 5.0, None),
    Size(4, 5_000, 5, 6.0, None),
    Size(8, 3_000, 3, 12.0, 1.5),
    Size(16, 1_000, 1, 12.0, 1.5),
    Size(32, 1_000, 1, 12.0, 1.5),
]
#: What --quick makes of their numbers of trials.
QUICK_TRIALS = [500, 5_000, 250, 250, 150, 60, 80]

LARGE = 1_000_000
GOAL_OF_LARGE_COST = 1.5
GOAL_OF_GROWTH = 1.5  # of what a trial costs, from the smallest search to the largest
GOAL_OF_LARGE_MEGABYTES = 450.0

PLAIN, ONE, TWO = "plain", "engine/threads:1", "engine/threads:2"
COUNTERS = {
    "listed": "trials listed",
    "refreshed": "refreshed",
    "candidates": "candidates looked at",
    "kept": "kept",
    "rounded_cosines": "cosines, rounded",
    "cosines": "cosines, double",
    "offers": "offers to lists",
    "entries_visited": "entries visited",
    "full_updates": "updates of all",
}
PARTS = {
    "selection": "neighbour selection, one table",
    "offer": "candidate list, one offer to a full one",
    "update": "candidate list, update with 36 offers",
    "bounds": "key bounds, 100,000 trials, 16 changes",
    "fit": "local fit, one model",
    "handover": "a cache line to the other core and back",
}


class Run(NamedTuple):
    """One run of a benchmark; times in microseconds an iteration."""

    name: str
    cpu: float
    elapsed: float
    counters: dict[str, float]


#: The runs of one call of the program, by name.
Round = dict[str, Run]


class Measurements(NamedTuple):
    context: dict[str, Any]
    rounds: list[Round]  # of searches
    distances: dict[Size, list[float]]  # between the cores, one a round, see core_distances
    parts: list[Run]
    growth: list[Run]
    large: Optional[Run]


# ---- Building and running


def build(folder: Path) -> Path:
    """Returns the program's path. Sends what the build says to the standard error."""
    configure = ["cmake", "-S", str(ROOT), "-B", str(folder)]
    options = {
        "CMAKE_BUILD_TYPE": "Release",
        "QUENLOFT_BUILD_BENCHMARKS": "ON",
        "QUENLOFT_BUILD_TESTS": "OFF",
        "QUENLOFT_BUILD_EXAMPLES": "OFF",
        "QUENLOFT_DIMENSIONS": ";".join(map(str, DIMENSIONS)),
    }
    configure += [f"-D{name}={value}" for name, value in options.items()]
    make = ["cmake", "--build", str(folder), "--config", "Release"]
    make += ["--target", "engine_benchmarks", "--parallel", str(os.cpu_count() or 1)]
    for command in configure, make:
        subprocess.run(command, check=True, stdout=sys.stderr)
    name = "engine_benchmarks" + (".exe" if os.name == "nt" else "")
    for place in (
        folder / "benchmarks" / "engine",
        folder / "benchmarks" / "engine" / "Release",
    ):
        if (place / name).exists():
            return place / name
    raise FileNotFoundError(f"the build left no {name} in {folder}")


def parse_report(report: dict[str, Any]) -> list[Run]:
    """The runs in a JSON report of Google Benchmark, aggregates left out."""
    scales = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
    runs = []
    for entry in report["benchmarks"]:
        if entry.get("error_occurred"):
            raise RuntimeError(f"{entry['name']}: {entry.get('error_message')}")
        if entry.get("run_type") == "aggregate":
            continue
        scale = scales[entry["time_unit"]]
        name = re.sub(r"/(iterations|repeats|min_time):[\d.]+", "", entry["run_name"])
        counters = {k: float(v) for k, v in entry.items() if isinstance(v, (int, float))}
        runs.append(Run(name, entry["cpu_time"] * scale, entry["real_time"] * scale, counters))
    return runs


def call(program: Path, pattern: str, *options: str) -> tuple[dict[str, Any], list[Run]]:
    """Runs the benchmarks whose names match; the report's context and the runs."""
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "report.json"
        command = [
            str(program),
            f"--benchmark_filter={pattern}",
            f"--benchmark_out={path}",
        ]
        command += ["--benchmark_out_format=json", *options]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}\n{done.stdout}{done.stderr}")
        text = path.read_text()
    if not text.strip():  # nothing matched, as when a dimension is not in the build
        return {}, []
    report = json.loads(text)
    return report["context"], parse_report(report)


def core_distances(program: Path) -> list[float]:
    """The microseconds that a cache line takes to another core and back; none with one core."""
    return [run.cpu for run in call(program, "^part/handover", "--benchmark_min_time=0.2")[1]]


def measure(
    program: Path,
    sizes: list[Size],
    repeats: int,
    minutes: float,
    *,
    is_quick: bool = False,
    with_large: bool = False,
    say: Callable[[str], None] = lambda text: None,
) -> Measurements:
    """A round is one search of each size and form. The first is complete; of later ones, what
    would take longer than the minutes left is left out."""
    start = time.monotonic()
    scale = ["--quick"] if is_quick else []
    seconds: dict[Size, float] = {}
    context: dict[str, Any] = {}
    rounds: list[Round] = []
    distances: dict[Size, list[float]] = {}
    parts: list[Run] = []
    growth: list[Run] = []
    large: Optional[Run] = None
    for number in range(repeats):
        of_round: Round = {}
        for size in sizes:
            left = 60.0 * minutes - (time.monotonic() - start)
            if number > 0 and seconds[size] > left:
                continue
            say(f"round {number + 1}: N = {size.dimension}, {size.trials:,} trials")
            began = time.monotonic()
            # The search of two threads last, and right after it how far apart the cores are.
            for form in ("plain", "engine") if number < size.plain_repeats else ("engine",):
                found_context, runs = call(program, f"^{size.prefix}{form}", *scale)
                context = context or found_context
                of_round.update((run.name, run) for run in runs)
            distances.setdefault(size, []).extend(core_distances(program))
            seconds[size] = time.monotonic() - began
        rounds.append(of_round)
        if number == 0:
            say("the hot parts")
            least_time = "0.01" if is_quick else "0.2"
            options = [f"--benchmark_min_time={least_time}", *scale]
            if not is_quick:
                options += ["--benchmark_repetitions=3"]
                options += ["--benchmark_enable_random_interleaving=true"]
            parts = call(program, "^part/", *options)[1]
            say("searches that grow")
            growth = call(program, "^growth/", *scale)[1]
        if number == 0 and with_large:
            say(f"N = 2, {LARGE:,} trials")
            (large,) = call(program, "^search/", "--large")[1]
    if not any(rounds):
        raise RuntimeError("none of the searches is in the build")
    return Measurements(context, rounds, distances, parts, growth, large)


def differences(rounds: list[Round], sizes: list[Size]) -> list[str]:
    """Names of the runs that were not the same search as the first of their size."""
    differing = []
    for size in sizes:
        runs = [
            r for of_round in rounds for r in of_round.values() if r.name.startswith(size.prefix)
        ]
        outcomes = [(r.counters["trials"], r.counters["sum_of_values"]) for r in runs]
        differing += [r.name for r, outcome in zip(runs, outcomes) if outcome != outcomes[0]]
        if outcomes and outcomes[0][0] < size.trials:
            differing.append(f"{size.prefix}: a search of {outcomes[0][0]:,.0f} trials only")
    return differing


# ---- Tables

Table = list[list[str]]


def ratio_of(rounds: list[Round], numerator: str, denominator: str, clock: str) -> Optional[float]:
    """The median over the rounds that hold both."""
    ratios = [
        getattr(of_round[numerator], clock) / getattr(of_round[denominator], clock)
        for of_round in rounds
        if numerator in of_round and denominator in of_round
    ]
    return median(ratios) if ratios else None


def is_met(ratio: Optional[float], goal: Optional[float]) -> bool:
    """By the ratio as it is shown."""
    return goal is None or ratio is None or round(ratio, 1) >= goal


def shown(ratio: Optional[float], goal: Optional[float]) -> str:
    if ratio is None:
        return ""
    return f"{ratio:.1f}x" + ("" if is_met(ratio, goal) else " (missed)")


def search_table(
    rounds: list[Round], sizes: list[Size], distances: dict[Size, list[float]]
) -> tuple[Table, bool]:
    """The table of ratios, and whether all goals are met."""
    table = [["N", "trials", "plain", "one thread", "ratio", "goal", "two threads", "of one"]]
    table[0] += ["goal", "cores apart", "runs"]
    all_met = True
    for size in sizes:
        plain, one, two = (size.prefix + form for form in (PLAIN, ONE, TWO))

        def cost(name: str, clock: str, trials: int = size.trials) -> str:
            times = [getattr(of_round[name], clock) for of_round in rounds if name in of_round]
            return f"{median(times) / trials:,.1f}" if times else ""

        counts = [sum(name in of_round for of_round in rounds) for name in (plain, one)]
        if counts[1] == 0:
            continue
        ratio = ratio_of(rounds, plain, one, "cpu")
        of_one = ratio_of(rounds, one, two, "elapsed")
        all_met = all_met and is_met(ratio, size.goal) and is_met(of_one, size.goal_of_two)
        table.append(
            [
                f"{size.dimension}",
                f"{size.trials:,}",
                cost(plain, "cpu"),
                cost(one, "cpu"),
            ]
            + [shown(ratio, size.goal), f"{size.goal:g}x", cost(two, "elapsed")]
            + [shown(of_one, size.goal_of_two)]
            + ["" if size.goal_of_two is None else f"{size.goal_of_two:g}x"]
            + [" ".join(f"{distance:.2f}" for distance in distances[size])]
            + ["{} / {}".format(*counts)]
        )
    return table, all_met


def number_text(number: float) -> str:
    return f"{number:,.0f}" if number >= 100 else f"{number:.3g}"


def work_table(rounds: list[Round], sizes: list[Size]) -> Table:
    table = [["N", "trials", *COUNTERS.values()]]
    for size in sizes:
        run = next((r[size.prefix + ONE] for r in rounds if size.prefix + ONE in r), None)
        if run is None:
            continue
        counts = [number_text(run.counters[name]) for name in COUNTERS]
        table.append([f"{size.dimension}", f"{size.trials:,}", *counts])
    return table


def parts_table(parts: list[Run]) -> Table:
    times: dict[tuple[str, str], dict[str, list[float]]] = {}
    for run in parts:
        _, part, *dimension, form = run.name.split("/")
        key = (part, dimension[0][2:] if dimension else "")
        times.setdefault(key, {}).setdefault(form, []).append(run.cpu)
    table = [["part", "N", "plain", "engine", "ratio"]]
    for (part, of_dimension), forms in times.items():
        engine = median(forms["engine"])
        plain = median(forms["plain"]) if "plain" in forms else None
        table.append(
            [
                PARTS[part],
                of_dimension,
                "" if plain is None else number_text(plain),
                number_text(engine),
            ]
            + [shown(None if plain is None else plain / engine, None)]
        )
    return table


def growth_table(runs: list[Run]) -> tuple[Table, bool]:
    """What a trial costs at each size of a search, for problems of several kinds."""
    costs: dict[str, dict[int, float]] = {}
    for run in runs:
        _, kind, trials = run.name.split("/")
        count = int(trials.split(":")[1])
        costs.setdefault(kind, {})[count] = run.cpu / count
    sizes = sorted({count for of_kind in costs.values() for count in of_kind})
    table = [["N = 2, with", *(f"{size:,}" for size in sizes), "last to first", "at most"]]
    all_met = True
    for kind, of_kind in costs.items():
        growth = of_kind[sizes[-1]] / of_kind[sizes[0]]
        is_kept = round(growth, 2) <= GOAL_OF_GROWTH
        all_met = all_met and is_kept
        cells = [f"{of_kind[size]:.1f}" for size in sizes]
        cells += [f"{growth:.2f}x" + ("" if is_kept else " (missed)"), f"{GOAL_OF_GROWTH:g}x"]
        table.append([kind.replace("-", " "), *cells])
    return table, all_met


def large_table(large: Run, rounds: list[Round], small: Size) -> tuple[Table, bool]:
    """The search of a million trials beside a small one."""
    name = small.prefix + ONE
    small_cost = median(r[name].cpu for r in rounds if name in r) / small.trials
    cost = large.cpu / LARGE
    megabytes = large.counters["peak_megabytes"]
    cost_met = round(cost / small_cost, 2) <= GOAL_OF_LARGE_COST
    memory_met = megabytes < GOAL_OF_LARGE_MEGABYTES
    table = [
        [
            "trials at N = 2",
            "one thread",
            "to the first",
            "at most",
            "peak memory",
            "below",
        ],
        [f"{small.trials:,}", f"{small_cost:.1f}", "", "", "", ""],
        [
            f"{LARGE:,}",
            f"{cost:.1f}",
            f"{cost / small_cost:.2f}x",
            f"{GOAL_OF_LARGE_COST:g}x",
        ]
        + [f"{megabytes:.0f} MB", f"{GOAL_OF_LARGE_MEGABYTES:g} MB"],
    ]
    table[2][2] += "" if cost_met else " (missed)"
    table[2][4] += "" if memory_met else " (missed)"
    return table, cost_met and memory_met


def format_table(table: Table) -> str:
    """In Markdown, aligned so that it reads well on a terminal too."""
    columns = list(zip(*table))
    is_text = [all(not re.match(r"[\d.]", cell) for cell in c[1:]) and any(c[1:]) for c in columns]
    widths = [max(4, *map(len, column)) for column in columns]

    def line(row: list[str]) -> str:
        cells = (
            cell.ljust(width) if text else cell.rjust(width)
            for cell, width, text in zip(row, widths, is_text)
        )
        return "| " + " | ".join(cells) + " |"

    rules = ["-" * w if text else "-" * (w - 1) + ":" for w, text in zip(widths, is_text)]
    return "\n".join([line(table[0]), line(rules), *map(line, table[1:])])


def machine(context: dict[str, Any]) -> str:
    """Processor, number of cores, vector instructions, compiler, date."""
    model = platform.processor() or platform.machine()
    vectors = ""
    try:
        text = Path("/proc/cpuinfo").read_text()
        found = re.search(r"^model name\s*: (.+)$", text, re.MULTILINE)
        model = found[1] if found else model
        flags = set(" ".join(re.findall(r"^flags\s*: (.+)$", text, re.MULTILINE)[:1]).split())
        vectors = next((v for v in ("avx512f", "avx2", "avx") if v in flags), "")
    except OSError:
        pass
    parts = [model, f"{context.get('num_cpus', os.cpu_count())} cores", vectors.upper()]
    parts += [platform.system(), str(context.get("compiler", "")), "release build"]
    parts.append(datetime.date.today().isoformat())
    return ", ".join(part for part in parts if part)


def report(measured: Measurements, sizes: list[Size], command: str) -> tuple[str, bool]:
    """The generated section, and whether all goals are met."""
    searches, all_met = search_table(measured.rounds, sizes, measured.distances)
    paragraphs = [
        f"Machine: {machine(measured.context)}.\nCommand: `{command}`.",
        "### Whole searches",
        "Microseconds a trial; processor time for the plain form and one thread, elapsed time for\n"
        "two threads. *Cores apart* is what a cache line took from one core to the other and\n"
        "back, in microseconds, after each round.",
        format_table(searches),
    ]
    if measured.large is not None:
        large, large_met = large_table(measured.large, measured.rounds, sizes[0])
        all_met = all_met and large_met
        paragraphs += ["### A million trials", "Microseconds a trial, processor time."]
        paragraphs += [format_table(large)]
    if measured.growth:
        growth, growth_met = growth_table(measured.growth)
        all_met = all_met and growth_met
        paragraphs += ["### Searches that grow", "Microseconds a trial, processor time."]
        paragraphs += [format_table(growth)]
    paragraphs += ["### Work done", "Per trial, in the engine."]
    paragraphs += [format_table(work_table(measured.rounds, sizes))]
    if measured.parts:
        paragraphs += ["### The hot parts", "Microseconds of processor time."]
        paragraphs += [format_table(parts_table(measured.parts))]
    return "\n\n".join(paragraphs), all_met


def split_at_markers(path: Path) -> tuple[str, str]:
    """The document up to and from the markers of the generated section, these included."""
    first, last = "<!-- engine -->\n", "<!-- /engine -->\n"
    before, found, rest = path.read_text(encoding="utf-8").partition(first)
    _, found_last, after = rest.partition(last)
    if not (found and found_last):
        raise ValueError(f"{path} must hold the lines {first.strip()} and {last.strip()}")
    return before + first, last + after


def write_section(path: Path, text: str) -> None:
    """Puts `text` between the markers of the document."""
    before, after = split_at_markers(path)
    path.write_text(f"{before}\n{text}\n\n{after}", encoding="utf-8")


# ---- The command


def parse_arguments(arguments: Optional[list[str]] = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--large", action="store_true", help="search with a million trials as well")
    parser.add_argument("--markdown", type=Path, metavar="FILE", help="rewrite the section there")
    parser.add_argument("--repeats", type=int, default=3, help="rounds, at most (default: 3)")
    parser.add_argument(
        "--minutes",
        type=float,
        default=11.0,
        help="start nothing more than the first round that would go on for longer (default: 11)",
    )
    parser.add_argument(
        "--dimensions",
        type=lambda text: [int(n) for n in text.split(",")],
        default=list(DIMENSIONS),
        metavar="N,N,...",
        help="measure these alone",
    )
    parser.add_argument("--quick", action="store_true", help="short searches once, to see it work")
    parser.add_argument("--check", action="store_true", help="fail when a goal is missed")
    parser.add_argument(
        "--build-dir",
        type=Path,
        default=ROOT / "build" / "engine-benchmarks",
        help="where to build (default: build/engine-benchmarks)",
    )
    parser.add_argument("--executable", type=Path, help="run this engine_benchmarks; build nothing")
    parsed = parser.parse_args(arguments)
    if parsed.repeats < 1:
        parser.error("--repeats must be 1 or more")
    if not set(parsed.dimensions) <= set(DIMENSIONS):
        parser.error("--dimensions may be " + ", ".join(map(str, DIMENSIONS)))
    if parsed.large and 2 not in parsed.dimensions:
        parser.error("--large is compared with a search of dimension 2: do not leave that out")
    if parsed.markdown and parsed.quick:
        parser.error("--quick measures nothing that is worth keeping: no --markdown with it")
    return parsed


def main(arguments: Optional[list[str]] = None) -> int:
    parsed = parse_arguments(arguments)

    def say(text: str) -> None:
        print(text, file=sys.stderr, flush=True)

    sizes = SIZES
    if parsed.quick:
        sizes = [size._replace(trials=count) for size, count in zip(SIZES, QUICK_TRIALS)]
    sizes = [size for size in sizes if size.dimension in parsed.dimensions]
    if parsed.markdown:
        split_at_markers(parsed.markdown)  # better now than after the measurement
    program = parsed.executable or build(parsed.build_dir)
    load = os.getloadavg()[0] if hasattr(os, "getloadavg") else 0.0
    if load > 0.5 and not parsed.quick:
        say(f"The machine is busy (load {load:.1f}): do not trust the ratios of two threads.")
    measured = measure(
        program,
        sizes,
        1 if parsed.quick else parsed.repeats,
        parsed.minutes,
        is_quick=parsed.quick,
        with_large=parsed.large,
        say=say,
    )
    differing = differences(measured.rounds, sizes)
    for name in differing:
        say(f"Not the same search: {name}")
    if differing:
        return 1
    command = "python benchmarks/engine_table.py"
    command += " --large" if parsed.large else ""
    if parsed.dimensions != list(DIMENSIONS):
        command += " --dimensions " + ",".join(map(str, parsed.dimensions))
    command += " --markdown docs/performance.md" if parsed.markdown else ""
    text, all_met = report(measured, sizes, command)
    print(text)
    if parsed.markdown:
        write_section(parsed.markdown, text)
    return 1 if parsed.check and not all_met else 0


if __name__ == "__main__":
    sys.exit(main())
