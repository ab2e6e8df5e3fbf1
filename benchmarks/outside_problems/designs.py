# SPDX-License-Identifier: MIT
"""Four engineering designs with constraints, in their usual boxes.

Each has an `objective` and `constraints`, which are divided by their limits: at most 0 where they
hold. The best known values are those of the literature (Coello Coello 2000 for the spring, the
beam and the vessel, whose thicknesses are continuous here; Golinski 1970 for the reducer, whose
number of teeth is continuous).
"""

from __future__ import annotations

from math import pi, sqrt

from .problem import Point, Problem


def spring_weight(x: Point) -> float:
    """Weight of a tension spring: wire diameter, coil diameter, number of active coils."""
    d, coil, turns = x
    return (turns + 2.0) * coil * d * d


def spring_constraints(x: Point) -> tuple[float, ...]:
    """Deflection, shear stress, surge frequency, outer diameter."""
    d, coil, turns = x
    shear = (4.0 * coil**2 - d * coil) / (12566.0 * (coil * d**3 - d**4)) + 1.0 / (5108.0 * d**2)
    return (
        1.0 - coil**3 * turns / (71785.0 * d**4),
        shear - 1.0,
        1.0 - 140.45 * d / (coil**2 * turns),
        (coil + d) / 1.5 - 1.0,
    )


def beam_cost(x: Point) -> float:
    """Cost of a welded beam: weld height and length, bar height and thickness."""
    h, length, t, b = x
    return 1.10471 * h * h * length + 0.04811 * t * b * (14.0 + length)


def beam_constraints(x: Point) -> tuple[float, ...]:
    """Shear stress, bending stress, weld against bar, deflection, buckling, weld height, cost."""
    h, length, t, b = x
    load, arm, young, shear_modulus = 6000.0, 14.0, 30e6, 12e6
    half_height = 0.5 * (h + t)
    radius = sqrt(0.25 * length**2 + half_height**2)
    inertia = 2.0 * sqrt(2.0) * h * length * (length**2 / 12.0 + half_height**2)
    primary = load / (sqrt(2.0) * h * length)
    secondary = load * (arm + 0.5 * length) * radius / inertia
    shear = sqrt(primary**2 + primary * secondary * length / radius + secondary**2)
    bending = 6.0 * load * arm / (b * t**2)
    deflection = 4.0 * load * arm**3 / (young * t**3 * b)
    slenderness = 1.0 - t / (2.0 * arm) * sqrt(young / (4.0 * shear_modulus))
    buckling = 4.013 * young * t * b**3 / (6.0 * arm**2) * slenderness
    return (
        shear / 13600.0 - 1.0,
        bending / 30000.0 - 1.0,
        (h - b) / 2.0,
        deflection / 0.25 - 1.0,
        1.0 - buckling / load,
        1.0 - h / 0.125,
        (0.10471 * h * h + 0.04811 * t * b * (14.0 + length)) / 5.0 - 1.0,
    )


def vessel_cost(x: Point) -> float:
    """Cost of a pressure vessel: thickness of shell and head, inner radius, length."""
    shell, head, radius, length = x
    material = 0.6224 * shell * radius * length + 1.7781 * head * radius**2
    return material + 3.1661 * shell**2 * length + 19.84 * shell**2 * radius


def vessel_constraints(x: Point) -> tuple[float, ...]:
    """Thickness of shell and head, volume, length."""
    shell, head, radius, length = x
    volume = pi * radius**2 * length + 4.0 / 3.0 * pi * radius**3
    return (
        0.0193 * radius - shell,
        0.00954 * radius - head,
        1.0 - volume / 1296000.0,
        length / 240.0 - 1.0,
    )


def reducer_weight(x: Point) -> float:
    """Weight of a speed reducer: face width, module, teeth, two shaft lengths and diameters."""
    b, m, z, l1, l2, d1, d2 = x
    gears = 0.7854 * b * m * m * (3.3333 * z * z + 14.9334 * z - 43.0934)
    shafts = 7.4777 * (d1**3 + d2**3) - 1.508 * b * (d1 * d1 + d2 * d2)
    return gears + shafts + 0.7854 * (l1 * d1 * d1 + l2 * d2 * d2)


def reducer_constraints(x: Point) -> tuple[float, ...]:
    """Bending and contact stress of teeth, deflection and stress of shafts, geometry."""
    b, m, z, l1, l2, d1, d2 = x
    return (
        27.0 / (b * m**2 * z) - 1.0,
        397.5 / (b * m**2 * z**2) - 1.0,
        1.93 * l1**3 / (m * z * d1**4) - 1.0,
        1.93 * l2**3 / (m * z * d2**4) - 1.0,
        sqrt((745.0 * l1 / (m * z)) ** 2 + 16.9e6) / (110.0 * d1**3) - 1.0,
        sqrt((745.0 * l2 / (m * z)) ** 2 + 157.5e6) / (85.0 * d2**3) - 1.0,
        m * z / 40.0 - 1.0,
        5.0 * m / b - 1.0,
        b / (12.0 * m) - 1.0,
        (1.5 * d1 + 1.9) / l1 - 1.0,
        (1.1 * d2 + 1.9) / l2 - 1.0,
    )


DESIGNS = {
    p.name: p
    for p in (
        Problem(
            name="tension-spring",
            kind="design",
            instance=1,
            bounds=((0.05, 2.0), (0.25, 1.3), (2.0, 15.0)),
            objective=spring_weight,
            f_star=0.012665232788,
            minimizer=(0.0516890614, 0.3567177469, 11.2889653382),
            constraints=spring_constraints,
        ),
        Problem(
            name="welded-beam",
            kind="design",
            instance=1,
            bounds=((0.1, 2.0), (0.1, 10.0), (0.1, 10.0), (0.1, 2.0)),
            objective=beam_cost,
            f_star=1.7248523086,
            minimizer=(0.2057296398, 3.4704886656, 9.0366239104, 0.2057296398),
            constraints=beam_constraints,
        ),
        Problem(
            name="pressure-vessel",
            kind="design",
            instance=1,
            bounds=((0.0625, 6.1875), (0.0625, 6.1875), (10.0, 200.0), (10.0, 200.0)),
            objective=vessel_cost,
            f_star=5885.332773616,
            minimizer=(0.7781686414, 0.3846491626, 40.3196187241, 200.0),
            constraints=vessel_constraints,
        ),
        Problem(
            name="speed-reducer",
            kind="design",
            instance=1,
            bounds=(
                (2.6, 3.6),
                (0.7, 0.8),
                (17.0, 28.0),
                (7.3, 8.3),
                (7.3, 8.3),
                (2.9, 3.9),
                (5.0, 5.5),
            ),
            objective=reducer_weight,
            f_star=2994.471066146820,
            minimizer=(3.5, 0.7, 17.0, 7.3, 7.7153199115, 3.3502146661, 5.2866544650),
            constraints=reducer_constraints,
        ),
    )
}


def problems() -> list[Problem]:
    """The four designs."""
    return list(DESIGNS.values())
