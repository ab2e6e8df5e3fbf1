# SPDX-License-Identifier: MIT
"""What a notebook shows of a result: the best point, and the convergence as a small picture."""

from __future__ import annotations

import math
from html import escape
from typing import TYPE_CHECKING, Any, Sequence

if TYPE_CHECKING:
    from ._result import OptimizeResult

_WIDTH, _HEIGHT = 420.0, 130.0  # of the picture, in pixels
_LEFT, _BOTTOM = 64.0, 18.0  # room for the labels


def result_html(result: OptimizeResult) -> str:
    """HTML that needs neither scripts nor files, and takes its colours from where it is shown."""
    fields: Any = result  # may be incomplete: made by hand, or of a run that goes on
    history = fields.get("history")
    rows = [("message", str(fields.get("message", "")))]
    value = fields.get("fun")
    if isinstance(value, float) and math.isfinite(value):
        rows.insert(0, ("minimum", f"{value:.8g}"))
    elif fields.get("x") is not None:
        rows.insert(0, ("minimum", f"none feasible; closest by {fields.get('maxcv'):.4g}"))
    if history is not None and len(history):
        best = history[history.best()]
        rows[1:1] = [
            (name, f"{part:.8g}" if isinstance(part, float) else str(part))
            for name, part in zip(history.labels(), (*best.x, *best.categories))
        ]
        rows.append(("trials", f"{len(history)}, best by number {best.number + 1}"))
    table = "".join(
        f'<tr><th style="text-align:left">{escape(name)}</th>'
        f'<td style="text-align:left">{escape(text)}</td></tr>'
        for name, text in rows
    )
    picture = "" if history is None else convergence_svg(history.running_best())
    return f"<div><table>{table}</table>{picture}</div>"


def convergence_svg(best: Sequence[float]) -> str:
    """The best value against the number of trials, as an SVG element; empty if there is none."""
    first = next((i for i, value in enumerate(best) if math.isfinite(value)), None)
    if first is None or len(best) - first < 2:
        return ""
    high, low = best[first], best[-1]
    is_log = low > 0 and high > 100 * low
    scale = math.log10 if is_log else float
    reach = (scale(high) - scale(low)) or 1.0
    right, top = _WIDTH - 8, _HEIGHT - _BOTTOM

    def across(trial: float) -> float:
        return _LEFT + (right - _LEFT) * trial / len(best)

    def down(value: float) -> float:
        return 8 + (top - 8) * (scale(high) - scale(value)) / reach

    # A point where the value changes is all that a step needs: thousands of trials stay small.
    path = f"M{across(first + 1):.1f} {down(high):.1f}"
    for i in range(first + 1, len(best)):
        if best[i] < best[i - 1]:
            path += f"H{across(i + 1):.1f}V{down(best[i]):.1f}"
    path += f"H{across(len(best)):.1f}"
    text = 'font-size="11" fill="currentColor"'
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{_WIDTH:.0f}" height="{_HEIGHT:.0f}" '
        'role="img" aria-label="best value against trials">'
        f'<path d="M{_LEFT} 4V{top}H{right}" fill="none" stroke="currentColor" opacity=".4"/>'
        f'<path d="{path}" fill="none" stroke="#e8590c" stroke-width="2"/>'
        f'<text x="{_LEFT - 6}" y="12" text-anchor="end" {text}>{high:.4g}</text>'
        f'<text x="{_LEFT - 6}" y="{top}" text-anchor="end" {text}>{low:.4g}</text>'
        f'<text x="{right}" y="{_HEIGHT - 4}" text-anchor="end" {text}>{len(best)} trials'
        f"{', logarithmic' if is_log else ''}</text></svg>"
    )
