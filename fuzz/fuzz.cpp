// The run of one input: stops, heap, the end of the hand-over.
#include "fuzz.h"

#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sanitizer/asan_interface.h>

// ---- Heap ----

// From here on these are the library's own.
#undef malloc
#undef free

// Stands before each block that the sources allocated.
struct HeapHeader {
  HeapHeader *previous;
  HeapHeader *next;
  u64 size;  // bytes of the block
  u64 unused;
};

static HeapHeader heap = {&heap, &heap, 0, 0};
static bool heap_is_tracked;

// The headers are poisoned, so that reading before a block is still seen; only this code may.
__attribute__ ((no_sanitize ("address"))) static void
heap_link (HeapHeader *header)
{
  header->previous = &heap;
  header->next = heap.next;
  heap.next->previous = header;
  heap.next = header;
}

__attribute__ ((no_sanitize ("address"))) static void
heap_unlink (HeapHeader *header)
{
  if (header->next) {
    header->previous->next = header->next;
    header->next->previous = header->previous;
  }
}

__attribute__ ((no_sanitize ("address"))) static u64
heap_get_size (HeapHeader *header)
{
  return header->size;
}

void *
fuzz_malloc (size_t size)
{
  HeapHeader *header = (HeapHeader *) malloc (sizeof (HeapHeader) + size);
  if (!header)
    return NULL;
  *header = {NULL, NULL, size, 0};
  if (heap_is_tracked)
    heap_link (header);
  ASAN_POISON_MEMORY_REGION (header, sizeof (HeapHeader));
  return header + 1;
}

void *
fuzz_calloc (size_t count, size_t size)
{
  void *block = fuzz_malloc (count * size);
  memset (block, 0, count * size);
  return block;
}

void
fuzz_free (void *block)
{
  if (!block)
    return;
  HeapHeader *header = (HeapHeader *) block - 1;
  heap_unlink (header);
  free (header);
}

void *
fuzz_realloc (void *block, size_t size)
{
  void *copy = fuzz_malloc (size);
  if (block) {
    u64 size_old = heap_get_size ((HeapHeader *) block - 1);
    memcpy (copy, block, size_old < size ? size_old : size);
    fuzz_free (block);
  }
  return copy;
}

static bool
heap_is_empty ()
{
  return heap.next == &heap;
}

void
fuzz_free_kept ()
{
  while (!heap_is_empty ())
    fuzz_free (heap.next + 1);
}

// ---- Locks ----
// There is one thread, so that nobody ever waits: who takes what is held would wait for ever.

static pthread_mutex_t *held_locks[8];
static u32 held_locks_count;

int
fuzz_mutex_lock (pthread_mutex_t *mutex)
{
  for (u32 index = 0; index < held_locks_count; ++index)
    CHECK (held_locks[index] != mutex);
  CHECK (held_locks_count < G_N_ELEMENTS (held_locks));
  held_locks[held_locks_count] = mutex;
  ++held_locks_count;
  return 0;
}

int
fuzz_mutex_unlock (pthread_mutex_t *mutex)
{
  u32 index = 0;
  while (index < held_locks_count && held_locks[index] != mutex)
    ++index;
  CHECK (index < held_locks_count);
  --held_locks_count;
  held_locks[index] = held_locks[held_locks_count];
  return 0;
}

// ---- Checks ----

static jmp_buf *stop_target;

[[noreturn]] void
fuzz_fail (const char *condition, const char *file, int line)
{
  fprintf (stderr, "FINDING: %s:%d: %s\n", file, line, condition);
  abort ();
}

// Takes the place of the system's: a failed assertion of the program comes here.
extern "C" [[noreturn]] void
__assert_fail (const char *assertion, const char *file, unsigned int line, const char *) noexcept
{
  for (const char *const *stop = DESIGNED_STOPS; *stop; ++stop) {
    if (stop_target && strcmp (*stop, assertion) == 0)
      longjmp (*stop_target, 1);
  }
  fuzz_fail (assertion, file, (int) line);
}

bool
is_view_of (String view, String text)
{
  return !view.size || (view.data >= text.data && view.data + view.size <= text.data + text.size);
}

bool
is_stopped (void (*function) (void *data), void *data)
{
  jmp_buf target;
  jmp_buf *target_before = stop_target;
  u32 held_locks_before = held_locks_count;
  stop_target = &target;
  bool stopped = setjmp (target) != 0;
  if (!stopped)
    function (data);
  stop_target = target_before;
  CHECK (stopped || held_locks_count == held_locks_before);
  held_locks_count = held_locks_before;
  return stopped;
}

// ---- Reading the input ----

u8
take_byte (String *input)
{
  u8 byte = input->size ? input->data[0] : 0;
  *input = string_advance (*input, 1);
  return byte;
}

u16
take_u16 (String *input)
{
  u16 high = take_byte (input);
  return (u16) (high << 8 | take_byte (input));
}

String
take_bytes (String *input, u64 size)
{
  String rest = string_advance (*input, size);
  String bytes = {input->data, input->size - rest.size};
  *input = rest;
  return bytes;
}

// ---- The run ----

static void
run_input (void *data)
{
  fuzz_run (*(String *) data);
}

extern "C" int
LLVMFuzzerTestOneInput (const u8 *data, size_t size)
{
  String input = {(u8 *) data, size};
  fuzz_records_count = 0;
  heap_is_tracked = true;
  bool stopped = is_stopped (run_input, &input);
  heap_is_tracked = false;
  fuzz_clean_up ();
  CHECK (stopped || heap_is_empty ());
  fuzz_free_kept ();
  return 0;
}

// ---- The end of the hand-over ----

// Takes the place of the library's: what is handed over is handled at once.
guint
gdk_threads_add_idle (GSourceFunc function, gpointer data)
{
  CHECK (function (data) == G_SOURCE_REMOVE);
  return 1;
}
