// Looks at states of a store that a kill has left, each the way the next start would find it.
//
//   kill_states POINTS JID RESULTS
//
// Reads from standard input lines of two numbers, of the copies POINTS/db-N and POINTS/journal-N (0
// for no file). Each pair is laid into the working directory as the store, opened, checked by
// SQLite, then opened and loaded by the program's own functions. A child does it, so that a stop is
// seen as one. RESULTS gets one line of JSON for each pair: its numbers, "integrity" (what SQLite
// says), "orphans" (rows without a parent), "ended" (the signal that ended the child, or 0) and
// "model", all that was loaded as lists of texts.

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "db.h"
#include "morvane.h"

static const char STORE_NAME[] = ".morvane.db";
static const char JOURNAL_NAME[] = ".morvane.db-journal";

static const char ORPHANS_SQL[] =
  "SELECT "
  "(SELECT count(*) FROM contacts WHERE account_db_id NOT IN (SELECT db_id FROM accounts)) + "
  "(SELECT count(*) FROM contact_messages WHERE contact_db_id NOT IN "
  "(SELECT db_id FROM contacts)) + "
  "(SELECT count(*) FROM procedures WHERE account_db_id NOT IN (SELECT db_id FROM accounts)) + "
  "(SELECT count(*) FROM clauses WHERE procedure_db_id NOT IN (SELECT db_id FROM procedures)) + "
  "(SELECT count(*) FROM clause_messages WHERE clause_db_id NOT IN "
  "(SELECT db_id FROM clauses)) + "
  "(SELECT count(*) FROM clause_revisions WHERE clause_db_id NOT IN "
  "(SELECT db_id FROM clauses)) + "
  "(SELECT count(*) FROM clause_revision_decisions WHERE clause_revision_db_id NOT IN "
  "(SELECT db_id FROM clause_revisions))";

static FILE *results;

// ---- Output ----

static void
put_text (String text)
{
  fputc ('"', results);
  for (; text.size; text = string_advance (text, 1)) {
    if (*text.data < ' ' || *text.data == '"' || *text.data == '\\')
      fprintf (results, "\\u%04x", *text.data);
    else
      fputc (*text.data, results);
  }
  fputc ('"', results);
}

// Texts of one list; a list with a predecessor is parted from it.
static void
put_list (String kind, u32 count, const String *texts)
{
  static bool is_first = true;
  fputs (is_first ? "[" : ",[", results);
  is_first = false;
  put_text (kind);
  for (u32 i = 0; i < count; ++i) {
    fputc (',', results);
    put_text (texts[i]);
  }
  fputc (']', results);
}

// ---- What SQLite says ----

static int
keep_text (void *argument, int, char **values, char **)
{
  char *text = (char *) argument;
  snprintf (text, 256, "%s", values[0] ? values[0] : "(null)");
  return 0;
}

static void
put_answer (sqlite3 *db, const char *name, const char *sql)
{
  char text[256] = "";
  char *error = NULL;
  if (sqlite3_exec (db, sql, keep_text, text, &error))
    snprintf (text, sizeof (text), "error: %s", error);
  sqlite3_free (error);
  fprintf (results, ",\"%s\":", name);
  put_text (to_string (text));
}

// The first to open the file, so it is here that an unfinished change is taken back.
static void
put_checks ()
{
  sqlite3 *db = NULL;
  sqlite3_open (STORE_NAME, &db);
  put_answer (db, "integrity", "PRAGMA integrity_check");
  put_answer (db, "tables", "SELECT count(*) FROM sqlite_master");
  put_answer (db, "orphans", ORPHANS_SQL);
  sqlite3_close (db);
}

// ---- What the program loads ----

static String
user_of (String jid)
{
  return {jid.data, jid.size - find_char (jid, '@').size};
}

static void
put_revision (Procedure *procedure, Clause *clause, ClauseRevision *revision)
{
  String texts[] = {procedure->title, clause->initiator, revision->author, revision->text};
  put_list (to_string ("revision"), 4, texts);
  for (u32 i = 0; i < revision->decisions_count; ++i) {
    ClauseRevisionDecision *decision = revision->decisions[i];
    String status = to_string (DECISION_STATUS_STRINGS[decision->status]);
    String decision_texts[] = {procedure->title, revision->text, decision->author, status};
    put_list (to_string ("decision"), 4, decision_texts);
  }
}

static void
put_clause (Procedure *procedure, u32 index)
{
  Clause *clause = procedure->clauses[index];
  // How many clauses this party has opened up to this one.
  u32 number = 0;
  for (u32 i = 0; i <= index; ++i)
    number += procedure->clauses[i]->initiator == clause->initiator;
  char digits[16];
  snprintf (digits, sizeof (digits), "%u", number);
  String texts[] = {procedure->title, clause->initiator, to_string (digits)};
  put_list (to_string ("clause"), 3, texts);

  for (u32 i = 0; i < clause->messages_count; ++i) {
    ClauseMessage *message = clause->messages[i];
    String message_texts[] = {procedure->title, user_of (message->author), message->text};
    put_list (to_string ("clause message"), 3, message_texts);
  }
  for (u32 i = 0; i < clause->revisions_count; ++i)
    put_revision (procedure, clause, clause->revisions[i]);
  if (clause->draft) {
    String draft_texts[] = {procedure->title, clause->initiator, clause->draft->text};
    put_list (to_string ("draft"), 3, draft_texts);
  }
}

static void
put_model (const ContactStack *contacts, const ProceduresStack *procedures)
{
  for (u32 i = 0; i < contacts->count; ++i) {
    Contact *contact = contacts->contacts[i];
    put_list (to_string ("contact"), 1, &contact->bare_jid);
    for (u32 j = 0; j < contact->messages_count; ++j) {
      ContactMessage *message = contact->messages[j];
      String texts[] = {contact->bare_jid, message->author, message->body};
      put_list (to_string ("contact message"), 3, texts);
    }
  }
  for (u32 i = 0; i < procedures->count; ++i) {
    Procedure *procedure = procedures->procedures[i];
    String texts[] = {procedure->initiator, procedure->contractor, procedure->title};
    put_list (to_string ("procedure"), 3, texts);
    for (u32 j = 0; j < procedure->clauses_count; ++j)
      put_clause (procedure, j);
  }
}

// The steps of a start and a login.
static void
put_loaded (String jid)
{
  fputs (",\"model\":[", results);
  sqlite3 *db = db_connect (STORE_NAME);
  u64 account_db_id = db_get_account_db_id (db, jid);
  if (account_db_id)
    put_list (to_string ("account"), 1, &jid);
  else
    account_db_id = db_insert_account (db, jid);
  assert (account_db_id);
  ContactStack contacts;
  ProceduresStack procedures;
  db_load_account (db, account_db_id, &contacts, &procedures);
  put_model (&contacts, &procedures);
  db_close (db);
  fputc (']', results);
}

// ---- States ----

static void
lay_file (const char *points, const char *kind, u64 number, const char *name)
{
  unlink (name);
  if (!number)
    return;
  char path[4096];
  snprintf (path, sizeof (path), "%s/%s-%lu", points, kind, (unsigned long) number);
  int in = open (path, O_RDONLY | O_CLOEXEC);
  int out = open (name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  static u8 block[1 << 16];
  ssize_t size;
  while (in >= 0 && (size = read (in, block, sizeof (block))) > 0) {
    if (write (out, block, (size_t) size) != size)
      exit (2);
  }
  if (in < 0 || out < 0) {
    fprintf (stderr, "kill_states: %s: %s\n", path, strerror (errno));
    exit (2);
  }
  close (in);
  close (out);
}

// Returns the signal that ended the child, or 0.
static int
look (const char *path, String jid, u64 db_copy, u64 journal_copy)
{
  pid_t child = fork ();
  if (child == 0) {
    results = fopen (path, "ae");
    // A child that is stopped leaves no half of a line.
    setvbuf (results, NULL, _IOFBF, 1 << 22);
    fprintf (results, "{\"copies\":[%lu,%lu]", (unsigned long) db_copy,
             (unsigned long) journal_copy);
    put_checks ();
    put_loaded (jid);
    fputs (",\"ended\":0}\n", results);
    fclose (results);
    _exit (0);
  }
  int status = 0;
  waitpid (child, &status, 0);
  if (!WIFSIGNALED (status) && !WEXITSTATUS (status))
    return 0;
  return WIFSIGNALED (status) ? WTERMSIG (status) : -1;
}

int
main (int count, char **arguments)
{
  if (count != 4) {
    fputs ("kill_states POINTS JID RESULTS\n", stderr);
    return 2;
  }
  // The console is not asked for: what is loaded counts.
  if (!freopen ("/dev/null", "w", stdout))
    return 2;
  unsigned long db_copy, journal_copy;
  while (scanf ("%lu %lu", &db_copy, &journal_copy) == 2) {
    lay_file (arguments[1], "db", db_copy, STORE_NAME);
    lay_file (arguments[1], "journal", journal_copy, JOURNAL_NAME);
    int ended = look (arguments[3], to_string (arguments[2]), db_copy, journal_copy);
    if (ended) {
      FILE *file = fopen (arguments[3], "ae");
      fprintf (file, "{\"copies\":[%lu,%lu],\"ended\":%d}\n", db_copy, journal_copy, ended);
      fclose (file);
    }
  }
  return 0;
}
