// Runs every operation of the store in the order of a negotiation, again and again, and lets the
// disk fail in between: from the N-th call on that changes a file, for every N.
//
//   store_faults KIND STEP RESULTS
//
// KIND is "full" (writes find no room), "half" (the first of them has written half of its bytes) or
// "readonly" (nothing can be made, written or removed any more). STEP leaves numbers out. Works in
// the working directory; each run is a child of its own. Afterwards the disk is well again: SQLite
// checks the store, its rows must be those that the store had after the last change that came back
// as done, and the program opens and loads it. RESULTS gets lines "name value", and for each text
// that a stop had on the console and each assertion a line "message COUNT TEXT" or "stop COUNT TEXT".

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "db.h"
#include "morvane.h"

static const char STORE_NAME[] = ".morvane.db";
static const char JOURNAL_NAME[] = ".morvane.db-journal";

enum Fault {
  FAULT_NONE,
  FAULT_FULL,
  FAULT_HALF,
  FAULT_READONLY
};

// Shared with the parent, so that it outlives a stop.
struct Progress {
  u64 calls;    // that change a file, so far
  u64 changes;  // of the store, come back as done
  u64 errors;   // that the disk has given
};

static Progress *progress;
static Fault fault;
static u64 fault_at;
static bool is_reference;  // a copy of the store is kept after each change

// ---- The disk ----

typedef int OpenCall (const char *path, int flags, int mode);
typedef ssize_t WriteCall (int descriptor, const void *data, size_t size);
typedef ssize_t PwriteCall (int descriptor, const void *data, size_t size, off_t offset);
typedef int TruncateCall (int descriptor, off_t size);
typedef int UnlinkCall (const char *path);

static OpenCall *open_call;
static WriteCall *write_call;
static PwriteCall *pwrite_call;
static TruncateCall *truncate_call;
static UnlinkCall *unlink_call;

static bool
disk_fails ()
{
  return ++progress->calls >= fault_at && fault != FAULT_NONE;
}

static int
disk_error ()
{
  ++progress->errors;
  errno = fault == FAULT_READONLY ? EROFS : ENOSPC;
  return -1;
}

static int
disk_open (const char *path, int flags, int mode)
{
  // Reading goes on, and a file that is there needs no room.
  bool is_change = (flags & (O_CREAT | O_TRUNC)) && access (path, F_OK);
  bool is_failing = is_change ? disk_fails () : progress->calls >= fault_at;
  if (fault == FAULT_READONLY && is_failing && (is_change || (flags & O_ACCMODE) != O_RDONLY))
    return disk_error ();
  return open_call (path, flags, mode);
}

// How many bytes may still be written, or -1.
static ssize_t
disk_room (size_t size)
{
  u64 before = progress->calls;
  if (!disk_fails ())
    return (ssize_t) size;
  if (fault == FAULT_HALF && before + 1 == fault_at && size > 1)
    return (ssize_t) (size / 2);
  return disk_error ();
}

static ssize_t
disk_write (int descriptor, const void *data, size_t size)
{
  ssize_t room = disk_room (size);
  return room < 0 ? room : write_call (descriptor, data, (size_t) room);
}

static ssize_t
disk_pwrite (int descriptor, const void *data, size_t size, off_t offset)
{
  ssize_t room = disk_room (size);
  return room < 0 ? room : pwrite_call (descriptor, data, (size_t) room, offset);
}

static int
disk_truncate (int descriptor, off_t size)
{
  return disk_fails () && fault == FAULT_READONLY ? disk_error ()
                                                  : truncate_call (descriptor, size);
}

static void
copy_file (const char *from, const char *to)
{
  int in = open (from, O_RDONLY | O_CLOEXEC);
  int out = open (to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  static u8 block[1 << 16];
  ssize_t size;
  while ((size = read (in, block, sizeof (block))) > 0) {
    if (write (out, block, (size_t) size) != size)
      exit (2);
  }
  close (in);
  close (out);
}

// A change is done when its journal is gone.
static int
disk_unlink (const char *path)
{
  bool is_failing = disk_fails ();
  if (is_failing && fault == FAULT_READONLY)
    return disk_error ();
  int result = unlink_call (path);
  // With a full disk a file can still be removed; what was undone is no change.
  if (!result && !progress->errors) {
    ++progress->changes;
    if (is_reference) {
      std::string copy = "reference-" + std::to_string (progress->changes);
      copy_file (STORE_NAME, copy.c_str ());
    }
  }
  return result;
}

static void
set_call (const char *name, sqlite3_syscall_ptr call, sqlite3_syscall_ptr *before_out)
{
  sqlite3_vfs *vfs = sqlite3_vfs_find (NULL);
  sqlite3_syscall_ptr before = vfs->xGetSystemCall (vfs, name);
  if (!before)
    return;
  *before_out = before;
  vfs->xSetSystemCall (vfs, name, call);
}

static void
take_disk ()
{
  set_call ("open", (sqlite3_syscall_ptr) disk_open, (sqlite3_syscall_ptr *) &open_call);
  set_call ("write", (sqlite3_syscall_ptr) disk_write, (sqlite3_syscall_ptr *) &write_call);
  set_call ("pwrite", (sqlite3_syscall_ptr) disk_pwrite, (sqlite3_syscall_ptr *) &pwrite_call);
  set_call ("pwrite64", (sqlite3_syscall_ptr) disk_pwrite, (sqlite3_syscall_ptr *) &pwrite_call);
  set_call ("ftruncate", (sqlite3_syscall_ptr) disk_truncate,
            (sqlite3_syscall_ptr *) &truncate_call);
  set_call ("unlink", (sqlite3_syscall_ptr) disk_unlink, (sqlite3_syscall_ptr *) &unlink_call);
}

// ---- A negotiation ----

static const char ANNA[] = "anna@alpha.test";
static const char BERT[] = "bert@alpha.test";

static ClauseRevision *
store_revision (sqlite3 *db, Clause *clause, s64 time, const char *author, RevisionStatus status,
                const char *text)
{
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, time, to_string (author), status, to_string (text));
  db_insert_clause_revision (db, revision);
  return revision;
}

static void
store_decision (sqlite3 *db, ClauseRevision *revision, s64 time, const char *author)
{
  ClauseRevisionDecision *decision =
    alloc_clause_revision_decision (0, revision->db_id, time, to_string (author),
                                    DECISION_DISAGREE);
  db_insert_clause_revision_decision (db, decision);
  clause_revision_add_decision (revision, decision);
  decision->time += 1;
  decision->status = DECISION_AGREE;
  db_update_clause_revision_decision_time_and_status (db, decision);
}

static Clause *
store_clause (sqlite3 *db, Procedure *procedure, s64 time, const char *initiator)
{
  Clause *clause =
    alloc_clause (0, procedure->db_id, time, to_string (initiator), procedure->clauses_count + 1);
  db_insert_clause (db, clause);
  procedure_add_clause (procedure, clause);
  return clause;
}

// A draft that is edited and committed, an answer, decisions of both, and talk.
static Clause *
negotiate_clause (sqlite3 *db, Procedure *procedure, s64 time, const char *text)
{
  Clause *clause = store_clause (db, procedure, time, ANNA);
  ClauseRevision *draft = store_revision (db, clause, time + 1, ANNA, REVISION_DRAFT, "Begun");
  dealloc_string (draft->text);
  draft->text = alloc_string (text);
  db_update_clause_revision_text (db, draft);
  db_delete_clause_revision (db, draft);
  dealloc_clause_revision (draft);
  clause_add_revision (clause,
                       store_revision (db, clause, time + 2, ANNA, REVISION_COMMITTED, text));
  clause_add_revision (clause, store_revision (db, clause, time + 3, BERT, REVISION_COMMITTED,
                                               "It's another text"));
  store_decision (db, clause->revisions[0], time + 4, BERT);
  store_decision (db, clause->revisions[1], time + 5, ANNA);
  for (s64 i = 0; i < 2; ++i) {
    ClauseMessage *message =
      alloc_clause_message (0, clause->db_id, time + 6 + i, to_string (i ? BERT : "anna"),
                            to_string ("What's that?"));
    db_insert_clause_message (db, message);
    clause_add_message (clause, message);
  }
  clause->draft = store_revision (db, clause, time + 8, ANNA, REVISION_DRAFT, "Not yet sent");
  return clause;
}

static Procedure *
store_procedure (sqlite3 *db, u64 account_db_id, s64 time, const char *title)
{
  Procedure *procedure =
    alloc_procedure (0, account_db_id, time, to_string (title), to_string (ANNA), to_string (BERT));
  db_insert_procedure (db, procedure);
  return procedure;
}

static void
negotiate ()
{
  sqlite3 *db = db_connect (STORE_NAME);
  u64 account_db_id = db_get_account_db_id (db, to_string (ANNA));
  assert (!account_db_id);
  account_db_id = db_insert_account (db, to_string (ANNA));
  ContactStack contacts;
  ProceduresStack procedures;
  db_load_account (db, account_db_id, &contacts, &procedures);

  Contact *contact = alloc_contact (0, account_db_id, to_string (BERT), to_string ("unavailable"));
  db_insert_contact (db, contact);
  for (s64 i = 0; i < 2; ++i) {
    ContactMessage *message =
      alloc_contact_message (0, contact->db_id, 900 + i, to_string (i ? BERT : ANNA),
                             to_string ("It's a line"));
    db_insert_contact_message (db, message);
  }

  Procedure *procedure = store_procedure (db, account_db_id, 1000, "Delivery of apples");
  // More than a page of the file holds.
  std::string long_text (9000, 'x');
  negotiate_clause (db, procedure, 1100, long_text.c_str ());
  negotiate_clause (db, procedure, 1200, "Ten crates a week");
  Clause *clause = negotiate_clause (db, procedure, 1300, "Paid on delivery");
  db_update_clause_revision_status (db, clause->draft);
  db_update_clause_revision_status_and_text (db, clause->draft);
  db_delete_clause (db, clause);

  Procedure *other = store_procedure (db, account_db_id, 2000, "Delivery of pears");
  negotiate_clause (db, other, 2100, "Five crates");
  db_delete_procedure (db, other);
  db_close (db);
}

// ---- Looking at a store ----

static int
keep_row (void *argument, int count, char **values, char **)
{
  std::string *rows = (std::string *) argument;
  for (int i = 0; i < count; ++i)
    *rows += std::string (values[i] ? values[i] : "(null)") + "|";
  *rows += "\n";
  return 0;
}

// Everything that is in a store, or what SQLite has to say about it.
static std::string
read_rows (const char *path)
{
  std::string rows, tables;
  sqlite3 *db = NULL;
  if (access (path, F_OK))
    return rows;
  sqlite3_open (path, &db);
  sqlite3_exec (db, "SELECT sql FROM sqlite_master ORDER BY rowid", keep_row, &rows, NULL);
  static const char *const TABLES[] =
    {"app_info", "accounts",        "contacts",         "contact_messages",         "procedures",
     "clauses",  "clause_messages", "clause_revisions", "clause_revision_decisions"};
  for (const char *table : TABLES) {
    std::string sql = std::string ("SELECT * FROM ") + table + " ORDER BY rowid";
    sqlite3_exec (db, sql.c_str (), keep_row, &rows, NULL);
  }
  std::string integrity;
  sqlite3_exec (db, "PRAGMA integrity_check", keep_row, &integrity, NULL);
  sqlite3_close (db);
  return integrity == "ok|\n" ? rows : "integrity: " + integrity + rows;
}

// The steps of a start and a login.
static void
start_again ()
{
  sqlite3 *db = db_connect (STORE_NAME);
  u64 account_db_id = db_get_account_db_id (db, to_string (ANNA));
  if (!account_db_id)
    account_db_id = db_insert_account (db, to_string (ANNA));
  ContactStack contacts;
  ProceduresStack procedures;
  db_load_account (db, account_db_id, &contacts, &procedures);
  db_close (db);
}

// ---- Runs ----

static std::string
read_file (const char *path)
{
  std::string text;
  FILE *file = fopen (path, "re");
  char block[4096];
  size_t size;
  while (file && (size = fread (block, 1, sizeof (block), file)) > 0)
    text.append (block, size);
  if (file)
    fclose (file);
  return text;
}

// Runs `work` in a child with its output in files; returns the signal that ended it, or 0.
static int
run (void (*work) ())
{
  pid_t child = fork ();
  if (child == 0) {
    rlimit no_core = {0, 0};
    setrlimit (RLIMIT_CORE, &no_core);
    if (!freopen ("console", "w", stdout) || !freopen ("errors", "w", stderr))
      _exit (2);
    // What was logged ahead of a stop must be there.
    setvbuf (stdout, NULL, _IONBF, 0);
    work ();
    _exit (0);
  }
  int status = 0;
  waitpid (child, &status, 0);
  if (WIFSIGNALED (status))
    return WTERMSIG (status);
  return WEXITSTATUS (status) ? -1 : 0;
}

static void
negotiate_on_disk ()
{
  take_disk ();
  negotiate ();
}

// The text between the last `begin` and the `end` behind it.
static std::string
cut (const std::string &text, const char *begin, const char *end)
{
  size_t at = text.rfind (begin);
  if (at == std::string::npos)
    return "(nothing)";
  at += strlen (begin);
  return text.substr (at, text.find (end, at) - at);
}

struct Results {
  u64 faults;   // runs
  u64 met;      // in which the disk gave an error
  u64 stopped;  // and the program stopped
  u64 intact;   // whose store was as it had been, and sound
  u64 started;  // that a start and a login followed
  std::map<std::string, u64> messages, stops;
};

static void
try_fault (u64 number, const std::vector<std::string> &references, Results *results)
{
  unlink (STORE_NAME);
  unlink (JOURNAL_NAME);
  *progress = {};
  fault_at = number;
  int ended = run (negotiate_on_disk);
  std::string console = read_file ("console"), errors = read_file ("errors");
  ++results->faults;
  if (progress->errors) {
    ++results->met;
    results->stopped += ended == SIGABRT;
    std::string stop = cut (errors, "src/", "failed.");
    ++results->stops[stop.substr (0, stop.find (':')) + ": " + cut (stop, "Assertion `", "'")];
    bool is_open = console.rfind ("error_msg: ") == std::string::npos;
    ++results->messages[cut (console, is_open ? "sqlite3_errmsg (db): " : "error_msg: ", " (")];
  } else if (ended) {
    fprintf (stderr, "call %lu: ended by %d\n", (unsigned long) number, ended);
    exit (2);
  }

  std::string rows = read_rows (STORE_NAME);
  bool is_intact = rows == references[progress->changes];
  results->intact += is_intact;
  if (!is_intact)
    fprintf (stderr, "call %lu, after change %lu:\n%s\nand not\n%s\n", (unsigned long) number,
             (unsigned long) progress->changes, rows.c_str (),
             references[progress->changes].c_str ());
  results->started += run (start_again) == 0;
}

static void
write_results (const char *path, const Results *results, u64 calls_count, u64 changes_count)
{
  FILE *file = fopen (path, "we");
  if (!file)
    exit (2);
  fprintf (file,
           "calls %lu\nchanges %lu\nfaults %lu\nmet %lu\nstopped %lu\nintact %lu\nstarted %lu\n",
           (unsigned long) calls_count, (unsigned long) changes_count,
           (unsigned long) results->faults, (unsigned long) results->met,
           (unsigned long) results->stopped, (unsigned long) results->intact,
           (unsigned long) results->started);
  for (const auto &[text, count] : results->messages)
    fprintf (file, "message %lu %s\n", (unsigned long) count, text.c_str ());
  for (const auto &[text, count] : results->stops)
    fprintf (file, "stop %lu %s\n", (unsigned long) count, text.c_str ());
  fclose (file);
}

int
main (int count, char **arguments)
{
  if (count != 4) {
    fputs ("store_faults full|half|readonly STEP RESULTS\n", stderr);
    return 2;
  }
  progress = (Progress *) mmap (NULL, sizeof (Progress), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  u64 step = strtoul (arguments[2], NULL, 10);
  is_reference = true;
  unlink (STORE_NAME);
  unlink (JOURNAL_NAME);
  fault_at = ~0ul;
  if (run (negotiate_on_disk) || !step) {
    fprintf (stderr, "store_faults: without a fault: %s\n", read_file ("errors").c_str ());
    return 2;
  }
  is_reference = false;
  Progress whole = *progress;
  std::vector<std::string> references = {""};
  for (u64 i = 1; i <= whole.changes; ++i)
    references.push_back (read_rows (("reference-" + std::to_string (i)).c_str ()));

  fault = !strcmp (arguments[1], "full")   ? FAULT_FULL
          : !strcmp (arguments[1], "half") ? FAULT_HALF
                                           : FAULT_READONLY;
  Results results = {};
  for (u64 number = 1; number <= whole.calls; number += step)
    try_fault (number, references, &results);
  write_results (arguments[3], &results, whole.calls, whole.changes);
  return 0;
}
