// The outbox: which rows there are in which state, what a session leaves, deletion and undo. Every
// test has a store of its own, and rows are read back with SQL through another connection.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "outbox.h"

static const u64 ACCOUNT = 3;

static int
collect_row (void *argument, int columns_count, char **values, char **)
{
  std::string *rows = (std::string *) argument;
  for (int i = 0; i < columns_count; ++i)
    *rows += (i ? "|" : "") + std::string (values[i] ? values[i] : "NULL");
  *rows += "\n";
  return 0;
}

// A store in a directory of its own with the outbox of one account, gone with the record.
struct Store {
  std::filesystem::path directory;
  std::string path;
  sqlite3 *db;
  Outbox outbox;

  Store ()
  {
    std::string pattern =
      (std::filesystem::temp_directory_path () / "morvane-outbox-XXXXXX").string ();
    directory = mkdtemp (pattern.data ());
    path = (directory / "store.db").string ();
    open ();
  }

  ~Store ()
  {
    dealloc_outbox (&outbox);
    db_close (db);
    std::filesystem::remove_all (directory);
  }

  void open ()
  {
    db = db_connect (path.c_str ());
    // No test here pulls the plug, and the disk would take most of the time.
    sqlite3_exec (db, "PRAGMA synchronous = OFF;", NULL, NULL, NULL);
    outbox = outbox_load (db, ACCOUNT);
  }

  // As after a kill: what is in memory is gone.
  void reload ()
  {
    dealloc_outbox (&outbox);
    db_close (db);
    open ();
  }

  std::string query (const char *sql)
  {
    sqlite3 *other = NULL;
    std::string rows;
    EXPECT_EQ (sqlite3_open (path.c_str (), &other), SQLITE_OK);
    EXPECT_EQ (sqlite3_exec (other, sql, collect_row, &rows, NULL), SQLITE_OK) << sql;
    sqlite3_close (other);
    return rows;
  }

  std::string tables ()
  {
    return query ("SELECT count(*) FROM sqlite_master WHERE type = 'table';");
  }

  std::string rows ()
  {
    return query (
      "SELECT account_db_id, kind, object_db_id FROM outbox ORDER BY account_db_id, sequence;");
  }

  // Each object with its kind and its place in the order of sending.
  std::string places ()
  {
    return query ("SELECT object_db_id || ' ' || kind || ' ' || sequence FROM outbox "
                  "ORDER BY sequence, db_id;");
  }

  // What would be sent now, in order, each under a position one above the last.
  std::string send_all (u64 *position)
  {
    std::string sent;
    while (OutboxEntry *entry = outbox_get_next (&outbox)) {
      sent += std::string (OUTBOX_KIND_STRINGS[entry->kind]) + std::to_string (entry->object_db_id);
      sent += " ";
      ++*position;
      outbox_note_sent (&outbox, entry, *position, *position, 100 + *position);
    }
    return sent;
  }

  // As it is until the outbox is looked at.
  void leave_empty_table ()
  {
    u64 position = 0;
    outbox_add (&outbox, OUTBOX_CLAUSE, 7);
    send_all (&position);
    outbox_note_taken (&outbox, position, 1);
    EXPECT_EQ (tables (), "10\n");
  }
};

// Another process on the store, as its connection does it.
struct OtherProcess {
  sqlite3 *db = NULL;

  explicit OtherProcess (Store *store)
  {
    EXPECT_EQ (sqlite3_open (store->path.c_str (), &db), SQLITE_OK);
  }

  ~OtherProcess ()
  {
    sqlite3_close (db);
  }

  void run (const char *sql)
  {
    EXPECT_EQ (sqlite3_exec (db, sql, NULL, NULL, NULL), SQLITE_OK) << sql;
  }
};

// ---- Table ----

TEST (outbox_load, an_empty_outbox_leaves_the_nine_tables)
{
  Store store;
  EXPECT_EQ (store.tables (), "9\n");
  EXPECT_EQ (outbox_get_next (&store.outbox), nullptr);
}

TEST (outbox_add, the_first_entry_makes_the_table)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 7);
  EXPECT_EQ (store.tables (), "10\n");
  EXPECT_EQ (store.rows (), "3|clause|7\n");
}

TEST (outbox_add, every_kind_has_its_word)
{
  Store store;
  for (int kind = 0; kind < OUTBOX_KINDS_COUNT; ++kind)
    outbox_add (&store.outbox, (OutboxKind) kind, 10 + kind);
  EXPECT_EQ (store.rows (),
             "3|procedure|10\n3|clause|11\n3|revision|12\n3|message|13\n3|decision|14\n");
}

TEST (outbox_add, belongs_to_the_transaction_around)
{
  Store store;
  sqlite3_exec (store.db, "BEGIN;", NULL, NULL, NULL);
  outbox_add (&store.outbox, OUTBOX_PROCEDURE, 1);
  EXPECT_EQ (store.tables (), "9\n");  // not for others, before its end
  sqlite3_exec (store.db, "ROLLBACK;", NULL, NULL, NULL);
  EXPECT_EQ (store.tables (), "9\n");
}

TEST (outbox_add, the_same_object_waits_once)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_DECISION, 5);
  outbox_add (&store.outbox, OUTBOX_DECISION, 5);
  outbox_add (&store.outbox, OUTBOX_REVISION, 5);
  EXPECT_EQ (store.rows (), "3|decision|5\n3|revision|5\n");
}

TEST (outbox_add, an_object_that_is_on_its_way_gets_a_second_entry)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_DECISION, 5);
  EXPECT_EQ (store.send_all (&position), "decision5 ");
  outbox_add (&store.outbox, OUTBOX_DECISION, 5);
  EXPECT_EQ (store.rows (), "3|decision|5\n3|decision|5\n");
  EXPECT_EQ (store.send_all (&position), "decision5 ");
}

TEST (outbox_drop_empty_table, leaves_a_table_with_rows)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 7);
  EXPECT_FALSE (outbox_drop_empty_table (store.db));
  EXPECT_EQ (store.rows (), "3|clause|7\n");
}

TEST (outbox_drop_empty_table, drops_it_when_the_last_row_is_gone)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 7);
  store.send_all (&position);
  outbox_note_taken (&store.outbox, position, 1);
  EXPECT_EQ (store.tables (), "10\n");
  EXPECT_TRUE (outbox_drop_empty_table (store.db));
  EXPECT_EQ (store.tables (), "9\n");
  EXPECT_TRUE (outbox_drop_empty_table (store.db));
}

TEST (outbox_drop_empty_table, another_accounts_row_keeps_it)
{
  Store store;
  Outbox other = outbox_load (store.db, 4);
  outbox_add (&other, OUTBOX_CLAUSE, 7);
  EXPECT_FALSE (outbox_drop_empty_table (store.db));
  dealloc_outbox (&other);
}

TEST (outbox_drop_empty_table, takes_a_table_that_another_process_has_dropped)
{
  Store store;
  OtherProcess other (&store);
  store.leave_empty_table ();
  other.run ("DROP TABLE outbox;");
  EXPECT_TRUE (outbox_drop_empty_table (store.db));
  EXPECT_EQ (store.tables (), "9\n");
}

TEST (outbox_drop_empty_table, sees_a_table_that_another_process_has_made)
{
  Store store;
  OtherProcess other (&store);
  store.leave_empty_table ();
  EXPECT_TRUE (outbox_drop_empty_table (store.db));
  other.run ("CREATE TABLE outbox (db_id INTEGER PRIMARY KEY, account_db_id INTEGER, "
             "sequence INTEGER, kind TEXT, object_db_id INTEGER);"
             "INSERT INTO outbox VALUES (1, 4, 1, 'clause', 9);");
  EXPECT_FALSE (outbox_drop_empty_table (store.db));
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 8);
  EXPECT_EQ (store.rows (), "3|clause|8\n4|clause|9\n");
}

TEST (outbox_add, makes_the_table_that_another_process_has_dropped)
{
  Store store;
  OtherProcess other (&store);
  store.leave_empty_table ();
  other.run ("DROP TABLE outbox;");
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 8);
  EXPECT_EQ (store.rows (), "3|clause|8\n");
}

TEST (outbox_load, takes_a_table_that_another_process_has_dropped)
{
  Store store;
  OtherProcess other (&store);
  store.leave_empty_table ();
  other.run ("DROP TABLE outbox;");
  Outbox outbox = outbox_load (store.db, ACCOUNT + 1);
  EXPECT_EQ (outbox.count, 0u);
  dealloc_outbox (&outbox);
}

TEST (outbox_load, drops_a_table_that_was_left_empty)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 7);
  store.query ("DELETE FROM outbox;");
  EXPECT_EQ (store.tables (), "10\n");
  store.reload ();
  EXPECT_EQ (store.tables (), "9\n");
}

TEST (outbox_load, takes_the_rows_of_its_account_in_their_order)
{
  Store store;
  Outbox other = outbox_load (store.db, 4);
  outbox_add (&store.outbox, OUTBOX_PROCEDURE, 9);
  outbox_add (&other, OUTBOX_CLAUSE, 1);
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 2);
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  dealloc_outbox (&other);
  store.reload ();
  u64 position = 0;
  EXPECT_EQ (store.send_all (&position), "procedure9 clause2 revision1 ");
}

TEST (outbox_load, goes_on_above_the_rows_that_it_found)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_PROCEDURE, 9);
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 2);
  store.reload ();
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  EXPECT_EQ (store.query ("SELECT sequence FROM outbox ORDER BY sequence;"), "1\n2\n3\n");
}

TEST (outbox_load, leaves_a_row_of_an_unknown_kind_alone)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_PROCEDURE, 9);
  store.query ("UPDATE outbox SET kind = 'parcel';");
  testing::internal::CaptureStdout ();
  store.reload ();
  EXPECT_NE (testing::internal::GetCapturedStdout ().find (
               "\nWarning: The outbox names an object of an unknown kind.\n"),
             std::string::npos);
  EXPECT_EQ (outbox_get_next (&store.outbox), nullptr);
  EXPECT_EQ (store.rows (), "3|parcel|9\n");
}

TEST (outbox_load, holds_more_than_its_first_capacity)
{
  Store store;
  for (u64 i = 1; i <= 65; ++i)
    outbox_add (&store.outbox, OUTBOX_REVISION, i);
  store.reload ();
  EXPECT_EQ (store.outbox.count, 65u);
  EXPECT_EQ (store.outbox.entries[64].object_db_id, 65u);
}

// ---- Sending ----

TEST (outbox_note_sent, the_row_stays)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 7);
  store.send_all (&position);
  EXPECT_EQ (store.rows (), "3|clause|7\n");
  EXPECT_FALSE (outbox_get_unsent (&store.outbox, OUTBOX_CLAUSE, 7));
}

TEST (outbox_note_taken, the_rows_up_to_there_go)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 3; ++i)
    outbox_add (&store.outbox, OUTBOX_REVISION, i);
  store.send_all (&position);
  outbox_note_taken (&store.outbox, 2, 1);
  EXPECT_EQ (store.rows (), "3|revision|3\n");
}

TEST (outbox_note_taken, says_nothing_about_what_was_not_sent)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  outbox_note_taken (&store.outbox, 100, 1);
  EXPECT_EQ (store.rows (), "3|revision|1\n");
  EXPECT_TRUE (outbox_get_unsent (&store.outbox, OUTBOX_REVISION, 1));
}

TEST (outbox_end_session, what_was_taken_and_not_confirmed_returns_to_its_place)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 3; ++i)
    outbox_add (&store.outbox, OUTBOX_REVISION, i);
  store.send_all (&position);
  outbox_note_taken (&store.outbox, 1, 10);
  outbox_note_taken (&store.outbox, 3, 20);
  outbox_note_heard (&store.outbox, 10);
  outbox_add (&store.outbox, OUTBOX_REVISION, 4);
  outbox_end_session (&store.outbox, 0);
  EXPECT_EQ (store.rows (), "3|revision|2\n3|revision|3\n3|revision|4\n");
  EXPECT_TRUE (outbox_get_unsent (&store.outbox, OUTBOX_REVISION, 2));
  EXPECT_FALSE (outbox_get_unsent (&store.outbox, OUTBOX_REVISION, 1));
  EXPECT_EQ (store.send_all (&position), "revision2 revision3 revision4 ");
}

TEST (outbox_note_acknowledged, with_acknowledgements_the_rows_go_by_it)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 3; ++i)
    outbox_add (&store.outbox, OUTBOX_MESSAGE, i);
  store.send_all (&position);
  outbox_note_acknowledged (&store.outbox, 2);
  EXPECT_EQ (store.rows (), "3|message|3\n");
  outbox_end_session (&store.outbox, 0);
  EXPECT_EQ (store.rows (), "3|message|3\n");
}

static int
count_commit (void *count)
{
  ++*(int *) count;
  return 0;
}

TEST (outbox_note_acknowledged, is_one_transaction_or_belongs_to_the_one_around)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 4; ++i)
    outbox_add (&store.outbox, OUTBOX_MESSAGE, i);
  store.send_all (&position);
  int commits_count = 0;
  sqlite3_commit_hook (store.db, count_commit, &commits_count);
  outbox_note_acknowledged (&store.outbox, 3);
  EXPECT_EQ (commits_count, 1);
  EXPECT_EQ (store.rows (), "3|message|4\n");
  db_begin (store.db);
  outbox_note_acknowledged (&store.outbox, 4);
  EXPECT_EQ (commits_count, 1);
  EXPECT_EQ (store.rows (), "3|message|4\n");
  db_commit (store.db);
  EXPECT_EQ (commits_count, 2);
  EXPECT_EQ (store.rows (), "");
}

TEST (outbox_note_refused, what_was_done_is_in_the_outbox_for_the_next_session)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  outbox_add (&store.outbox, OUTBOX_REVISION, 2);
  store.send_all (&position);
  outbox_note_acknowledged (&store.outbox, 2);
  EXPECT_TRUE (outbox_note_refused (&store.outbox, 101));
  EXPECT_EQ (store.rows (), "3|revision|1\n");
  EXPECT_TRUE (outbox_get_unsent (&store.outbox, OUTBOX_REVISION, 1));
  EXPECT_EQ (store.send_all (&position), "");  // not in a circle
  outbox_note_acknowledged (&store.outbox, 10);
  EXPECT_EQ (store.rows (), "3|revision|1\n");
  outbox_end_session (&store.outbox, 0);
  EXPECT_EQ (store.send_all (&position), "revision1 ");
}

TEST (outbox_note_refused, an_id_that_carried_nothing_of_these_is_not_ours)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  EXPECT_FALSE (outbox_note_refused (&store.outbox, 0));
  store.send_all (&position);
  EXPECT_FALSE (outbox_note_refused (&store.outbox, 100));
  EXPECT_FALSE (outbox_note_refused (&store.outbox, 102));
}

TEST (outbox_note_refused, a_new_decision_in_place_of_a_refused_one_is_sent)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_DECISION, 1);
  store.send_all (&position);
  outbox_note_refused (&store.outbox, 101);
  outbox_add (&store.outbox, OUTBOX_DECISION, 1);
  EXPECT_EQ (store.rows (), "3|decision|1\n");
  EXPECT_EQ (store.send_all (&position), "decision1 ");
}

// ---- Holding ----

TEST (outbox_end_session, what_the_server_refused_is_held_and_the_rest_waits)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 4; ++i)
    outbox_add (&store.outbox, OUTBOX_REVISION, i);
  store.send_all (&position);
  outbox_note_acknowledged (&store.outbox, 1);
  OutboxEntry *held = outbox_end_session (&store.outbox, 3);
  ASSERT_TRUE (held);
  EXPECT_EQ (held->object_db_id, 3u);
  EXPECT_EQ (held->state, OUTBOX_HELD);
  EXPECT_EQ (store.places (), "3 revision 0\n2 revision 2\n4 revision 4\n");
  EXPECT_TRUE (outbox_get_unsent (&store.outbox, OUTBOX_REVISION, 3));
  EXPECT_EQ (store.send_all (&position), "revision2 revision4 ");
}

TEST (outbox_load, what_is_held_stays_held)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 3; ++i)
    outbox_add (&store.outbox, OUTBOX_REVISION, i);
  store.send_all (&position);
  outbox_end_session (&store.outbox, 2);
  store.reload ();
  EXPECT_EQ (outbox_get_unsent (&store.outbox, OUTBOX_REVISION, 2)->state, OUTBOX_HELD);
  outbox_add (&store.outbox, OUTBOX_REVISION, 4);
  EXPECT_EQ (store.send_all (&position), "revision1 revision3 revision4 ");
  outbox_note_acknowledged (&store.outbox, position);
  EXPECT_EQ (store.places (), "2 revision 0\n");
  EXPECT_FALSE (outbox_drop_empty_table (store.db));
  EXPECT_FALSE (outbox_end_session (&store.outbox, 0));
  EXPECT_EQ (store.places (), "2 revision 0\n");
}

// Without acknowledgements what the server said meanwhile seemed to confirm it.
TEST (outbox_end_session, what_went_behind_the_refused_one_is_in_doubt)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 3; ++i)
    outbox_add (&store.outbox, OUTBOX_REVISION, i);
  store.send_all (&position);
  outbox_note_taken (&store.outbox, 3, 10);
  outbox_note_heard (&store.outbox, 10);
  EXPECT_EQ (store.places (), "");
  outbox_end_session (&store.outbox, 2);
  EXPECT_EQ (store.places (), "2 revision 0\n3 revision 3\n");
}

TEST (outbox_end_session, what_came_back_or_waits_is_not_what_was_refused)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  store.send_all (&position);
  outbox_note_refused (&store.outbox, 101);
  outbox_add (&store.outbox, OUTBOX_REVISION, 2);
  EXPECT_FALSE (outbox_end_session (&store.outbox, 1));
  EXPECT_EQ (store.places (), "1 revision 1\n2 revision 2\n");
  // Positions of an earlier session say nothing.
  EXPECT_FALSE (outbox_end_session (&store.outbox, 1));
}

TEST (outbox_note_refused, what_is_held_does_not_come_back)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  store.send_all (&position);
  outbox_end_session (&store.outbox, 1);
  EXPECT_FALSE (outbox_note_refused (&store.outbox, 101));
  EXPECT_EQ (store.places (), "1 revision 0\n");
}

TEST (outbox_add, what_is_held_is_held_once)
{
  Store store;
  outbox_add (&store.outbox, OUTBOX_DECISION, 1);
  outbox_hold (&store.outbox, outbox_get_next (&store.outbox));
  outbox_add (&store.outbox, OUTBOX_DECISION, 1);
  EXPECT_EQ (store.places (), "1 decision 0\n");
  EXPECT_FALSE (outbox_get_next (&store.outbox));
}

TEST (outbox_end_session, holds_in_one_transaction)
{
  Store store;
  u64 position = 0;
  for (u64 i = 1; i <= 3; ++i)
    outbox_add (&store.outbox, OUTBOX_REVISION, i);
  store.send_all (&position);
  outbox_note_taken (&store.outbox, 3, 10);
  int commits_count = 0;
  sqlite3_commit_hook (store.db, count_commit, &commits_count);
  outbox_end_session (&store.outbox, 2);
  EXPECT_EQ (commits_count, 1);
}

TEST (outbox_drop, the_row_goes_and_the_rest_stays)
{
  Store store;
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_REVISION, 1);
  outbox_add (&store.outbox, OUTBOX_REVISION, 2);
  outbox_drop (&store.outbox, outbox_get_next (&store.outbox));
  EXPECT_EQ (store.rows (), "3|revision|2\n");
  EXPECT_EQ (store.send_all (&position), "revision2 ");
}

// ---- Deletion and undo ----

// A procedure with one object of each kind, all of row 5.
static Procedure *
alloc_test_procedure ()
{
  String author = to_string ("alice@alpha.test");
  Procedure *procedure = alloc_procedure (5, ACCOUNT, 1, to_string ("T"), author, author);
  Clause *clause = alloc_clause (5, 5, 2, author, 1);
  procedure_add_clause (procedure, clause);
  clause_add_message (clause, alloc_clause_message (5, 5, 3, author, author));
  ClauseRevision *revision = alloc_clause_revision (5, 5, 4, author, REVISION_COMMITTED, author);
  clause_add_revision (clause, revision);
  clause->draft = alloc_clause_revision (6, 5, 4, author, REVISION_DRAFT, author);
  clause_revision_add_decision (revision,
                                alloc_clause_revision_decision (5, 5, 5, author, DECISION_AGREE));
  return procedure;
}

static void
set_rows (Procedure *procedure, u64 db_id)
{
  Clause *clause = procedure->clauses[0];
  procedure->db_id = db_id;
  clause->db_id = db_id + 1;
  clause->messages[0]->db_id = db_id + 2;
  clause->revisions[0]->db_id = db_id + 3;
  clause->revisions[0]->decisions[0]->db_id = db_id + 4;
}

static void
add_all_kinds (Outbox *outbox)
{
  for (int kind = 0; kind < OUTBOX_KINDS_COUNT; ++kind)
    outbox_add (outbox, (OutboxKind) kind, 5);
}

TEST (outbox_remove_procedure, takes_the_rows_of_all_below_and_no_others)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 4);
  add_all_kinds (&store.outbox);
  outbox_remove_procedure (&store.outbox, procedure);
  EXPECT_EQ (store.rows (), "3|clause|4\n");
  u64 position = 0;
  EXPECT_EQ (store.send_all (&position), "clause4 ");
  outbox_forget_removed (&store.outbox);
  EXPECT_EQ (store.outbox.count, 1u);
  outbox_end_session (&store.outbox, 0);
  EXPECT_EQ (store.rows (), "3|clause|4\n");
  dealloc_procedure (procedure);
}

TEST (outbox_remove_clause, leaves_its_procedure)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  add_all_kinds (&store.outbox);
  outbox_remove_clause (&store.outbox, procedure->clauses[0]);
  EXPECT_EQ (store.rows (), "3|procedure|5\n");
  outbox_restore_clause (&store.outbox, procedure->clauses[0]);
  EXPECT_EQ (store.rows (), "3|procedure|5\n3|clause|5\n3|revision|5\n3|message|5\n3|decision|5\n");
  dealloc_procedure (procedure);
}

TEST (outbox_restore_procedure, the_same_comes_back_under_the_new_rows)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  add_all_kinds (&store.outbox);
  outbox_add (&store.outbox, OUTBOX_CLAUSE, 4);
  outbox_remove_procedure (&store.outbox, procedure);
  set_rows (procedure, 20);
  outbox_restore_procedure (&store.outbox, procedure);
  EXPECT_EQ (
    store.rows (),
    "3|procedure|20\n3|clause|21\n3|revision|23\n3|message|22\n3|decision|24\n3|clause|4\n");
  outbox_forget_removed (&store.outbox);
  u64 position = 0;
  EXPECT_EQ (store.send_all (&position),
             "procedure20 clause21 revision23 message22 decision24 clause4 ");
  dealloc_procedure (procedure);
}

TEST (outbox_restore_procedure, a_new_object_in_the_old_row_is_not_taken_for_it)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  outbox_add (&store.outbox, OUTBOX_PROCEDURE, 5);
  outbox_remove_procedure (&store.outbox, procedure);
  EXPECT_FALSE (outbox_get_unsent (&store.outbox, OUTBOX_PROCEDURE, 5));
  outbox_add (&store.outbox, OUTBOX_PROCEDURE, 5);
  procedure->db_id = 6;
  outbox_restore_procedure (&store.outbox, procedure);
  EXPECT_EQ (store.rows (), "3|procedure|6\n3|procedure|5\n");
  dealloc_procedure (procedure);
}

TEST (outbox_restore_procedure, what_was_confirmed_meanwhile_has_no_row)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  u64 position = 0;
  add_all_kinds (&store.outbox);
  store.send_all (&position);
  outbox_remove_procedure (&store.outbox, procedure);
  outbox_note_acknowledged (&store.outbox, 3);
  outbox_restore_procedure (&store.outbox, procedure);
  EXPECT_EQ (store.rows (), "3|message|5\n3|decision|5\n");
  dealloc_procedure (procedure);
}

TEST (outbox_restore_procedure, what_was_in_doubt_when_the_session_ended_waits_again)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  u64 position = 0;
  add_all_kinds (&store.outbox);
  store.send_all (&position);
  outbox_note_taken (&store.outbox, 2, 10);
  outbox_note_taken (&store.outbox, position, 20);
  outbox_note_heard (&store.outbox, 19);
  outbox_remove_procedure (&store.outbox, procedure);
  outbox_end_session (&store.outbox, 0);
  EXPECT_EQ (store.rows (), "");
  outbox_restore_procedure (&store.outbox, procedure);
  EXPECT_EQ (store.rows (), "3|revision|5\n3|message|5\n3|decision|5\n");
  EXPECT_TRUE (outbox_get_unsent (&store.outbox, OUTBOX_REVISION, 5));
  dealloc_procedure (procedure);
}

TEST (outbox_restore_procedure, what_is_held_comes_back_held)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  u64 position = 0;
  add_all_kinds (&store.outbox);
  store.send_all (&position);
  outbox_end_session (&store.outbox, 3);
  outbox_remove_procedure (&store.outbox, procedure);
  EXPECT_EQ (store.places (), "");
  set_rows (procedure, 20);
  outbox_restore_procedure (&store.outbox, procedure);
  EXPECT_EQ (store.places (),
             "23 revision 0\n20 procedure 1\n21 clause 2\n22 message 4\n24 decision 5\n");
  dealloc_procedure (procedure);
}

TEST (outbox_restore_procedure, what_was_refused_meanwhile_comes_back_held)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ();
  u64 position = 0;
  outbox_add (&store.outbox, OUTBOX_REVISION, 5);
  store.send_all (&position);
  outbox_remove_procedure (&store.outbox, procedure);
  outbox_end_session (&store.outbox, 1);
  EXPECT_EQ (store.places (), "");
  outbox_restore_procedure (&store.outbox, procedure);
  EXPECT_EQ (store.places (), "5 revision 0\n");
  dealloc_procedure (procedure);
}

// ---- Random walks ----

// What an outbox must be, told as sets: an object is owed from its commit until the server is known
// to have it. Kills lose what only memory knew, which is what the socket had taken by then.
struct Model {
  std::map<u64, int> owed;      // object to 0 waiting, 1 sent, 2 taken, 3 held
  std::map<u64, u64> done;      // in this session: object to position
  std::map<u64, u64> position;  // of what is sent or taken
  std::map<u64, s64> time;      // when that was taken
  s64 clock = 0;
};

static const char MODEL_ROWS[] =
  "SELECT object_db_id, CASE sequence WHEN 0 THEN 'held' ELSE '' END FROM outbox "
  "ORDER BY object_db_id;";

static std::string
list_model_rows (const Model &model)
{
  std::string rows;
  for (auto [object, state] : model.owed) {
    if (state != 2)
      rows += std::to_string (object) + (state == 3 ? "|held\n" : "|\n");
  }
  return rows;
}

// The server is known to have these.
template <typename Condition>
static void
finish (Model *model, Condition is_done)
{
  std::erase_if (model->owed, [&] (auto &owed) {
    bool is_finished = is_done (owed.first, owed.second);
    if (is_finished)
      model->done[owed.first] = model->position[owed.first];
    return is_finished;
  });
}

// The server refused what went at this place, and has read nothing from there on; 0 for nothing.
static void
end_session (Model *model, u64 refused)
{
  for (auto &[candidate, state] : model->owed) {
    bool was_out = state == 1 || state == 2;
    if (was_out || state == 0)
      state = was_out && model->position[candidate] == refused ? 3 : 0;
  }
  for (auto [candidate, place] : model->done) {
    if (refused && place >= refused)
      model->owed[candidate] = place == refused ? 3 : 0;
  }
  model->done.clear ();
}

static void
take_random_step (Store *store, Model *model, std::mt19937 *random, u64 *object, u64 *position)
{
  u64 up_to = *position ? (*random) () % (*position + 1) : 0;
  switch ((*random) () % 8) {
  case 0:
  case 1:
    outbox_add (&store->outbox, OUTBOX_REVISION, ++*object);
    model->owed[*object] = 0;
    break;
  case 2:
    if (OutboxEntry *entry = outbox_get_next (&store->outbox)) {
      // The lowest that waits: objects were added in the order of their numbers.
      u64 lowest = 0;
      for (auto [candidate, state] : model->owed)
        lowest = !lowest && state == 0 ? candidate : lowest;
      EXPECT_EQ (entry->object_db_id, lowest);
      model->owed[entry->object_db_id] = 1;
      model->position[entry->object_db_id] = ++*position;
      outbox_note_sent (&store->outbox, entry, *position, *position, *position);
    }
    break;
  case 3:
    outbox_note_taken (&store->outbox, up_to, ++model->clock);
    for (auto &[candidate, state] : model->owed) {
      if (state == 1 && model->position[candidate] <= up_to) {
        state = 2;
        model->time[candidate] = model->clock;
      }
    }
    break;
  case 4:
    outbox_note_acknowledged (&store->outbox, up_to);
    finish (model, [&] (u64 candidate, int state) {
      return state == 1 && model->position[candidate] <= up_to;
    });
    break;
  case 7: {
    s64 heard = model->clock ? (*random) () % (model->clock + 1) : 0;
    outbox_note_heard (&store->outbox, heard);
    finish (model, [&] (u64 candidate, int state) {
      return state == 2 && model->time[candidate] <= heard;
    });
    break;
  }
  case 5:
    end_session (model, up_to);
    outbox_end_session (&store->outbox, up_to);
    break;
  default:
    store->reload ();
    std::erase_if (model->owed, [] (auto &owed) { return owed.second == 2; });
    for (auto &[candidate, state] : model->owed)
      state = state == 3 ? 3 : 0;
    model->done.clear ();
  }
}

TEST (outbox, random_walks_agree_with_a_model)
{
  for (unsigned seed = 1; seed <= 8; ++seed) {
    std::mt19937 random (seed);
    Store store;
    Model model;
    u64 object = 0;
    u64 position = 0;
    outbox_add (&store.outbox, OUTBOX_REVISION, ++object);
    model.owed[object] = 0;
    for (int step = 0; step < 60; ++step) {
      take_random_step (&store, &model, &random, &object, &position);
      bool has_table = store.tables () == "10\n";
      ASSERT_EQ (has_table ? store.query (MODEL_ROWS) : "", list_model_rows (model))
        << seed << " " << step;
    }
  }
}
