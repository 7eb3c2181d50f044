// Preloaded into a program, lets the disk below its store fail when the trial says so: the file that
// STORE_DISK names then holds "full N" or "readonly N", and the N-th call from there on that would
// change one of the store's files, and all later ones, fail. Without that file nothing fails.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

static const char STORE_NAME[] = "/.morvane.db";

static long calls;  // since the disk is to fail

// The error that a change of the store's files meets now, or 0.
static int
store_error (int is_room_needed)
{
  const char *path = getenv ("STORE_DISK");
  if (!path)
    return 0;
  int file = (int) syscall (SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC);
  if (file < 0)
    return 0;
  char text[64] = "";
  if (syscall (SYS_read, file, text, sizeof (text) - 1) < 0)
    text[0] = '\0';
  syscall (SYS_close, file);
  long number = 0;
  char kind[16] = "";
  if (sscanf (text, "%15s %ld", kind, &number) != 2 || ++calls < number)
    return 0;
  if (!strcmp (kind, "readonly"))
    return EROFS;
  return is_room_needed ? ENOSPC : 0;
}

static int
is_store_path (const char *path)
{
  return strstr (path, STORE_NAME) != NULL;
}

static int
is_store (int descriptor)
{
  char link[64], path[PATH_MAX];
  snprintf (link, sizeof (link), "/proc/self/fd/%d", descriptor);
  ssize_t size = readlink (link, path, sizeof (path) - 1);
  path[size < 0 ? 0 : size] = '\0';
  return is_store_path (path);
}

static int
fails (int is_the_store, int is_room_needed)
{
  int error = is_the_store ? store_error (is_room_needed) : 0;
  if (error)
    errno = error;
  return error;
}

ssize_t
write (int descriptor, const void *data, size_t size)
{
  if (fails (is_store (descriptor), 1))
    return -1;
  return syscall (SYS_write, descriptor, data, size);
}

ssize_t
pwrite64 (int descriptor, const void *data, size_t size, off64_t offset)
{
  if (fails (is_store (descriptor), 1))
    return -1;
  return syscall (SYS_pwrite64, descriptor, data, size, offset);
}

ssize_t
pwrite (int descriptor, const void *data, size_t size, off_t offset)
{
  return pwrite64 (descriptor, data, size, offset);
}

int
ftruncate64 (int descriptor, off64_t size)
{
  return fails (is_store (descriptor), 0) ? -1 : (int) syscall (SYS_ftruncate, descriptor, size);
}

int
ftruncate (int descriptor, off_t size)
{
  return ftruncate64 (descriptor, size);
}

int
unlink (const char *path)
{
  return fails (is_store_path (path), 0) ? -1 : (int) syscall (SYS_unlinkat, AT_FDCWD, path, 0);
}

static int
open_file (const char *path, int flags, mode_t mode)
{
  if ((flags & O_CREAT) && is_store_path (path) && access (path, F_OK) && fails (1, 0))
    return -1;
  return (int) syscall (SYS_openat, AT_FDCWD, path, flags, mode);
}

static mode_t
mode_of (int flags, va_list arguments)
{
  return flags & (O_CREAT | __O_TMPFILE) ? (mode_t) va_arg (arguments, int) : 0;
}

int
open64 (const char *path, int flags, ...)
{
  va_list arguments;
  va_start (arguments, flags);
  mode_t mode = mode_of (flags, arguments);
  va_end (arguments);
  return open_file (path, flags | O_LARGEFILE, mode);
}

int
open (const char *path, int flags, ...)
{
  va_list arguments;
  va_start (arguments, flags);
  mode_t mode = mode_of (flags, arguments);
  va_end (arguments);
  return open_file (path, flags, mode);
}
