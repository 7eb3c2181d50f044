// Counted strings, write cursors, growable lists of strings and the program's own formatter.
//
// Text is handled as counted bytes, not as terminated ones, and output fills memory of the caller
// from the front: every writer takes a `Buffer` by value and returns it moved on. Writers clamp
// silently to the room that is left, and allocation failure is not tested.
//
// Ownership: what an `alloc_` function returns belongs to the caller, who gives it back to the
// `dealloc_` partner. Everything else returns views over the memory of its arguments.
// Threads: no state; any thread.
#pragma once

#include <stdarg.h>
#include <stdint.h>

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int8_t s8;
typedef int16_t s16;
typedef int32_t s32;
typedef int64_t s64;
typedef float r32;
typedef double r64;

// A counted view of bytes, not terminated, passed by value. Size 0 is the empty string, which also
// stands for nothing found; its `data` may still point somewhere.
struct String {
  u8 *data;  // first byte; owned or borrowed, as the function says that made the string
  u64 size;  // bytes
};

// A write cursor, passed by value. The caller keeps the start of the memory separately: what was
// written lies between that start and `data`.
struct Buffer {
  u8 *data;  // where the next byte goes
  u64 size;  // bytes of room left from there
};

// A growable array of strings, passed by value.
struct StringsStack {
  u32 max;          // slots allocated
  u32 count;        // slots used
  String *strings;  // `max` slots, owned; the bytes of the strings are not
};

// The two arguments that "%.*s" takes for a `String`: length, then data. Reads `s` twice: it must be
// a variable, not a call.
#define STRING_ARGS(s) string_format_size (s), (s).data

// The size of a string as the length of "%.*s": sizes above `INT_MAX` count as `INT_MAX`.
int string_format_size (String string);

// ---- Allocation ----

String to_string (const char *cstr);  // a view without the terminator
Buffer alloc (u64 size);              // contents undefined
void dealloc (Buffer buffer);
String alloc_string (String string);     // a copy, without a terminator
String alloc_string (const char *cstr);  // a copy, without a terminator
void dealloc_string (String string);
char *alloc_cstr (String string);  // a copy with a terminator
char *alloc_cstr (const char *cstr);
void dealloc_cstr (char *cstr);

// ---- Comparison ----

bool operator== (String a, String b);
bool operator!= (String a, String b);
// A string that holds a 0 byte equals no terminated text.
bool operator== (String string, const char *cstr);
bool operator!= (String string, const char *cstr);

// ---- Cursors ----

// Moves on by `n` bytes, at most to the end.
String string_advance (String string, u64 n);
Buffer buffer_advance (Buffer buffer, u64 n);
// The same, and what is passed over is filled with 0 bytes.
Buffer buffer_advance_zeroed (Buffer buffer, u64 n);

// ---- Searching and classification ----
// White space is exactly space, line feed, carriage return and horizontal tab.

// The tail that begins with the first `c`; empty, at the end of the string, when there is none.
String find_char (String string, char c);
bool cstr_has_whitespace (const char *cstr);
bool cstr_has_non_whitespace (const char *cstr);
bool string_has_only_digits (String string);  // true for an empty string

// ---- Appending ----
// What does not fit is dropped; no terminator is written.

Buffer buffer_append_string (Buffer buffer, String string);
Buffer buffer_append_char (Buffer buffer, char c);
Buffer buffer_append_cstr (Buffer buffer, const char *cstr);

// ---- Number parsing ----
// Decimal, wrapping, without validation: a byte that is no digit counts as its distance from '0'.
// Empty gives 0. The signed ones take a leading "-", none takes a "+".

u64 string_to_u64 (String string);
s64 string_to_s64 (String string);
u64 cstr_dec_to_u64 (const char *cstr);
s64 cstr_dec_to_s64 (const char *cstr);

// ---- Base64 ----
// The alphabet of RFC 4648 with "=" as padding.

char get_base64_char (u8 index);  // an index above 63 gives "/" as 63 does
u64 get_base64_len (u64 size);    // bytes that `size` bytes take when encoded
// Encodes into the front of `buffer` and returns a view over what was written, without a
// terminator. Asserts that it fits. Standard for plain ASCII; a byte of 128 or more is widened with
// its sign, so that it disturbs the characters before it: this is meant to be so.
String get_base64_string (Buffer buffer, String string);

// ---- Growable arrays ----

// The capacity after `max` slots: twice as many, and 1 after none, so that an array always grows.
u32 grow_max (u32 max);
// An array of `max` pointers, or `array` with room for as many; freed with `free`.
void *realloc_pointers (void *array, u32 max);

// ---- String stacks ----

void strings_stack_push (StringsStack *stack, String string);  // stores the view, copies no bytes
void dealloc_strings_stack (StringsStack stack);               // frees the slots, not the strings
// The words of a text as views over it; joined in order they give the text again, byte for byte.
// Spaces stay at the end of the word before them, each line feed begins a word of its own together
// with the spaces that follow, and no other byte separates. An empty text gives a stack of zeros.
StringsStack alloc_split_string_by_words (String text);

// ---- Formatted output ----
// Directives: "%d" "%u" (32 bits), "%ld" "%lld" "%I64d" "%lu" "%llu" "%I64u" (64 bits), "%s",
// "%.*s" (int length, then bytes; a negative length counts as 0), "%p", "%f", "%%". A null text
// prints "(null)". Anything else after a "%" is copied as it stands and takes no argument, except
// that "%*" stops the program. Formatting ends silently where the room ends.

Buffer buffer_append_format_valist (Buffer buffer, const char *format, va_list args)
  __attribute__ ((format (printf, 2, 0)));
Buffer buffer_append_format (Buffer buffer, const char *format, ...)
  __attribute__ ((format (printf, 2, 3)));
// A view over what was written from the start of `buffer`. Asserts that at least one byte is left
// over: a result that fills the buffer may have been cut.
String make_format_string (Buffer buffer, const char *format, ...)
  __attribute__ ((format (printf, 2, 3)));
// At most 4096 bytes; a warning on standard error when no byte is left over. The caller frees it
// with `dealloc_string`.
String alloc_format_string (const char *format, ...) __attribute__ ((format (printf, 1, 2)));
// At most 4095 bytes and a terminator; a warning on standard error when the text was cut. The
// caller frees it with `dealloc_cstr`.
char *alloc_format_cstr (const char *format, ...) __attribute__ ((format (printf, 1, 2)));

Buffer buffer_append_u64 (Buffer buffer, u64 value);
Buffer buffer_append_s64 (Buffer buffer, s64 value);
// "0x" and lower-case hexadecimal digits; "(nil)" for a null pointer.
Buffer buffer_append_addr (Buffer buffer, const void *addr);
// Six decimals after a full stop, whatever the locale.
Buffer buffer_append_r64 (Buffer buffer, r64 value);
