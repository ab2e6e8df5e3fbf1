# SPDX-License-Identifier: MIT
"""Tables for terminals and Markdown documents."""

from __future__ import annotations

from typing import Iterable, Sequence


def plain_table(headings: Sequence[str], rows: Iterable[Sequence[str]]) -> str:
    """A table for a terminal: words in the first column, numbers in the others."""
    lines = [headings, *rows]
    widths = [max(map(len, column)) for column in zip(*lines)]
    return "\n".join(
        "  ".join(
            (line[0].ljust(widths[0]), *(c.rjust(width) for c, width in zip(line[1:], widths[1:])))
        )
        for line in lines
    )


def markdown_table(headings: Sequence[str], rows: Iterable[Sequence[str]], words: int = 1) -> str:
    """A table whose first columns, `words` of them, hold words and the others numbers."""
    rule = "|---" * words + "|---:" * (len(headings) - words) + "|"
    lines = ["| " + " | ".join(headings) + " |", rule]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def replace_block(document: str, name: str, content: str) -> str:
    """The document with new content between its marks ``<!-- name -->`` and ``<!-- /name -->``."""
    begin, end = f"<!-- {name} -->", f"<!-- /{name} -->"
    before, found, rest = document.partition(begin)
    _, closed, after = rest.partition(end)
    if not found or not closed:
        raise ValueError(f"the document has no block {begin} ... {end}")
    return f"{before}{begin}\n\n{content}\n\n{end}{after}"
