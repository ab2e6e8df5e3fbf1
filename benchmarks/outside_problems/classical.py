# SPDX-License-Identifier: MIT
"""Classical test functions of global optimisation, in random parts of their usual boxes.

Formulas and boxes are those of the usual collections (Dixon and Szego 1978; More, Garbow and
Hillstrom 1981; Torn and Zilinskas 1989; Ali, Khompatraporn and Zabinsky 2005; Jamil and Yang
2013), written with the standard library alone. Functions of any number of variables appear in
several dimensions.
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from math import cos, exp, pi, sin, sqrt
from typing import Callable, Sequence

from .problem import Point, Problem, crop

#: Random boxes for each function and dimension.
INSTANCES = (1, 2)


@dataclass(frozen=True)
class Classic:
    """A function, its usual box and one of its global minimizers."""

    function: Callable[[Point], float]
    bounds: tuple[tuple[float, float], ...]
    minimizer: tuple[float, ...]
    name: str
    #: Not differentiable on sets that the search crosses: moduli, maxima, rounded values.
    kinks: bool = False


CLASSICS: dict[str, Classic] = {}

Pairs = Sequence[tuple[float, float]]
Function = Callable[[Point], float]
Decorator = Callable[[Function], Function]


def _fixed(bounds: Pairs, minimizer: Sequence[float], kinks: bool = False) -> Decorator:
    """Registers a function of a fixed number of variables under its own name."""

    def register(function: Function) -> Function:
        name = function.__name__.replace("_", "-")
        CLASSICS[name] = Classic(function, tuple(bounds), tuple(minimizer), name, kinks)
        return function

    return register


def _scalable(
    lower: float,
    upper: float,
    minimizer: Callable[[int], Sequence[float]],
    *dimensions: int,
    kinks: bool = False,
) -> Decorator:
    """Registers a function of any number of variables in some dimensions."""

    def register(function: Function) -> Function:
        for n in dimensions:
            name = f"{function.__name__.replace('_', '-')}-{n}D"
            box = ((lower, upper),) * n
            CLASSICS[name] = Classic(function, box, tuple(minimizer(n)), name, kinks)
        return function

    return register


def _all(value: float) -> Callable[[int], list[float]]:
    return lambda n: [value] * n


# ---- One variable


@_fixed([(0.0, 1.0)], [0.757248757841856])
def forrester(x: Point) -> float:
    return (6.0 * x[0] - 2.0) ** 2 * sin(12.0 * x[0] - 4.0)


@_fixed([(0.51, 2.5)], [0.548563444114526])
def gramacy_lee(x: Point) -> float:
    return sin(10.0 * pi * x[0]) / (2.0 * x[0]) + (x[0] - 1.0) ** 4


@_fixed([(2.7, 7.5)], [5.145735285])
def two_sines(x: Point) -> float:
    return sin(x[0]) + sin(10.0 * x[0] / 3.0)


@_fixed([(0.0, 1.2)], [0.96608580])
def growing_sine(x: Point) -> float:
    return -(1.4 - 3.0 * x[0]) * sin(18.0 * x[0])


@_fixed([(-5.0, 5.0)], [1.0 + sqrt(2.0)])
def rational(x: Point) -> float:
    return (x[0] * x[0] - 5.0 * x[0] + 6.0) / (x[0] * x[0] + 1.0)


@_fixed([(-10.0, 10.0)], [-1.4251284288])
def shubert_sum(x: Point) -> float:
    return sum(k * cos((k + 1) * x[0] + k) for k in range(1, 6))


# ---- Two variables


@_fixed([(-5.0, 10.0), (0.0, 15.0)], [pi, 2.275])
def branin(x: Point) -> float:
    a = x[1] - 5.1 / (4.0 * pi**2) * x[0] ** 2 + 5.0 / pi * x[0] - 6.0
    return a * a + 10.0 * (1.0 - 1.0 / (8.0 * pi)) * cos(x[0]) + 10.0


@_fixed([(-2.0, 2.0), (-2.0, 2.0)], [0.0, -1.0])
def goldstein_price(x: Point) -> float:
    u, v = x
    a = 19.0 - 14.0 * u + 3.0 * u * u - 14.0 * v + 6.0 * u * v + 3.0 * v * v
    b = 18.0 - 32.0 * u + 12.0 * u * u + 48.0 * v - 36.0 * u * v + 27.0 * v * v
    return (1.0 + (u + v + 1.0) ** 2 * a) * (30.0 + (2.0 * u - 3.0 * v) ** 2 * b)


@_fixed([(-3.0, 3.0), (-2.0, 2.0)], [0.0898420131, -0.7126564030])
def six_hump_camel(x: Point) -> float:
    u, v = x[0] ** 2, x[1] ** 2
    return (4.0 - 2.1 * u + u * u / 3.0) * u + x[0] * x[1] + (4.0 * v - 4.0) * v


@_fixed([(-5.0, 5.0), (-5.0, 5.0)], [0.0, 0.0])
def three_hump_camel(x: Point) -> float:
    u = x[0] ** 2
    return 2.0 * u - 1.05 * u * u + u**3 / 6.0 + x[0] * x[1] + x[1] ** 2


@_fixed([(-2.0, 8.0), (-2.0, 8.0)], [pi, pi])
def easom(x: Point) -> float:
    return -cos(x[0]) * cos(x[1]) * exp(-((x[0] - pi) ** 2) - (x[1] - pi) ** 2)


@_fixed([(-4.5, 4.5), (-4.5, 4.5)], [3.0, 0.5])
def beale(x: Point) -> float:
    u, v = x
    total: float = sum((c - u * (1.0 - v**k)) ** 2 for k, c in enumerate((1.5, 2.25, 2.625), 1))
    return total


@_fixed([(-10.0, 10.0), (-10.0, 10.0)], [1.0, 3.0])
def booth(x: Point) -> float:
    return (x[0] + 2.0 * x[1] - 7.0) ** 2 + (2.0 * x[0] + x[1] - 5.0) ** 2


@_fixed([(-10.0, 10.0), (-10.0, 10.0)], [0.0, 0.0])
def matyas(x: Point) -> float:
    return 0.26 * (x[0] ** 2 + x[1] ** 2) - 0.48 * x[0] * x[1]


@_fixed([(-15.0, -5.0), (-3.0, 3.0)], [-10.0, 1.0], kinks=True)
def bukin_6(x: Point) -> float:
    return 100.0 * sqrt(abs(x[1] - 0.01 * x[0] ** 2)) + 0.01 * abs(x[0] + 10.0)


@_fixed([(-10.0, 10.0), (-10.0, 10.0)], [1.3494066, 1.3494066], kinks=True)
def cross_in_tray(x: Point) -> float:
    a = abs(sin(x[0]) * sin(x[1]) * exp(abs(100.0 - math.hypot(*x) / pi)))
    return -0.0001 * math.pow(a + 1.0, 0.1)


@_fixed([(-5.12, 5.12), (-5.12, 5.12)], [0.0, 0.0])
def drop_wave(x: Point) -> float:
    a = x[0] ** 2 + x[1] ** 2
    return -(1.0 + cos(12.0 * sqrt(a))) / (0.5 * a + 2.0)


@_fixed([(-512.0, 560.0), (-512.0, 512.0)], [522.1605288, 413.3157979], kinks=True)
def egg_holder(x: Point) -> float:
    a = x[1] + 47.0
    return -a * sin(sqrt(abs(a + 0.5 * x[0]))) - x[0] * sin(sqrt(abs(x[0] - a)))


@_fixed([(-10.0, 10.0), (-10.0, 10.0)], [8.05502347, 9.66459002], kinks=True)
def holder_table(x: Point) -> float:
    return -abs(sin(x[0]) * cos(x[1]) * exp(abs(1.0 - math.hypot(*x) / pi)))


@_fixed([(-10.0, 10.0), (-10.0, 10.0)], [1.0, 1.0])
def levy_13(x: Point) -> float:
    u, v = x
    a = sin(3.0 * pi * u) ** 2 + (u - 1.0) ** 2 * (1.0 + sin(3.0 * pi * v) ** 2)
    return a + (v - 1.0) ** 2 * (1.0 + sin(2.0 * pi * v) ** 2)


@_fixed([(-20.0, 20.0), (-20.0, 20.0)], [0.0, 0.0])
def schaffer_2(x: Point) -> float:
    u, v = x[0] ** 2, x[1] ** 2
    return 0.5 + (sin(u - v) ** 2 - 0.5) / (1.0 + 0.001 * (u + v)) ** 2


@_fixed([(-10.0, 10.0), (-10.0, 10.0)], [-7.083506407, 4.858056879])
def shubert(x: Point) -> float:
    return math.prod(sum(k * cos((k + 1) * t + k) for k in range(1, 6)) for t in x)


@_fixed([(-1.5, 4.0), (-3.0, 4.0)], [0.5 - pi / 3.0, -0.5 - pi / 3.0])
def mccormick(x: Point) -> float:
    return sin(x[0] + x[1]) + (x[0] - x[1]) ** 2 - 1.5 * x[0] + 2.5 * x[1] + 1.0


@_fixed([(-2.0 * pi, 2.0 * pi), (-2.0 * pi, 2.0 * pi)], [4.7010431327, 3.1529385038])
def bird(x: Point) -> float:
    u, v = x
    a = sin(u) * exp((1.0 - cos(v)) ** 2) + cos(v) * exp((1.0 - sin(u)) ** 2)
    return a + (u - v) ** 2


@_fixed([(0.0, 10.0), (0.0, 10.0)], [4.0, 2.0])
def hosaki(x: Point) -> float:
    u, v = x
    a = 1.0 - 8.0 * u + 7.0 * u**2 - 7.0 / 3.0 * u**3 + 0.25 * u**4
    return a * v**2 * exp(-v)


@_fixed([(-50.0, 50.0), (-50.0, 50.0)], [0.0, 0.0])
def bohachevsky(x: Point) -> float:
    a = x[0] ** 2 + 2.0 * x[1] ** 2
    return a - 0.3 * cos(3.0 * pi * x[0]) - 0.4 * cos(4.0 * pi * x[1]) + 0.7


@_fixed([(-5.0, 5.0), (-5.0, 5.0)], [3.0, 2.0])
def himmelblau(x: Point) -> float:
    return (x[0] ** 2 + x[1] - 11.0) ** 2 + (x[0] + x[1] ** 2 - 7.0) ** 2


@_fixed([(-1.0, 1.0), (-1.0, 1.0)], [-0.02440307923, 0.21061242715])
def trefethen(x: Point) -> float:
    u, v = x
    a = exp(sin(50.0 * u)) + sin(60.0 * exp(v)) + sin(70.0 * sin(u)) + sin(sin(80.0 * v))
    return a - sin(10.0 * (u + v)) + 0.25 * (u * u + v * v)


@_fixed([(-3.0, 3.0), (-3.0, 3.0)], [0.228278922, -1.62553496])
def peaks(x: Point) -> float:
    u, v = x
    a = 3.0 * (1.0 - u) ** 2 * exp(-u * u - (v + 1.0) ** 2)
    b = 10.0 * (u / 5.0 - u**3 - v**5) * exp(-u * u - v * v)
    return a - b - exp(-((u + 1.0) ** 2) - v * v) / 3.0


@_fixed([(-1.0, 5.0), (-2.0, 4.0)], [-0.02989597760285287, 0.0])
def zettl(x: Point) -> float:
    return 0.25 * x[0] + (x[0] ** 2 - 2.0 * x[0] + x[1] ** 2) ** 2


@_fixed([(-10.0, 10.0), (-10.0, 10.0)], [0.0, 0.0])
def egg_crate(x: Point) -> float:
    return x[0] ** 2 + x[1] ** 2 + 25.0 * (sin(x[0]) ** 2 + sin(x[1]) ** 2)


# ---- Three and more


def _hartmann(alpha: Point, a: Sequence[Point], p: Sequence[Point], x: Point) -> float:
    return -sum(
        c * exp(-sum(w * (t - q) ** 2 for w, t, q in zip(weights, x, centre)))
        for c, weights, centre in zip(alpha, a, p)
    )


_ALPHA = (1.0, 1.2, 3.0, 3.2)
_A3 = ((3.0, 10.0, 30.0), (0.1, 10.0, 35.0), (3.0, 10.0, 30.0), (0.1, 10.0, 35.0))
_P3 = (
    (0.3689, 0.1170, 0.2673),
    (0.4699, 0.4387, 0.7470),
    (0.1091, 0.8732, 0.5547),
    (0.0381, 0.5743, 0.8828),
)
_A6 = (
    (10.0, 3.0, 17.0, 3.5, 1.7, 8.0),
    (0.05, 10.0, 17.0, 0.1, 8.0, 14.0),
    (3.0, 3.5, 1.7, 10.0, 17.0, 8.0),
    (17.0, 8.0, 0.05, 10.0, 0.1, 14.0),
)
_P6 = (
    (0.1312, 0.1696, 0.5569, 0.0124, 0.8283, 0.5886),
    (0.2329, 0.4135, 0.8307, 0.3736, 0.1004, 0.9991),
    (0.2348, 0.1451, 0.3522, 0.2883, 0.3047, 0.6650),
    (0.4047, 0.8828, 0.8732, 0.5743, 0.1091, 0.0381),
)


@_fixed([(0.0, 1.0)] * 3, [0.1145888793, 0.5556488953, 0.8525469855])
def hartmann_3(x: Point) -> float:
    return _hartmann(_ALPHA, _A3, _P3, x)


@_fixed(
    [(0.0, 1.0)] * 6,
    [0.2016895104, 0.1500106915, 0.4768739734, 0.2753324284, 0.3116516166, 0.6573005308],
)
def hartmann_6(x: Point) -> float:
    return _hartmann(_ALPHA, _A6, _P6, x)


@_fixed([(-5.0, 8.0)] * 3, [1.0, 0.0, 0.0], kinks=True)
def helical_valley(x: Point) -> float:
    theta = math.atan2(x[1], x[0]) / (2.0 * pi)
    return 100.0 * ((x[2] - 10.0 * theta) ** 2 + (math.hypot(x[0], x[1]) - 1.0) ** 2) + x[2] ** 2


@_fixed([(0.0, 2.5), (5.0, 15.0), (0.0, 2.5)], [1.0, 10.0, 1.0])
def box_exponentials(x: Point) -> float:
    return sum(
        (exp(-t * x[0]) - exp(-t * x[1]) - x[2] * (exp(-t) - exp(-10.0 * t))) ** 2
        for t in (0.1 * i for i in range(1, 11))
    )


@_fixed([(15.0, 100.0), (5.0, 40.0), (0.2, 5.0)], [50.0, 25.0, 1.5])
def gulf_research(x: Point) -> float:
    total = 0.0
    for i in range(1, 100):
        u = 25.0 + (-50.0 * math.log(0.01 * i)) ** (2.0 / 3.0)
        total += (exp(-(abs(u - x[1]) ** x[2]) / x[0]) - 0.01 * i) ** 2
    return total


_SHEKEL = (
    ((4.0, 4.0, 4.0, 4.0), 0.1),
    ((1.0, 1.0, 1.0, 1.0), 0.2),
    ((8.0, 8.0, 8.0, 8.0), 0.2),
    ((6.0, 6.0, 6.0, 6.0), 0.4),
    ((3.0, 7.0, 3.0, 7.0), 0.4),
    ((2.0, 9.0, 2.0, 9.0), 0.6),
    ((5.0, 5.0, 3.0, 3.0), 0.3),
    ((8.0, 1.0, 8.0, 1.0), 0.7),
    ((6.0, 2.0, 6.0, 2.0), 0.5),
    ((7.0, 3.6, 7.0, 3.6), 0.5),
)


def _shekel(terms: int, x: Point) -> float:
    return -sum(
        1.0 / (c + sum((t - a) ** 2 for t, a in zip(x, centre))) for centre, c in _SHEKEL[:terms]
    )


@_fixed([(0.0, 10.0)] * 4, [4.00003715, 4.00013327, 4.00003715, 4.00013327])
def shekel_5(x: Point) -> float:
    return _shekel(5, x)


@_fixed([(0.0, 10.0)] * 4, [4.00057291, 4.00068936, 3.99948971, 3.99960617])
def shekel_7(x: Point) -> float:
    return _shekel(7, x)


@_fixed([(0.0, 10.0)] * 4, [4.00074653, 4.00059293, 3.99966340, 3.99950980])
def shekel_10(x: Point) -> float:
    return _shekel(10, x)


@_fixed([(-10.0, 10.0)] * 4, [1.0] * 4)
def wood(x: Point) -> float:
    a, b, c, d = x
    curved = 100.0 * (b - a * a) ** 2 + 90.0 * (d - c * c) ** 2 + (1.0 - a) ** 2 + (1.0 - c) ** 2
    return curved + 10.1 * ((b - 1.0) ** 2 + (d - 1.0) ** 2) + 19.8 * (b - 1.0) * (d - 1.0)


@_fixed([(-2.0, 2.0)] * 4, [0.0, 1.0, 1.0, 1.0])
def miele_cantrell(x: Point) -> float:
    a, b, c, d = x
    first = (exp(a) - b) ** 4 + 100.0 * (b - c) ** 6
    return first + math.tan(c - d) ** 4 + a**8


@_fixed([(0.0, 4.0)] * 4, [1.0, 2.0, 2.0, 3.0])
def power_sums(x: Point) -> float:
    wanted = (8.0, 18.0, 44.0, 114.0)
    return sum((sum(t**k for t in x) - b) ** 2 for k, b in enumerate(wanted, 1))


@_fixed([(2.001, 9.999)] * 10, [9.350266] * 10)
def paviani(x: Point) -> float:
    logs = sum(math.log(t - 2.0) ** 2 + math.log(10.0 - t) ** 2 for t in x)
    return logs - math.prod(x) ** 0.2


# ---- Any number of variables


@_scalable(-5.12, 5.12, _all(0.0), 3, 8)
def sphere(x: Point) -> float:
    return sum(t * t for t in x)


@_scalable(-10.0, 10.0, _all(0.0), 4, 8)
def sum_of_squares(x: Point) -> float:
    return sum(k * t * t for k, t in enumerate(x, 1))


@_scalable(-10.0, 10.0, _all(0.0), 2, 6)
def rotated_ellipsoid(x: Point) -> float:
    return sum(sum(x[: k + 1]) ** 2 for k in range(len(x)))


@_scalable(-2.048, 2.048, _all(1.0), 2, 4, 8)
def rosenbrock(x: Point) -> float:
    return sum(100.0 * (v - u * u) ** 2 + (1.0 - u) ** 2 for u, v in zip(x, x[1:]))


@_scalable(-15.0, 30.0, _all(0.0), 2, 5, 10)
def ackley(x: Point) -> float:
    n = len(x)
    a = -0.2 * sqrt(sum(t * t for t in x) / n)
    b = sum(cos(2.0 * pi * t) for t in x) / n
    return 20.0 * (1.0 - exp(a)) + math.e - exp(b)


@_scalable(-5.12, 5.12, _all(0.0), 2, 4, 8)
def rastrigin(x: Point) -> float:
    return sum(t * t + 10.0 * (1.0 - cos(2.0 * pi * t)) for t in x)


@_scalable(-100.0, 100.0, _all(0.0), 2, 5)
def griewank(x: Point) -> float:
    product = math.prod(cos(t / sqrt(k)) for k, t in enumerate(x, 1))
    return sum(t * t for t in x) / 4000.0 + 1.0 - product


@_scalable(-10.0, 10.0, _all(1.0), 3, 6, 10)
def levy(x: Point) -> float:
    w = [1.0 + (t - 1.0) / 4.0 for t in x]
    middle = sum((t - 1.0) ** 2 * (1.0 + 10.0 * sin(pi * t + 1.0) ** 2) for t in w[:-1])
    last = (w[-1] - 1.0) ** 2 * (1.0 + sin(2.0 * pi * w[-1]) ** 2)
    return sin(pi * w[0]) ** 2 + middle + last


@_scalable(-500.0, 500.0, _all(420.968746), 2, 5)
def schwefel(x: Point) -> float:
    return -sum(t * sin(sqrt(abs(t))) for t in x)


@_scalable(-5.0, 5.0, _all(-2.903534027771177), 2, 5, 8)
def styblinski_tang(x: Point) -> float:
    return 0.5 * sum(t**4 - 16.0 * t * t + 5.0 * t for t in x)


_MICHALEWICZ = (2.2029055220, 1.5707963268, 1.2849915726, 1.9230584700, 1.7204697723)


@_scalable(0.0, pi, lambda n: _MICHALEWICZ[:n], 2, 5)
def michalewicz(x: Point) -> float:
    return -sum(sin(t) * sin(k * t * t / pi) ** 20 for k, t in enumerate(x, 1))


@_scalable(-10.0, 10.0, lambda n: [2.0 ** (2.0**-k - 1.0) for k in range(n)], 3, 7)
def dixon_price(x: Point) -> float:
    rest = sum(k * (2.0 * v * v - u) ** 2 for k, (u, v) in enumerate(zip(x, x[1:]), 2))
    return (x[0] - 1.0) ** 2 + rest


@_scalable(-36.0, 36.0, lambda n: [k * (n + 1.0 - k) for k in range(1, n + 1)], 3, 6)
def trid(x: Point) -> float:
    return sum((t - 1.0) ** 2 for t in x) - sum(u * v for u, v in zip(x, x[1:]))


@_scalable(-5.0, 10.0, _all(0.0), 2, 5, 10)
def zakharov(x: Point) -> float:
    a = sum(0.5 * k * t for k, t in enumerate(x, 1))
    return sum(t * t for t in x) + a * a + a**4


@_scalable(-4.0, 5.0, _all(0.0), 4, 8)
def powell_singular(x: Point) -> float:
    total = 0.0
    for i in range(0, len(x), 4):
        a, b, c, d = x[i : i + 4]
        total += (a + 10.0 * b) ** 2 + 5.0 * (c - d) ** 2
        total += (b - 2.0 * c) ** 4 + 10.0 * (a - d) ** 4
    return total


@_scalable(0.0, 10.0, _all(7.917052698), 2, 4)
def alpine_2(x: Point) -> float:
    return -math.prod(sqrt(t) * sin(t) for t in x)


@_scalable(-20.0, 20.0, _all(0.0), 2, 4)
def salomon(x: Point) -> float:
    a = sqrt(sum(t * t for t in x))
    return 1.0 - cos(2.0 * pi * a) + 0.1 * a


@_scalable(-1.0, 1.0, _all(0.0), 3, 7)
def cosine_mixture(x: Point) -> float:
    return sum(t * t - 0.1 * cos(5.0 * pi * t) for t in x)


@_scalable(0.0, 10.0, _all(5.0), 3)
def corrugated_spring(x: Point) -> float:
    a = sum((t - 5.0) ** 2 for t in x)
    return 0.1 * a - cos(5.0 * sqrt(a))


@_scalable(-4.0, 4.0, lambda n: [sqrt(k) for k in range(1, n + 1)], 3, 6)
def qing(x: Point) -> float:
    return sum((t * t - k) ** 2 for k, t in enumerate(x, 1))


@_scalable(0.0, 180.0, _all(120.0), 3)
def sinusoidal(x: Point) -> float:
    angles = [math.radians(t - 30.0) for t in x]
    once = math.prod(sin(t) for t in angles)
    return -(2.5 * once + math.prod(sin(5.0 * t) for t in angles))


@_scalable(-10.0, 10.0, _all(0.0), 2, 5, kinks=True)
def alpine_1(x: Point) -> float:
    return sum(abs(t * sin(t) + 0.1 * t) for t in x)


@_scalable(-10.0, 10.0, _all(0.0), 3, 6, kinks=True)
def schwefel_2_22(x: Point) -> float:
    moduli = [abs(t) for t in x]
    return sum(moduli) + math.prod(moduli)


@_scalable(-10.0, 10.0, _all(0.0), 2, 4, kinks=True)
def largest_modulus(x: Point) -> float:
    return max(abs(t) for t in x)


@_scalable(-100.0, 100.0, _all(0.0), 2, 5, kinks=True)
def rounded_squares(x: Point) -> float:
    return sum(math.floor(t + 0.5) ** 2 for t in x)


@_scalable(-5.0, 5.0, _all(1.0), 2, 4, kinks=True)
def moduli_of_differences(x: Point) -> float:
    return abs(x[0] - 1.0) + 10.0 * sum(abs(v - u) for u, v in zip(x, x[1:]))


def problems(instances: Sequence[int] = INSTANCES) -> list[Problem]:
    """Every classical function in its random boxes."""
    return [
        Problem(
            name=f"{classic.name}/{instance}",
            kind="classical, kinks" if classic.kinks else "classical",
            instance=instance,
            bounds=crop(classic.bounds, classic.minimizer, f"{classic.name}/{instance}"),
            objective=classic.function,
            f_star=classic.function(classic.minimizer),
            minimizer=classic.minimizer,
        )
        for classic in CLASSICS.values()
        for instance in instances
    ]
