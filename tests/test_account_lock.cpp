// The lock that keeps an account of a store for one process. The judges are the system's locks as any
// other descriptor meets them, and other processes.
#include "account_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "db.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"

// Whether anybody has any lock on the directory.
static bool
is_directory_locked (const char *directory)
{
  int descriptor = open (directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  EXPECT_EQ (fcntl (descriptor, F_OFD_GETLK, &lock), 0);
  close (descriptor);
  return lock.l_type != F_UNLCK;
}

// A store in a directory of its own, gone with the record.
struct Store {
  std::filesystem::path directory;
  std::string path;
  sqlite3 *db;

  Store ()
  {
    std::string pattern =
      (std::filesystem::temp_directory_path () / "morvane-lock-XXXXXX").string ();
    directory = mkdtemp (pattern.data ());
    path = (directory / "store.db").string ();
    db = db_connect (path.c_str ());
  }

  ~Store ()
  {
    db_close (db);
    std::filesystem::remove_all (directory);
  }

  bool is_locked ()
  {
    return is_directory_locked (directory.c_str ());
  }
};

static bool
take_and_drop (sqlite3 *db, const char *bare_jid)
{
  AccountLock *lock = account_lock_take (db, to_string (bare_jid));
  account_lock_drop (lock);
  return lock != NULL;
}

// A process that opens the store by `path` and takes the account. Returns when it has it.
static pid_t
start_holder (const std::string &path, const char *bare_jid)
{
  int ends[2];
  EXPECT_EQ (pipe (ends), 0);
  pid_t child = fork ();
  if (!child) {
    sqlite3 *db = NULL;
    sqlite3_open (path.c_str (), &db);
    char answer = account_lock_take (db, to_string (bare_jid)) ? 'y' : 'n';
    if (write (ends[1], &answer, 1) == 1)
      pause ();
    _exit (1);
  }
  char answer = '\0';
  EXPECT_EQ (read (ends[0], &answer, 1), 1);
  EXPECT_EQ (answer, 'y');
  close (ends[0]);
  close (ends[1]);
  return child;
}

static void
end_holder (pid_t child)
{
  kill (child, SIGKILL);
  waitpid (child, NULL, 0);
}

// ---- One process ----

TEST (account_lock_take, locks_until_it_is_dropped)
{
  Store store;
  AccountLock *lock = account_lock_take (store.db, to_string (ALICE));
  EXPECT_TRUE (lock);
  EXPECT_TRUE (store.is_locked ());
  account_lock_drop (lock);
  EXPECT_FALSE (store.is_locked ());
}

TEST (account_lock_take, shares_an_account_within_the_process)
{
  Store store;
  AccountLock *first = account_lock_take (store.db, to_string (ALICE));
  AccountLock *second = account_lock_take (store.db, to_string (ALICE));
  EXPECT_TRUE (first);
  EXPECT_TRUE (second);
  account_lock_drop (first);
  EXPECT_TRUE (store.is_locked ());
  account_lock_drop (second);
  EXPECT_FALSE (store.is_locked ());
}

TEST (account_lock_take, keeps_each_account_by_itself)
{
  Store store;
  AccountLock *alice = account_lock_take (store.db, to_string (ALICE));
  AccountLock *bob = account_lock_take (store.db, to_string (BOB));
  EXPECT_TRUE (alice);
  EXPECT_TRUE (bob);
  EXPECT_NE (alice, bob);
  account_lock_drop (alice);
  EXPECT_TRUE (store.is_locked ());
  account_lock_drop (bob);
  EXPECT_FALSE (store.is_locked ());
}

TEST (account_lock_take, leaves_no_file)
{
  Store store;
  AccountLock *lock = account_lock_take (store.db, to_string (ALICE));
  int files_count = 0;
  for (const auto &entry : std::filesystem::directory_iterator (store.directory))
    files_count += entry.path () != store.path;
  EXPECT_EQ (files_count, 0);
  account_lock_drop (lock);
}

TEST (account_lock_take, takes_a_store_without_a_file)
{
  sqlite3 *db = NULL;
  EXPECT_EQ (sqlite3_open (":memory:", &db), SQLITE_OK);
  AccountLock *lock = account_lock_take (db, to_string (ALICE));
  EXPECT_TRUE (lock);
  EXPECT_FALSE (is_directory_locked ("."));
  account_lock_drop (lock);
  sqlite3_close (db);
}

TEST (account_lock_drop, takes_none)
{
  account_lock_drop (NULL);
}

// SQLite's locks are the process's, and go with the first descriptor on the store that is closed.
TEST (account_lock_drop, leaves_the_locks_of_a_transaction)
{
  Store store;
  EXPECT_EQ (sqlite3_exec (store.db, "BEGIN IMMEDIATE", NULL, NULL, NULL), SQLITE_OK);
  EXPECT_TRUE (take_and_drop (store.db, ALICE));
  pid_t child = fork ();
  if (!child) {
    sqlite3 *db = NULL;
    sqlite3_open (store.path.c_str (), &db);
    _exit (sqlite3_exec (db, "BEGIN IMMEDIATE", NULL, NULL, NULL));
  }
  int status = 0;
  EXPECT_EQ (waitpid (child, &status, 0), child);
  EXPECT_TRUE (WIFEXITED (status));
  EXPECT_EQ (WEXITSTATUS (status), SQLITE_BUSY);
  EXPECT_EQ (sqlite3_exec (store.db, "COMMIT", NULL, NULL, NULL), SQLITE_OK);
}

// ---- Two processes ----

TEST (account_lock_take, is_refused_while_another_process_has_the_account)
{
  Store store;
  pid_t holder = start_holder (store.path, ALICE);
  EXPECT_FALSE (take_and_drop (store.db, ALICE));
  // Nothing was left of the refused one, and it did not end the other's.
  EXPECT_FALSE (take_and_drop (store.db, ALICE));
  EXPECT_TRUE (take_and_drop (store.db, BOB));
  EXPECT_FALSE (take_and_drop (store.db, ALICE));
  end_holder (holder);
  EXPECT_FALSE (store.is_locked ());
  EXPECT_TRUE (take_and_drop (store.db, ALICE));
}

TEST (account_lock_take, knows_the_store_behind_a_link)
{
  Store store;
  Store other;
  std::string link = (other.directory / "link.db").string ();
  std::filesystem::create_symlink (store.path, link);
  pid_t holder = start_holder (link, ALICE);
  EXPECT_FALSE (take_and_drop (store.db, ALICE));
  EXPECT_TRUE (take_and_drop (other.db, ALICE));
  end_holder (holder);
}

TEST (account_lock_take, tells_two_stores_of_one_directory_apart)
{
  Store store;
  std::string path = (store.directory / "second.db").string ();
  pid_t holder = start_holder (path, ALICE);
  EXPECT_TRUE (take_and_drop (store.db, ALICE));
  end_holder (holder);
}
