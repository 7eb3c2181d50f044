// Counted strings, write cursors, growable lists of strings and the program's own formatter.
#include "buffers.h"

#include <assert.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const u64 FORMAT_BLOCK_SIZE = 4096;

int
string_format_size (String string)
{
  return string.size > INT_MAX ? INT_MAX : (int) string.size;
}

// ---- Allocation ----

String
to_string (const char *cstr)
{
  String string = {(u8 *) cstr, strlen (cstr)};
  return string;
}

Buffer
alloc (u64 size)
{
  Buffer buffer = {(u8 *) malloc (size), size};
  return buffer;
}

void
dealloc (Buffer buffer)
{
  free (buffer.data);
}

// `memcpy` must not be given a null pointer, and an empty string may hold one.
static void
copy_bytes (u8 *to, const u8 *from, u64 size)
{
  if (size > 0)
    memcpy (to, from, size);
}

String
alloc_string (String string)
{
  String copy = {(u8 *) malloc (string.size), string.size};
  copy_bytes (copy.data, string.data, string.size);
  return copy;
}

String
alloc_string (const char *cstr)
{
  return alloc_string (to_string (cstr));
}

void
dealloc_string (String string)
{
  free (string.data);
}

char *
alloc_cstr (String string)
{
  char *cstr = (char *) malloc (string.size + 1);
  copy_bytes ((u8 *) cstr, string.data, string.size);
  cstr[string.size] = '\0';
  return cstr;
}

char *
alloc_cstr (const char *cstr)
{
  return alloc_cstr (to_string (cstr));
}

void
dealloc_cstr (char *cstr)
{
  free (cstr);
}

// ---- Comparison ----

bool
operator== (String a, String b)
{
  if (a.size != b.size)
    return false;
  return a.size == 0 || memcmp (a.data, b.data, a.size) == 0;
}

bool
operator!= (String a, String b)
{
  return !(a == b);
}

bool
operator== (String string, const char *cstr)
{
  while (string.size > 0 && *cstr != '\0') {
    if (*string.data != (u8) *cstr)
      return false;
    string = string_advance (string, 1);
    ++cstr;
  }
  return string.size == 0 && *cstr == '\0';
}

bool
operator!= (String string, const char *cstr)
{
  return !(string == cstr);
}

// ---- Cursors ----

static u64
min_u64 (u64 a, u64 b)
{
  return a < b ? a : b;
}

String
string_advance (String string, u64 n)
{
  u64 step = min_u64 (n, string.size);
  String rest = {string.data + step, string.size - step};
  return rest;
}

Buffer
buffer_advance (Buffer buffer, u64 n)
{
  u64 step = min_u64 (n, buffer.size);
  Buffer rest = {buffer.data + step, buffer.size - step};
  return rest;
}

Buffer
buffer_advance_zeroed (Buffer buffer, u64 n)
{
  u64 step = min_u64 (n, buffer.size);
  if (step > 0)
    memset (buffer.data, 0, step);
  return buffer_advance (buffer, step);
}

// ---- Searching and classification ----

static bool
is_whitespace (char c)
{
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

static bool
is_digit (u8 byte)
{
  return byte >= '0' && byte <= '9';
}

String
find_char (String string, char c)
{
  u8 *found = NULL;
  if (string.size > 0)
    found = (u8 *) memchr (string.data, c, string.size);
  if (found == NULL)
    return string_advance (string, string.size);
  return string_advance (string, (u64) (found - string.data));
}

bool
cstr_has_whitespace (const char *cstr)
{
  for (; *cstr != '\0'; ++cstr) {
    if (is_whitespace (*cstr))
      return true;
  }
  return false;
}

bool
cstr_has_non_whitespace (const char *cstr)
{
  for (; *cstr != '\0'; ++cstr) {
    if (!is_whitespace (*cstr))
      return true;
  }
  return false;
}

bool
string_has_only_digits (String string)
{
  for (u64 index = 0; index < string.size; ++index) {
    if (!is_digit (string.data[index]))
      return false;
  }
  return true;
}

// ---- Appending ----

Buffer
buffer_append_string (Buffer buffer, String string)
{
  u64 size = min_u64 (buffer.size, string.size);
  copy_bytes (buffer.data, string.data, size);
  return buffer_advance (buffer, size);
}

Buffer
buffer_append_char (Buffer buffer, char c)
{
  if (buffer.size == 0)
    return buffer;
  *buffer.data = (u8) c;
  return buffer_advance (buffer, 1);
}

Buffer
buffer_append_cstr (Buffer buffer, const char *cstr)
{
  // No byte behind the room is looked at: the text may be far longer.
  String string = {(u8 *) cstr, strnlen (cstr, buffer.size)};
  return buffer_append_string (buffer, string);
}

// ---- Number parsing ----

u64
string_to_u64 (String string)
{
  u64 value = 0;
  for (u64 index = 0; index < string.size; ++index)
    value = value * 10 + (u64) ((s8) string.data[index] - '0');
  return value;
}

s64
string_to_s64 (String string)
{
  if (string.size > 0 && string.data[0] == '-')
    return (s64) (0 - string_to_u64 (string_advance (string, 1)));
  return (s64) string_to_u64 (string);
}

u64
cstr_dec_to_u64 (const char *cstr)
{
  return string_to_u64 (to_string (cstr));
}

s64
cstr_dec_to_s64 (const char *cstr)
{
  return string_to_s64 (to_string (cstr));
}

// ---- Base64 ----

char
get_base64_char (u8 index)
{
  if (index < 26)
    return (char) ('A' + index);
  if (index < 52)
    return (char) ('a' + (index - 26));
  if (index < 62)
    return (char) ('0' + (index - 52));
  return index == 62 ? '+' : '/';
}

u64
get_base64_len (u64 size)
{
  return (size / 3) * 4 + (size % 3 != 0 ? 4 : 0);
}

// Three bytes as one number, the first one highest, each widened with its sign.
static u32
get_base64_group (u8 first, u8 second, u8 third)
{
  return ((u32) (s8) first << 16) | ((u32) (s8) second << 8) | (u32) (s8) third;
}

// Writes the first `count` of the four characters of a group.
static Buffer
buffer_append_base64_group (Buffer buffer, u32 group, u32 count)
{
  // The mask of 8 bits lets the sign of a byte of 128 or more through, which then gives "/".
  buffer = buffer_append_char (buffer, get_base64_char ((u8) ((group >> 18) & 0xFF)));
  for (u32 index = 1; index < count; ++index) {
    u32 shift = 18 - 6 * index;
    buffer = buffer_append_char (buffer, get_base64_char ((u8) ((group >> shift) & 0x3F)));
  }
  return buffer;
}

String
get_base64_string (Buffer buffer, String string)
{
  String result = {buffer.data, get_base64_len (string.size)};
  assert (result.size <= buffer.size);

  while (string.size >= 3) {
    u32 group = get_base64_group (string.data[0], string.data[1], string.data[2]);
    buffer = buffer_append_base64_group (buffer, group, 4);
    string = string_advance (string, 3);
  }
  if (string.size == 2) {
    u32 group = get_base64_group (string.data[0], string.data[1], 0);
    buffer = buffer_append_base64_group (buffer, group, 3);
    buffer = buffer_append_cstr (buffer, "=");
  } else if (string.size == 1) {
    u32 group = get_base64_group (string.data[0], 0, 0);
    buffer = buffer_append_base64_group (buffer, group, 2);
    buffer = buffer_append_cstr (buffer, "==");
  }

  result.size = (u64) (buffer.data - result.data);
  return result;
}

// ---- Growable arrays ----

u32
grow_max (u32 max)
{
  return max > 0 ? max * 2 : 1;
}

void *
realloc_pointers (void *array, u32 max)
{
  return realloc (array, (u64) max * sizeof (void *));
}

// ---- String stacks ----

void
strings_stack_push (StringsStack *stack, String string)
{
  if (stack->count == stack->max) {
    stack->max = grow_max (stack->max);
    stack->strings = (String *) realloc (stack->strings, (u64) stack->max * sizeof (String));
  }
  stack->strings[stack->count] = string;
  ++stack->count;
}

void
dealloc_strings_stack (StringsStack stack)
{
  free (stack.strings);
}

StringsStack
alloc_split_string_by_words (String text)
{
  StringsStack stack = {};
  if (text.size == 0)
    return stack;

  stack.max = (u32) (text.size / 5);
  stack.strings = (String *) malloc ((u64) stack.max * sizeof (String));
  u64 start = 0;
  bool after_blank = text.data[0] == ' ' || text.data[0] == '\n';
  for (u64 index = 0; index < text.size; ++index) {
    u8 byte = text.data[index];
    if (byte == ' ') {
      after_blank = true;
    } else if (byte == '\n' || after_blank) {
      // A text that begins with a line feed gets an empty first word here; the diff shows nothing
      // for it.
      String word = {text.data + start, index - start};
      strings_stack_push (&stack, word);
      start = index;
      after_blank = byte == '\n';
    }
  }
  String last_word = {text.data + start, text.size - start};
  strings_stack_push (&stack, last_word);
  return stack;
}

// ---- Formatted output ----

enum DirectiveKind {
  DIRECTIVE_LITERAL,  // not recognised: shown as it stands
  DIRECTIVE_S32,
  DIRECTIVE_U32,
  DIRECTIVE_S64,
  DIRECTIVE_U64,
  DIRECTIVE_CSTR,
  DIRECTIVE_STRING,
  DIRECTIVE_ADDR,
  DIRECTIVE_R64,
  DIRECTIVE_PERCENT,
  DIRECTIVE_STAR,
};

// What may stand between the "%" and the last letter of a directive that begins with `text`.
static const char *
get_directive_modifier (const char *text)
{
  switch (text[1]) {
  case 'l':
    return text[2] == 'l' ? "ll" : "l";
  case 'I':
    return "I64";
  case '.':
    return ".*";
  default:
    return "";
  }
}

static DirectiveKind
get_directive_kind (const char *modifier, char conversion)
{
  bool is_plain = modifier[0] == '\0';
  bool is_long = modifier[0] == 'l' || modifier[0] == 'I';
  switch (conversion) {
  case 'd':
    return is_plain ? DIRECTIVE_S32 : is_long ? DIRECTIVE_S64 : DIRECTIVE_LITERAL;
  case 'u':
    return is_plain ? DIRECTIVE_U32 : is_long ? DIRECTIVE_U64 : DIRECTIVE_LITERAL;
  case 's':
    return is_plain ? DIRECTIVE_CSTR : is_long ? DIRECTIVE_LITERAL : DIRECTIVE_STRING;
  case 'p':
    return is_plain ? DIRECTIVE_ADDR : DIRECTIVE_LITERAL;
  case 'f':
    return is_plain ? DIRECTIVE_R64 : DIRECTIVE_LITERAL;
  case '%':
    return is_plain ? DIRECTIVE_PERCENT : DIRECTIVE_LITERAL;
  case '*':
    return is_plain ? DIRECTIVE_STAR : DIRECTIVE_LITERAL;
  default:
    return DIRECTIVE_LITERAL;
  }
}

// Reads the directive that `text` begins with. What is not recognised ends with the byte that did
// not fit, or before the terminator.
static DirectiveKind
read_directive (const char *text, u64 *size_out)
{
  const char *modifier = get_directive_modifier (text);
  const char *modifier_p = modifier;
  u64 size = 1;
  for (; *modifier_p != '\0' && text[size] == *modifier_p; ++modifier_p)
    ++size;
  char conversion = text[size];
  *size_out = conversion == '\0' ? size : size + 1;
  if (*modifier_p != '\0')
    return DIRECTIVE_LITERAL;
  return get_directive_kind (modifier, conversion);
}

static Buffer
buffer_append_counted (Buffer buffer, int length, const u8 *data)
{
  if (data == NULL)
    return buffer_append_cstr (buffer, "(null)");
  String string = {(u8 *) data, length > 0 ? (u64) length : 0};
  return buffer_append_string (buffer, string);
}

static Buffer
buffer_append_directive (Buffer buffer, DirectiveKind kind, String directive, va_list *args)
{
  switch (kind) {
  case DIRECTIVE_S32:
    return buffer_append_s64 (buffer, va_arg (*args, s32));
  case DIRECTIVE_U32:
    return buffer_append_u64 (buffer, va_arg (*args, u32));
  case DIRECTIVE_S64:
    return buffer_append_s64 (buffer, va_arg (*args, s64));
  case DIRECTIVE_U64:
    return buffer_append_u64 (buffer, va_arg (*args, u64));
  case DIRECTIVE_CSTR: {
    const char *cstr = va_arg (*args, const char *);
    return buffer_append_cstr (buffer, cstr != NULL ? cstr : "(null)");
  }
  case DIRECTIVE_STRING: {
    int length = va_arg (*args, int);
    return buffer_append_counted (buffer, length, va_arg (*args, const u8 *));
  }
  case DIRECTIVE_ADDR:
    return buffer_append_addr (buffer, va_arg (*args, const void *));
  case DIRECTIVE_R64:
    return buffer_append_r64 (buffer, va_arg (*args, r64));
  case DIRECTIVE_PERCENT:
    return buffer_append_char (buffer, '%');
  case DIRECTIVE_STAR:
    assert (!"We don't handle %* yet");
    return buffer_append_string (buffer, directive);
  case DIRECTIVE_LITERAL:
    return buffer_append_string (buffer, directive);
  }
  return buffer;
}

Buffer
buffer_append_format_valist (Buffer buffer, const char *format, va_list args)
{
  // A `va_list` parameter may be an array that became a pointer; of a copy the address can be
  // passed on.
  va_list args_p;
  va_copy (args_p, args);
  while (*format != '\0' && buffer.size > 0) {
    String text = {(u8 *) format, strcspn (format, "%")};
    if (text.size > 0) {
      buffer = buffer_append_string (buffer, text);
    } else {
      DirectiveKind kind = read_directive (format, &text.size);
      buffer = buffer_append_directive (buffer, kind, text, &args_p);
    }
    format += text.size;
  }
  va_end (args_p);
  return buffer;
}

Buffer
// NOLINTNEXTLINE(cert-dcl50-cpp): takes what `printf` takes, and the compiler checks it.
buffer_append_format (Buffer buffer, const char *format, ...)
{
  va_list args;
  va_start (args, format);
  buffer = buffer_append_format_valist (buffer, format, args);
  va_end (args);
  return buffer;
}

String
// NOLINTNEXTLINE(cert-dcl50-cpp): takes what `printf` takes, and the compiler checks it.
make_format_string (Buffer buffer, const char *format, ...)
{
  va_list args;
  va_start (args, format);
  Buffer buffer_p = buffer_append_format_valist (buffer, format, args);
  va_end (args);
  assert (buffer_p.size);

  String string = {buffer.data, (u64) (buffer_p.data - buffer.data)};
  return string;
}

String
// NOLINTNEXTLINE(cert-dcl50-cpp): takes what `printf` takes, and the compiler checks it.
alloc_format_string (const char *format, ...)
{
  Buffer buffer = alloc (FORMAT_BLOCK_SIZE);
  va_list args;
  va_start (args, format);
  Buffer buffer_p = buffer_append_format_valist (buffer, format, args);
  va_end (args);
  if (buffer_p.size == 0)
    (void) fputs ("Warning: Print buffer probably has exceeded.\n", stderr);

  String string = {buffer.data, (u64) (buffer_p.data - buffer.data)};
  return string;
}

char *
// NOLINTNEXTLINE(cert-dcl50-cpp): takes what `printf` takes, and the compiler checks it.
alloc_format_cstr (const char *format, ...)
{
  Buffer buffer = alloc (FORMAT_BLOCK_SIZE);
  va_list args;
  va_start (args, format);
  Buffer buffer_p = buffer_append_format_valist (buffer, format, args);
  va_end (args);
  if (buffer_p.size > 0) {
    buffer_append_char (buffer_p, '\0');
  } else {
    buffer.data[FORMAT_BLOCK_SIZE - 1] = '\0';
    (void) fputs ("Warning: Alloc formated buffer has exceeded.\n", stderr);
  }
  return (char *) buffer.data;
}

Buffer
buffer_append_u64 (Buffer buffer, u64 value)
{
  u8 digits[20];
  u64 start = sizeof (digits);
  do {
    --start;
    digits[start] = (u8) ('0' + value % 10);
    value /= 10;
  } while (value != 0);
  String string = {digits + start, sizeof (digits) - start};
  return buffer_append_string (buffer, string);
}

Buffer
buffer_append_s64 (Buffer buffer, s64 value)
{
  if (value >= 0)
    return buffer_append_u64 (buffer, (u64) value);
  // Negated as unsigned: the most negative value has no positive partner.
  return buffer_append_u64 (buffer_append_char (buffer, '-'), 0 - (u64) value);
}

Buffer
buffer_append_addr (Buffer buffer, const void *addr)
{
  if (addr == NULL)
    return buffer_append_cstr (buffer, "(nil)");
  u8 digits[16];
  u64 start = sizeof (digits);
  for (u64 value = (u64) addr; value != 0; value >>= 4) {
    --start;
    digits[start] = (u8) "0123456789abcdef"[value & 0xF];
  }
  String string = {digits + start, sizeof (digits) - start};
  return buffer_append_string (buffer_append_cstr (buffer, "0x"), string);
}

Buffer
buffer_append_r64 (Buffer buffer, r64 value)
{
  const u64 decimals_count = 6;
  char text[512];
  int length = snprintf (text, sizeof (text), "%f", value);
  String whole = {(u8 *) text, length > 0 ? (u64) length : 0};
  // "inf" and "nan" have no decimals.
  if (whole.size <= decimals_count || !is_digit (whole.data[whole.size - 1]))
    return buffer_append_string (buffer, whole);

  // Between the whole number and the six decimals stands the locale's decimal point, of any size.
  String decimals = string_advance (whole, whole.size - decimals_count);
  whole.size -= decimals_count;
  while (whole.size > 0 && !is_digit (whole.data[whole.size - 1]))
    --whole.size;
  buffer = buffer_append_string (buffer, whole);
  buffer = buffer_append_char (buffer, '.');
  return buffer_append_string (buffer, decimals);
}
