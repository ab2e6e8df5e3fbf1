# SPDX-License-Identifier: MIT
"""Problems with categories: real variables and choices together."""

from __future__ import annotations

import math
from typing import Sequence

from . import classical
from .problem import Point, Problem, crop

INSTANCES = (1, 2)

Choices = tuple[str, ...]


def landscapes(x: Point, choices: Choices) -> float:
    """One of three functions of two variables on the unit square, brought to one scale."""
    u, v = x
    if choices[0] == "branin":
        return (classical.branin((15.0 * u - 5.0, 15.0 * v)) - 0.397887) / 50.0 + 0.03
    if choices[0] == "goldstein-price":
        return math.log(classical.goldstein_price((4.0 * u - 2.0, 4.0 * v - 2.0)) / 3.0) / 8.0
    return (classical.six_hump_camel((4.0 * u - 2.0, 2.0 * v - 1.0)) + 1.031628) / 4.0 + 0.05


# Density in kg/m3, price in 1/kg, Young's modulus in GPa, strength in MPa.
_MATERIALS = {
    "steel": (7850.0, 1.2, 210.0, 235.0),
    "aluminium": (2700.0, 3.1, 70.0, 160.0),
    "titanium": (4500.0, 19.0, 114.0, 830.0),
    "glass fibre": (1900.0, 4.4, 40.0, 300.0),
}


def cantilever(x: Point, choices: Choices) -> float:
    """Price of a cantilever of 2 m with 3 kN at its end: width, height, wall (all in mm).

    Stress above strength and a deflection above 10 mm are fined by their squares.
    """
    material, section = choices
    density, price, young, strength = _MATERIALS[material]
    width, height, wall = x
    inner = height - 2.0 * wall
    if section == "solid":
        area, inertia = width * height, width * height**3 / 12.0
    elif section == "box":
        hollow = width - 2.0 * wall
        area = width * height - hollow * inner
        inertia = (width * height**3 - hollow * inner**3) / 12.0
    else:
        hollow = width - wall
        area = width * height - hollow * inner
        inertia = (width * height**3 - hollow * inner**3) / 12.0
    force, length = 3000.0, 2000.0
    stress = force * length * height / (2.0 * inertia)
    deflection = force * length**3 / (3.0 * young * 1000.0 * inertia)
    fine = max(0.0, stress / strength - 1.0) ** 2 + max(0.0, deflection / 10.0 - 1.0) ** 2
    # A slender bar tilts; a thin wall buckles and is dear to make.
    fine += 0.02 * (height / (5.0 * width)) ** 4
    if section != "solid":
        fine += 0.02 * ((width / (30.0 * wall)) ** 4 + (height / (70.0 * wall)) ** 4)
    return price * density * area * length * 1e-9 + 50.0 * math.log1p(fine)


# Logarithms of frequency factors (per minute) and activation energies (kJ/mol) of the wanted
# reaction and of the one that follows it; what the catalyst costs.
_CATALYSTS = {
    "platinum": (18.1, 62.0, 24.6, 95.0, 0.07),
    "palladium": (17.0, 58.5, 22.9, 89.0, 0.05),
    "nickel": (19.9, 71.0, 23.4, 92.0, 0.012),
    "copper": (16.2, 60.0, 21.1, 84.0, 0.02),
}
_SOLVENTS = {"water": (0.0, 0.0), "ethanol": (0.45, 0.30), "toluene": (-0.35, -0.55)}


def reactor(x: Point, choices: Choices) -> float:
    """Loss of yield of an intermediate: kelvin, logarithm of minutes, load of catalyst."""
    catalyst, solvent = choices
    a1, e1, a2, e2, cost = _CATALYSTS[catalyst]
    s1, s2 = _SOLVENTS[solvent]
    temperature, log_time, load = x
    heat = 8.314e-3 * temperature
    k1 = math.exp(a1 + s1 - e1 / heat) * load
    k2 = math.exp(a2 + s2 - e2 / heat) * math.sqrt(load)
    time = math.exp(log_time)
    d = (k2 - k1) * time
    if abs(d) > 1e-6:
        amount = k1 * (math.exp(-k1 * time) - math.exp(-k2 * time)) / (k2 - k1)
    else:
        amount = k1 * time * math.exp(-k1 * time) * (1.0 - 0.5 * d)
    return 1.0 - amount + cost * load + 2e-4 * time + 2e-4 * (temperature - 300.0)


_MIXED = (
    (
        landscapes,
        ((0.0, 1.0), (0.0, 1.0)),
        (("branin", "goldstein-price", "camel"),),
        ((0.5, 0.25), ("goldstein-price",)),
    ),
    (
        cantilever,
        ((20.0, 160.0), (30.0, 260.0), (1.0, 9.0)),
        (tuple(_MATERIALS), ("solid", "box", "I")),
        ((50.194142506, 192.295111047, 2.461162168), ("steel", "I")),
    ),
    (
        reactor,
        ((300.0, 440.0), (0.0, 6.0), (0.2, 5.0)),
        (tuple(_CATALYSTS), tuple(_SOLVENTS)),
        ((347.723287960, 4.587937295, 0.704299918), ("palladium", "ethanol")),
    ),
)


def problems(instances: Sequence[int] = INSTANCES) -> list[Problem]:
    """The three problems in random parts of their boxes."""
    return [
        Problem(
            name=f"{objective.__name__}/{instance}",
            kind="mixed",
            instance=instance,
            bounds=crop(bounds, minimizer, f"{objective.__name__}/{instance}"),
            objective=objective,
            f_star=objective(minimizer, choices),
            minimizer=minimizer,
            best_choices=choices,
            categories=categories,
        )
        for objective, bounds, categories, (minimizer, choices) in _MIXED
        for instance in instances
    ]
