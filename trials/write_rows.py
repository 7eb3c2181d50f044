"""Puts the rows of a trial into a document, between the comments that name the trial.

    write_rows.py DOCUMENT ROWS.json...

Rows are a record of "name", "checks" (what, expected, seen) and "figures" (what, value), all of them
texts. The document holds `<!-- trial NAME -->` and, further down, `<!-- end -->`; what stands between
them is replaced.
"""

import json
import re
import sys


def table(head, rows):
    """A Markdown table; a bar within a cell is escaped."""
    lines = ["| " + " | ".join(head) + " |", "|" + " --- |" * len(head)]
    for row in rows:
        lines.append("| " + " | ".join(cell.replace("|", "\\|") for cell in row) + " |")
    return "\n".join(lines) + "\n"


def section(rows):
    """The tables of one trial."""
    checks = [
        [what, expected, "as expected" if seen == expected else seen]
        for what, expected, seen in rows["checks"]
    ]
    text = table(["what", "expected", "seen"], checks)
    if rows["figures"]:
        text += "\n" + table(["figure", "value"], rows["figures"])
    return text


def put(path, rows):
    """Replaces one trial's part of the document at the path."""
    with open(path, encoding="utf-8") as file:
        document = file.read()
    pattern = re.compile(f"(<!-- trial {rows['name']} -->\n).*?(<!-- end -->)", re.DOTALL)
    if not pattern.search(document):
        sys.exit(f"write_rows.py: {path} has no place for {rows['name']}")
    replacement = "\n" + section(rows) + "\n"
    document = pattern.sub(lambda match: match[1] + replacement + match[2], document)
    with open(path, "w", encoding="utf-8") as file:
        file.write(document)


def main():
    """Replaces each trial's part of the document."""
    for name in sys.argv[2:]:
        with open(name, encoding="utf-8") as file:
            put(sys.argv[1], json.load(file))


if __name__ == "__main__":
    main()
