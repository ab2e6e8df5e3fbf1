# SPDX-License-Identifier: MIT
"""Designs the lightest tension/compression spring that bears its load.

A classical problem of engineering design (A. D. Belegundu, 1982; J. S. Arora, "Introduction to
Optimum Design", 1989): choose the diameter d of the wire, the mean diameter D of the coil and the
number N of active coils, so that the weight (N + 2) D d^2 is least and four constraints hold,
on deflection, shear stress, surge frequency and outer diameter. At the optimum two of
them are active, and the feasible set around it is a sliver.

The lightest design known weighs 0.012665. The program searches the whole box once, and
fails when it does not come within 0.1 %.
"""

import argparse
import sys
from typing import List, Tuple

import Quenloft

PUBLISHED_WEIGHT = 0.012665
PUBLISHED_DESIGN = (0.05169, 0.35675, 11.2871)

Design = Tuple[float, ...]
Range = Tuple[float, float]

BOX: List[Range] = [(0.05, 2.0), (0.25, 1.3), (2.0, 15.0)]


def weight(x: Design) -> float:
    d, coil, n = x
    return (n + 2.0) * coil * d * d


def deflection(x: Design) -> float:
    d, coil, n = x
    return 1.0 - coil**3 * n / (71785.0 * d**4)


def shear_stress(x: Design) -> float:
    d, coil, _ = x
    curvature = (4.0 * coil**2 - d * coil) / (12566.0 * (coil * d**3 - d**4))
    return curvature + 1.0 / (5108.0 * d**2) - 1.0


def surge_frequency(x: Design) -> float:
    d, coil, n = x
    return 1.0 - 140.45 * d / (coil**2 * n)


def outer_diameter(x: Design) -> float:
    d, coil, _ = x
    return (d + coil) / 1.5 - 1.0


# The cheap and the least often violated ones first: a violated constraint ends the evaluation.
CONSTRAINTS = [outer_diameter, surge_frequency, deflection, shear_stress]


def main() -> int:
    parser = argparse.ArgumentParser(description="Designs a spring.")
    parser.add_argument(
        "--evaluations", type=int, default=600, help="designs tried (default %(default)s)"
    )
    best = Quenloft.minimize(
        weight,
        [(lower, upper, "log") for lower, upper in BOX],
        names=("d", "D", "N"),
        constraints=CONSTRAINTS,
        maxfun=parser.parse_args().evaluations,
    )
    print(f"Tension/compression spring, {best.nit} designs")
    print("                              found   published")
    print(f"  weight                {best.fun:11.6f} {PUBLISHED_WEIGHT:11.6f}")
    labels = ("wire diameter d", "coil diameter D", "active coils N")
    for label, found, published in zip(labels, best.x, PUBLISHED_DESIGN):
        print(f"  {label:<21} {found:11.5f} {published:11.5f}")
    print("  constraints (<= 0)    " + " ".join(f"{value:.1e}" for value in best.constraints))
    if best.success and abs(best.fun - PUBLISHED_WEIGHT) <= 0.001 * PUBLISHED_WEIGHT:
        return 0
    print("  FAILED: the published weight was not reached within 0.1 %.")
    return 1


if __name__ == "__main__":
    sys.exit(main())
