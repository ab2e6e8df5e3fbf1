# SPDX-License-Identifier: MIT
"""Variables as they are declared, and the way between the caller's units and the search's."""

import math
import pickle

import pytest

import Quenloft
from Quenloft._variables import declare

BOUNDS = {
    "rate": (1e-6, 1.0, "log"),
    "solver": ["a", "b"],
    "stages": (1, 20, "int"),
    "width": (0.5, 3.0, 0.25),
    "gravity": (9.81, 9.81),
    "batch": (1, 256, "log", "int"),
    "teeth": (12, 60, 6, "int"),
}


def test_variables_by_name_are_what_their_bounds_say():
    variables = declare(BOUNDS, (), (), None)
    assert variables.names == ("rate", "stages", "width", "gravity", "batch", "teeth", "solver")
    assert variables.dimension == 6 and variables.searched == (0, 1, 2, 4, 5)
    assert "; ".join(str(number) for number in variables.numbers) == (
        "[1e-06, 1], logarithmic; [1, 20], integer; [0.5, 3], in steps of 0.25; 9.81, fixed; "
        "[1, 256], logarithmic, integer; [12, 60], integer, in steps of 6"
    )
    assert pickle.loads(pickle.dumps(variables)) == variables
    unnamed = declare(list(BOUNDS.values())[2:], (), [["a", "b"]], None)
    assert unnamed.numbers == variables.numbers[1:]


def test_points_that_the_caller_names_are_found():
    variables = declare(BOUNDS, (), (), None)
    values = (1e-3, 7, 1.25, 9.81, 64, 18)
    by_name = dict(zip(variables.names, (*values, "b")))
    del by_name["gravity"]
    x, category = variables.point(by_name)
    assert (x, category) == variables.point([*values, "b"]) == (values, (1,))
    assert type(x[1]) is int
    assert variables.arguments("mapping")(x, ("b",)) == ({**by_name, "gravity": 9.81},)


@pytest.mark.parametrize(
    "bounds, message",
    [
        ({"solver": ("a", "b")}, r"choices are a list: \['a', 'b'\]"),
        ({"rate": 5}, "bounds of rate must be a tuple"),
        ({"g": (1, 1)}, "every variable of bounds is fixed"),
        ([(0, 1.5, "int")], r"x\[0\] is an integer: its bounds must be whole numbers, not 1.5"),
        ([(0, 1, 0.3)], "a whole number of steps of 0.3"),
        ([(1, 4, "int", 1.5)], "step must be a whole number"),
        ([(1, 2, 0.5, "log")], "logarithmic: it cannot have a step"),
        ([(1, 2**40, "int", "log")], "leave 'int' out and round"),
        ([(0, 1e300, 1e-9)], "step of .* is too small"),
    ],
)
def test_a_wrong_declaration_is_named(bounds, message):
    with pytest.raises((TypeError, ValueError), match=message):
        declare(bounds, (), (), None)
    with pytest.raises(TypeError, match="leave names out"):
        declare({"x": (0, 1)}, (), (), ["x"])


def test_search_over_named_variables_stays_on_their_lattices():
    seen = []

    def fun(x, choices):
        seen.append(x)
        return (math.log10(x[0]) + 2) ** 2 + (x[1] - 7) ** 2 + x[2] + (choices[0] == "a")

    bounds = {name: BOUNDS[name] for name in ("rate", "stages", "width", "gravity", "solver")}
    result = Quenloft.minimize(fun, bounds, maxfun=300)
    assert {type(x[1]) for x in seen} == {int} and {x[3] for x in seen} == {9.81}
    assert all(x[1] in range(1, 21) and x[2] * 4 in range(2, 13) for x in seen)
    assert result.categories == ("b",) and result.x in seen


@pytest.mark.parametrize(
    "lattices, cost, best, maxfun",
    [
        ([(0, 20, "int")] * 2, lambda i, j: (i - 13 + j / 3) ** 2 + (j - 6.4) ** 2, (11, 6), 30),
        ([(0, 20, "int")] * 2, lambda i, j: 2 * abs(i - 11.4) + 3 * abs(j - 5.7), (11, 6), 80),
        (
            [(1, 60, "log", "int"), (-2, 1, 0.125)],
            lambda i, j: math.log(i / 7.3) ** 2 + (j + 0.4) ** 2,
            (7, -0.375),
            35,
        ),
    ],
    ids=["interaction", "kinks", "decades and steps"],
)
def test_local_models_converge_at_the_best_point_of_a_lattice(lattices, cost, best, maxfun):
    def fun(x):
        a, b = x[2] - 0.3 - 0.01 * x[0], x[3] - 0.6 + 0.02 * x[1]
        return cost(*x[:2]) + 4 * a**2 + 3 * b**2 + a * b

    result = Quenloft.minimize(fun, [*lattices, (0, 1), (0, 1)], maxfun=maxfun)
    assert result.x[:2] == best and result.fun - cost(*best) < 1e-12
