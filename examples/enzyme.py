# SPDX-License-Identifier: MIT
"""Calibrates models of an enzyme to measured reaction rates.

The measurements are Treloar's (1974; Bates and Watts, "Nonlinear Regression Analysis",
1988, appendix 1.3): initial rates of an enzymatic reaction in cells treated with
Puromycin, two at each of six concentrations of the substrate. Three questions are asked
of them:

1. Which Vmax and Km of the Michaelis-Menten law fit best? The answer is published, and
   the program fails when it does not come within 0.1 % of the published sum of squares.
2. Which of four rate laws fits best? The law is a categorical variable, searched
   together with the two parameters.
3. What if an independent assay limits the slope of the curve at small concentrations?
   The limit is a constraint.
"""

import argparse
import math
import sys
from typing import Sequence, Tuple

import Quenloft

CONCENTRATIONS = (0.02, 0.02, 0.06, 0.06, 0.11, 0.11, 0.22, 0.22, 0.56, 0.56, 1.10, 1.10)  # ppm
RATES = (76, 47, 97, 107, 123, 139, 159, 152, 191, 201, 207, 200)  # counts/min/min

# Lower and upper bound of the maximal rate and of the concentration that sets the scale.
BOUNDS = (50.0, 500.0, 0.005, 1.0)

PUBLISHED_VMAX, PUBLISHED_KM, PUBLISHED_SUM = 212.68, 0.06412, 1195.45

# Steps around the best point for each step over the whole box. With so few evaluations and
# so smooth a sum of squares, most of them go into the best region.
LOCAL_STEPS_PER_GLOBAL = 3.0

# The largest slope at zero concentration that part 3 allows, in counts/min/min per ppm.
# The best Michaelis-Menten curve has 3,317.
SLOPE_LIMIT = 3000.0


def michaelis_menten(c: float, k: float) -> float:
    return c / (k + c)


def hill_exponent_2(c: float, k: float) -> float:
    return c * c / (k * k + c * c)


def saturating_exponential(c: float, k: float) -> float:
    return 1.0 - math.exp(-c / k)


def square_root_law(c: float, k: float) -> float:
    return math.sqrt(c) / (math.sqrt(k) + math.sqrt(c))


# Each gives the share of the maximal rate that is reached at concentration c.
RATE_LAWS = (
    ("Michaelis-Menten", michaelis_menten),
    ("Hill, exponent 2", hill_exponent_2),
    ("saturating exponential", saturating_exponential),
    ("with square roots", square_root_law),
)


def sum_of_squares(parameters: Sequence[float], law: int = 0) -> float:
    """The sum of squared residuals of a law, by its position in RATE_LAWS."""
    vmax, k = parameters
    saturation = RATE_LAWS[law][1]
    return sum((vmax * saturation(c, k) - rate) ** 2 for c, rate in zip(CONCENTRATIONS, RATES))


def repeat_variance() -> float:
    """The variance of a single rate, from the pairs measured at the same concentration."""
    pairs = list(zip(RATES[0::2], RATES[1::2]))
    return sum((first - second) ** 2 / 2.0 for first, second in pairs) / len(pairs)


def fit_michaelis_menten(evaluations: int) -> bool:
    problem = Quenloft.Problem(bounds=BOUNDS, target=sum_of_squares)
    result = problem.Minimize(local_vs_global=LOCAL_STEPS_PER_GLOBAL, stop_tests=evaluations)
    best = result.minimum
    vmax, km = best.coordinate
    print("1. Michaelis-Menten law: rate = Vmax c / (Km + c)")
    print("                                found  published")
    print(f"   maximal rate Vmax         {vmax:8.2f}   {PUBLISHED_VMAX:8.2f}")
    print(f"   half-saturation Km        {km:8.5f}   {PUBLISHED_KM:8.5f}")
    print(f"   sum of squared residuals  {best.value:8.2f}   {PUBLISHED_SUM:8.2f}")
    close: bool = abs(best.value - PUBLISHED_SUM) <= 0.001 * PUBLISHED_SUM
    if close:
        print(f"   The sums agree within 0.1 % ({result.tests} evaluations).")
    else:
        print(f"   FAILED: the sums differ by more than 0.1 % ({result.tests} evaluations).")
    return close


def choose_rate_law(evaluations: int) -> bool:
    lowest = [math.inf] * len(RATE_LAWS)

    def target(parameters: Tuple[float, ...], choice: Tuple[int, ...]) -> float:
        value = sum_of_squares(parameters, choice[0])
        lowest[choice[0]] = min(lowest[choice[0]], value)
        return value

    problem = Quenloft.Problem(bounds=BOUNDS, categorical=[len(RATE_LAWS)], target=target)
    result = problem.Minimize(
        local_vs_global=LOCAL_STEPS_PER_GLOBAL, stop_tests=evaluations * len(RATE_LAWS)
    )
    best = result.minimum
    print("2. Which rate law fits best? (sum of squared residuals that the search reached)")
    for position, (name, _) in enumerate(RATE_LAWS):
        mark = "  <- best" if position == best.categorical[0] else ""
        print(f"   {name:24s}  {lowest[position]:8.2f}{mark}")
    vmax, k = best.coordinate
    print(f"   Its maximal rate is {vmax:.1f}, its scale K {k:.3f} ppm.")
    print(
        f"   The variance between repeated measurements is {repeat_variance():.0f}: laws whose sums"
    )
    print("   differ by much less than that cannot be told apart by these data.")
    return best.value <= 1.001 * PUBLISHED_SUM


def fit_with_limited_slope(evaluations: int) -> bool:
    def slope_excess(parameters: Tuple[float, ...]) -> float:
        vmax, km = parameters
        return vmax / km - SLOPE_LIMIT

    problem = Quenloft.Problem(bounds=BOUNDS, constraints=[slope_excess], target=sum_of_squares)
    result = problem.Minimize(local_vs_global=LOCAL_STEPS_PER_GLOBAL, stop_tests=evaluations)
    best = result.minimum
    vmax, km = best.coordinate
    print(f"3. Michaelis-Menten law with a slope Vmax / Km of at most {SLOPE_LIMIT:.0f} per ppm")
    print(f"   Vmax {vmax:.2f}, Km {km:.5f}, slope {vmax / km:.0f}")
    print(f"   The sum of squared residuals rises to {best.value:.2f}.")
    # The constraint is number 0; index 1 says that it holds and the target was reached.
    return best.index == 1 and best.value > PUBLISHED_SUM


def main() -> int:
    parser = argparse.ArgumentParser(description="Calibrates models of an enzyme.")
    parser.add_argument(
        "--evaluations",
        type=int,
        default=1000,
        help="evaluations of a search, for each rate law (default 1000)",
    )
    evaluations = parser.parse_args().evaluations
    print("Rates of an enzymatic reaction in Puromycin-treated cells, 12 measurements")
    print("(rates in counts/min/min, concentrations c in ppm)")
    print()
    successes = []
    for part in (fit_michaelis_menten, choose_rate_law, fit_with_limited_slope):
        successes.append(part(evaluations))
        print()
    return 0 if all(successes) else 1


if __name__ == "__main__":
    sys.exit(main())
