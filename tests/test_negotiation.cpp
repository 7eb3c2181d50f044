// The acts of a negotiation, on model and store, without a display. What was stored is read back with
// SQL through a connection of the test's own, and what a restart would show by loading the account.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "negotiation.h"

static const char OWN[] = "alice@alpha.test";
static const char OTHER[] = "bob@beta.test";

// The clock of this test program.
static s64 now = 5000;

time_t
time (time_t *time_out) noexcept
{
  if (time_out)
    *time_out = now;
  return now;
}

static int
collect_row (void *argument, int columns_count, char **values, char **)
{
  std::string *rows = (std::string *) argument;
  for (int i = 0; i < columns_count; i++) {
    *rows += (i ? "|" : "") + std::string (values[i] ? values[i] : "NULL");
  }
  *rows += "\n";
  return 0;
}

static std::string
text_of (String string)
{
  return std::string ((const char *) string.data, string.size);
}

// An account that is loaded from a store in a directory of its own.
struct Account {
  std::filesystem::path directory;
  std::string path;
  ContactStack contacts;
  ProceduresStack procedures;
  Negotiation negotiation;

  Account (const char *own = OWN, const char *own_name = "alice")
  {
    now = 5000;
    std::string pattern =
      (std::filesystem::temp_directory_path () / "morvane-negotiation-XXXXXX").string ();
    directory = mkdtemp (pattern.data ());
    path = (directory / "store.db").string ();
    negotiation = {};
    negotiation.own = to_string (own);
    negotiation.own_name = to_string (own_name);
    negotiation.procedures = &procedures;
    negotiation.db = db_connect (path.c_str ());
    db_insert_account (negotiation.db, negotiation.own);
    load ();
  }

  ~Account ()
  {
    unload ();
    db_close (negotiation.db);
    std::filesystem::remove_all (directory);
  }

  void load ()
  {
    negotiation.account_db_id = db_get_account_db_id (negotiation.db, negotiation.own);
    db_load_account (negotiation.db, negotiation.account_db_id, &contacts, &procedures);
  }

  void unload ()
  {
    negotiation_end_undo (&negotiation);
    dealloc_contact_stack (contacts);
    dealloc_procedure_stack (procedures);
  }

  // What the next login would find in memory.
  void restart ()
  {
    unload ();
    load ();
  }

  // The rows of a statement that is not the store's own: columns joined by "|", rows by line feeds.
  std::string rows (const char *sql)
  {
    sqlite3 *other = NULL;
    std::string rows;
    EXPECT_EQ (sqlite3_open (path.c_str (), &other), SQLITE_OK);
    EXPECT_EQ (sqlite3_exec (other, sql, collect_row, &rows, NULL), SQLITE_OK) << sql;
    sqlite3_close (other);
    return rows;
  }
};

static const char REVISIONS_SQL[] =
  "SELECT clause_db_id, time, author, status, text FROM clause_revisions ORDER BY db_id";
static const char DECISIONS_SQL[] =
  "SELECT clause_revision_db_id, time, author, status FROM clause_revision_decisions ORDER BY db_id";

static Procedure *
begin (Account *account)
{
  return negotiation_begin (&account->negotiation, to_string ("Planks"), to_string (OTHER));
}

static ClauseRevision *
commit (Account *account, Clause *clause, const char *text)
{
  return negotiation_commit (&account->negotiation, clause, to_string (text));
}

// An object as the wire names it.
struct Name {
  const char *author;
  s64 time;
};

// The records borrow everything, and are never freed as those of the session are.
static Procedure *
receive_procedure (Account *account, Name procedure, const char *title)
{
  XMPPProcedure record = {};
  record.title = to_string (title);
  record.initiator = to_string (procedure.author);
  record.time = procedure.time;
  return negotiation_receive_procedure (&account->negotiation, &record);
}

static Clause *
receive_clause (Account *account, Name procedure, Name clause)
{
  XMPPClause record = {};
  record.procedure_initiator = to_string (procedure.author);
  record.procedure_time = procedure.time;
  record.clause_initiator = to_string (clause.author);
  record.clause_time = clause.time;
  Procedure *target = NULL;
  Clause *result = negotiation_receive_clause (&account->negotiation, &record, &target);
  EXPECT_EQ (result != NULL, target != NULL);
  return result;
}

static ClauseRevision *
receive_revision (Account *account, Name procedure, Name clause, Name revision, const char *text)
{
  XMPPClauseRevision record = {};
  record.procedure_initiator = to_string (procedure.author);
  record.procedure_time = procedure.time;
  record.clause_initiator = to_string (clause.author);
  record.clause_time = clause.time;
  record.revision_author = to_string (revision.author);
  record.revision_time = revision.time;
  record.text = to_string (text);
  Clause *target = NULL;
  ClauseRevision *result = negotiation_receive_revision (&account->negotiation, &record, &target);
  EXPECT_EQ (result != NULL, target != NULL);
  return result;
}

static ClauseMessage *
receive_message (Account *account, Name procedure, Name clause, Name line, const char *text)
{
  XMPPClauseMessage record = {};
  record.procedure_initiator = to_string (procedure.author);
  record.procedure_time = procedure.time;
  record.clause_initiator = to_string (clause.author);
  record.clause_time = clause.time;
  record.message_author = to_string (line.author);
  record.message_time = line.time;
  record.text = to_string (text);
  Clause *target = NULL;
  ClauseMessage *result = negotiation_receive_message (&account->negotiation, &record, &target);
  EXPECT_EQ (result != NULL, target != NULL);
  return result;
}

static ClauseRevisionDecision *
receive_decision (Account *account, Name procedure, Name clause, Name revision, const char *author,
                  DecisionStatus status)
{
  XMPPClauseRevisionDecisionSignal record = {};
  record.procedure_initiator = to_string (procedure.author);
  record.procedure_time = procedure.time;
  record.clause_initiator = to_string (clause.author);
  record.clause_time = clause.time;
  record.revision_author = to_string (revision.author);
  record.revision_time = revision.time;
  record.decision_author = to_string (author);
  record.decision_time = 1;
  record.status = status;
  Clause *target = NULL;
  ClauseRevision *target_revision = NULL;
  ClauseRevisionDecision *result =
    negotiation_receive_decision (&account->negotiation, &record, &target, &target_revision);
  EXPECT_EQ (result != NULL, target_revision != NULL);
  return result;
}

// ---- What the user does ----

TEST (negotiation_begin, takes_the_next_free_second)
{
  Account account;
  EXPECT_EQ (begin (&account)->time, 5000);
  EXPECT_EQ (begin (&account)->time, 5001);
  EXPECT_EQ (account.rows ("SELECT time, initiator, contractor, title FROM procedures"),
             "5000|alice@alpha.test|bob@beta.test|Planks\n"
             "5001|alice@alpha.test|bob@beta.test|Planks\n");
}

TEST (negotiation_add_clause, counts_positions_on)
{
  Account account;
  Procedure *procedure = begin (&account);
  EXPECT_EQ (negotiation_add_clause (&account.negotiation, procedure)->position, 1u);
  EXPECT_EQ (negotiation_add_clause (&account.negotiation, procedure)->position, 2u);
  EXPECT_EQ (account.rows ("SELECT procedure_db_id, time, initiator, position FROM clauses"),
             "1|5000|alice@alpha.test|1\n1|5001|alice@alpha.test|2\n");
}

TEST (negotiation_commit, puts_the_revision_in_the_drafts_place)
{
  Account account;
  Clause *clause = negotiation_add_clause (&account.negotiation, begin (&account));
  negotiation_save_draft (&account.negotiation, clause, to_string ("Ten"));
  now++;
  negotiation_save_draft (&account.negotiation, clause, to_string ("Ten crates"));
  EXPECT_EQ (account.rows (REVISIONS_SQL), "1|5001|alice@alpha.test|DRAFT|Ten crates\n");
  ClauseRevision *revision = commit (&account, clause, "It's ten crates");
  EXPECT_EQ (clause->draft, nullptr);
  ASSERT_EQ (clause->revisions_count, 1u);
  EXPECT_EQ (clause->revisions[0], revision);
  EXPECT_EQ (account.rows (REVISIONS_SQL), "1|5001|alice@alpha.test|COMMITTED|It's ten crates\n");
}

// Whatever the program does next, it stops at the first statement that this refuses.
static void
refuse (Account *account, const char *what)
{
  account->rows ((std::string ("CREATE TRIGGER refuse BEFORE ") + what +
                  " BEGIN SELECT RAISE (ABORT, 'no'); END")
                   .c_str ());
}

static std::string
list_all_rows (Account *account)
{
  return account->rows ("SELECT * FROM procedures") + account->rows ("SELECT * FROM clauses") +
         account->rows ("SELECT * FROM clause_messages") + account->rows (REVISIONS_SQL) +
         account->rows (DECISIONS_SQL);
}

TEST (negotiation_commit, leaves_the_draft_when_it_is_interrupted)
{
  Account account;
  Clause *clause = negotiation_add_clause (&account.negotiation, begin (&account));
  negotiation_save_draft (&account.negotiation, clause, to_string ("Ten crates"));
  std::string before = list_all_rows (&account);
  refuse (&account, "INSERT ON clause_revisions");
  EXPECT_DEATH (commit (&account, clause, "Ten crates"), "src/db.*!error");
  EXPECT_EQ (list_all_rows (&account), before);
}

TEST (negotiation_commit, stores_a_new_clause_with_its_revision_or_not_at_all)
{
  Account account;
  Procedure *procedure = begin (&account);
  Clause *clause = alloc_clause (0, procedure->db_id, 1, to_string (OWN), 1);
  procedure_add_clause (procedure, clause);
  refuse (&account, "INSERT ON clause_revisions");
  EXPECT_DEATH (commit (&account, clause, "Ten crates"), "src/db.*!error");
  EXPECT_DEATH (negotiation_save_draft (&account.negotiation, clause, to_string ("Ten")),
                "src/db.*!error");
  EXPECT_EQ (account.rows ("SELECT * FROM clauses"), "");
}

TEST (negotiation_commit, owes_a_clause_whose_second_someone_guessed)
{
  Account account;
  Outbox outbox = outbox_load (account.negotiation.db, account.negotiation.account_db_id);
  account.negotiation.outbox = &outbox;
  Procedure *procedure = begin (&account);
  Clause *clause = negotiation_add_clause (&account.negotiation, procedure);
  ASSERT_TRUE (receive_revision (&account, {OWN, 5000}, {OWN, 5000}, {OTHER, 4000}, "Guessed"));
  commit (&account, clause, "Ten crates");
  commit (&account, clause, "Nine crates");
  EXPECT_EQ (account.rows ("SELECT kind FROM outbox ORDER BY sequence"),
             "procedure\nclause\nrevision\nrevision\n");
  negotiation_end_undo (&account.negotiation);
  account.negotiation.outbox = NULL;
  dealloc_outbox (&outbox);
}

TEST (negotiation_commit, dumps_what_it_writes_and_no_transaction)
{
  Account account;
  Clause *clause = negotiation_add_clause (&account.negotiation, begin (&account));
  negotiation_save_draft (&account.negotiation, clause, to_string ("Ten"));
  testing::internal::CaptureStdout ();
  commit (&account, clause, "Ten");
  fflush (stdout);
  EXPECT_EQ (
    testing::internal::GetCapturedStdout (),
    "sql: \"DELETE FROM clause_revisions WHERE db_id = 1;\" (char *)\n"
    "sql: \"INSERT INTO clause_revisions (clause_db_id, time, author, status, text) VALUES "
    "(1, 5000, 'alice@alpha.test', 'COMMITTED', 'Ten');\" (char *)\n");
}

TEST (negotiation_discard_draft, leaves_a_clause_without_one_alone)
{
  Account account;
  Clause *clause = negotiation_add_clause (&account.negotiation, begin (&account));
  negotiation_discard_draft (&account.negotiation, clause);
  negotiation_save_draft (&account.negotiation, clause, to_string ("Ten"));
  negotiation_discard_draft (&account.negotiation, clause);
  EXPECT_EQ (clause->draft, nullptr);
  EXPECT_EQ (account.rows (REVISIONS_SQL), "");
  EXPECT_EQ (account.rows ("SELECT db_id FROM clauses"), "1\n");
}

TEST (negotiation_decide, keeps_one_decision_of_each_party)
{
  Account account;
  Clause *clause = negotiation_add_clause (&account.negotiation, begin (&account));
  ClauseRevision *revision = commit (&account, clause, "Ten crates");
  Negotiation *negotiation = &account.negotiation;
  negotiation_decide (negotiation, revision, to_string (OWN), DECISION_AGREE);
  now++;
  negotiation_decide (negotiation, revision, to_string (OWN), DECISION_DISAGREE);
  EXPECT_EQ (revision->decisions_count, 1u);
  EXPECT_EQ (account.rows (DECISIONS_SQL), "1|5001|alice@alpha.test|DISAGREE\n");
}

TEST (negotiation_say, signs_with_the_user_name)
{
  Account account;
  Clause *clause = negotiation_add_clause (&account.negotiation, begin (&account));
  ClauseMessage *message = negotiation_say (&account.negotiation, clause, to_string ("Why ten?"));
  ASSERT_EQ (clause->messages_count, 1u);
  EXPECT_EQ (clause->messages[0], message);
  EXPECT_EQ (account.rows ("SELECT clause_db_id, time, author, text FROM clause_messages"),
             "1|5000|alice|Why ten?\n");
}

TEST (negotiation_delete, takes_all_of_the_procedure_and_nothing_else)
{
  Account account;
  Procedure *kept = begin (&account);
  commit (&account, negotiation_add_clause (&account.negotiation, kept), "Kept");
  Procedure *procedure = begin (&account);
  Clause *clause = negotiation_add_clause (&account.negotiation, procedure);
  ClauseRevision *revision = commit (&account, clause, "Ten crates");
  negotiation_decide (&account.negotiation, revision, to_string (OWN), DECISION_AGREE);
  negotiation_say (&account.negotiation, clause, to_string ("Why ten?"));
  negotiation_save_draft (&account.negotiation, clause, to_string ("Nine crates"));
  negotiation_delete (&account.negotiation, procedure);
  ASSERT_EQ (account.procedures.count, 1u);
  EXPECT_EQ (account.procedures.procedures[0], kept);
  EXPECT_EQ (account.rows ("SELECT db_id FROM procedures"), "1\n");
  EXPECT_EQ (account.rows ("SELECT db_id FROM clauses"), "1\n");
  EXPECT_EQ (account.rows (REVISIONS_SQL), "1|5000|alice@alpha.test|COMMITTED|Kept\n");
  EXPECT_EQ (account.rows (DECISIONS_SQL), "");
  EXPECT_EQ (account.rows ("SELECT db_id FROM clause_messages"), "");
}

// All nine tables, row ids aside: each row with the time and author of what it belongs to.
static std::string
list_store (Account *account)
{
  return account->rows ("SELECT * FROM app_info") +
         account->rows ("SELECT bare_jid FROM accounts") +
         account->rows ("SELECT bare_jid FROM contacts") +
         account->rows ("SELECT author, body FROM contact_messages") +
         account->rows ("SELECT account_db_id, time, initiator, contractor, title, finished_time, "
                        "updated_time, last_seen_time FROM procedures ORDER BY time, initiator") +
         account->rows (
           "SELECT p.time, p.initiator, c.time, c.initiator, c.position FROM clauses c "
           "JOIN procedures p ON p.db_id = c.procedure_db_id ORDER BY 1, 2, 3, 4") +
         account->rows (
           "SELECT c.time, c.initiator, m.time, m.author, m.text FROM clause_messages m "
           "JOIN clauses c ON c.db_id = m.clause_db_id ORDER BY 1, 2, 3, 4, 5") +
         account->rows ("SELECT c.time, c.initiator, r.time, r.author, r.status, r.text FROM "
                        "clause_revisions r JOIN clauses c ON c.db_id = r.clause_db_id "
                        "ORDER BY 1, 2, 3, 4, 5") +
         account->rows ("SELECT r.time, r.author, d.time, d.author, d.status FROM "
                        "clause_revision_decisions d JOIN clause_revisions r ON r.db_id = "
                        "d.clause_revision_db_id ORDER BY 1, 2, 3, 4");
}

static Procedure *
begin_with_everything (Account *account, const char *text)
{
  // No two clauses or revisions of the store share a second.
  now += 100;
  Procedure *procedure = begin (account);
  Clause *clause = negotiation_add_clause (&account->negotiation, procedure);
  ClauseRevision *revision = commit (account, clause, text);
  negotiation_decide (&account->negotiation, revision, to_string (OWN), DECISION_AGREE);
  negotiation_say (&account->negotiation, clause, to_string ("It's why?"));
  negotiation_save_draft (&account->negotiation, clause, to_string ("Nine 'crates'"));
  clause = negotiation_add_clause (&account->negotiation, procedure);
  negotiation_save_draft (&account->negotiation, clause, to_string ("New"));
  return procedure;
}

TEST (negotiation_undo_delete, brings_back_all_nine_tables_and_the_place)
{
  for (u32 index = 0; index < 3; index++) {
    Account account;
    for (const char *text : {"One", "Two", "Three"}) {
      begin_with_everything (&account, text);
    }
    std::string before = list_store (&account);
    std::string counts = account.rows ("SELECT count(*) FROM clause_revisions");
    Procedure *procedure = account.procedures.procedures[index];
    negotiation_delete (&account.negotiation, procedure);
    EXPECT_EQ (account.rows ("SELECT count(*) FROM procedures"), "2\n");
    negotiation_undo_delete (&account.negotiation);
    EXPECT_EQ (list_store (&account), before);
    EXPECT_EQ (account.rows ("SELECT count(*) FROM clause_revisions"), counts);
    ASSERT_EQ (account.procedures.count, 3u);
    EXPECT_EQ (account.procedures.procedures[index], procedure);
    // What is changed then changes the new rows, and those are what a restart loads.
    Clause *clause = procedure->clauses[0];
    commit (&account, clause, "After the undo");
    negotiation_decide (&account.negotiation, clause->revisions[0], to_string (OWN),
                        DECISION_DISAGREE);
    std::string order = list_store (&account);
    account.restart ();
    EXPECT_EQ (list_store (&account), order);
    EXPECT_EQ (account.procedures.procedures[index]->clauses[0]->revisions_count, 2u);
  }
}

TEST (negotiation_undo_delete, brings_a_clause_back_to_its_place)
{
  Account account;
  Procedure *procedure = begin (&account);
  for (const char *text : {"One", "Two", "Three"}) {
    Clause *clause = negotiation_add_clause (&account.negotiation, procedure);
    negotiation_save_draft (&account.negotiation, clause, to_string (text));
  }
  std::string before = list_store (&account);
  Clause *clause = procedure->clauses[1];
  negotiation_delete_clause (&account.negotiation, procedure, clause);
  EXPECT_NE (list_store (&account), before);
  negotiation_undo_delete (&account.negotiation);
  EXPECT_EQ (list_store (&account), before);
  ASSERT_EQ (procedure->clauses_count, 3u);
  EXPECT_EQ (procedure->clauses[1], clause);
}

TEST (negotiation_undo_delete, is_for_the_last_deletion_only)
{
  Account account;
  Procedure *kept = begin (&account);
  Clause *clause = negotiation_add_clause (&account.negotiation, kept);
  negotiation_delete_clause (&account.negotiation, kept, clause);
  negotiation_delete (&account.negotiation, begin (&account));
  negotiation_undo_delete (&account.negotiation);
  EXPECT_EQ (account.rows ("SELECT count(*) FROM procedures"), "2\n");
  EXPECT_EQ (account.rows ("SELECT count(*) FROM clauses"), "0\n");
  EXPECT_DEATH (negotiation_undo_delete (&account.negotiation),
                "src/negotiation.*deletion.procedure");
  negotiation_delete (&account.negotiation, kept);
  negotiation_end_undo (&account.negotiation);
  EXPECT_DEATH (negotiation_undo_delete (&account.negotiation),
                "src/negotiation.*deletion.procedure");
}

TEST (negotiation_undo_delete, shares_no_second_with_what_was_made_meanwhile)
{
  Account account;
  Procedure *procedure = begin (&account);
  negotiation_delete (&account.negotiation, procedure);
  Procedure *later = begin (&account);
  negotiation_undo_delete (&account.negotiation);
  EXPECT_EQ (account.rows ("SELECT time FROM procedures ORDER BY time"), "5000\n5001\n");

  Clause *clause = negotiation_add_clause (&account.negotiation, later);
  negotiation_delete_clause (&account.negotiation, later, clause);
  negotiation_add_clause (&account.negotiation, later);
  negotiation_undo_delete (&account.negotiation);
  EXPECT_EQ (account.rows ("SELECT time FROM clauses ORDER BY time"), "5000\n5001\n");
}

TEST (negotiation_undo_delete, shares_no_second_with_a_clause_of_another_row)
{
  Account account;
  receive_procedure (&account, {OTHER, 4000}, "Planks");
  receive_procedure (&account, {OTHER, 4000}, "Planks");
  Procedure *first = account.procedures.procedures[0];
  Procedure *second = account.procedures.procedures[1];
  commit (&account, negotiation_add_clause (&account.negotiation, first), "One");
  negotiation_delete (&account.negotiation, first);
  Clause *clause = negotiation_add_clause (&account.negotiation, second);
  negotiation_undo_delete (&account.negotiation);
  EXPECT_EQ (clause->time, 5001);
  negotiation_delete_clause (&account.negotiation, second, clause);
  EXPECT_EQ (negotiation_add_clause (&account.negotiation, first)->time, 5002);
}

TEST (negotiation_delete, takes_nothing_when_it_is_interrupted)
{
  Account account;
  Procedure *procedure = begin (&account);
  Clause *clause = negotiation_add_clause (&account.negotiation, procedure);
  ClauseRevision *revision = commit (&account, clause, "Ten crates");
  negotiation_decide (&account.negotiation, revision, to_string (OWN), DECISION_AGREE);
  negotiation_say (&account.negotiation, clause, to_string ("Why ten?"));
  negotiation_save_draft (&account.negotiation, clause, to_string ("Nine crates"));
  std::string before = list_all_rows (&account);
  refuse (&account, "DELETE ON procedures");
  EXPECT_DEATH (negotiation_delete (&account.negotiation, procedure), "src/db.*!error");
  EXPECT_EQ (list_all_rows (&account), before);
}

TEST (negotiation_delete_clause, takes_nothing_when_it_is_interrupted)
{
  Account account;
  Procedure *procedure = begin (&account);
  Clause *clause = negotiation_add_clause (&account.negotiation, procedure);
  negotiation_save_draft (&account.negotiation, clause, to_string ("Nine crates"));
  std::string before = list_all_rows (&account);
  refuse (&account, "DELETE ON clauses");
  EXPECT_DEATH (negotiation_delete_clause (&account.negotiation, procedure, clause),
                "src/db.*!error");
  EXPECT_EQ (list_all_rows (&account), before);
}

TEST (negotiation_delete_clause, takes_the_clause_and_its_draft)
{
  Account account;
  Procedure *procedure = begin (&account);
  Clause *kept = negotiation_add_clause (&account.negotiation, procedure);
  Clause *clause = negotiation_add_clause (&account.negotiation, procedure);
  negotiation_save_draft (&account.negotiation, clause, to_string ("Nine crates"));
  negotiation_delete_clause (&account.negotiation, procedure, clause);
  ASSERT_EQ (procedure->clauses_count, 1u);
  EXPECT_EQ (procedure->clauses[0], kept);
  EXPECT_EQ (account.rows ("SELECT db_id FROM clauses"), "1\n");
  EXPECT_EQ (account.rows (REVISIONS_SQL), "");
}

// ---- What arrives ----

static const Name PROCEDURE = {OTHER, 700};
static const Name CLAUSE = {OTHER, 800};
static const Name REVISION = {OTHER, 900};

TEST (negotiation_receive_procedure, makes_the_account_the_contractor)
{
  Account account;
  ASSERT_NE (receive_procedure (&account, PROCEDURE, "Bob's planks"), nullptr);
  EXPECT_EQ (account.rows ("SELECT account_db_id, time, initiator, contractor, title "
                           "FROM procedures"),
             "1|700|bob@beta.test|alice@alpha.test|Bob\u2019s planks\n");
}

TEST (negotiation_receive_procedure, drops_a_title_that_is_too_long)
{
  Account account;
  EXPECT_EQ (receive_procedure (&account, PROCEDURE, std::string (4000, 'x').c_str ()), nullptr);
  EXPECT_EQ (account.procedures.count, 0u);
  EXPECT_EQ (account.rows ("SELECT * FROM procedures"), "");
}

TEST (negotiation_receive, takes_a_whole_procedure)
{
  Account account;
  Procedure *procedure = receive_procedure (&account, PROCEDURE, "Planks");
  Clause *clause = receive_clause (&account, PROCEDURE, CLAUSE);
  ASSERT_EQ (procedure->clauses_count, 1u);
  EXPECT_EQ (procedure->clauses[0], clause);
  EXPECT_EQ (clause->position, 1u);
  ClauseRevision *revision = receive_revision (&account, PROCEDURE, CLAUSE, REVISION, "Ten");
  ASSERT_EQ (clause->revisions_count, 1u);
  EXPECT_EQ (clause->revisions[0], revision);
  ASSERT_NE (receive_message (&account, PROCEDURE, CLAUSE, {"bob", 950}, "Well?"), nullptr);
  ASSERT_NE (receive_decision (&account, PROCEDURE, CLAUSE, REVISION, OTHER, DECISION_AGREE),
             nullptr);
  EXPECT_EQ (account.rows (REVISIONS_SQL), "1|900|bob@beta.test|COMMITTED|Ten\n");
  EXPECT_EQ (account.rows (DECISIONS_SQL), "1|5000|bob@beta.test|AGREE\n");
  EXPECT_EQ (account.rows ("SELECT clause_db_id, time, author, text FROM clause_messages"),
             "1|950|bob|Well?\n");
}

// A procedure in doubt is sent again: it stands in two rows, and the other party has one.
TEST (negotiation_add_clause, shares_no_second_with_another_row_of_the_procedure)
{
  Account account;
  Procedure *rows[] = {receive_procedure (&account, PROCEDURE, "Planks"),
                       receive_procedure (&account, PROCEDURE, "Planks"),
                       receive_procedure (&account, {OTHER, PROCEDURE.time + 1}, "Beams")};
  for (u32 i = 0; i < 3; i++)
    negotiation_add_clause (&account.negotiation, rows[i]);
  negotiation_add_clause (&account.negotiation, rows[0]);
  EXPECT_EQ (account.rows ("SELECT procedure_db_id, time FROM clauses ORDER BY db_id"),
             "1|5000\n2|5001\n3|5000\n1|5002\n");
}

TEST (negotiation_receive, finds_a_clause_in_another_row_of_the_procedure)
{
  Account account;
  receive_procedure (&account, PROCEDURE, "Planks");
  Procedure *second = receive_procedure (&account, PROCEDURE, "Planks");
  Clause *clause = negotiation_add_clause (&account.negotiation, second);
  commit (&account, clause, "Ten");
  Name name = {OWN, clause->time};
  ASSERT_NE (receive_revision (&account, PROCEDURE, name, {OTHER, 5900}, "Nine"), nullptr);
  ASSERT_NE (receive_message (&account, PROCEDURE, name, {"bob", 950}, "Well?"), nullptr);
  ASSERT_NE (receive_decision (&account, PROCEDURE, name, {OTHER, 5900}, OTHER, DECISION_AGREE),
             nullptr);
  EXPECT_EQ (account.rows ("SELECT clause_db_id, text FROM clause_revisions"), "1|Ten\n1|Nine\n");
  EXPECT_EQ (account.rows ("SELECT clause_db_id, text FROM clause_messages"), "1|Well?\n");
  EXPECT_EQ (account.rows (DECISIONS_SQL), "2|5000|bob@beta.test|AGREE\n");
}

TEST (negotiation_receive_decision, updates_the_one_that_is_there)
{
  Account account;
  receive_procedure (&account, PROCEDURE, "Planks");
  receive_clause (&account, PROCEDURE, CLAUSE);
  receive_revision (&account, PROCEDURE, CLAUSE, REVISION, "Ten");
  ClauseRevisionDecision *decision =
    receive_decision (&account, PROCEDURE, CLAUSE, REVISION, OTHER, DECISION_AGREE);
  now++;
  EXPECT_EQ (receive_decision (&account, PROCEDURE, CLAUSE, REVISION, OTHER, DECISION_DISAGREE),
             decision);
  EXPECT_EQ (account.rows (DECISIONS_SQL), "1|5001|bob@beta.test|DISAGREE\n");
}

TEST (negotiation_receive, drops_what_has_no_place)
{
  Account account;
  receive_procedure (&account, PROCEDURE, "Planks");
  receive_clause (&account, PROCEDURE, CLAUSE);
  Name strange = {OTHER, 1};
  testing::internal::CaptureStdout ();
  EXPECT_EQ (receive_clause (&account, strange, CLAUSE), nullptr);
  EXPECT_EQ (receive_revision (&account, strange, CLAUSE, REVISION, "Ten"), nullptr);
  EXPECT_EQ (receive_revision (&account, PROCEDURE, strange, REVISION, "Ten"), nullptr);
  EXPECT_EQ (receive_message (&account, strange, CLAUSE, {"bob", 1}, "Well?"), nullptr);
  EXPECT_EQ (receive_message (&account, PROCEDURE, strange, {"bob", 1}, "Well?"), nullptr);
  EXPECT_EQ (receive_decision (&account, strange, CLAUSE, REVISION, OTHER, DECISION_AGREE),
             nullptr);
  EXPECT_EQ (receive_decision (&account, PROCEDURE, strange, REVISION, OTHER, DECISION_AGREE),
             nullptr);
  EXPECT_EQ (receive_decision (&account, PROCEDURE, CLAUSE, REVISION, OTHER, DECISION_AGREE),
             nullptr);
  fflush (stdout);
  EXPECT_EQ (
    testing::internal::GetCapturedStdout (),
    "Warning: A clause came, but we don't have the procedure to attach it to.\n"
    "Warning: A clause revision came, but we don't have the procedure to attach it to.\n"
    "Warning: A clause revision came, but we don't have the clause to attach it to.\n"
    "Warning: A clause message came, but we don't have the procedure to attach it to.\n"
    "Warning: A clause message came, but we don't have the clause to attach it to.\n"
    "Warning: A clause revision decision came, but we don't have the procedure to attach it to.\n"
    "Warning: A clause revision decision came, but we don't have the clause to attach it to.\n"
    "Warning: A clause revision decision came, but we don't have the revision to attach it to.\n");
  EXPECT_EQ (account.rows (REVISIONS_SQL) + account.rows (DECISIONS_SQL), "");
}

// What the console says while a record is received, which is dropped or not.
struct Heard {
  Heard ()
  {
    testing::internal::CaptureStdout ();
  }

  // All lines but those of the store.
  std::string end ()
  {
    fflush (stdout);
    std::string text = testing::internal::GetCapturedStdout ();
    std::string warnings;
    for (size_t at = 0, line_end; at < text.size (); at = line_end + 1) {
      line_end = text.find ('\n', at);
      std::string line = text.substr (at, line_end - at);
      if (line.rfind ("sql: ", 0) != 0)
        warnings += line + "\n";
    }
    return warnings;
  }
};

static std::string
own_name_warning (const char *event)
{
  return std::string ("Warning: A ") + event + " came in this account's own name.\n";
}

static std::string
no_party_warning (const char *event)
{
  return std::string ("Warning: A ") + event +
         " came from someone who is no party of its procedure.\n";
}

static std::string
repetition_warning (const char *event)
{
  return std::string ("Warning: A ") + event + " came that is here already.\n";
}

// Receives one of each kind, all of them by `author`, for places that are there.
static std::string
receive_all_by (Account *account, const char *author)
{
  Heard heard;
  Name other = {author, 7000};
  receive_clause (account, PROCEDURE, other);
  receive_revision (account, PROCEDURE, CLAUSE, other, "Nine");
  receive_decision (account, PROCEDURE, CLAUSE, REVISION, author, DECISION_DISAGREE);
  receive_message (account, PROCEDURE, CLAUSE, other, "Well?");
  return heard.end ();
}

static void
receive_procedure_with_a_clause (Account *account)
{
  receive_procedure (account, PROCEDURE, "Planks");
  receive_clause (account, PROCEDURE, CLAUSE);
  receive_revision (account, PROCEDURE, CLAUSE, REVISION, "Ten");
}

TEST (negotiation_receive, drops_what_comes_in_the_own_name)
{
  Account account;
  receive_procedure_with_a_clause (&account);
  std::string before = list_all_rows (&account);
  for (const char *own : {OWN, "Alice@Alpha.Test", "\uff21lice@alpha.test"}) {
    Heard heard;
    EXPECT_EQ (receive_procedure (&account, {own, 1}, "Forged"), nullptr);
    Name name = {own, 7000};
    EXPECT_EQ (receive_clause (&account, PROCEDURE, name), nullptr);
    EXPECT_EQ (receive_revision (&account, PROCEDURE, CLAUSE, name, "Nine"), nullptr);
    EXPECT_EQ (receive_decision (&account, PROCEDURE, CLAUSE, REVISION, own, DECISION_AGREE),
               nullptr);
    EXPECT_EQ (heard.end (), own_name_warning ("procedure") + own_name_warning ("clause") +
                               own_name_warning ("clause revision") +
                               own_name_warning ("clause revision decision"));
  }
  EXPECT_EQ (list_all_rows (&account), before);
  EXPECT_EQ (account.procedures.count, 1u);
}

TEST (negotiation_receive, drops_what_comes_from_no_party)
{
  Account account;
  receive_procedure_with_a_clause (&account);
  std::string before = list_all_rows (&account);
  // The last is no UTF-8; one that is folded to the other's must have the same host, too.
  for (const char *author : {"carol@beta.test", "bob@beta.test.example", "bo@beta.test",
                             "bob@beta.tes", "@", "bob@beta.test\xff"}) {
    EXPECT_EQ (receive_all_by (&account, author), no_party_warning ("clause") +
                                                    no_party_warning ("clause revision") +
                                                    no_party_warning ("clause revision decision") +
                                                    no_party_warning ("clause message"))
      << author;
  }
  EXPECT_EQ (list_all_rows (&account), before);
}

TEST (negotiation_receive, compares_parties_as_people_read_them)
{
  // As a user may have typed the contractor, and as a server may name it.
  Account account;
  now = 700;
  Negotiation *negotiation = &account.negotiation;
  Procedure *procedure =
    negotiation_begin (negotiation, to_string ("Planks"), to_string ("Stra\u00dfe@Beta.Test"));
  negotiation_add_clause (negotiation, procedure);
  for (const char *author :
       {"stra\u00dfe@beta.test", "STRASSE@BETA.TEST", "\uff53trasse@beta.test"}) {
    Heard heard;
    now++;
    EXPECT_NE (receive_clause (&account, {OWN, 700}, {author, now}), nullptr);
    EXPECT_NE (receive_message (&account, {OWN, 700}, {OWN, 700}, {author, now}, "Well?"), nullptr);
    EXPECT_EQ (heard.end (), "");
  }
  Heard heard;
  EXPECT_NE (receive_message (&account, {OWN, 700}, {OWN, 700}, {"STRASSE", 1}, "Well?"), nullptr);
  EXPECT_EQ (receive_message (&account, {OWN, 700}, {OWN, 700}, {"STRASS", 1}, "Well?"), nullptr);
  EXPECT_EQ (heard.end (), no_party_warning ("clause message"));
}

TEST (negotiation_receive_message, takes_the_name_that_both_parties_share)
{
  Account account;
  Name procedure = {"alice@beta.test", 700};
  receive_procedure (&account, procedure, "Planks");
  receive_clause (&account, procedure, {"alice@beta.test", 800});
  Heard heard;
  EXPECT_NE (receive_message (&account, procedure, {"alice@beta.test", 800}, {"alice", 1}, "Mine"),
             nullptr);
  EXPECT_EQ (heard.end (), "");
}

TEST (negotiation_receive, drops_repetitions)
{
  Account account;
  receive_procedure_with_a_clause (&account);
  receive_message (&account, PROCEDURE, CLAUSE, {"bob", 950}, "Well?");
  std::string before = list_all_rows (&account);
  Heard heard;
  EXPECT_EQ (receive_clause (&account, PROCEDURE, CLAUSE), nullptr);
  EXPECT_EQ (receive_revision (&account, PROCEDURE, CLAUSE, REVISION, "Another text"), nullptr);
  EXPECT_EQ (receive_message (&account, PROCEDURE, CLAUSE, {"bob", 950}, "Well?"), nullptr);
  EXPECT_EQ (heard.end (), repetition_warning ("clause") + repetition_warning ("clause revision") +
                             repetition_warning ("clause message"));
  EXPECT_EQ (list_all_rows (&account), before);
  // These differ in one of the three, and a procedure repeats.
  Heard heard_again;
  EXPECT_NE (receive_message (&account, PROCEDURE, CLAUSE, {"bob", 950}, "Well"), nullptr);
  EXPECT_NE (receive_message (&account, PROCEDURE, CLAUSE, {"bob", 951}, "Well?"), nullptr);
  EXPECT_NE (receive_message (&account, PROCEDURE, CLAUSE, {OTHER, 950}, "Well?"), nullptr);
  EXPECT_NE (receive_procedure (&account, PROCEDURE, "Planks"), nullptr);
  EXPECT_EQ (heard_again.end (), "");
  EXPECT_EQ (account.procedures.count, 2u);
}

// ---- Times ----

static std::string
list_revisions (Clause *clause)
{
  std::string list;
  for (u32 i = 0; i < clause->revisions_count; i++) {
    ClauseRevision *revision = clause->revisions[i];
    list += std::to_string (revision->time) + ":" +
            std::string ((const char *) revision->text.data, revision->text.size) + " ";
  }
  return list;
}

TEST (negotiation_receive_revision, goes_where_a_restart_would_put_it)
{
  Account account;
  receive_procedure_with_a_clause (&account);
  Clause *clause = account.procedures.procedures[0]->clauses[0];
  now = 905;
  commit (&account, clause, "Own");
  receive_revision (&account, PROCEDURE, CLAUSE, {OTHER, 903}, "Late");
  receive_revision (&account, PROCEDURE, CLAUSE, {OTHER, 905}, "Same");
  receive_revision (&account, PROCEDURE, CLAUSE, {OTHER, 1}, "First");
  std::string order = list_revisions (clause);
  EXPECT_EQ (order, "1:First 900:Ten 903:Late 905:Own 905:Same ");
  account.restart ();
  EXPECT_EQ (list_revisions (account.procedures.procedures[0]->clauses[0]), order);
}

TEST (negotiation_commit, stays_the_last_whatever_the_clocks_say)
{
  Account account;
  receive_procedure_with_a_clause (&account);
  Clause *clause = account.procedures.procedures[0]->clauses[0];
  now = 900;
  EXPECT_EQ (commit (&account, clause, "Same second")->time, 901);
  now = 10;
  EXPECT_EQ (commit (&account, clause, "Back in time")->time, 902);
  now = 2000;
  EXPECT_EQ (commit (&account, clause, "Usual")->time, 2000);
  receive_revision (&account, PROCEDURE, CLAUSE, {OTHER, 999999999998}, "Far ahead");
  EXPECT_EQ (commit (&account, clause, "With the last digits")->time, 999999999999);
  // Nothing that receivers take is above this.
  EXPECT_EQ (commit (&account, clause, "At the clock's second")->time, 2001);
  EXPECT_EQ (list_revisions (clause),
             "900:Ten 901:Same second 902:Back in time 2000:Usual 2001:At the clock's second "
             "999999999998:Far ahead 999999999999:With the last digits ");
  std::string order = list_revisions (clause);
  account.restart ();
  EXPECT_EQ (list_revisions (account.procedures.procedures[0]->clauses[0]), order);
}

// ---- The order ----

// What one party makes and the other one gets some time later.
struct Parcel {
  Name clause, revision;  // the revision's time is 0 for the clause itself, -1 for a line
  std::string text;
};

// A procedure of Alice's with Bob, in which both do what comes to their minds while what they have
// made is on its way, in few seconds and in any order of arrival between the two.
struct Parties {
  Account accounts[2];
  std::vector<Parcel> ways[2];  // to whom
  std::mt19937 source;

  Parties (u32 seed) : accounts{{OWN, "alice"}, {OTHER, "bob"}}, source (seed)
  {
    Procedure *procedure = begin (&accounts[0]);
    receive_procedure (&accounts[1], {OWN, procedure->time}, "Planks");
  }

  u32 pick (size_t count)
  {
    return (u32) (source () % count);
  }

  Procedure *procedure (int side)
  {
    return accounts[side].procedures.procedures[0];
  }

  Name name ()
  {
    return {OWN, procedure (0)->time};
  }

  static Name name_of (Clause *clause)
  {
    return {text_of (clause->initiator) == OWN ? OWN : OTHER, clause->time};
  }

  void act (int side)
  {
    const char *own = side ? OTHER : OWN;
    Procedure *procedure = this->procedure (side);
    u32 index = pick (procedure->clauses_count + 1);
    std::string text = std::string (1, (char) ('a' + pick (4)));
    bool is_new = index == procedure->clauses_count;
    Clause *clause = is_new ? negotiation_add_clause (&accounts[side].negotiation, procedure)
                            : procedure->clauses[index];
    if (is_new)
      ways[!side].push_back ({name_of (clause), {own, 0}, ""});
    if (is_new || pick (2)) {
      ClauseRevision *revision = commit (&accounts[side], clause, text.c_str ());
      ways[!side].push_back ({name_of (clause), {own, revision->time}, text});
    } else {
      ClauseMessage *line =
        negotiation_say (&accounts[side].negotiation, clause, to_string (text.c_str ()));
      ways[!side].push_back ({name_of (clause), {own, -line->time}, text});
    }
  }

  void deliver (int side)
  {
    if (ways[side].empty ())
      return;
    Parcel parcel = ways[side].front ();
    ways[side].erase (ways[side].begin ());
    Account *account = &accounts[side];
    s64 time = parcel.revision.time;
    if (!time)
      receive_clause (account, name (), parcel.clause);
    else if (time > 0)
      receive_revision (account, name (), parcel.clause, parcel.revision, parcel.text.c_str ());
    else
      receive_message (account, name (), parcel.clause, {side ? "alice" : "bob", -time},
                       parcel.text.c_str ());
  }
};

// What a window would show from above, of clauses and revisions and, after a restart, of lines too.
static std::string
list_procedure (Account *account, bool has_lines)
{
  Procedure *procedure = account->procedures.procedures[0];
  std::string list;
  for (u32 i = 0; i < procedure->clauses_count; i++) {
    Clause *clause = procedure->clauses[i];
    list += std::to_string (clause->time) + text_of (clause->initiator) + "\n";
    for (u32 j = 0; j < clause->revisions_count; j++) {
      ClauseRevision *revision = clause->revisions[j];
      list += " " + std::to_string (revision->time) + text_of (revision->author) + "\n";
    }
    for (u32 j = 0; j < clause->messages_count && has_lines; j++) {
      ClauseMessage *line = clause->messages[j];
      list +=
        " " + std::to_string (line->time) + text_of (line->author) + text_of (line->text) + "\n";
    }
  }
  return list;
}

// The same from the rows, in the order of the test's own.
static std::string
sort_rows (Account *account, bool has_lines)
{
  // SQLite compares texts byte by byte.
  std::string clauses =
    account->rows ("SELECT db_id, time || initiator FROM clauses ORDER BY time, initiator");
  std::string list;
  for (size_t start = 0; start < clauses.size ();) {
    size_t end = clauses.find ('\n', start);
    size_t bar = clauses.find ('|', start);
    std::string db_id = clauses.substr (start, bar - start);
    list += clauses.substr (bar + 1, end - bar);
    std::string order =
      " FROM clause_revisions WHERE clause_db_id = " + db_id + " ORDER BY time, author";
    list += account->rows (("SELECT ' ' || time || author" + order).c_str ());
    order = " FROM clause_messages WHERE clause_db_id = " + db_id + " ORDER BY time, db_id";
    if (has_lines)
      list += account->rows (("SELECT ' ' || time || author || text" + order).c_str ());
    start = end + 1;
  }
  return list;
}

TEST (negotiation, comes_to_one_order_on_both_sides)
{
  u32 ties = 0;
  for (u32 seed = 1; seed <= 20; seed++) {
    Parties parties (seed);
    for (int step = 0; step < 60; step++) {
      if (!parties.pick (4))
        now += (s64) parties.pick (3) - 1;
      if (parties.pick (2))
        parties.act ((int) parties.pick (2));
      else
        parties.deliver ((int) parties.pick (2));
    }
    for (int side = 0; side < 2; side++) {
      while (!parties.ways[side].empty ())
        parties.deliver (side);
    }
    std::string order = sort_rows (&parties.accounts[0], false);
    EXPECT_EQ (sort_rows (&parties.accounts[1], false), order);
    for (Account &account : parties.accounts)
      EXPECT_EQ (list_procedure (&account, false), order) << "seed " << seed;
    for (Account &account : parties.accounts) {
      account.restart ();
      EXPECT_EQ (list_procedure (&account, true), sort_rows (&account, true)) << "seed " << seed;
    }
    std::string doubles =
      "SELECT 1 FROM clause_revisions GROUP BY clause_db_id, time HAVING count (*) > 1";
    ties += (u32) parties.accounts[0].rows (doubles.c_str ()).size ();
  }
  EXPECT_GT (ties, 0u);
}

// Bob says that his revision comes last of all, and Alice goes on.
TEST (negotiation, has_one_last_revision_on_both_sides_when_the_seconds_are_used_up)
{
  Parties parties (1);
  now = 5000;
  Procedure *procedure = parties.procedure (0);
  Clause *clause = negotiation_add_clause (&parties.accounts[0].negotiation, procedure);
  Name name = {OWN, clause->time};
  receive_clause (&parties.accounts[1], parties.name (), name);
  now = 999999999999;
  commit (&parties.accounts[1], parties.procedure (1)->clauses[0], "Last");
  now = 5001;
  receive_revision (&parties.accounts[0], parties.name (), name, {OTHER, 999999999999}, "Last");
  for (int i = 0; i < 3; i++) {
    s64 time = commit (&parties.accounts[0], clause, "Mine")->time;
    receive_revision (&parties.accounts[1], parties.name (), name, {OWN, time}, "Mine");
  }
  for (Account &account : parties.accounts) {
    std::string order = "5001:Mine 5002:Mine 5003:Mine 999999999999:Last ";
    EXPECT_EQ (list_revisions (account.procedures.procedures[0]->clauses[0]), order);
    account.restart ();
    EXPECT_EQ (list_revisions (account.procedures.procedures[0]->clauses[0]), order);
  }
}

TEST (negotiation_say, takes_the_next_free_second)
{
  Account account;
  Clause *clause = negotiation_add_clause (&account.negotiation, begin (&account));
  EXPECT_EQ (negotiation_say (&account.negotiation, clause, to_string ("One"))->time, 5000);
  EXPECT_EQ (negotiation_say (&account.negotiation, clause, to_string ("Two"))->time, 5001);
  now++;
  EXPECT_EQ (negotiation_say (&account.negotiation, clause, to_string ("Three"))->time, 5002);
}

TEST (negotiation_receive, warns_of_times_more_than_a_day_ahead_and_takes_them)
{
  Account account;
  Heard heard;
  s64 day_ahead = now + 24 * 60 * 60;
  Name last = {OTHER, day_ahead};
  receive_procedure (&account, last, "Planks");
  receive_clause (&account, last, last);
  receive_revision (&account, last, last, last, "Ten");
  receive_message (&account, last, last, {"bob", day_ahead}, "Well?");
  EXPECT_EQ (heard.end (), "");
  Heard heard_again;
  Name far = {OTHER, day_ahead + 1};
  EXPECT_NE (receive_procedure (&account, far, "Planks"), nullptr);
  EXPECT_NE (receive_clause (&account, far, far), nullptr);
  EXPECT_NE (receive_revision (&account, far, far, far, "Ten"), nullptr);
  EXPECT_NE (receive_message (&account, far, far, {"bob", day_ahead + 1}, "Well?"), nullptr);
  EXPECT_EQ (heard_again.end (),
             "Warning: A procedure came with a time more than a day ahead.\n"
             "Warning: A clause came with a time more than a day ahead.\n"
             "Warning: A clause revision came with a time more than a day ahead.\n"
             "Warning: A clause message came with a time more than a day ahead.\n");
}
