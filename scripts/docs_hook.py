# SPDX-License-Identifier: MIT
"""What the site of the documentation needs beyond the pages in docs/ (a hook of MkDocs).

The pages are read in the checkout too, where they link to the programs in examples/. On the site
these are a page of their own.
"""

import re
from pathlib import Path

from mkdocs.structure.files import File

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"


def on_files(files, config):
    parts = ["# Examples\n\nComplete programs; each prints the published figure beside its own.\n"]
    for path in sorted(EXAMPLES.glob("*.py")):
        source = path.read_text(encoding="utf-8")
        parts.append(f"## {path.name}\n\n````python\n{source}````\n")
    files.append(File.generated(config, "examples.md", content="\n".join(parts)))
    return files


def on_page_markdown(markdown, page, config, files):
    def target(match):
        name = Path(match[1]).name
        anchor = "#" + name.replace(".", "") if name.endswith(".py") else ""
        return f"](examples.md{anchor})"

    return re.sub(r"\]\(\.\./(examples[^)]*)\)", target, markdown)
