// The store: connection and schema, loading an account, writing every change.
#include "db.h"

#include <assert.h>
#include <string.h>

#include "morvane.h"

static const u64 FIXED_SQL_SIZE = 128;           // bytes of a statement block on the stack
static const u64 PROCEDURE_SQL_SIZE_MAX = 4000;  // bytes, below the limit of one formatted text
static const int BUSY_TIMEOUT = 5000;            // milliseconds

// What a statement takes beside its free text and its author: the fixed words, three numbers of 20
// digits, a status, the terminator and one spare byte are at most 160 bytes.
static const u64 SQL_ROOM = 256;

static const char SCHEMA_SQL[] =
  "CREATE TABLE IF NOT EXISTS app_info (db_version INTEGER, app_name TEXT, app_version TEXT);"
  "CREATE TABLE IF NOT EXISTS accounts (db_id INTEGER PRIMARY KEY, bare_jid TEXT);"
  "CREATE TABLE IF NOT EXISTS contacts (db_id INTEGER PRIMARY KEY, account_db_id INTEGER, "
  "bare_jid TEXT);"
  "CREATE TABLE IF NOT EXISTS contact_messages (db_id INTEGER PRIMARY KEY, "
  "contact_db_id INTEGER, time INTEGER, author TEXT, body TEXT);"
  "CREATE TABLE IF NOT EXISTS procedures (db_id INTEGER PRIMARY KEY, account_db_id INTEGER, "
  "time INTEGER, initiator TEXT, contractor TEXT, title TEXT, finished_time INTEGER, "
  "updated_time INTEGER, last_seen_time INTEGER);"
  "CREATE TABLE IF NOT EXISTS clauses (db_id INTEGER PRIMARY KEY, procedure_db_id INTEGER, "
  "time INTEGER, initiator TEXT, position INTEGER);"
  // The two blanks are in the file of every user.
  "CREATE TABLE IF NOT EXISTS clause_messages  (db_id INTEGER PRIMARY KEY, "
  "clause_db_id INTEGER, time INTEGER, author TEXT, text TEXT);"
  "CREATE TABLE IF NOT EXISTS clause_revisions (db_id INTEGER PRIMARY KEY, "
  "clause_db_id INTEGER, time INTEGER, author TEXT, status TEXT, text TEXT);"
  "CREATE TABLE IF NOT EXISTS clause_revision_decisions (db_id INTEGER PRIMARY KEY, "
  "clause_revision_db_id INTEGER, time INTEGER, author TEXT, status TEXT);";

// ---- Connection ----

sqlite3 *
db_connect (const char *path)
{
  [[maybe_unused]] int is_threadsafe = sqlite3_threadsafe ();
  assert (is_threadsafe);

  sqlite3 *db = NULL;
  int open_error = sqlite3_open (path, &db);
  if (open_error) {
    CONSOLE_DUMP (sqlite3_errmsg (db));
  }
  assert (open_error == SQLITE_OK);
  // Another window of the same working directory may be writing.
  sqlite3_busy_timeout (db, BUSY_TIMEOUT);

  db_exec_quiet (db, SCHEMA_SQL, NULL, NULL);
  u64 db_version = 0;
  db_exec (db, "SELECT db_version FROM app_info;", _db_get_db_version, &db_version);
  if (!db_version) {
    db_exec (db, "INSERT INTO app_info VALUES (1, 'Morvane', '0.1');", NULL, NULL);
  }
  return db;
}

void
db_close (sqlite3 *db)
{
  int close_error = sqlite3_close (db);
  if (close_error == SQLITE_BUSY) {
    CONSOLE_DUMP (close_error);
  }
  assert (!close_error);
}

// ---- Statements ----

void
db_exec (sqlite3 *db, const char *sql, DBRowCallback *callback, void *argument)
{
  CONSOLE_DUMP (sql);
  db_exec_quiet (db, sql, callback, argument);
}

void
db_exec_quiet (sqlite3 *db, const char *sql, DBRowCallback *callback, void *argument)
{
  char *error_msg = NULL;
  [[maybe_unused]] int error = sqlite3_exec (db, sql, callback, argument, &error_msg);
  if (error_msg) {
    CONSOLE_DUMP (sql);
    CONSOLE_DUMP (error_msg);
    sqlite3_free (error_msg);
  }
  assert (!error);
}

void
db_begin (sqlite3 *db)
{
  db_exec_quiet (db, "BEGIN;", NULL, NULL);
}

void
db_commit (sqlite3 *db)
{
  db_exec_quiet (db, "COMMIT;", NULL, NULL);
}

Buffer
buffer_append_dbtext (Buffer buffer, String text)
{
  for (; text.size && buffer.size; text = string_advance (text, 1)) {
    if (*text.data != '\'') {
      buffer = buffer_append_char (buffer, (char) *text.data);
    } else if (buffer.size >= 2) {
      buffer = buffer_append_cstr (buffer, "''");
    } else {
      // Half of a doubled apostrophe would end the text that is being quoted.
      break;
    }
  }
  return buffer;
}

// Writes the columns as "name: 'value', ..." between `begin` and `end`, in one piece: a row is one
// line of the console, and its texts may be of any length.
static void
console_put_columns (const char *begin, int columns_count, char **values, char **names,
                     const char *end)
{
  u64 size = strlen (begin) + strlen (end) + 1;
  for (int i = 0; i < columns_count; ++i) {
    size +=
      strlen (names[i]) + strlen (": '', ") + (values[i] ? strlen (values[i]) : strlen ("(null)"));
  }

  Buffer line = alloc (size);
  Buffer line_p = buffer_append_cstr (line, begin);
  for (int i = 0; i < columns_count; ++i) {
    line_p = buffer_append_format (line_p, "%s: '%s', ", names[i], values[i]);
  }
  line_p = buffer_append_cstr (line_p, end);
  _console_put ({line.data, line.size - line_p.size});
}

int
db_print_rows (void *, int columns_count, char **values, char **names)
{
  console_put_columns ("{", columns_count, values, names, "}\n");
  return 0;
}

int
_db_get_db_version (void *argument, int columns_count, char **values, char **names)
{
  u64 *db_version_out = (u64 *) argument;
  assert (db_version_out);
  if (db_version_out && columns_count > 0 && values[0] && !strcmp (names[0], "db_version")) {
    *db_version_out = cstr_dec_to_u64 (values[0]);
  }
  return 0;
}

// Runs one statement that is formatted on the stack, or in a larger block on the heap when a long
// JID makes it larger than usual.
static void exec_format (sqlite3 *db, DBRowCallback *callback, void *argument, const char *format,
                         ...) __attribute__ ((format (printf, 4, 5)));

static void
// NOLINTNEXTLINE(cert-dcl50-cpp): takes what `printf` takes, and the compiler checks it.
exec_format (sqlite3 *db, DBRowCallback *callback, void *argument, const char *format, ...)
{
  u8 stack_block[FIXED_SQL_SIZE];
  Buffer sql_buffer = {stack_block, sizeof (stack_block)};
  Buffer sql_buffer_p;
  bool is_formatted = false;
  while (!is_formatted) {
    va_list args;
    va_start (args, format);
    sql_buffer_p = buffer_append_format_valist (sql_buffer, format, args);
    va_end (args);
    sql_buffer_p = buffer_append_char (sql_buffer_p, '\0');
    // Where no room is left the statement may have been cut.
    is_formatted = sql_buffer_p.size > 0;
    if (!is_formatted) {
      Buffer larger_buffer = alloc (2 * sql_buffer.size);
      if (sql_buffer.data != stack_block) {
        dealloc (sql_buffer);
      }
      sql_buffer = larger_buffer;
    }
  }
  assert (sql_buffer_p.size > 0);
  db_exec (db, (const char *) sql_buffer.data, callback, argument);
  if (sql_buffer.data != stack_block) {
    dealloc (sql_buffer);
  }
}

// ---- Accounts ----

u64
db_get_account_db_id (sqlite3 *db, String bare_jid)
{
  u64 db_id = 0;
  exec_format (db, _db_get_account_db_id, &db_id,
               "SELECT db_id FROM accounts WHERE bare_jid = '%.*s';", STRING_ARGS (bare_jid));
  return db_id;
}

u64
db_insert_account (sqlite3 *db, String bare_jid)
{
  exec_format (db, NULL, NULL, "INSERT INTO accounts (bare_jid) VALUES ('%.*s');",
               STRING_ARGS (bare_jid));
  return (u64) sqlite3_last_insert_rowid (db);
}

static void
load_contacts (sqlite3 *db, u64 account_db_id, ContactStack *contacts)
{
  exec_format (db, _db_load_contact, contacts, "SELECT * FROM contacts WHERE account_db_id = %lu;",
               account_db_id);
  for (u32 i = 0; i < contacts->count; ++i) {
    Contact *contact = contacts->contacts[i];
    exec_format (db, _db_load_contact_message, contact,
                 "SELECT * FROM contact_messages WHERE contact_db_id = %lu ORDER BY time ASC;",
                 contact->db_id);
    pause_long_work ();
  }
}

static void
load_clause_children (sqlite3 *db, Clause *clause)
{
  exec_format (db, db_load_clause_message, clause,
               "SELECT * FROM clause_messages WHERE clause_db_id = %lu ORDER BY time ASC;",
               clause->db_id);
  exec_format (db, db_load_clause_revision, clause,
               "SELECT * FROM clause_revisions WHERE clause_db_id = %lu ORDER BY time ASC;",
               clause->db_id);
  // A draft has nobody's decision but by mistake, so its decisions stay where they are.
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    ClauseRevision *revision = clause->revisions[i];
    exec_format (db, _db_load_clause_revision_decision, revision,
                 "SELECT * FROM clause_revision_decisions WHERE clause_revision_db_id = %lu;",
                 revision->db_id);
    pause_long_work ();
  }
}

static void
load_procedures (sqlite3 *db, u64 account_db_id, ProceduresStack *procedures)
{
  exec_format (db, db_load_procedure, procedures,
               "SELECT * FROM procedures WHERE account_db_id = %lu ORDER BY time ASC;",
               account_db_id);
  for (u32 i = 0; i < procedures->count; ++i) {
    Procedure *procedure = procedures->procedures[i];
    exec_format (db, db_load_clause, procedure,
                 "SELECT * FROM clauses WHERE procedure_db_id = %lu ORDER BY time ASC;",
                 procedure->db_id);
    for (u32 j = 0; j < procedure->clauses_count; ++j) {
      load_clause_children (db, procedure->clauses[j]);
    }
  }
}

void
db_load_account (sqlite3 *db, u64 account_db_id, ContactStack *contacts_out,
                 ProceduresStack *procedures_out)
{
  assert (db);
  *contacts_out = alloc_contact_stack (64);
  load_contacts (db, account_db_id, contacts_out);
  *procedures_out = alloc_procedure_stack ();
  load_procedures (db, account_db_id, procedures_out);
}

int
_db_get_account_db_id (void *argument, int columns_count, char **values, char **names)
{
  assert (columns_count == 0 || columns_count == 1);
  if (columns_count < 1) {
    return 0;
  }
  const char *key = names[0];
  const char *value = values[0];
  console_put_columns ("", 1, values, names, "");
  assert (!strcmp (key, "db_id"));
  assert (value);
  if (value && !strcmp (key, "db_id")) {
    *(u64 *) argument = cstr_dec_to_u64 (value);
  }
  return 0;
}

// The four below take over the column `key` of a row when it is the one called `name`: a column
// that the program knows is never NULL.
static bool
is_column (const char *key, const char *name, const char *value)
{
  if (strcmp (key, name) != 0) {
    return false;
  }
  assert (value);
  return value;
}

static void
load_u64 (const char *key, const char *name, const char *value, u64 *number_out)
{
  if (is_column (key, name, value)) {
    *number_out = cstr_dec_to_u64 (value);
  }
}

// Any time is a valid one, so that it was there is kept apart.
static void
load_time (const char *key, const char *value, bool *have_time_out, s64 *time_out)
{
  if (is_column (key, "time", value)) {
    *have_time_out = true;
    *time_out = cstr_dec_to_s64 (value);
  }
}

static void
load_text (const char *key, const char *name, const char *value, const char **text_out)
{
  if (is_column (key, name, value)) {
    *text_out = value;
  }
}

int
_db_load_contact (void *argument, int columns_count, char **values, char **names)
{
  ContactStack *contacts = (ContactStack *) argument;
  u64 db_id = 0;
  u64 account_db_id = 0;
  const char *bare_jid = NULL;
  db_print_rows (NULL, columns_count, values, names);
  for (int i = 0; i < columns_count; ++i) {
    load_u64 (names[i], "db_id", values[i], &db_id);
    load_u64 (names[i], "account_db_id", values[i], &account_db_id);
    load_text (names[i], "bare_jid", values[i], &bare_jid);
  }
  assert (db_id);
  assert (account_db_id);
  assert (bare_jid);
  if (bare_jid) {
    contact_stack_push (contacts, alloc_contact (db_id, account_db_id, to_string (bare_jid),
                                                 to_string ("unavailable")));
  }
  return 0;
}

int
_db_load_contact_message (void *argument, int columns_count, char **values, char **names)
{
  Contact *contact = (Contact *) argument;
  u64 db_id = 0;
  u64 contact_db_id = 0;
  bool have_time = false;
  s64 time = 0;
  const char *author = NULL;
  const char *body = NULL;
  db_print_rows (NULL, columns_count, values, names);
  for (int i = 0; i < columns_count; ++i) {
    load_u64 (names[i], "db_id", values[i], &db_id);
    load_u64 (names[i], "contact_db_id", values[i], &contact_db_id);
    load_time (names[i], values[i], &have_time, &time);
    load_text (names[i], "author", values[i], &author);
    load_text (names[i], "body", values[i], &body);
  }
  assert (db_id);
  assert (contact_db_id);
  assert (have_time);
  assert (author);
  assert (body);
  if (author && body) {
    contact_add_message (contact, alloc_contact_message (db_id, contact_db_id, time,
                                                         to_string (author), to_string (body)));
  }
  return 0;
}

int
db_load_procedure (void *argument, int columns_count, char **values, char **names)
{
  ProceduresStack *procedures = (ProceduresStack *) argument;
  u64 db_id = 0;
  u64 account_db_id = 0;
  bool have_time = false;
  s64 time = 0;
  const char *title = NULL;
  const char *initiator = NULL;
  const char *contractor = NULL;
  db_print_rows (NULL, columns_count, values, names);
  for (int i = 0; i < columns_count; ++i) {
    load_u64 (names[i], "db_id", values[i], &db_id);
    load_u64 (names[i], "account_db_id", values[i], &account_db_id);
    load_time (names[i], values[i], &have_time, &time);
    load_text (names[i], "title", values[i], &title);
    load_text (names[i], "initiator", values[i], &initiator);
    load_text (names[i], "contractor", values[i], &contractor);
  }
  assert (db_id);
  assert (account_db_id);
  assert (have_time);
  assert (title);
  assert (initiator);
  assert (contractor);
  if (title && initiator && contractor) {
    procedures_stack_add_procedure (procedures,
                                    alloc_procedure (db_id, account_db_id, time, to_string (title),
                                                     to_string (initiator),
                                                     to_string (contractor)));
  }
  return 0;
}

int
db_load_clause (void *argument, int columns_count, char **values, char **names)
{
  Procedure *procedure = (Procedure *) argument;
  u64 db_id = 0;
  u64 procedure_db_id = 0;
  bool have_time = false;
  s64 time = 0;
  const char *initiator = NULL;
  u64 position = 0;
  db_print_rows (NULL, columns_count, values, names);
  for (int i = 0; i < columns_count; ++i) {
    load_u64 (names[i], "db_id", values[i], &db_id);
    load_u64 (names[i], "procedure_db_id", values[i], &procedure_db_id);
    load_time (names[i], values[i], &have_time, &time);
    load_text (names[i], "initiator", values[i], &initiator);
    load_u64 (names[i], "position", values[i], &position);
  }
  assert (db_id);
  assert (procedure_db_id);
  assert (have_time);
  assert (initiator);
  assert (position);
  if (initiator) {
    procedure_add_clause (procedure, alloc_clause (db_id, procedure_db_id, time,
                                                   to_string (initiator), position));
    procedure_order_last_clause (procedure);
  }
  return 0;
}

int
db_load_clause_message (void *argument, int columns_count, char **values, char **names)
{
  Clause *clause = (Clause *) argument;
  u64 db_id = 0;
  u64 clause_db_id = 0;
  bool have_time = false;
  s64 time = 0;
  const char *author = NULL;
  const char *text = NULL;
  db_print_rows (NULL, columns_count, values, names);
  for (int i = 0; i < columns_count; ++i) {
    load_u64 (names[i], "db_id", values[i], &db_id);
    load_u64 (names[i], "clause_db_id", values[i], &clause_db_id);
    load_time (names[i], values[i], &have_time, &time);
    load_text (names[i], "author", values[i], &author);
    load_text (names[i], "text", values[i], &text);
  }
  assert (db_id);
  assert (clause_db_id);
  assert (have_time);
  assert (author);
  assert (text);
  if (author && text) {
    clause_add_message (clause, alloc_clause_message (db_id, clause_db_id, time, to_string (author),
                                                      to_string (text)));
  }
  return 0;
}

// Files a loaded revision by its status: a clause has at most one draft.
static void
clause_take_revision (Clause *clause, ClauseRevision *revision)
{
  if (revision->status != REVISION_DRAFT) {
    clause_add_revision (clause, revision);
    clause_order_last_revision (clause);
    return;
  }
  assert (!clause->draft);
  if (clause->draft) {
    dealloc_clause_revision (clause->draft);
  }
  clause->draft = revision;
}

int
db_load_clause_revision (void *argument, int columns_count, char **values, char **names)
{
  Clause *clause = (Clause *) argument;
  u64 db_id = 0;
  u64 clause_db_id = 0;
  bool have_time = false;
  s64 time = 0;
  const char *author = NULL;
  RevisionStatus status = REVISION_INVALID;
  const char *text = NULL;
  db_print_rows (NULL, columns_count, values, names);
  for (int i = 0; i < columns_count; ++i) {
    load_u64 (names[i], "db_id", values[i], &db_id);
    load_u64 (names[i], "clause_db_id", values[i], &clause_db_id);
    load_time (names[i], values[i], &have_time, &time);
    load_text (names[i], "author", values[i], &author);
    if (is_column (names[i], "status", values[i])) {
      status = cstr_to_revision_status (values[i]);
      assert (status != REVISION_INVALID);
    }
    load_text (names[i], "text", values[i], &text);
  }
  assert (db_id);
  assert (clause_db_id);
  assert (have_time);
  assert (author);
  assert (status != REVISION_INVALID);
  assert (text);
  if (author && text) {
    clause_take_revision (clause,
                          alloc_clause_revision (db_id, clause_db_id, time, to_string (author),
                                                 status, to_string (text)));
  }
  return 0;
}

int
_db_load_clause_revision_decision (void *argument, int columns_count, char **values, char **names)
{
  ClauseRevision *revision = (ClauseRevision *) argument;
  u64 db_id = 0;
  u64 revision_db_id = 0;
  bool have_time = false;
  s64 time = 0;
  const char *author = NULL;
  DecisionStatus status = DECISION_INVALID;
  db_print_rows (NULL, columns_count, values, names);
  for (int i = 0; i < columns_count; ++i) {
    load_u64 (names[i], "db_id", values[i], &db_id);
    load_u64 (names[i], "clause_revision_db_id", values[i], &revision_db_id);
    load_time (names[i], values[i], &have_time, &time);
    load_text (names[i], "author", values[i], &author);
    if (is_column (names[i], "status", values[i])) {
      status = cstr_to_decision_status (values[i]);
      assert (status != DECISION_INVALID);
    }
  }
  assert (db_id);
  assert (revision_db_id);
  assert (have_time);
  assert (author);
  assert (status != DECISION_INVALID);
  if (author) {
    clause_revision_add_decision (revision,
                                  alloc_clause_revision_decision (db_id, revision_db_id, time,
                                                                  to_string (author), status));
  }
  return 0;
}

// ---- Inserts ----

// Runs a statement that the caller has formatted with `alloc_format_cstr`, and frees it.
static void
exec_and_dealloc_cstr (sqlite3 *db, char *sql)
{
  db_exec (db, sql, NULL, NULL);
  dealloc_cstr (sql);
}

// A block for a statement with `text` quoted in it: doubling apostrophes at most doubles a text.
static Buffer
alloc_sql_buffer (String text, String author)
{
  return alloc (2 * text.size + author.size + SQL_ROOM);
}

// Ends the statement that was written up to `sql_buffer_p`. One that has filled its block may have
// been cut: the caller asserts that room is left, and the block ends in a terminator all the same.
static Buffer
end_sql (Buffer sql_buffer, Buffer sql_buffer_p)
{
  sql_buffer.data[sql_buffer.size - 1] = '\0';
  return buffer_append_char (sql_buffer_p, '\0');
}

static void
exec_and_dealloc (sqlite3 *db, Buffer sql_buffer)
{
  db_exec (db, (const char *) sql_buffer.data, NULL, NULL);
  dealloc (sql_buffer);
}

void
db_insert_contact (sqlite3 *db, Contact *contact)
{
  assert (db);
  assert (contact->account_db_id);
  assert (find_char (contact->bare_jid, '\'').size == 0);
  // The account's row goes in as a text: the column turns it back into a number.
  exec_and_dealloc_cstr (
    db, alloc_format_cstr ("INSERT INTO contacts (account_db_id, bare_jid) VALUES ('%lu', '%.*s');",
                           contact->account_db_id, STRING_ARGS (contact->bare_jid)));
  contact->db_id = (u64) sqlite3_last_insert_rowid (db);
}

void
db_insert_contact_message (sqlite3 *db, ContactMessage *message)
{
  assert (db);
  Buffer sql_buffer = alloc (3 * message->body.size + message->author.size + SQL_ROOM);
  Buffer sql_buffer_p = buffer_append_cstr (
    sql_buffer, "INSERT INTO contact_messages (contact_db_id, time, author, body) VALUES (");
  sql_buffer_p = buffer_append_format (sql_buffer_p, "%lu, %ld, '%.*s', '", message->contact_db_id,
                                       message->time, STRING_ARGS (message->author));
  sql_buffer_p = buffer_append_dbtext (sql_buffer_p, message->body);
  sql_buffer_p = buffer_append_cstr (sql_buffer_p, "');");
  sql_buffer_p = end_sql (sql_buffer, sql_buffer_p);
  assert (sql_buffer_p.size > 0);
  exec_and_dealloc (db, sql_buffer);
  message->db_id = (u64) sqlite3_last_insert_rowid (db);
}

void
db_insert_clause_message (sqlite3 *db, ClauseMessage *message)
{
  assert (db);
  assert (find_char (message->author, '\'').size == 0);
  Buffer sql_buffer = alloc_sql_buffer (message->text, message->author);
  Buffer sql_buffer_p =
    buffer_append_cstr (sql_buffer,
                        "INSERT INTO clause_messages (clause_db_id, time, author, text) VALUES (");
  sql_buffer_p = buffer_append_format (sql_buffer_p, "%lu, %ld, '%.*s', '", message->clause_db_id,
                                       message->time, STRING_ARGS (message->author));
  sql_buffer_p = buffer_append_dbtext (sql_buffer_p, message->text);
  sql_buffer_p = buffer_append_cstr (sql_buffer_p, "');");
  sql_buffer_p = end_sql (sql_buffer, sql_buffer_p);
  assert (sql_buffer_p.size > 0);
  exec_and_dealloc (db, sql_buffer);
  message->db_id = (u64) sqlite3_last_insert_rowid (db);
}

void
db_insert_clause_revision (sqlite3 *db, ClauseRevision *revision)
{
  assert (db);
  assert (find_char (revision->author, '\'').size == 0);
  Buffer sql_buffer = alloc_sql_buffer (revision->text, revision->author);
  Buffer sql_buffer_p = buffer_append_cstr (
    sql_buffer, "INSERT INTO clause_revisions (clause_db_id, time, author, status, text) VALUES (");
  sql_buffer_p =
    buffer_append_format (sql_buffer_p, "%lu, %ld, '%.*s', '%s', '", revision->clause_db_id,
                          revision->time, STRING_ARGS (revision->author),
                          REVISION_STATUS_STRINGS[revision->status]);
  sql_buffer_p = buffer_append_dbtext (sql_buffer_p, revision->text);
  sql_buffer_p = buffer_append_cstr (sql_buffer_p, "');");
  sql_buffer_p = end_sql (sql_buffer, sql_buffer_p);
  assert (sql_buffer_p.size > 0);
  exec_and_dealloc (db, sql_buffer);
  revision->db_id = (u64) sqlite3_last_insert_rowid (db);
}

void
db_insert_clause_revision_decision (sqlite3 *db, ClauseRevisionDecision *decision)
{
  assert (db);
  assert (find_char (decision->author, '\'').size == 0);
  Buffer sql_buffer = alloc (decision->author.size + SQL_ROOM);
  Buffer sql_buffer_p = buffer_append_format (
    sql_buffer,
    "INSERT INTO clause_revision_decisions (clause_revision_db_id, time, author, status) VALUES (%lu, %ld, '%.*s', '%s');",
    decision->clause_revision_db_id, decision->time, STRING_ARGS (decision->author),
    DECISION_STATUS_STRINGS[decision->status]);
  sql_buffer_p = end_sql (sql_buffer, sql_buffer_p);
  assert (sql_buffer_p.size);
  exec_and_dealloc (db, sql_buffer);
  decision->db_id = (u64) sqlite3_last_insert_rowid (db);
}

void
db_insert_clause (sqlite3 *db, Clause *clause)
{
  assert (db);
  assert (!clause->db_id);
  exec_and_dealloc_cstr (
    db,
    alloc_format_cstr (
      "INSERT INTO clauses (procedure_db_id, time, initiator, position) VALUES (%lu, %ld, '%.*s', %lu);",
      clause->procedure_db_id, clause->time, STRING_ARGS (clause->initiator), clause->position));
  clause->db_id = (u64) sqlite3_last_insert_rowid (db);
}

#define INSERT_PROCEDURE_FORMAT                                                                    \
  "INSERT INTO procedures (account_db_id, time, initiator, contractor, title) VALUES (%lu, %ld, '%.*s', '%.*s', '%.*s');"

void
db_insert_procedure (sqlite3 *db, Procedure *procedure)
{
  assert (db);
  assert (!procedure->db_id);
  exec_and_dealloc_cstr (db, alloc_format_cstr (INSERT_PROCEDURE_FORMAT, procedure->account_db_id,
                                                procedure->time, STRING_ARGS (procedure->initiator),
                                                STRING_ARGS (procedure->contractor),
                                                STRING_ARGS (procedure->title)));
  procedure->db_id = (u64) sqlite3_last_insert_rowid (db);
}

bool
db_can_hold_procedure (u64 account_db_id, s64 time, String initiator, String contractor,
                       String title)
{
  // Measured on the statement for empty texts, which is what the texts are added to.
  u8 block[SQL_ROOM];
  String empty = to_string ("");
  String sql =
    make_format_string ({block, sizeof (block)}, INSERT_PROCEDURE_FORMAT, account_db_id, time,
                        STRING_ARGS (empty), STRING_ARGS (empty), STRING_ARGS (empty));
  return sql.size + initiator.size + contractor.size + title.size <= PROCEDURE_SQL_SIZE_MAX;
}

// ---- Updates ----

void
db_update_clause_revision_decision_time_and_status (sqlite3 *db, ClauseRevisionDecision *decision)
{
  assert (db);
  exec_format (db, NULL, NULL,
               "UPDATE clause_revision_decisions SET time = %ld, status = '%s' WHERE db_id = %lu;",
               decision->time, DECISION_STATUS_STRINGS[decision->status], decision->db_id);
  assert (sqlite3_changes (db) == 1);
}

void
db_update_clause_revision_text (sqlite3 *db, ClauseRevision *revision)
{
  assert (db);
  Buffer sql_buffer = alloc_sql_buffer (revision->text, {});
  Buffer sql_buffer_p = buffer_append_cstr (sql_buffer, "UPDATE clause_revisions SET text = '");
  sql_buffer_p = buffer_append_dbtext (sql_buffer_p, revision->text);
  sql_buffer_p = buffer_append_format (sql_buffer_p, "', time = %ld WHERE db_id = %lu;",
                                       revision->time, revision->db_id);
  sql_buffer_p = end_sql (sql_buffer, sql_buffer_p);
  assert (sql_buffer_p.size > 0);
  exec_and_dealloc (db, sql_buffer);
  assert (sqlite3_changes (db) == 1);
}

void
db_update_clause_revision_status (sqlite3 *db, ClauseRevision *revision)
{
  assert (db);
  exec_format (db, NULL, NULL,
               "UPDATE clause_revisions SET time = %ld, status = '%s' WHERE db_id = %lu;",
               revision->time, REVISION_STATUS_STRINGS[revision->status], revision->db_id);
  assert (sqlite3_changes (db) == 1);
}

void
db_update_clause_revision_status_and_text (sqlite3 *db, ClauseRevision *revision)
{
  assert (db);
  Buffer sql_buffer = alloc_sql_buffer (revision->text, {});
  Buffer sql_buffer_p = buffer_append_cstr (sql_buffer, "UPDATE clause_revisions SET text = '");
  sql_buffer_p = buffer_append_dbtext (sql_buffer_p, revision->text);
  sql_buffer_p =
    buffer_append_format (sql_buffer_p, "', time = %ld, status = '%s' WHERE db_id = %lu;",
                          revision->time, REVISION_STATUS_STRINGS[revision->status],
                          revision->db_id);
  sql_buffer_p = end_sql (sql_buffer, sql_buffer_p);
  assert (sql_buffer_p.size > 0);
  exec_and_dealloc (db, sql_buffer);
  assert (sqlite3_changes (db) == 1);
}

// ---- Deletes ----

void
db_delete_clause_revision_decision (sqlite3 *db, ClauseRevisionDecision *decision)
{
  assert (db);
  exec_and_dealloc_cstr (
    db, alloc_format_cstr ("DELETE FROM clause_revision_decisions WHERE db_id = %lu;",
                           decision->db_id));
  assert (sqlite3_changes (db) == 1);
  if (!sqlite3_changes (db)) {
    console_log ("Warning: Couldn't delete clause revision decision with db_id = %lu\n",
                 decision->db_id);
  }
}

void
db_delete_clause_revision (sqlite3 *db, ClauseRevision *revision)
{
  assert (db);
  for (u32 i = 0; i < revision->decisions_count; ++i) {
    db_delete_clause_revision_decision (db, revision->decisions[i]);
  }
  exec_and_dealloc_cstr (db, alloc_format_cstr ("DELETE FROM clause_revisions WHERE db_id = %lu;",
                                                revision->db_id));
  assert (sqlite3_changes (db) == 1);
  if (!sqlite3_changes (db)) {
    console_log ("Warning: Couldn't delete clause revision with db_id = %lu\n", revision->db_id);
  }
}

void
db_delete_clause_message (sqlite3 *db, ClauseMessage *message)
{
  assert (db);
  exec_and_dealloc_cstr (db, alloc_format_cstr ("DELETE FROM clause_messages WHERE db_id = %lu;",
                                                message->db_id));
  assert (sqlite3_changes (db) == 1);
  if (!sqlite3_changes (db)) {
    console_log ("Warning: Couldn't delete clause message with db_id = %lu\n", message->db_id);
  }
}

void
db_delete_clause (sqlite3 *db, Clause *clause)
{
  assert (db);
  for (u32 i = 0; i < clause->messages_count; ++i) {
    db_delete_clause_message (db, clause->messages[i]);
  }
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    db_delete_clause_revision (db, clause->revisions[i]);
  }
  if (clause->draft && clause->draft->db_id) {
    db_delete_clause_revision (db, clause->draft);
  }
  exec_format (db, NULL, NULL, "DELETE FROM clauses WHERE db_id = %lu;", clause->db_id);
  if (!sqlite3_changes (db)) {
    console_log ("Warning: Couldn't delete clause with db_id = %lu\n", clause->db_id);
  }
}

void
db_delete_procedure (sqlite3 *db, Procedure *procedure)
{
  assert (db);
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    db_delete_clause (db, procedure->clauses[i]);
  }
  exec_format (db, NULL, NULL, "DELETE FROM procedures WHERE db_id = %lu;", procedure->db_id);
  if (!sqlite3_changes (db)) {
    console_log ("Warning: Couldn't delete procedure with db_id = %lu\n", procedure->db_id);
  }
}
