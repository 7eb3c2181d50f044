// The store: one SQLite file with all that the accounts of this working directory have seen. It is
// opened once, read whole when an account logs in, and written at every change of the model.
// Statements are plain texts: there are no prepared statements, and only bodies and texts of
// messages and revisions are quoted. An SQL failure is a mistake of the program and stops it.
//
// Ownership: the handle of `db_connect` goes back to `db_close`; records are borrowed, except that
// loading hands its fresh stacks to the caller.
// Threads: the interface thread only.
#pragma once

#include <sqlite3.h>

#include "buffers.h"
#include "contacts.h"
#include "procedure.h"

// Called once a row: values are NUL-terminated texts, a NULL column is a null pointer. 0 goes on.
typedef int DBRowCallback (void *argument, int columns_count, char **values, char **names);

// ---- Connection ----

// Opens or creates the file and makes sure that the schema and its version row exist. A version
// other than this program's is accepted as it is. Never NULL: failures stop the program.
sqlite3 *db_connect (const char *path);
void db_close (sqlite3 *db);

// ---- Statements ----

// Runs the statements of `sql` with `callback` (or NULL), each its own transaction outside of
// `db_begin` and `db_commit`. `db_exec` dumps the text to the console first, `db_exec_quiet` only when
// it fails.
void db_exec (sqlite3 *db, const char *sql, DBRowCallback *callback, void *argument);
void db_exec_quiet (sqlite3 *db, const char *sql, DBRowCallback *callback, void *argument);
// What is written between the two is stored whole or, where the program ends in between, not at all.
// They are not dumped, and do not nest.
void db_begin (sqlite3 *db);
void db_commit (sqlite3 *db);
// Appends `text` with every apostrophe doubled and nothing else changed. Stops where the room ends;
// a doubled apostrophe is written whole or not at all.
Buffer buffer_append_dbtext (Buffer buffer, String text);

// Row callback for diagnostics: writes the row to the console in one line. No argument.
int db_print_rows (void *argument, int columns_count, char **values, char **names);
// Row callback; the argument is the u64 to fill with the column `db_version`.
int _db_get_db_version (void *argument, int columns_count, char **values, char **names);

// ---- Accounts ----

// 0 when there is no such account. `bare_jid` must be free of apostrophes in both.
u64 db_get_account_db_id (sqlite3 *db, String bare_jid);
u64 db_insert_account (sqlite3 *db, String bare_jid);
// Fills both with stacks of the caller's: contacts in the order of their rows with their messages,
// procedures and all below them by time, clauses and revisions of one second by author. Decisions on a
// draft are not loaded. A row that this program would not have written stops it.
void db_load_account (sqlite3 *db, u64 account_db_id, ContactStack *contacts_out,
                      ProceduresStack *procedures_out);

// Row callbacks of the above; every one writes its row to the console, then takes over the columns
// it knows. The argument of each: u64 to fill, ContactStack, Contact, ProceduresStack, Procedure,
// Clause, Clause, ClauseRevision.
int _db_get_account_db_id (void *argument, int columns_count, char **values, char **names);
int _db_load_contact (void *argument, int columns_count, char **values, char **names);
int _db_load_contact_message (void *argument, int columns_count, char **values, char **names);
int db_load_procedure (void *argument, int columns_count, char **values, char **names);
int db_load_clause (void *argument, int columns_count, char **values, char **names);
int db_load_clause_message (void *argument, int columns_count, char **values, char **names);
int db_load_clause_revision (void *argument, int columns_count, char **values, char **names);
int _db_load_clause_revision_decision (void *argument, int columns_count, char **values,
                                       char **names);

// ---- Inserts ----

// Each sets the record's `db_id` to its new row. JIDs and titles go into the statement as they are:
// an apostrophe in one of them stops the program, at an assertion or in SQL.
void db_insert_contact (sqlite3 *db, Contact *contact);
void db_insert_contact_message (sqlite3 *db, ContactMessage *message);
void db_insert_clause_message (sqlite3 *db, ClauseMessage *message);
void db_insert_clause_revision (sqlite3 *db, ClauseRevision *revision);
void db_insert_clause_revision_decision (sqlite3 *db, ClauseRevisionDecision *decision);
void db_insert_clause (sqlite3 *db, Clause *clause);
void db_insert_procedure (sqlite3 *db, Procedure *procedure);
// False when the statement of `db_insert_procedure` for these would be longer than 4,000 bytes: who
// takes a title from outside asks here first.
bool db_can_hold_procedure (u64 account_db_id, s64 time, String initiator, String contractor,
                            String title);

// ---- Updates ----

// Each writes the record's time too, and asserts that exactly one row has changed.
void db_update_clause_revision_decision_time_and_status (sqlite3 *db,
                                                         ClauseRevisionDecision *decision);
void db_update_clause_revision_text (sqlite3 *db, ClauseRevision *revision);
void db_update_clause_revision_status (sqlite3 *db, ClauseRevision *revision);
void db_update_clause_revision_status_and_text (sqlite3 *db, ClauseRevision *revision);

// ---- Deletes ----

// Each deletes the rows of the record's children first. The records stay as they are: the caller
// takes them out of the model. The first three assert that their row was there, a missing clause or
// procedure is only a warning.
void db_delete_clause_revision_decision (sqlite3 *db, ClauseRevisionDecision *decision);
void db_delete_clause_revision (sqlite3 *db, ClauseRevision *revision);
void db_delete_clause_message (sqlite3 *db, ClauseMessage *message);
void db_delete_clause (sqlite3 *db, Clause *clause);
void db_delete_procedure (sqlite3 *db, Procedure *procedure);
