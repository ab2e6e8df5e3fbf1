# SPDX-License-Identifier: MIT
"""Calibrations of reaction kinetics: differential equations fitted to measured concentrations."""

from __future__ import annotations

from typing import Callable, Sequence

from .problem import Point, Problem, crop, guarded

INSTANCES = (1, 2)

Rates = Callable[[Sequence[float]], list[float]]


def integrate(
    rates: Rates, start: Sequence[float], times: Sequence[float], longest_step: float
) -> list[list[float]]:
    """The states at increasing times after 0, by the classical Runge-Kutta method of order 4."""
    state, now, states = list(start), 0.0, []
    for time in times:
        steps = int((time - now) / longest_step) + 1
        h = (time - now) / steps
        for _ in range(steps):
            a = rates(state)
            b = rates([y + 0.5 * h * r for y, r in zip(state, a)])
            c = rates([y + 0.5 * h * r for y, r in zip(state, b)])
            d = rates([y + h * r for y, r in zip(state, c)])
            state = [
                y + h / 6.0 * (ra + 2.0 * rb + 2.0 * rc + rd)
                for y, ra, rb, rc, rd in zip(state, a, b, c, d)
            ]
        states.append(state)
        now = time
    return states


# Thermal isomerisation of alpha-pinene (Fuguitt and Hawkins 1947; Box, Hunter, MacGregor and
# Erjavec 1973): minutes, and per cent of alpha-pinene, dipentene, allo-ocimene, pyronene, dimer.
_PINENE = (
    (1230.0, (88.35, 7.3, 2.3, 0.4, 1.75)),
    (3060.0, (76.4, 15.6, 4.5, 0.7, 2.8)),
    (4920.0, (65.1, 23.1, 5.3, 1.1, 5.8)),
    (7800.0, (50.4, 32.9, 6.0, 1.5, 9.3)),
    (10680.0, (37.5, 42.7, 6.0, 1.9, 12.0)),
    (15030.0, (25.9, 49.1, 5.9, 2.2, 17.0)),
    (22620.0, (14.0, 57.4, 5.1, 2.6, 21.0)),
    (36420.0, (4.5, 63.1, 3.8, 2.9, 25.7)),
)


def pinene(k: Point) -> float:
    """Sum of squares of the isomerisation; five rate constants in 1e-5 per minute."""
    k1, k2, k3, k4, k5 = (1e-5 * value for value in k)

    def rates(y: Sequence[float]) -> list[float]:
        back = k4 * y[2] - k5 * y[4]
        gone = k3 * y[2]
        return [-(k1 + k2) * y[0], k1 * y[0], k2 * y[0] - gone - back, gone, back]

    states = integrate(rates, (100.0, 0.0, 0.0, 0.0, 0.0), [t for t, _ in _PINENE], 600.0)
    return sum((a - b) ** 2 for state, (_, row) in zip(states, _PINENE) for a, b in zip(state, row))


_MINUTES = (1.0, 2.0, 3.0, 4.5, 6.0, 8.0, 10.0, 13.0, 17.0, 22.0)

# Made-up progress curves of an enzyme that its product inhibits: minutes, and substrate (mmol/l)
# from 10 and from 3 at the start. One curve alone does not determine the three parameters.
_SUBSTRATE = {
    10.0: (8.83, 7.79, 6.88, 5.52, 4.49, 3.23, 2.42, 1.44, 0.74, 0.26),
    3.0: (2.33, 1.76, 1.31, 0.86, 0.5, 0.27, 0.17, 0.06, 0.0, 0.07),
}


def enzyme(p: Point) -> float:
    """Sum of squares of the curves; limiting rate, Michaelis constant, inhibition constant."""
    rate, michaelis, inhibition = p
    total = 0.0
    for start, curve in _SUBSTRATE.items():

        def rates(y: Sequence[float], start: float = start) -> list[float]:
            inhibited = michaelis * (1.0 + (start - y[0]) / inhibition)
            return [-rate * y[0] / (inhibited + y[0])]

        states = integrate(rates, (start,), _MINUTES, 0.5)
        total += sum((state[0] - s) ** 2 for state, s in zip(states, curve))
    return total


_PINENE_BEST = (5.925848998, 2.963402490, 2.047282213, 27.446734507, 3.997941560)
_ENZYME_BEST = (1.575458277, 3.195927372, 6.031382810)

# The minimum published for the isomerisation is 19.872 (Dolan, More and Munson 2004).
_CALIBRATIONS = (
    (pinene, ((0.5, 20.0), (0.5, 12.0), (0.5, 10.0), (2.0, 90.0), (0.5, 16.0)), _PINENE_BEST),
    (enzyme, ((0.3, 5.0), (1.0, 12.0), (0.5, 40.0)), _ENZYME_BEST),
)


def problems(instances: Sequence[int] = INSTANCES) -> list[Problem]:
    """Both calibrations in their random boxes."""
    return [
        Problem(
            name=f"{objective.__name__}/{instance}",
            kind="kinetics",
            instance=instance,
            bounds=crop(bounds, minimizer, f"{objective.__name__}/{instance}"),
            objective=guarded(objective),
            f_star=objective(minimizer),
            minimizer=minimizer,
        )
        for objective, bounds, minimizer in _CALIBRATIONS
        for instance in instances
    ]
