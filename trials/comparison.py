#!/usr/bin/python3
"""Comparisons of random texts, decided on in every order, by mouse and by key.

Two revisions of a clause get texts that are drawn anew each time: line breaks, blank lines, words that
come again, words of one byte, return symbols that belong to the text, letters that are read from the
right or have no width. Each change is kept or removed, one by one or all at once, in any order. After
each step the test compares what is shown with words and differences that it finds by itself; in the
end the text must be the common words with what was kept, byte for byte, and one side taken everywhere
must give that side's text.
"""

import re
import sys

from trial import Trial, run_walk

SEEDS = range(1, 6)
ROUNDS = 1000  # pairs of texts a seed
SHORT_ROUNDS = 150
BOUND = 1200  # seconds a seed
FIGURES = re.compile(
    r"^walk: (\d+) pairs of texts, (\d+) changes by mouse, (\d+) by key, "
    r"(\d+) times all at once$",
    re.MULTILINE,
)


def main():
    trial = Trial("comparison", __doc__)
    seeds, rounds = (SEEDS[:2], SHORT_ROUNDS) if trial.short else (SEEDS, ROUNDS)
    sums = [0, 0, 0, 0]
    for seed in seeds:
        figures = run_walk(
            trial,
            "test_clause_view_comparison",
            "clause_view_comparison_law.*",
            FIGURES,
            BOUND,
            MORVANE_SEED=seed,
            MORVANE_ROUNDS=rounds,
        )
        if figures:
            sums = [sum(pair) for pair in zip(sums, figures)]
    wanted = f"{len(seeds) * rounds:,}"
    trial.check(
        f"pairs of texts, of {wanted}, of which every step shows what it must, and the last "
        "leaves the common words with what was kept",
        wanted,
        f"{sums[0]:,}",
    )
    trial.figure(
        "Changes decided on by mouse; by key; all that were left at once",
        "; ".join(f"{figure:,}" for figure in sums[1:]),
    )
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
