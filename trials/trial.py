"""What every trial shares: its arguments, its rows and the file that they are kept in.

A trial is a program beside the tests that puts a built Morvane through a fault, a hostile peer or a
load, says in a row of a table what was expected and what was seen, and ends with status 1 when the
two differ. Its short form belongs to the tests; the rows of its long form are in
docs/reliability.md, where scripts/trial writes them.
"""

import argparse
import json
import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))
sys.dont_write_bytecode = True


class Trial:
    """The rows of one trial. Arguments are read when it is made."""

    def __init__(self, name, description, add_arguments=None):
        parser = argparse.ArgumentParser(
            description=description, formatter_class=argparse.RawDescriptionHelpFormatter
        )
        parser.add_argument("--binary", required=True, help="the program that is tried")
        parser.add_argument("--short", action="store_true", help="a minute's part of the whole")
        parser.add_argument("--output", help="the JSON file that the rows are written to")
        if add_arguments:
            add_arguments(parser)
        self.arguments = parser.parse_args()
        self.name = name
        self.binary = os.path.abspath(self.arguments.binary)
        self.programs = os.path.join(os.path.dirname(self.binary), "trials")
        self.short = self.arguments.short
        self.checks = []
        self.figures = []
        self.failures = 0

    def check(self, what, expected, seen, ok=None):
        """One row of what must hold. Without `ok`, what was seen must be what was expected."""
        expected, seen = str(expected), str(seen)
        if ok is None:
            ok = expected == seen
        self.checks.append([what, expected, seen])
        if not ok:
            self.failures += 1
        print(f"{'ok' if ok else 'FAILED'}: {what}: expected {expected}; seen {seen}", flush=True)
        return ok

    def figure(self, what, value):
        """One row that says how much, without a judgement."""
        self.figures.append([what, str(value)])
        print(f"figure: {what}: {value}", flush=True)

    def end(self):
        """Writes the rows and returns the status to end with."""
        if not self.checks:
            self.failures += 1
            print("FAILED: nothing was checked")
        if self.arguments.output:
            with open(self.arguments.output, "w", encoding="utf-8") as file:
                json.dump(
                    {
                        "name": self.name,
                        "form": "short" if self.short else "long",
                        "failures": self.failures,
                        "checks": self.checks,
                        "figures": self.figures,
                    },
                    file,
                    indent=1,
                )
        print(f"{self.name}: {len(self.checks)} checks, {self.failures} failed")
        return 1 if self.failures else 0


def run_walk(trial, program, test_filter, figures, bound, **environment):
    """Runs a random walk of a test program, which ends within `bound` seconds; the figures in the line
    that matches, or None after it failed, with the end of what it printed."""
    result = subprocess.run(
        [
            os.path.join(ROOT, "tests", "run"),
            "--display",
            "--",
            os.path.join(os.path.dirname(trial.binary), "tests", program),
            "--gtest_filter=" + test_filter,
        ],
        env=dict(os.environ, **{name: str(value) for name, value in environment.items()}),
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=bound,
        encoding="utf-8",
        errors="replace",
        check=False,
    )
    line = figures.search(result.stdout)
    if result.returncode != 0 or line is None:
        print(result.stdout[-8000:])
        return None
    return [int(figure) for figure in line.groups()]
