# SPDX-License-Identifier: MIT
"""The calibrated example: the rate laws of an enzyme, fitted to published measurements.

``python -m Quenloft demo`` runs it. The functions can be used on their own, as a small real
problem with a known answer.

The measurements are Treloar's (1974; printed in D. M. Bates, D. G. Watts, "Nonlinear Regression
Analysis and Its Applications", 1988, appendix A1.3): initial rates of an enzymatic reaction in
cells treated with Puromycin, two at each of six concentrations of the substrate.
"""

from __future__ import annotations

import math
from typing import Callable, Sequence

from ._minimize import minimize
from ._result import OptimizeResult

#: Concentration of the substrate, ppm.
CONCENTRATIONS = (0.02, 0.02, 0.06, 0.06, 0.11, 0.11, 0.22, 0.22, 0.56, 0.56, 1.10, 1.10)
#: Measured rates, counts/min/min.
RATES = (76.0, 47.0, 97.0, 107.0, 123.0, 139.0, 159.0, 152.0, 191.0, 201.0, 207.0, 200.0)

#: The maximal rate, and the concentration that sets the scale (Km), whose range spans decades.
BOUNDS = ((50.0, 500.0), (0.005, 1.0, "log"))
NAMES = ("Vmax", "Km")

#: The published least-squares solution of the Michaelis-Menten law.
PUBLISHED = {"Vmax": 212.68, "Km": 0.06412, "sum of squares": 1195.45}

#: Slope of the curve at zero concentration that `slope_excess` allows, counts/min/min per ppm. The
#: least-squares solution has 3317.
SLOPE_LIMIT = 3000.0


def _michaelis_menten(c: float, k: float) -> float:
    return c / (k + c)


def _hill(c: float, k: float) -> float:
    return c * c / (k * k + c * c)


def _exponential(c: float, k: float) -> float:
    return 1.0 - math.exp(-c / k)


def _square_roots(c: float, k: float) -> float:
    return math.sqrt(c) / (math.sqrt(k) + math.sqrt(c))


#: Share of the maximal rate that is reached at concentration c, by the name of the law.
RATE_LAWS: dict[str, Callable[[float, float], float]] = {
    "Michaelis-Menten": _michaelis_menten,
    "Hill, exponent 2": _hill,
    "saturating exponential": _exponential,
    "square roots": _square_roots,
}


def sum_of_squares(x: Sequence[float], law: str = "Michaelis-Menten") -> float:
    """Residual sum of squares of a rate law.

    Parameters
    ----------
    x : sequence of float
        Maximal rate (counts/min/min) and scale (ppm).
    law : str
        A key of `RATE_LAWS`.
    """
    vmax, k = x
    share = RATE_LAWS[law]
    return sum((vmax * share(c, k) - rate) ** 2 for c, rate in zip(CONCENTRATIONS, RATES))


def sum_of_squares_of_law(x: Sequence[float], choices: Sequence[str]) -> float:
    """The same with the law as the only categorical variable."""
    return sum_of_squares(x, choices[0])


def slope_excess(x: Sequence[float]) -> float:
    """Slope at zero concentration minus `SLOPE_LIMIT`: a constraint."""
    return x[0] / x[1] - SLOPE_LIMIT


def calibrate(maxfun: int = 1000) -> OptimizeResult:
    """Fit the Michaelis-Menten law."""
    return minimize(sum_of_squares, BOUNDS, names=NAMES, maxfun=maxfun)


def choose_law(maxfun: int = 1000) -> OptimizeResult:
    """Choose the law together with its parameters."""
    return minimize(
        sum_of_squares_of_law,
        BOUNDS,
        names=(*NAMES, "law"),
        categories=[tuple(RATE_LAWS)],
        maxfun=maxfun,
    )


def calibrate_limited(maxfun: int = 1000) -> OptimizeResult:
    """Fit the Michaelis-Menten law under the constraint `slope_excess`."""
    return minimize(
        sum_of_squares,
        BOUNDS,
        names=NAMES,
        constraints=slope_excess,
        maxfun=maxfun,
    )


def agrees(result: OptimizeResult) -> bool:
    """Whether a calibration reached the published sum of squares, within 0.1 %."""
    published = PUBLISHED["sum of squares"]
    return bool(abs(result.fun - published) <= 0.001 * published)
