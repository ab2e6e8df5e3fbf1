# SPDX-License-Identifier: MIT
"""Designs the lightest tension/compression spring that bears its load.

A classical problem of engineering design (A. D. Belegundu, 1982; J. S. Arora, "Introduction to
Optimum Design", 1989): choose the diameter d of the wire, the mean diameter D of the coil and the
number N of active coils, so that the weight (N + 2) D d^2 is least and four constraints hold,
on deflection, shear stress, surge frequency and outer diameter. At the optimum two of
them are active, and the feasible set around it is a sliver.

The lightest design known weighs 0.012665. The program searches the whole box once, weight and
constraints together as a simulation would give them, and fails when it does not come within 0.01 %.
"""

import argparse
import sys
from typing import List, Tuple

import Quenloft

PUBLISHED_WEIGHT = 0.0126652
PUBLISHED_DESIGN = (0.051689, 0.356718, 11.28897)

Design = Tuple[float, ...]

BOX = [(0.05, 2.0), (0.25, 1.3), (2.0, 15.0)]


def spring(x: Design) -> Tuple[float, List[float]]:
    """Weight; excess of deflection, shear stress, surge frequency and outer diameter."""
    d, coil, n = x
    curvature = (4.0 * coil**2 - d * coil) / (12566.0 * (coil * d**3 - d**4))
    return (n + 2.0) * coil * d * d, [
        1.0 - coil**3 * n / (71785.0 * d**4),
        curvature + 1.0 / (5108.0 * d**2) - 1.0,
        1.0 - 140.45 * d / (coil**2 * n),
        (d + coil) / 1.5 - 1.0,
    ]


def main() -> int:
    parser = argparse.ArgumentParser(description="Designs a spring.")
    parser.add_argument(
        "--evaluations", type=int, default=200, help="designs tried (default %(default)s)"
    )
    best = Quenloft.minimize(
        spring,
        BOX,
        names=("d", "D", "N"),
        constraints=4,
        maxfun=parser.parse_args().evaluations,
    )
    print(f"Tension/compression spring, {best.nit} designs")
    print("                              found   published")
    print(f"  weight                {best.fun:11.7f} {PUBLISHED_WEIGHT:11.7f}")
    labels = ("wire diameter d", "coil diameter D", "active coils N")
    for label, found, published in zip(labels, best.x, PUBLISHED_DESIGN):
        print(f"  {label:<21} {found:11.6f} {published:11.6f}")
    print("  constraints (<= 0)    " + " ".join(f"{value:.1e}" for value in best.constraints))
    if best.success and abs(best.fun - PUBLISHED_WEIGHT) <= 1e-4 * PUBLISHED_WEIGHT:
        return 0
    print("  FAILED: the published weight was not reached within 0.01 %.")
    return 1


if __name__ == "__main__":
    sys.exit(main())
