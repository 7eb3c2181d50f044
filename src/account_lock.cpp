#include "account_lock.h"

#include <glib.h>

#include "os_gnulinux.h"

struct AccountLock {
  AccountLock *next;
  sqlite3 *db;  // borrowed
  String bare_jid;
  u32 references_count;
  s32 lock;
};

// Of this process.
static AccountLock *first_lock;

// Two stores of one directory may have the same account.
static u64
make_lock_number (const char *path, String bare_jid)
{
  char *name = g_path_get_basename (path);
  GChecksum *checksum = g_checksum_new (G_CHECKSUM_SHA256);
  g_checksum_update (checksum, (const guchar *) name, -1);
  g_checksum_update (checksum, (const guchar *) "/", 1);
  g_checksum_update (checksum, bare_jid.data, (gssize) bare_jid.size);
  // 15 digits of four bits each.
  char *digits = g_strndup (g_checksum_get_string (checksum), 15);
  u64 number = g_ascii_strtoull (digits, NULL, 16);
  g_free (digits);
  g_checksum_free (checksum);
  g_free (name);
  return number;
}

AccountLock *
account_lock_take (sqlite3 *db, String bare_jid)
{
  for (AccountLock *lock = first_lock; lock; lock = lock->next) {
    if (lock->db == db && lock->bare_jid == bare_jid) {
      lock->references_count++;
      return lock;
    }
  }
  // Absolute, and without symbolic links.
  const char *path = sqlite3_db_filename (db, "main");
  s32 system_lock = -1;
  bool is_ours = true;
  if (path && *path) {
    char *directory = g_path_get_dirname (path);
    is_ours = os_lock_directory (directory, make_lock_number (path, bare_jid), &system_lock);
    g_free (directory);
  }
  if (!is_ours)
    return NULL;
  AccountLock *lock = g_new (AccountLock, 1);
  *lock = {first_lock, db, alloc_string (bare_jid), 1, system_lock};
  first_lock = lock;
  return lock;
}

void
account_lock_drop (AccountLock *lock)
{
  if (!lock || --lock->references_count)
    return;
  AccountLock **link = &first_lock;
  while (*link != lock)
    link = &(*link)->next;
  *link = lock->next;
  os_unlock_directory (lock->lock);
  dealloc_string (lock->bare_jid);
  g_free (lock);
}
