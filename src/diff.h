// Word diff: the lengths of the longest common subsequences of two word lists, and the walk over
// them that tells, front to back, which words were removed, added or kept.
//
// Ownership: a `Diff` owns its cells; it keeps nothing of the word lists it was made from.
// Threads: no state; any thread.
#pragma once

#include "buffers.h"

// Cell (row j, column i) is the length of the longest common subsequence of the last i words of the
// first list and the last j words of the second. Built over the ends of the lists, so that a walk
// that starts from the full lists meets the words front to back.
struct Diff {
  u32 *cells;  // `width` times `height` lengths, row after row; owned
  u32 width;   // words of the first list plus 1
  u32 height;  // words of the second list plus 1
};

enum DiffKind {
  DIFF_REMOVED,  // a word of the first list only
  DIFF_ADDED,    // a word of the second list only
  DIFF_COMMON,   // a word of both lists
};

// Gets one word of the walk. `index` counts from 0: in the second list for `DIFF_ADDED`, else in
// the first. `data` is what the caller of the walk passed.
typedef void (*DiffVisitor) (DiffKind kind, u32 index, void *data);

// ---- Building ----

// Asserts that neither list is empty. Time and memory grow with the product of the two counts.
Diff alloc_diff (StringsStack arr1, StringsStack arr2);
void dealloc_diff (Diff diff);

// ---- Walking ----

// Visits every word of both lists, a common one once. Removals come before additions: a run of
// removed words ends before an added one is looked for.
void diff_walk (Diff diff, DiffVisitor visitor, void *data);
