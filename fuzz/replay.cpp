// Runs inputs that lie in files, one after the other: for a compiler without a fuzzing engine.
//
//   fuzz_TARGET FILE-OR-FOLDER...
#include <stdio.h>
#include <string.h>

#include "fuzz.h"

// From here on these are the library's own.
#undef malloc
#undef free

extern "C" int LLVMFuzzerTestOneInput (const u8 *data, size_t size);

static void
run_file (const char *path)
{
  gchar *contents = NULL;
  gsize size = 0;
  if (!g_file_get_contents (path, &contents, &size, NULL))
    fuzz_fail (path, __FILE__, __LINE__);
  // Without the terminator, which would hide a byte read too far.
  u8 *data = (u8 *) malloc (size);
  if (size)
    memcpy (data, contents, size);
  LLVMFuzzerTestOneInput (data, size);
  free (data);
  g_free (contents);
}

static u32
run_folder (const char *path)
{
  u32 count = 0;
  GDir *folder = g_dir_open (path, 0, NULL);
  while (const char *name = folder ? g_dir_read_name (folder) : NULL) {
    gchar *file = g_build_filename (path, name, NULL);
    run_file (file);
    g_free (file);
    ++count;
  }
  if (folder)
    g_dir_close (folder);
  return count;
}

int
main (int arguments_count, char **arguments)
{
  u32 count = 0;
  for (int index = 1; index < arguments_count; ++index) {
    if (g_file_test (arguments[index], G_FILE_TEST_IS_DIR)) {
      count += run_folder (arguments[index]);
    } else {
      run_file (arguments[index]);
      ++count;
    }
  }
  fprintf (stderr, "%u inputs\n", count);
  return count ? 0 : 1;
}
