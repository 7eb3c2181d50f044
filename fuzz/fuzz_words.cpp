// Words and their comparison: the input up to its first byte 255 is one text, the rest the other.
#include "fuzz.h"

#include "diff.h"

const char *const DESIGNED_STOPS[] = {NULL};

void
fuzz_clean_up ()
{
}

static StringsStack
split (String text)
{
  StringsStack words = alloc_split_string_by_words (text);
  u8 *end = text.data;
  for (u32 index = 0; index < words.count; ++index) {
    String word = words.strings[index];
    CHECK (word.data == end);
    CHECK (word.size || index == 0);
    CHECK (!word.size || !find_char (string_advance (word, 1), '\n').size);
    end += word.size;
  }
  CHECK (end == text.data + text.size);
  return words;
}

// Where the walk is in both lists.
struct Walk {
  StringsStack first;
  StringsStack second;
  u32 first_index;
  u32 second_index;
  u32 common_count;
  DiffKind previous;
};

static void
visit (DiffKind kind, u32 index, void *data)
{
  Walk *walk = (Walk *) data;
  CHECK (index == (kind == DIFF_ADDED ? walk->second_index : walk->first_index));
  CHECK (kind != DIFF_REMOVED || walk->previous != DIFF_ADDED);
  walk->previous = kind;
  if (kind == DIFF_COMMON) {
    CHECK (walk->first_index < walk->first.count && walk->second_index < walk->second.count);
    CHECK (walk->first.strings[walk->first_index] == walk->second.strings[walk->second_index]);
    ++walk->common_count;
  }
  walk->first_index += kind != DIFF_ADDED;
  walk->second_index += kind != DIFF_REMOVED;
}

static Walk
walk_diff (StringsStack first, StringsStack second)
{
  Diff diff = alloc_diff (first, second);
  Walk walk = {first, second, 0, 0, 0, DIFF_COMMON};
  diff_walk (diff, visit, &walk);
  CHECK (walk.first_index == first.count);
  CHECK (walk.second_index == second.count);
  CHECK (walk.common_count == diff.cells[(u64) diff.width * diff.height - 1]);
  dealloc_diff (diff);
  return walk;
}

void
fuzz_run (String input)
{
  String rest = find_char (input, (char) 0xFF);
  StringsStack first = split ({input.data, input.size - rest.size});
  StringsStack second = split (string_advance (rest, 1));
  if (first.count && second.count) {
    u32 common_count = walk_diff (first, second).common_count;
    CHECK (walk_diff (second, first).common_count == common_count);
    CHECK (walk_diff (first, first).common_count == first.count);
  }
  dealloc_strings_stack (first);
  dealloc_strings_stack (second);
}
