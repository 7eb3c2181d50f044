// The formatter: the first byte is the room, the second chooses the arguments, the rest is the
// format. Every argument is good as whatever a directive takes it for.
#include "fuzz.h"

#include <string.h>
#include <sys/mman.h>

const char *const DESIGNED_STOPS[] = {"!\"We don't handle %* yet\"", NULL};

void
fuzz_clean_up ()
{
}

enum {
  ROOM_MAX = 4096,
  ARGUMENTS_COUNT = 24,
};

// A text at an address whose low half is the length that "%.*s" takes it for: a small one, a
// negative one, and one far above all room.
static const u64 ADDRESSES[] = {0x210000000005, 0x2100F0000007, 0x210110000003, 0};

static void
map_texts ()
{
  static bool is_mapped;
  for (u64 index = 0; !is_mapped && ADDRESSES[index]; ++index) {
    u64 page = ADDRESSES[index] & ~(u64) 0xFFF;
    u8 *text = (u8 *) mmap ((void *) page, 4 * ROOM_MAX, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    CHECK (text == (u8 *) page);
    memset (text, 'x', 2 * ROOM_MAX);
    text[300] = 0;
  }
  is_mapped = true;
}

static Buffer
append (Buffer buffer, const char *format, const u64 *v)
{
  // The numbers with a fraction come first: they have registers of their own, and when these are
  // used up the general ones are taken for them, which does no harm.
  return buffer_append_format (buffer, format, 1.5, -0.0, 1e300, 1.0 / 3, 123456.789, -1e-9, 0.5,
                               -7.25, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8], v[9],
                               v[10], v[11], v[12], v[13], v[14], v[15], v[16], v[17], v[18], v[19],
                               v[20], v[21], v[22], v[23]);
}

void
fuzz_run (String input)
{
  map_texts ();
  u64 room = (u64) take_byte (&input) * 5;
  u8 choice = take_byte (&input);
  u64 arguments[ARGUMENTS_COUNT];
  for (u64 index = 0; index < ARGUMENTS_COUNT; ++index)
    arguments[index] = ADDRESSES[(choice >> (index % 4 * 2)) & 3];

  // No more directives than there are arguments for; each takes two at most.
  u64 percents_count = 0;
  for (u64 index = 0; index < input.size; ++index)
    percents_count += input.data[index] == '%';
  if (percents_count > ARGUMENTS_COUNT / 2)
    return;

  char *format = alloc_cstr (input);
  Buffer block = alloc (room);
  Buffer block_p = append (block, format, arguments);
  u64 size = (u64) (block_p.data - block.data);
  CHECK (size <= room && block_p.size == room - size);

  // More room gives the same front.
  Buffer larger = alloc (ROOM_MAX);
  Buffer larger_p = append (larger, format, arguments);
  u64 larger_size = (u64) (larger_p.data - larger.data);
  CHECK (size == (larger_size < room ? larger_size : room));
  CHECK ((String{block.data, size} == String{larger.data, size}));
  if (!percents_count)
    CHECK (room <= size || (String{block.data, size} == format));
  dealloc (larger);
  dealloc (block);
  dealloc_cstr (format);
}
