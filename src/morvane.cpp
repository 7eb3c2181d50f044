// The console log with its value dumps, the hand-over between threads, the clock.
#include "morvane.h"

#include <assert.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

static const u64 CONSOLE_BLOCK_SIZE = 8192;

GtkTextBuffer *_console_text_buffer = NULL;

// One piece of console text on its way to the interface thread.
struct ConsoleRecord {
  String text;       // owned
  bool is_for_pane;  // whether the console text buffer existed when this was written
};

// ---- Hand-over between threads ----

void
hand_over (GSourceFunc handler, void *record)
{
#ifdef __SANITIZE_THREAD__
  // The sanitizer does not see GLib's own locks, which order the two threads here.
  __tsan_release (record);
#endif
  gdk_threads_add_idle (handler, record);
}

void *
accept_hand_over (void *record)
{
#ifdef __SANITIZE_THREAD__
  __tsan_acquire (record);
#endif
  return record;
}

// ---- Long work ----

// How long one piece may be, in microseconds; each pause may draw the windows once.
static const s64 PIECE_MAX = 40000;

static u32 long_works_count;
static s64 long_work_pause_time;  // when the last pause ended, microseconds
static bool is_long_work_given_up;

void
begin_long_work ()
{
  // Work within other work is given up with that.
  is_long_work_given_up = long_works_count && is_long_work_given_up;
  long_works_count++;
  long_work_pause_time = g_get_monotonic_time ();
}

static gboolean
end_pause (gpointer is_over)
{
  *(bool *) is_over = true;
  return G_SOURCE_REMOVE;
}

// Answers the user and draws the windows, and runs nothing that was handed over.
static void
answer_user ()
{
  // Comes behind events, sizes and drawing, and ahead of what was handed over.
  bool is_over = false;
  gdk_threads_add_idle_full (GDK_PRIORITY_REDRAW + 1, end_pause, &is_over, NULL);
  while (!is_over)
    g_main_context_iteration (NULL, FALSE);
}

bool
pause_long_work ()
{
  if (!long_works_count)
    return true;
  if (!is_long_work_given_up && g_get_monotonic_time () >= long_work_pause_time + PIECE_MAX) {
    answer_user ();
    long_work_pause_time = g_get_monotonic_time ();
  }
  return !is_long_work_given_up;
}

void
give_up_long_work ()
{
  is_long_work_given_up = true;
}

void
end_long_work ()
{
  long_works_count--;
}

// ---- Console ----

// The lock of standard output, which a thread may take again while it has it, is the pane's too: both
// get the pieces in one order.
void
console_begin_line ()
{
  flockfile (stdout);
}

void
console_end_line ()
{
  funlockfile (stdout);
}

void
_console_put (String string)
{
  ConsoleRecord *record = (ConsoleRecord *) malloc (sizeof (ConsoleRecord));
  record->text = string;
  console_begin_line ();
  // Ends at a 0 byte.
  if (string.size > 0)
    (void) printf ("%.*s", string.size > INT_MAX ? INT_MAX : (int) string.size, string.data);
  record->is_for_pane = _console_text_buffer != NULL;
  hand_over (_console_put_gdk_thread, record);
  console_end_line ();
}

void
console_put (String string)
{
  _console_put (alloc_string (string));
}

void
console_put (const char *cstr)
{
  _console_put (alloc_string (cstr));
}

void
console_put (char c)
{
  String string = {(u8 *) &c, 1};
  _console_put (alloc_string (string));
}

void
console_put_repeat (String string, u32 count)
{
  Buffer buffer = alloc (string.size * count);
  String text = {buffer.data, buffer.size};
  for (u32 index = 0; index < count; ++index)
    buffer = buffer_append_string (buffer, string);
  _console_put (text);
}

void
console_put_repeat (const char *cstr, u32 count)
{
  console_put_repeat (to_string (cstr), count);
}

void
// NOLINTNEXTLINE(cert-dcl50-cpp): takes what `printf` takes, and the compiler checks it.
console_log (const char *format, ...)
{
  Buffer buffer = alloc (CONSOLE_BLOCK_SIZE);
  va_list args;
  va_start (args, format);
  Buffer buffer_p = buffer_append_format_valist (buffer, format, args);
  va_end (args);
  // Meant for an exact fit too: whether the text was cut cannot be told any more.
  if (buffer_p.size == 0)
    (void) fputs ("\nWarning: Print buffer probably has exceeded.\n", stderr);

  String text = {buffer.data, (u64) (buffer_p.data - buffer.data)};
  // Most lines are short, and thousands may wait for the interface thread.
  u8 *shrunk = (u8 *) realloc (text.data, text.size > 0 ? text.size : 1);
  if (shrunk != NULL)
    text.data = shrunk;
  _console_put (text);
}

static void
console_text_buffer_append (String text)
{
  int size = text.size > INT_MAX ? INT_MAX : (int) text.size;
  const char *data = (const char *) text.data;
  if (g_utf8_validate (data, size, NULL)) {
    gtk_text_buffer_insert_at_cursor (_console_text_buffer, data, size);
  } else {
    // The peer sends what it likes. 0 bytes are replaced too.
    char *valid = g_utf8_make_valid (data, size);
    gtk_text_buffer_insert_at_cursor (_console_text_buffer, valid, -1);
    g_free (valid);
  }
}

// GLib runs all idle sources that wait before it looks at the user again, and the lines of a large
// account's rows are tens of thousands.
static void
pause_console ()
{
  GSource *source = g_main_current_source ();
  // The clock as it was read when the first of these sources ran.
  if (source && g_get_monotonic_time () >= g_source_get_time (source) + PIECE_MAX)
    answer_user ();
}

gboolean
_console_put_gdk_thread (gpointer data)
{
  ConsoleRecord *record = (ConsoleRecord *) accept_hand_over (data);
  if (record->is_for_pane && _console_text_buffer != NULL && record->text.size > 0)
    console_text_buffer_append (record->text);
  dealloc_string (record->text);
  free (record);
  pause_console ();
  return G_SOURCE_REMOVE;
}

// ---- Value dumps ----

void
_console_put (String name, String value)
{
  console_begin_line ();
  console_put (name);
  console_log (": \"");
  console_put (value);
  console_put ("\" (String)\n");
  console_end_line ();
}

void
_console_put (String name, const char *value)
{
  console_begin_line ();
  console_put (name);
  console_log (": \"%s\" (char *)\n", value);
  console_end_line ();
}

void
_console_put (String name, const void *value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %p (void *)\n", value);
  console_end_line ();
}

void
_console_put (String name, char value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %d (char)\n", (s8) value);
  console_end_line ();
}

void
_console_put (String name, r32 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %f (r32)\n", (r64) value);
  console_end_line ();
}

void
_console_put (String name, r64 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %f (r64)\n", value);
  console_end_line ();
}

void
_console_put (String name, u8 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %u (u8)\n", value);
  console_end_line ();
}

void
_console_put (String name, u16 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %u (u16)\n", value);
  console_end_line ();
}

void
_console_put (String name, u32 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %u (u32)\n", value);
  console_end_line ();
}

void
_console_put (String name, u64 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %lu (u64)\n", value);
  console_end_line ();
}

void
_console_put (String name, s8 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %d (s8)\n", value);
  console_end_line ();
}

void
_console_put (String name, s16 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %d (s16)\n", value);
  console_end_line ();
}

void
_console_put (String name, s32 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %d (s32)\n", value);
  console_end_line ();
}

void
_console_put (String name, s64 value)
{
  console_begin_line ();
  console_put (name);
  console_log (": %ld (s64)\n", value);
  console_end_line ();
}

// ---- Clock and text buffers ----

s64
get_posix_time ()
{
  time_t posix_time = time (NULL);
  assert (posix_time != ((time_t) -1));
  return (s64) posix_time;
}

char *
gtk_text_buffer_get_all_text (GtkTextBuffer *text_buffer)
{
  GtkTextIter start;
  GtkTextIter end;
  gtk_text_buffer_get_bounds (text_buffer, &start, &end);
  return gtk_text_buffer_get_text (text_buffer, &start, &end, FALSE);
}

// Lines within this height, in pixels, are broken at once, and the others later, bit by bit.
static const int TEXT_PLACE_HEIGHT = 1000;

void
gtk_text_view_place (GtkTextView *text_view, int width)
{
  // It is only placed after it was asked.
  GtkRequisition size;
  gtk_widget_get_preferred_size (GTK_WIDGET (text_view), &size, NULL);
  GtkAllocation place = {0, 0, width, TEXT_PLACE_HEIGHT};
  gtk_widget_size_allocate (GTK_WIDGET (text_view), &place);
}
