#!/usr/bin/python3
"""Comparisons of random texts, decided on in every order, by mouse and by key.

Two revisions of a clause get texts that are drawn anew each time: line breaks, blank lines, words that
come again, words of one byte, return symbols that belong to the text, letters that are read from the
right or have no width. Each change is kept or removed, one by one or all at once, in any order. After
each step the test compares what is shown with words and differences that it finds by itself; in the
end the text must be the common words with what was kept, byte for byte, and one side taken everywhere
must give that side's text.
"""

import os
import re
import subprocess
import sys

from trial import ROOT, Trial

SEEDS = range(1, 6)
ROUNDS = 1000  # pairs of texts a seed
SHORT_ROUNDS = 150
BOUND = 1200  # seconds a seed
FIGURES = re.compile(r"^walk: (\d+) pairs of texts, (\d+) changes by mouse, (\d+) by key, "
                     r"(\d+) times all at once$", re.MULTILINE)


def run(trial, seed, rounds):
    """The walk of one seed; returns its figures, or None after it failed."""
    program = os.path.join(os.path.dirname(trial.binary), "tests", "test_clause_view_comparison")
    environment = dict(os.environ, MORVANE_SEED=str(seed), MORVANE_ROUNDS=str(rounds))
    result = subprocess.run(
        [os.path.join(ROOT, "tests", "run"), "--display", "--", program,
         "--gtest_filter=clause_view_comparison_law.*"],
        env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=BOUND,
        encoding="utf-8", errors="replace", check=False)
    figures = FIGURES.search(result.stdout)
    if result.returncode != 0 or figures is None:
        print(result.stdout[-8000:])
        return None
    return [int(figure) for figure in figures.groups()]


def main():
    trial = Trial("comparison", __doc__)
    seeds, rounds = (SEEDS[:2], SHORT_ROUNDS) if trial.short else (SEEDS, ROUNDS)
    sums = [0, 0, 0, 0]
    for seed in seeds:
        figures = run(trial, seed, rounds)
        if figures:
            sums = [sum(pair) for pair in zip(sums, figures)]
    wanted = f"{len(seeds) * rounds:,}"
    trial.check(f"pairs of texts, of {wanted}, of which every step shows what it must, and the last "
                "leaves the common words with what was kept", wanted, f"{sums[0]:,}")
    trial.figure("Changes decided on by mouse; by key; all that were left at once",
                 "; ".join(f"{figure:,}" for figure in sums[1:]))
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
