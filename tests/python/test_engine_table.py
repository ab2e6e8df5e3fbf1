# SPDX-License-Identifier: MIT
"""What benchmarks/engine_table.py makes of measurements; CTest runs it on the program itself."""

from __future__ import annotations

import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "benchmarks"))

import engine_table  # noqa: E402

SMALL, LONG = engine_table.SIZES[0], engine_table.SIZES[4]


def round_of(times, size=SMALL, values=7.0):
    """A round from microseconds by form, elapsed time twice the processor's."""
    counters = dict.fromkeys(engine_table.COUNTERS, 1.0)
    counters.update(trials=float(size.trials), sum_of_values=values)
    names = {form: size.prefix + form for form in times}
    return {
        names[form]: engine_table.Run(names[form], cpu, 2.0 * cpu, counters)
        for form, cpu in times.items()
    }


def forms(plain, one, two):
    return {engine_table.PLAIN: plain, engine_table.ONE: one, engine_table.TWO: two}


def test_ratios_are_medians_of_the_rounds_in_which_both_ran():
    rounds = [
        round_of(forms(plain=800_000.0, one=100_000.0, two=100_000.0)),
        round_of(forms(plain=900_000.0, one=300_000.0, two=300_000.0)),
        round_of(forms(plain=500_000.0, one=100_000.0, two=50_000.0)),
        round_of({engine_table.ONE: 20_000.0, engine_table.TWO: 20_000.0}),
    ]
    (_, row), all_met = engine_table.search_table(rounds, [SMALL])
    assert row == "2|10,000|80.0|10.0|5.0x|4x|15.0|1.0x|1x|3 / 4".split("|")
    assert all_met


@pytest.mark.parametrize(
    "times, cells",
    [
        (forms(plain=12.0, one=1.0, two=0.625), ["12.0x", "1.6x"]),
        (forms(plain=11.9, one=1.0, two=0.5), ["11.9x (missed)", "2.0x"]),
        (forms(plain=13.0, one=1.0, two=1.0), ["13.0x", "1.0x (missed)"]),
    ],
)
def test_a_missed_goal_is_said(times, cells):
    (_, row), all_met = engine_table.search_table([round_of(times, LONG)], [LONG, SMALL])
    assert [row[4], row[7]] == cells
    assert all_met == ("missed" not in "".join(cells))


def test_searches_that_differ_are_found():
    same = round_of(forms(3.0, 2.0, 1.0))
    assert engine_table.differences([same, same], [SMALL, LONG]) == []
    other = round_of({engine_table.TWO: 1.0}, values=7.0 + 1e-15)
    assert engine_table.differences([same, other], [SMALL]) == [SMALL.prefix + engine_table.TWO]
    # The prefix of another size must not match.
    assert not "search/N:2/trials:100000/plain".startswith(SMALL.prefix)
