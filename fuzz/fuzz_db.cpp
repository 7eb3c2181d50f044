// A store that was tampered with. An input that begins as SQLite's files do is the file itself; any
// other one is a list of changes to the rows and bytes of a small valid store.
#include "fuzz.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "db.h"

const char *const DESIGNED_STOPS[] = {
  "!error",
  "value",
  "db_id",
  "account_db_id",
  "bare_jid",
  "contact_db_id",
  "have_time",
  "author",
  "body",
  "title",
  "initiator",
  "contractor",
  "procedure_db_id",
  "position",
  "clause_db_id",
  "status != REVISION_INVALID",
  "text",
  "!clause->draft",
  "revision_db_id",
  "status != DECISION_INVALID",
  NULL,
};

static const char BASE_SQL[] =
  "INSERT INTO accounts VALUES (1, 'anna@alpha.test');"
  "INSERT INTO contacts VALUES (1, 1, 'ben@beta.test'), (2, 1, 'carl@beta.test');"
  "INSERT INTO contact_messages VALUES (1, 1, 10, 'ben@beta.test', 'hello'),"
  " (2, 1, 9, 'anna@alpha.test', 'before');"
  "INSERT INTO procedures VALUES (1, 1, 20, 'anna@alpha.test', 'ben@beta.test', 'Lease', 0, 0, 0),"
  " (2, 1, 19, 'ben@beta.test', 'anna@alpha.test', 'Sale', NULL, NULL, NULL);"
  "INSERT INTO clauses VALUES (1, 1, 30, 'anna@alpha.test', 1), (2, 1, 31, 'ben@beta.test', 2);"
  "INSERT INTO clause_messages VALUES (1, 1, 40, 'ben@beta.test', 'why?');"
  "INSERT INTO clause_revisions VALUES (1, 1, 50, 'anna@alpha.test', 'COMMITTED', 'The tenant'),"
  " (2, 1, 51, 'ben@beta.test', 'COMMITTED', 'pays'), (3, 1, 52, 'anna@alpha.test', 'DRAFT', '');"
  "INSERT INTO clause_revision_decisions VALUES (1, 1, 60, 'ben@beta.test', 'DISAGREE'),"
  " (2, 2, 61, 'anna@alpha.test', 'AGREE');";

struct Table {
  const char *name;
  u32 columns_count;
  const char *columns[9];
};

static const Table TABLES[] = {
  {"app_info", 3, {"db_version", "app_name", "app_version"}},
  {"accounts", 2, {"db_id", "bare_jid"}},
  {"contacts", 3, {"db_id", "account_db_id", "bare_jid"}},
  {"contact_messages", 5, {"db_id", "contact_db_id", "time", "author", "body"}},
  {"procedures",
   9,
   {"db_id", "account_db_id", "time", "initiator", "contractor", "title", "finished_time",
    "updated_time", "last_seen_time"}},
  {"clauses", 5, {"db_id", "procedure_db_id", "time", "initiator", "position"}},
  {"clause_messages", 5, {"db_id", "clause_db_id", "time", "author", "text"}},
  {"clause_revisions", 6, {"db_id", "clause_db_id", "time", "author", "status", "text"}},
  {"clause_revision_decisions", 5, {"db_id", "clause_revision_db_id", "time", "author", "status"}},
};

#define COUNT(table) (sizeof (table) / sizeof ((table)[0]))

static const char *const WORDS[] = {
  "COMMITTED",       "DRAFT",         "AGREE", "DISAGREE", "INVALID",
  "anna@alpha.test", "ben@beta.test", "",      "-1",
};

// ---- Files and handles ----

static char store_path[64];
static sqlite3 *store;  // the one that is open now
static u8 base[65536];
static u64 base_size;

// Takes the place of the library's: a handle without locks, which a stop may leave at any point,
// and small pages, which make small inputs.
int
sqlite3_open (const char *path, sqlite3 **db_out)
{
  int error =
    sqlite3_open_v2 (path, db_out, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                     NULL);
  store = *db_out;
  sqlite3_exec (store, "PRAGMA page_size = 512; PRAGMA synchronous = OFF;", NULL, NULL, NULL);
  return error;
}

static void
close_store ()
{
  sqlite3_stmt *statement;
  while (store && (statement = sqlite3_next_stmt (store, NULL)))
    sqlite3_finalize (statement);
  sqlite3_close (store);
  store = NULL;
}

void
fuzz_clean_up ()
{
  close_store ();
  unlink (store_path);
}

static void
write_store (String bytes)
{
  int file = open (store_path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  CHECK (file >= 0);
  CHECK (write (file, bytes.data, bytes.size) == (ssize_t) bytes.size);
  close (file);
}

static void
remove_folder ()
{
  unlink (store_path);
  *strrchr (store_path, '/') = 0;
  rmdir (store_path);
}

static void
make_base ()
{
  if (base_size)
    return;
  snprintf (store_path, sizeof (store_path), "%s/morvane-fuzz-XXXXXX",
            access ("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
  CHECK (mkdtemp (store_path));
  strcat (store_path, "/store.db");
  atexit (remove_folder);
  db_connect (store_path);
  CHECK (sqlite3_exec (store, BASE_SQL, NULL, NULL, NULL) == SQLITE_OK);
  close_store ();
  int file = open (store_path, O_RDONLY);
  base_size = (u64) read (file, base, sizeof (base));
  close (file);
  CHECK (base_size > 0 && base_size < sizeof (base));
}

// ---- Changes ----

static void
bind_value (sqlite3_stmt *statement, int place, String *input)
{
  u8 kind = take_byte (input);
  switch (kind % 6) {
  case 0:
    sqlite3_bind_null (statement, place);
    break;
  case 1:
    sqlite3_bind_int (statement, place, (s8) take_byte (input));
    break;
  case 2: {
    String bytes = take_bytes (input, 8);
    u64 value = 0;
    for (u64 index = 0; index < bytes.size; ++index)
      value = value << 8 | bytes.data[index];
    sqlite3_bind_int64 (statement, place, (s64) value);
    break;
  }
  case 3:
    sqlite3_bind_text (statement, place, WORDS[kind / 6 % COUNT (WORDS)], -1, SQLITE_STATIC);
    break;
  default: {
    String bytes = take_bytes (input, take_byte (input) % 32);
    if (kind % 6 == 4)
      sqlite3_bind_text (statement, place, (char *) bytes.data, (int) bytes.size, SQLITE_TRANSIENT);
    else
      sqlite3_bind_blob (statement, place, bytes.data, (int) bytes.size, SQLITE_TRANSIENT);
  }
  }
}

// Runs a statement whose parameters are values of the input. It may well be refused.
static void
run_change (const char *sql, String *input)
{
  sqlite3_stmt *statement = NULL;
  CHECK (sqlite3_prepare_v2 (store, sql, -1, &statement, NULL) == SQLITE_OK);
  int count = sqlite3_bind_parameter_count (statement);
  for (int place = 1; place <= count; ++place)
    bind_value (statement, place, input);
  sqlite3_step (statement);
  sqlite3_finalize (statement);
}

static void
change_row (String *input)
{
  static const char *const PARAMETERS[] = {"?, ?", "?, ?, ?", "", "?, ?, ?, ?, ?",
                                           "?, ?, ?, ?, ?, ?"};
  const Table *table = &TABLES[take_byte (input) % COUNT (TABLES)];
  u8 kind = take_byte (input);
  u8 row = take_byte (input) % 4;
  char sql[256];
  const char *parameters =
    table->columns_count == 9 ? "?, ?, ?, ?, ?, ?, ?, ?, ?" : PARAMETERS[table->columns_count - 2];
  if (kind % 8 == 0)
    snprintf (sql, sizeof (sql), "DELETE FROM %s WHERE rowid = %u;", table->name, row);
  else if (kind % 8 < 3)
    snprintf (sql, sizeof (sql), "INSERT OR REPLACE INTO %s VALUES (%s);", table->name, parameters);
  else
    snprintf (sql, sizeof (sql), "UPDATE %s SET %s = ? WHERE rowid = %u;", table->name,
              table->columns[kind / 8 % table->columns_count], row);
  run_change (sql, input);
}

// Every byte from 128 on is followed by a change of a byte of the file, the others by one of a row.
static void
write_changed_store (String input)
{
  write_store ({base, base_size});
  sqlite3_open (store_path, &store);
  sqlite3_exec (store, "PRAGMA journal_mode = OFF; BEGIN;", NULL, NULL, NULL);
  while (input.size && input.data[0] < 128) {
    take_byte (&input);
    change_row (&input);
  }
  sqlite3_exec (store, "COMMIT;", NULL, NULL, NULL);
  close_store ();

  int file = open (store_path, O_WRONLY);
  while (input.size) {
    take_byte (&input);
    u16 place = (u16) (take_u16 (&input) % base_size);
    u8 byte = take_byte (&input);
    CHECK (pwrite (file, &byte, 1, place) == 1);
  }
  close (file);
}

// ---- The run ----

static void
load_account ()
{
  sqlite3 *db = db_connect (store_path);
  String bare_jid = to_string ("anna@alpha.test");
  u64 account_db_id = db_get_account_db_id (db, bare_jid);
  if (!account_db_id)
    account_db_id = db_insert_account (db, bare_jid);
  ContactStack contacts;
  ProceduresStack procedures;
  db_load_account (db, account_db_id, &contacts, &procedures);
  for (u32 index = 0; index < procedures.count; ++index)
    CHECK (procedures.procedures[index]->db_id);
  dealloc_contact_stack (contacts);
  dealloc_procedure_stack (procedures);
}

void
fuzz_run (String input)
{
  make_base ();
  if (input.size >= 6 && !memcmp (input.data, "SQLite", 6))
    write_store (input);
  else
    write_changed_store (input);
  load_account ();
}
