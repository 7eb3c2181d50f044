// Word diff: the table of common subsequences and the walk over it.
#include "diff.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>

// ---- Building ----

// One row from the row before it: `word` is the word of the second list that joins.
static void
fill_row (u32 *row, const u32 *row_before, StringsStack arr1, String word)
{
  row[0] = 0;
  for (u32 i = 1; i <= arr1.count; ++i) {
    const String *other = &arr1.strings[arr1.count - i];
    // Most words differ in size, which saves the call: this line runs once a cell.
    if (other->size == word.size && *other == word)
      row[i] = row_before[i - 1] + 1;
    else
      row[i] = row_before[i] > row[i - 1] ? row_before[i] : row[i - 1];
  }
}

Diff
alloc_diff (StringsStack arr1, StringsStack arr2)
{
  assert (arr1.count);
  assert (arr2.count);

  Diff diff = {};
  diff.width = arr1.count + 1;
  diff.height = arr2.count + 1;
  diff.cells = (u32 *) malloc ((u64) diff.width * diff.height * sizeof (u32));
  memset (diff.cells, 0, (u64) diff.width * sizeof (u32));
  for (u32 j = 1; j < diff.height; ++j) {
    u32 *row = diff.cells + (u64) j * diff.width;
    fill_row (row, row - diff.width, arr1, arr2.strings[arr2.count - j]);
  }
  return diff;
}

void
dealloc_diff (Diff diff)
{
  free (diff.cells);
}

// ---- Walking ----

static u32
get_cell (Diff diff, u32 j, u32 i)
{
  return diff.cells[(u64) j * diff.width + i];
}

void
diff_walk (Diff diff, DiffVisitor visitor, void *data)
{
  u32 na = diff.width - 1;
  u32 nb = diff.height - 1;
  u32 i = na;
  u32 j = nb;
  // A cell that is not 0 has neighbours in both directions: row 0 and column 0 hold only 0.
  while (get_cell (diff, j, i) != 0) {
    for (; get_cell (diff, j, i) == get_cell (diff, j, i - 1); --i)
      visitor (DIFF_REMOVED, na - i, data);
    for (; get_cell (diff, j, i) == get_cell (diff, j - 1, i); --j)
      visitor (DIFF_ADDED, nb - j, data);
    visitor (DIFF_COMMON, na - i, data);
    --i;
    --j;
  }
  for (; i != 0; --i)
    visitor (DIFF_REMOVED, na - i, data);
  for (; j != 0; --j)
    visitor (DIFF_ADDED, nb - j, data);
}
