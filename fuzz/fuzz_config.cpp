// The configuration file: the input is the file, and the values are those that a second reader of
// the same rules finds.
#include "fuzz.h"

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

const char *const DESIGNED_STOPS[] = {NULL};

void
fuzz_clean_up ()
{
}

// The file lives in memory and is written anew for each input.
static const char *
write_file (String text)
{
  static int file = -1;
  static char path[64];
  if (file < 0) {
    file = memfd_create ("config", 0);
    CHECK (file >= 0);
    snprintf (path, sizeof (path), "/proc/self/fd/%d", file);
  }
  CHECK (ftruncate (file, (off_t) text.size) == 0);
  CHECK (pwrite (file, text.data, text.size, 0) == (ssize_t) text.size);
  return path;
}

// The next piece without any of `separators`, and moves on behind the one that ended it.
static String
take_piece (String *text, const char *separators)
{
  String all = to_string (separators);
  while (text->size && find_char (all, (char) text->data[0]).size)
    *text = string_advance (*text, 1);
  String piece = {text->data, 0};
  while (piece.size < text->size && !find_char (all, (char) text->data[piece.size]).size)
    ++piece.size;
  *text = string_advance (*text, piece.size + 1);
  return piece;
}

static Config
read_again (String text)
{
  Config config = {};
  text.size -= find_char (text, '\0').size;
  while (true) {
    String key = take_piece (&text, " =");
    String value = take_piece (&text, " =\n");
    if (!key.size || !value.size)
      return config;
    if (key == "bare_jid")
      config.bare_jid = value;
    else if (key == "password")
      config.password = value;
  }
}

void
fuzz_run (String input)
{
  Config config = read_config_file (write_file (input));
  Config expected = read_again (input);
  CHECK (config.bare_jid == expected.bare_jid);
  CHECK (config.password == expected.password);
  // The values are views over a text that is kept until the program ends.
  fuzz_free_kept ();
}
