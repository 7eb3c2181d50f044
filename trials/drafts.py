#!/usr/bin/python3
"""Typed text through random walks over all that can happen to it.

In one clause, with and without a revision, the walk types, leaves the text, shows rows, receives,
compares, decides on single changes and on revisions, goes back, brings replaced drafts back, undoes
keys, commits, cancels, deletes a clause or the whole procedure and undoes that, lets ten seconds pass,
ends the program or kills it. A model beside the view says after each step what the stored draft must
be, and which texts must be that draft or at hand.
"""

import re
import sys

from trial import Trial, run_walk

SEEDS = range(1001, 1021)
STEPS = 1000  # a seed
SHORT_STEPS = 100
BOUND = 1200  # seconds a seed
FIGURES = re.compile(
    r"^walk: (\d+) steps; (\d+) texts typed, (\d+) received, (\d+) commits, "
    r"(\d+) deletions, (\d+) restarts, (\d+) kills$",
    re.MULTILINE,
)


def main():
    trial = Trial("drafts", __doc__)
    seeds, steps = (SEEDS[:1], SHORT_STEPS) if trial.short else (SEEDS, STEPS)
    sums = [0] * 7
    for seed in seeds:
        figures = run_walk(
            trial,
            "test_clause_view_drafts",
            "clause_view/DraftsWalk.*/0",
            FIGURES,
            BOUND,
            MORVANE_SEED=seed,
            MORVANE_STEPS=steps,
        )
        if figures:
            sums = [sum(pair) for pair in zip(sums, figures)]
    wanted = f"{len(seeds) * steps:,}"
    trial.check(
        f"steps, of {wanted}, after which the stored draft is the one it must be, and every "
        "other saved text is at hand",
        wanted,
        f"{sums[0]:,}",
    )
    trial.figure(
        "Texts typed; received; commits; deletions undone or not; restarts; kills",
        "; ".join(f"{figure:,}" for figure in sums[1:]),
    )
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
