# SPDX-License-Identifier: MIT
"""Nonlinear regressions of NIST's Statistical Reference Datasets, with their certified sums.

The objective is the residual sum of squares over a random box around the certified parameters.
"""

from __future__ import annotations

from dataclasses import dataclass
from math import exp
from typing import Callable, Sequence

from .problem import Point, Problem, crop, guarded

INSTANCES = (1, 2)

Model = Callable[[Point, float], float]


@dataclass(frozen=True)
class Regression:
    """Data, model and certified result of one data set."""

    x: tuple[float, ...]
    y: tuple[float, ...]
    model: Model
    parameters: tuple[float, ...]
    #: The residual sum of squares at them, as certified.
    certified: float
    #: Size of the box: how far it reaches below and above, relative to each parameter.
    below: float = 0.9
    above: float = 2.5

    def sum_of_squares(self, parameters: Point) -> float:
        model = self.model
        return sum((y - model(parameters, x)) ** 2 for x, y in zip(self.x, self.y))


def _numbers(text: str) -> tuple[float, ...]:
    return tuple(map(float, text.split()))


_MISRA_X = _numbers(
    """
    77.6 114.9 141.1 190.8 239.9 289.0 332.8 378.4 434.8 477.3 536.8 593.1 689.1 760.0
    """
)
_MISRA_Y = _numbers(
    """
    10.07 14.73 17.94 23.93 29.61 35.18 40.02 44.82 50.76 55.05 61.01 66.40 75.47 81.78
    """
)
_MGH17_Y = _numbers(
    """
    0.844 0.908 0.932 0.936 0.925 0.908 0.881 0.850 0.818 0.784 0.751 0.718 0.685 0.658
    0.628 0.603 0.580 0.558 0.538 0.522 0.506 0.490 0.478 0.467 0.457 0.448 0.438 0.431
    0.424 0.420 0.414 0.411 0.406
    """
)
_ECKERLE_X = (
    *(400.0 + 5.0 * i for i in range(8)),
    *(436.5 + 1.5 * i for i in range(19)),
    *(465.0 + 5.0 * i for i in range(8)),
)
_ECKERLE_Y = _numbers(
    """
    0.0001575 0.0001699 0.0002350 0.0003102 0.0004917 0.0008710 0.0017418 0.0046400
    0.0065895 0.0097302 0.0149002 0.0237310 0.0401683 0.0712559 0.1264458 0.2073413
    0.2902366 0.3445623 0.3698049 0.3668534 0.3106727 0.2078154 0.1164354 0.0616764
    0.0337200 0.0194023 0.0117831 0.0074357 0.0022732 0.0008800 0.0004579 0.0002345
    0.0001586 0.0001143 0.0000710
    """
)
_THURBER_X = _numbers(
    """
    -3.067 -2.981 -2.921 -2.912 -2.840 -2.797 -2.702 -2.699 -2.633 -2.481 -2.363 -2.322
    -1.501 -1.460 -1.274 -1.212 -1.100 -1.046 -0.915 -0.714 -0.566 -0.545 -0.400 -0.309
    -0.109 -0.103 0.010 0.119 0.377 0.790 0.963 1.006 1.115 1.572 1.841 2.047 2.200
    """
)
_THURBER_Y = _numbers(
    """
    80.574 84.248 87.264 87.195 89.076 89.608 89.868 90.101 92.405 95.854 100.696 101.060
    401.672 390.724 567.534 635.316 733.054 759.087 894.206 990.785 1090.109 1080.914
    1122.643 1178.351 1260.531 1273.514 1288.339 1327.543 1353.863 1414.509 1425.208
    1421.384 1442.962 1464.350 1468.705 1447.894 1457.628
    """
)


def _thurber(b: Point, x: float) -> float:
    above = b[0] + x * (b[1] + x * (b[2] + x * b[3]))
    return above / (1.0 + x * (b[4] + x * (b[5] + x * b[6])))


def _eckerle(b: Point, x: float) -> float:
    return b[0] / b[1] * exp(-0.5 * ((x - b[2]) / b[1]) ** 2)


REGRESSIONS = {
    "misra1a": Regression(
        _MISRA_X,
        _MISRA_Y,
        lambda b, x: b[0] * (1.0 - exp(-b[1] * x)),
        (2.3894212918e2, 5.5015643181e-4),
        1.2455138894e-1,
    ),
    "misra1b": Regression(
        _MISRA_X,
        _MISRA_Y,
        lambda b, x: b[0] * (1.0 - (1.0 + b[1] * x / 2.0) ** -2),
        (3.3799746163e2, 3.9039091287e-4),
        7.5464681533e-2,
    ),
    "misra1c": Regression(
        _MISRA_X,
        _MISRA_Y,
        lambda b, x: b[0] * (1.0 - (1.0 + 2.0 * b[1] * x) ** -0.5),
        (6.3642725809e2, 2.0813627256e-4),
        4.0966836971e-2,
    ),
    "misra1d": Regression(
        _MISRA_X,
        _MISRA_Y,
        lambda b, x: b[0] * b[1] * x / (1.0 + b[1] * x),
        (4.3736970754e2, 3.0227324449e-4),
        5.6419295283e-2,
    ),
    "danwood": Regression(
        (1.309, 1.471, 1.490, 1.565, 1.611, 1.680),
        (2.138, 3.421, 3.597, 4.340, 4.882, 5.660),
        lambda b, x: b[0] * x ** b[1],
        (7.6886226176e-1, 3.8604055871),
        4.3173084083e-3,
    ),
    "boxbod": Regression(
        (1.0, 2.0, 3.0, 5.0, 7.0, 10.0),
        (109.0, 149.0, 149.0, 191.0, 213.0, 224.0),
        lambda b, x: b[0] * (1.0 - exp(-b[1] * x)),
        (2.1380940889e2, 5.4723748542e-1),
        1.1680088766e3,
    ),
    "rat42": Regression(
        (9.0, 14.0, 21.0, 28.0, 42.0, 57.0, 63.0, 70.0, 79.0),
        (8.930, 10.800, 18.590, 22.330, 39.350, 56.110, 61.730, 64.620, 67.080),
        lambda b, x: b[0] / (1.0 + exp(b[1] - b[2] * x)),
        (7.2462237576e1, 2.6180768402, 6.7359200066e-2),
        8.0565229338,
    ),
    "rat43": Regression(
        tuple(map(float, range(1, 16))),
        (16.08, 33.83, 65.80, 97.20, 191.55, 326.20, 386.87, 520.53, 590.03, 651.92)
        + (724.93, 699.56, 689.96, 637.56, 717.41),
        lambda b, x: b[0] / (1.0 + exp(b[1] - b[2] * x)) ** (1.0 / b[3]),
        (6.9964151270e2, 5.2771253025, 7.5962938329e-1, 1.2792483859),
        8.7864049080e3,
    ),
    "mgh09": Regression(
        (4.0, 2.0, 1.0, 0.5, 0.25, 0.167, 0.125, 0.1, 0.0833, 0.0714, 0.0625),
        (0.1957, 0.1947, 0.1735, 0.1600, 0.0844, 0.0627, 0.0456, 0.0342, 0.0323, 0.0235, 0.0246),
        lambda b, x: b[0] * (x * x + x * b[1]) / (x * x + x * b[2] + b[3]),
        (1.9280693458e-1, 1.9128232873e-1, 1.2305650693e-1, 1.3606233068e-1),
        3.0750560385e-4,
    ),
    "mgh10": Regression(
        tuple(50.0 + 5.0 * i for i in range(16)),
        (34780.0, 28610.0, 23650.0, 19630.0, 16370.0, 13720.0, 11540.0, 9744.0, 8261.0, 7030.0)
        + (6005.0, 5147.0, 4427.0, 3820.0, 3307.0, 2872.0),
        lambda b, x: b[0] * exp(b[1] / (x + b[2])),
        (5.6096364710e-3, 6.1813463463e3, 3.4522363462e2),
        8.7945855171e1,
        below=0.2,
        above=0.2,
    ),
    "mgh17": Regression(
        tuple(10.0 * i for i in range(33)),
        _MGH17_Y,
        lambda b, x: b[0] + b[1] * exp(-x * b[3]) + b[2] * exp(-x * b[4]),
        (3.7541005211e-1, 1.9358469127, -1.4646871366, 1.2867534640e-2, 2.2122699662e-2),
        5.4648946975e-5,
    ),
    "eckerle4": Regression(
        _ECKERLE_X,
        _ECKERLE_Y,
        _eckerle,
        (1.5543827178, 4.0888321754, 4.5154121844e2),
        1.4635887487e-3,
        above=1.5,
    ),
    "thurber": Regression(
        _THURBER_X,
        _THURBER_Y,
        _thurber,
        (1.2881396800e3, 1.4910792535e3, 5.8323836877e2, 7.5416644291e1)
        + (9.6629502864e-1, 3.9797285797e-1, 4.9727297349e-2),
        5.6427082397e3,
        below=0.25,
        above=0.25,
    ),
}


def problems(instances: Sequence[int] = INSTANCES) -> list[Problem]:
    """Every data set in its random boxes."""
    found = []
    for name, data in REGRESSIONS.items():
        around = tuple((b - data.below * abs(b), b + data.above * abs(b)) for b in data.parameters)
        for instance in instances:
            full = f"nist-{name}/{instance}"
            found.append(
                Problem(
                    name=full,
                    kind="regression",
                    instance=instance,
                    bounds=crop(around, data.parameters, full),
                    objective=guarded(data.sum_of_squares),
                    f_star=data.certified,
                    minimizer=data.parameters,
                )
            )
    return found
