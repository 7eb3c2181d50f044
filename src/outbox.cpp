// The outbox: entries, their states, and the table that outlives the session.
#include "outbox.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>

#include "morvane.h"

const char *OUTBOX_KIND_STRINGS[] = {"procedure", "clause", "revision", "message", "decision"};

static const u32 OUTBOX_CAPACITY = 64;

// ---- Table ----

static int
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): as SQLite calls it.
load_rows_count (void *argument, int, char **values, char **)
{
  *(u64 *) argument = cstr_dec_to_u64 (values[0]);
  return 0;
}

// Another process may make the table and drop it. Only a statement looks at the file: what SQLite
// tells of a table by itself is what this connection knew of it last.
static bool
has_outbox_table (sqlite3 *db)
{
  u64 tables_count = 0;
  db_exec_quiet (db, "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'outbox';",
                 load_rows_count, &tables_count);
  return tables_count != 0;
}

// Begins a transaction unless the caller has one. Returns whether `end_outbox_transaction` has to
// end it.
static bool
begin_outbox_transaction (sqlite3 *db)
{
  bool is_alone = sqlite3_get_autocommit (db) != 0;
  if (is_alone)
    db_exec_quiet (db, "BEGIN IMMEDIATE;", NULL, NULL);
  return is_alone;
}

static void
end_outbox_transaction (sqlite3 *db, bool is_alone)
{
  if (is_alone)
    db_exec_quiet (db, "COMMIT;", NULL, NULL);
}

bool
outbox_drop_empty_table (sqlite3 *db)
{
  if (!has_outbox_table (db))
    return true;
  // Another process may be adding a row, or have dropped the table by now: looking and dropping are
  // one.
  bool is_alone = begin_outbox_transaction (db);
  bool has_table = has_outbox_table (db);
  u64 rows_count = 0;
  if (has_table)
    db_exec (db, "SELECT count(*) FROM outbox;", load_rows_count, &rows_count);
  if (has_table && !rows_count)
    db_exec (db, "DROP TABLE outbox;", NULL, NULL);
  end_outbox_transaction (db, is_alone);
  return !rows_count;
}

static void
insert_row (Outbox *outbox, OutboxEntry *entry)
{
  if (!has_outbox_table (outbox->db)) {
    db_exec (outbox->db,
             "CREATE TABLE IF NOT EXISTS outbox (db_id INTEGER PRIMARY KEY, account_db_id INTEGER, "
             "sequence INTEGER, kind TEXT, object_db_id INTEGER);",
             NULL, NULL);
  }
  char *sql = alloc_format_cstr (
    "INSERT INTO outbox (account_db_id, sequence, kind, object_db_id) VALUES (%lu, %lu, '%s', %lu);",
    outbox->account_db_id, entry->sequence, OUTBOX_KIND_STRINGS[entry->kind], entry->object_db_id);
  db_exec (outbox->db, sql, NULL, NULL);
  dealloc_cstr (sql);
  entry->db_id = (u64) sqlite3_last_insert_rowid (outbox->db);
}

static void
delete_row (Outbox *outbox, OutboxEntry *entry)
{
  char *sql = alloc_format_cstr ("DELETE FROM outbox WHERE db_id = %lu;", entry->db_id);
  db_exec (outbox->db, sql, NULL, NULL);
  dealloc_cstr (sql);
  entry->db_id = 0;
}

// ---- Entries ----

// Makes the row, or deletes it, as the entry's state wants.
static void
settle_row (Outbox *outbox, OutboxEntry *entry)
{
  bool is_finished = entry->state == OUTBOX_TAKEN || entry->state == OUTBOX_DONE;
  bool wants_row = !is_finished && !entry->removed_object;
  if (wants_row && !entry->db_id)
    insert_row (outbox, entry);
  if (!wants_row && entry->db_id)
    delete_row (outbox, entry);
}

// All of them in one transaction: each costs the disk as much as a hundred statements.
static void
settle_rows (Outbox *outbox)
{
  bool is_alone = begin_outbox_transaction (outbox->db);
  for (u32 i = 0; i < outbox->count; ++i)
    settle_row (outbox, &outbox->entries[i]);
  end_outbox_transaction (outbox->db, is_alone);
}

// The new entry, zeroed, at the end.
static OutboxEntry *
push_entry (Outbox *outbox)
{
  assert (outbox->max);
  if (outbox->count == outbox->max) {
    outbox->max *= 2;
    outbox->entries =
      (OutboxEntry *) realloc (outbox->entries, outbox->max * sizeof (outbox->entries[0]));
    assert (outbox->entries);
  }
  OutboxEntry *entry = &outbox->entries[outbox->count++];
  *entry = {};
  return entry;
}

static void
forget_entry (Outbox *outbox, u32 index)
{
  assert (index < outbox->count);
  outbox->count--;
  memmove (&outbox->entries[index], &outbox->entries[index + 1],
           (outbox->count - index) * sizeof (outbox->entries[0]));
}

static int
load_entry (void *argument, int columns_count, char **values, char **names)
{
  Outbox *outbox = (Outbox *) argument;
  db_print_rows (NULL, columns_count, values, names);
  assert (columns_count == 4);
  for (int i = 0; i < columns_count; ++i)
    assert (values[i]);
  for (int kind = 0; kind < OUTBOX_KINDS_COUNT; ++kind) {
    if (!strcmp (values[2], OUTBOX_KIND_STRINGS[kind])) {
      OutboxEntry *entry = push_entry (outbox);
      entry->db_id = cstr_dec_to_u64 (values[0]);
      entry->sequence = cstr_dec_to_u64 (values[1]);
      entry->kind = (OutboxKind) kind;
      entry->object_db_id = cstr_dec_to_u64 (values[3]);
      entry->state = entry->sequence ? OUTBOX_WAITING : OUTBOX_HELD;
      outbox->last_sequence = entry->sequence;
      return 0;
    }
  }
  console_put ("Warning: The outbox names an object of an unknown kind.\n");
  return 0;
}

static void
load_entries (Outbox *outbox)
{
  char *sql = alloc_format_cstr ("SELECT db_id, sequence, kind, object_db_id FROM outbox WHERE "
                                 "account_db_id = %lu ORDER BY sequence ASC, db_id ASC;",
                                 outbox->account_db_id);
  db_exec (outbox->db, sql, load_entry, outbox);
  dealloc_cstr (sql);
}

Outbox
outbox_load (sqlite3 *db, u64 account_db_id)
{
  assert (db);
  assert (account_db_id);
  Outbox outbox = {};
  outbox.db = db;
  outbox.account_db_id = account_db_id;
  outbox.max = OUTBOX_CAPACITY;
  outbox.entries = (OutboxEntry *) malloc (outbox.max * sizeof (outbox.entries[0]));
  assert (outbox.entries);
  if (has_outbox_table (db)) {
    bool is_alone = begin_outbox_transaction (db);
    if (!outbox_drop_empty_table (db))
      load_entries (&outbox);
    end_outbox_transaction (db, is_alone);
  }
  return outbox;
}

void
dealloc_outbox (Outbox *outbox)
{
  free (outbox->entries);
  *outbox = {};
}

// ---- Objects ----

static bool
is_entry_of (const OutboxEntry *entry, OutboxKind kind, u64 object_db_id)
{
  return !entry->removed_object && entry->kind == kind && entry->object_db_id == object_db_id;
}

bool
outbox_is_unsent (const OutboxEntry *entry)
{
  return entry->state == OUTBOX_WAITING || entry->state == OUTBOX_REFUSED ||
         entry->state == OUTBOX_HELD;
}

OutboxEntry *
outbox_get_unsent (Outbox *outbox, OutboxKind kind, u64 object_db_id)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (outbox_is_unsent (entry) && is_entry_of (entry, kind, object_db_id))
      return entry;
  }
  return NULL;
}

void
outbox_add (Outbox *outbox, OutboxKind kind, u64 object_db_id)
{
  assert (object_db_id);
  OutboxEntry *entry = outbox_get_unsent (outbox, kind, object_db_id);
  if (entry) {
    if (entry->state == OUTBOX_REFUSED)
      entry->state = OUTBOX_WAITING;
    return;
  }
  entry = push_entry (outbox);
  entry->sequence = ++outbox->last_sequence;
  entry->kind = kind;
  entry->object_db_id = object_db_id;
  settle_row (outbox, entry);
}

static void
remove_object (Outbox *outbox, OutboxKind kind, u64 object_db_id, const void *object)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (is_entry_of (entry, kind, object_db_id)) {
      entry->removed_object = object;
      settle_row (outbox, entry);
    }
  }
}

static void
restore_object (Outbox *outbox, OutboxKind, u64 object_db_id, const void *object)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (entry->removed_object == object) {
      entry->removed_object = NULL;
      entry->object_db_id = object_db_id;
      settle_row (outbox, entry);
    }
  }
}

typedef void ObjectOperation (Outbox *outbox, OutboxKind kind, u64 object_db_id,
                              const void *object);

static void
visit_clause (Outbox *outbox, Clause *clause, ObjectOperation *operation)
{
  operation (outbox, OUTBOX_CLAUSE, clause->db_id, clause);
  for (u32 i = 0; i < clause->messages_count; ++i) {
    operation (outbox, OUTBOX_MESSAGE, clause->messages[i]->db_id, clause->messages[i]);
  }
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    ClauseRevision *revision = clause->revisions[i];
    operation (outbox, OUTBOX_REVISION, revision->db_id, revision);
    for (u32 j = 0; j < revision->decisions_count; ++j) {
      operation (outbox, OUTBOX_DECISION, revision->decisions[j]->db_id, revision->decisions[j]);
    }
  }
}

static void
visit_procedure (Outbox *outbox, Procedure *procedure, ObjectOperation *operation)
{
  // Nearly always there is nothing to look for.
  if (!outbox->count)
    return;
  operation (outbox, OUTBOX_PROCEDURE, procedure->db_id, procedure);
  for (u32 i = 0; i < procedure->clauses_count; ++i)
    visit_clause (outbox, procedure->clauses[i], operation);
}

void
outbox_remove_procedure (Outbox *outbox, Procedure *procedure)
{
  visit_procedure (outbox, procedure, remove_object);
}

void
outbox_remove_clause (Outbox *outbox, Clause *clause)
{
  visit_clause (outbox, clause, remove_object);
}

void
outbox_restore_procedure (Outbox *outbox, Procedure *procedure)
{
  visit_procedure (outbox, procedure, restore_object);
}

void
outbox_restore_clause (Outbox *outbox, Clause *clause)
{
  visit_clause (outbox, clause, restore_object);
}

void
outbox_forget_removed (Outbox *outbox)
{
  for (u32 i = outbox->count; i > 0; --i) {
    if (outbox->entries[i - 1].removed_object)
      forget_entry (outbox, i - 1);
  }
}

// ---- Sending ----

OutboxEntry *
outbox_get_next (Outbox *outbox, u32 from)
{
  for (u32 i = from; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (entry->state == OUTBOX_WAITING && !entry->removed_object)
      return entry;
  }
  return NULL;
}

void
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): counts of one session.
outbox_note_sent (Outbox *, OutboxEntry *entry, u64 acknowledge_position, u64 take_position,
                  u64 request_id)
{
  assert (entry->state == OUTBOX_WAITING);
  entry->state = OUTBOX_SENT;
  entry->acknowledge_position = acknowledge_position;
  entry->take_position = take_position;
  entry->request_id = request_id;
}

void
outbox_note_taken (Outbox *outbox, u64 take_position, s64 time)
{
  bool is_changed = false;
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (entry->state == OUTBOX_SENT && entry->take_position <= take_position) {
      entry->state = OUTBOX_TAKEN;
      entry->taken_time = time;
      is_changed = true;
    }
  }
  if (is_changed)
    settle_rows (outbox);
}

void
outbox_note_heard (Outbox *outbox, s64 time)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (entry->state == OUTBOX_TAKEN && entry->taken_time <= time)
      entry->state = OUTBOX_DONE;
  }
}

void
outbox_note_acknowledged (Outbox *outbox, u64 acknowledge_position)
{
  bool is_changed = false;
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (entry->state == OUTBOX_SENT && entry->acknowledge_position <= acknowledge_position) {
      entry->state = OUTBOX_DONE;
      is_changed = true;
    }
  }
  if (is_changed)
    settle_rows (outbox);
}

bool
outbox_note_refused (Outbox *outbox, u64 request_id)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (!outbox_is_unsent (entry) && entry->request_id == request_id) {
      entry->state = OUTBOX_REFUSED;
      settle_row (outbox, entry);
      return true;
    }
  }
  return false;
}

void
outbox_hold (Outbox *outbox, OutboxEntry *entry)
{
  bool is_alone = begin_outbox_transaction (outbox->db);
  entry->state = OUTBOX_HELD;
  entry->sequence = 0;
  if (entry->db_id)
    delete_row (outbox, entry);
  settle_row (outbox, entry);
  end_outbox_transaction (outbox->db, is_alone);
}

OutboxEntry *
outbox_end_session (Outbox *outbox, u64 refused_position)
{
  u32 kept_count = 0;
  OutboxEntry *held = NULL;
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    bool is_unread = refused_position && entry->take_position >= refused_position;
    if (entry->state == OUTBOX_DONE && !is_unread)
      continue;
    OutboxEntry *kept = &outbox->entries[kept_count++];
    *kept = *entry;
    if (!outbox_is_unsent (kept) && kept->take_position == refused_position)
      held = kept;
    if (kept->state != OUTBOX_HELD)
      kept->state = OUTBOX_WAITING;
  }
  outbox->count = kept_count;
  if (!kept_count)
    return NULL;
  bool is_alone = begin_outbox_transaction (outbox->db);
  if (held)
    outbox_hold (outbox, held);
  settle_rows (outbox);
  end_outbox_transaction (outbox->db, is_alone);
  return held;
}

void
outbox_drop (Outbox *outbox, OutboxEntry *entry)
{
  u32 index = (u32) (entry - outbox->entries);
  assert (index < outbox->count);
  if (entry->db_id)
    delete_row (outbox, entry);
  forget_entry (outbox, index);
}
