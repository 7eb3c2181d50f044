// What every module of the program may use: the console log with its typed value dumps, the
// hand-over of records from one thread to the interface thread, the clock, the text of a buffer.
//
// The console is the program's only log. What is written to it goes to standard output at once,
// unchanged up to a 0 byte, and, where the console text buffer existed at that moment, is appended to
// it, whole, as valid UTF-8 by an idle callback.
//
// Ownership: texts are copied unless a function says that it takes over.
// Threads: the console, the hand-over and the clock may be used by any thread; the console text
// buffer and what takes a widget's text belong to the interface thread.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

// The text buffer of the console pane; borrowed. Set once, by the application object, before the
// first worker thread exists, and `NULL` until then.
extern GtkTextBuffer *_console_text_buffer;

// ---- Hand-over between threads ----

// Schedules `handler` with `record` on the interface thread. The record then belongs to the
// handler, which begins with `accept_hand_over`, frees the record as its last act and runs once.
// Handlers run in the order of scheduling, and all that wait may run before the user is looked at:
// who hands over much keeps pace (`worker_keep_pace`).
void hand_over (GSourceFunc handler, void *record);
void *accept_hand_over (void *record);  // returns `record`

// ---- Long work ----
// What takes long on the interface thread is done in pieces. Between them windows are drawn and
// answer the user, but nothing that was handed over is run, so that the model stays as it is. Who
// begins long work must see to it that its window is not closed meanwhile.

void begin_long_work ();
// Where one piece ends. Returns at once outside of long work, and when the last pause was just now.
// False when the work was given up: what is left of it need not be done.
bool pause_long_work ();
// Gives up what is being done. Called in a pause.
void give_up_long_work ();
void end_long_work ();

// ---- Console ----

// Around a line that is written in pieces: those of other threads wait until the line has ended, on
// standard output and in the pane alike. Lines within a line end with it.
void console_begin_line ();
void console_end_line ();
// Takes over the bytes of `string`, which come from `malloc`.
void _console_put (String string);
void console_put (String string);
void console_put (const char *cstr);
void console_put (char c);
// The string `count` times as one piece of text.
void console_put_repeat (String string, u32 count);
void console_put_repeat (const char *cstr, u32 count);
// Formatted by `buffer_append_format_valist`. At most 8192 bytes: a text that takes them all gives
// a warning on standard error.
void console_log (const char *format, ...) __attribute__ ((format (printf, 1, 2)));
// The idle callback behind the console: appends the text of a hand-over record at the cursor of the
// console text buffer, frees the record and returns `G_SOURCE_REMOVE`.
gboolean _console_put_gdk_thread (gpointer data);

// ---- Value dumps ----
// One console line: the name, ": ", the value, its type in brackets.

// Dumps an expression under its own source text.
#define CONSOLE_DUMP(x) _console_put (to_string (#x), x)

void _console_put (String name, String value);
void _console_put (String name, const char *value);
void _console_put (String name, const void *value);
void _console_put (String name, char value);  // printed as a signed number
void _console_put (String name, r32 value);
void _console_put (String name, r64 value);
void _console_put (String name, u8 value);
void _console_put (String name, u16 value);
void _console_put (String name, u32 value);
void _console_put (String name, u64 value);
void _console_put (String name, s8 value);
void _console_put (String name, s16 value);
void _console_put (String name, s32 value);
void _console_put (String name, s64 value);

// ---- Clock and text buffers ----

s64 get_posix_time ();  // POSIX seconds; asserts that the clock could be read
// All text without hidden characters; the caller frees it with `g_free`.
char *gtk_text_buffer_get_all_text (GtkTextBuffer *text_buffer);
// Places a visible text view whose page is not shown yet; `width` is what it will probably have
// there, in pixels. A text view breaks its lines whether it is seen or not, and one that never had a
// place breaks them behind each letter, at many times the cost.
void gtk_text_view_place (GtkTextView *text_view, int width);
