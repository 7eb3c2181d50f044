// The store: schema, quoting, loading, writing. Every test has a fresh directory of its own, and
// what was written is read back with SQL through a connection of the test's own.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "db.h"
#include "morvane.h"

typedef std::vector<std::string> Texts;

static std::string
text_of (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static String
string_of (const std::string &text)
{
  return {(u8 *) text.data (), text.size ()};
}

// The line of an assertion of the store, as a regular expression: every character that has a
// meaning there stands in brackets of its own.
static std::string
stop_at (const std::string &expression)
{
  std::string regex = "src/db\\.cpp.*Assertion `";
  for (char c : expression) {
    if (c == '\\') {
      regex += "\\\\";
    } else if (isalnum (c) || c == ' ' || c == '_') {
      regex += c;
    } else {
      regex += std::string ("[") + c + "]";
    }
  }
  return regex + "' failed";
}

static int
collect_row (void *argument, int columns_count, char **values, char **)
{
  std::string row;
  for (int i = 0; i < columns_count; ++i) {
    row += (i ? "|" : "") + std::string (values[i] ? values[i] : "NULL");
  }
  ((Texts *) argument)->push_back (row);
  return 0;
}

static int
collect_statement (unsigned, void *argument, void *, void *sql)
{
  ((Texts *) argument)->push_back ((const char *) sql);
  return 0;
}

// A store in a directory of its own, gone with the record.
struct Store {
  std::filesystem::path directory;
  std::string path;
  sqlite3 *db;

  Store ()
  {
    std::string pattern = (std::filesystem::temp_directory_path () / "morvane-db-XXXXXX").string ();
    directory = mkdtemp (pattern.data ());
    path = (directory / "store.db").string ();
    db = db_connect (path.c_str ());
  }

  ~Store ()
  {
    db_close (db);
    std::filesystem::remove_all (directory);
  }

  void reopen ()
  {
    db_close (db);
    db = db_connect (path.c_str ());
  }

  // Runs SQL that is not the store's own; the rows, columns joined by "|".
  Texts rows (const std::string &sql)
  {
    sqlite3 *other = NULL;
    Texts rows;
    char *error_message = NULL;
    EXPECT_EQ (sqlite3_open (path.c_str (), &other), SQLITE_OK);
    EXPECT_EQ (sqlite3_exec (other, sql.c_str (), collect_row, &rows, &error_message), SQLITE_OK)
      << sql << ": " << (error_message ? error_message : "");
    sqlite3_free (error_message);
    sqlite3_close (other);
    return rows;
  }

  void trace (Texts *statements)
  {
    sqlite3_trace_v2 (db, statements ? SQLITE_TRACE_STMT : 0, statements ? collect_statement : NULL,
                      statements);
  }
};

// In a death test only standard error is looked at: the console goes there as well.
static void
log_to_stderr ()
{
  fflush (stdout);
  setvbuf (stdout, NULL, _IONBF, 0);
  dup2 (STDERR_FILENO, STDOUT_FILENO);
}

static ContactMessage *
alloc_test_contact_message (const std::string &body, const std::string &author = "a@example.org")
{
  return alloc_contact_message (0, 5, 1000, string_of (author), string_of (body));
}

static ClauseMessage *
alloc_test_clause_message (const std::string &text, const std::string &author = "a@example.org")
{
  return alloc_clause_message (0, 5, 1000, string_of (author), string_of (text));
}

static ClauseRevision *
alloc_test_revision (const std::string &text, RevisionStatus status = REVISION_COMMITTED,
                     const std::string &author = "a@example.org")
{
  return alloc_clause_revision (0, 5, 1000, string_of (author), status, string_of (text));
}

static ClauseRevisionDecision *
alloc_test_decision (DecisionStatus status = DECISION_AGREE,
                     const std::string &author = "a@example.org")
{
  return alloc_clause_revision_decision (0, 5, 1000, string_of (author), status);
}

static Clause *
alloc_test_clause (const std::string &initiator = "a@example.org")
{
  return alloc_clause (0, 5, 1000, string_of (initiator), 1);
}

static Procedure *
alloc_test_procedure (const std::string &title, const std::string &initiator = "a@example.org",
                      const std::string &contractor = "b@example.org")
{
  return alloc_procedure (0, 5, 1000, string_of (title), string_of (initiator),
                          string_of (contractor));
}

static Contact *
alloc_test_contact (const std::string &bare_jid)
{
  return alloc_contact (0, 5, string_of (bare_jid), to_string ("unavailable"));
}

// `dealloc_contact` leaves the array to its caller.
static void
dealloc_test_contact (Contact *contact)
{
  ContactStack stack = alloc_contact_stack (1);
  contact_stack_push (&stack, contact);
  dealloc_contact_stack (stack);
}

// ---- Connection ----

// Stands in for the library's: what it says of itself is fixed when it is built.
static int is_sqlite_threadsafe = 1;

extern "C" int
sqlite3_threadsafe ()
{
  return is_sqlite_threadsafe;
}

TEST (db_connect, stops_without_a_thread_safe_library)
{
  EXPECT_DEATH (
    {
      is_sqlite_threadsafe = 0;
      db_connect (":memory:");
    },
    stop_at ("is_threadsafe"));
}

TEST (db_connect, makes_the_nine_tables)
{
  Store store;
  Texts expected = {
    "CREATE TABLE app_info (db_version INTEGER, app_name TEXT, app_version TEXT)",
    "CREATE TABLE accounts (db_id INTEGER PRIMARY KEY, bare_jid TEXT)",
    "CREATE TABLE contacts (db_id INTEGER PRIMARY KEY, account_db_id INTEGER, bare_jid TEXT)",
    "CREATE TABLE contact_messages (db_id INTEGER PRIMARY KEY, contact_db_id INTEGER, time INTEGER, author TEXT, body TEXT)",
    "CREATE TABLE procedures (db_id INTEGER PRIMARY KEY, account_db_id INTEGER, time INTEGER, initiator TEXT, contractor TEXT, title TEXT, finished_time INTEGER, updated_time INTEGER, last_seen_time INTEGER)",
    "CREATE TABLE clauses (db_id INTEGER PRIMARY KEY, procedure_db_id INTEGER, time INTEGER, initiator TEXT, position INTEGER)",
    "CREATE TABLE clause_messages  (db_id INTEGER PRIMARY KEY, clause_db_id INTEGER, time INTEGER, author TEXT, text TEXT)",
    "CREATE TABLE clause_revisions (db_id INTEGER PRIMARY KEY, clause_db_id INTEGER, time INTEGER, author TEXT, status TEXT, text TEXT)",
    "CREATE TABLE clause_revision_decisions (db_id INTEGER PRIMARY KEY, clause_revision_db_id INTEGER, time INTEGER, author TEXT, status TEXT)",
  };
  EXPECT_EQ (store.rows ("SELECT sql FROM sqlite_master ORDER BY rowid;"), expected);
}

TEST (db_connect, writes_one_version_row)
{
  Store store;
  EXPECT_EQ (store.rows ("SELECT * FROM app_info;"), (Texts{"1|Morvane|0.1"}));
}

TEST (db_connect, changes_nothing_the_second_time)
{
  Store store;
  std::string before = store.rows ("PRAGMA data_version; PRAGMA schema_version;")[1];
  store.reopen ();
  EXPECT_EQ (store.rows ("SELECT * FROM app_info;"), (Texts{"1|Morvane|0.1"}));
  EXPECT_EQ (store.rows ("SELECT count (*) FROM sqlite_master;"), (Texts{"9"}));
  EXPECT_EQ (store.rows ("PRAGMA schema_version;")[0], before);
}

TEST (db_connect, accepts_another_version_and_rewrites_nothing)
{
  Store store;
  store.rows ("UPDATE app_info SET db_version = 7, app_name = 'Later';");
  store.reopen ();
  EXPECT_EQ (store.rows ("SELECT * FROM app_info;"), (Texts{"7|Later|0.1"}));
}

TEST (db_connect, shows_what_it_runs_but_not_the_schema)
{
  std::string pattern = (std::filesystem::temp_directory_path () / "morvane-db-XXXXXX").string ();
  std::filesystem::path directory = mkdtemp (pattern.data ());
  std::string path = (directory / "store.db").string ();
  testing::internal::CaptureStdout ();
  db_close (db_connect (path.c_str ()));
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             "sql: \"SELECT db_version FROM app_info;\" (char *)\n"
             "sql: \"INSERT INTO app_info VALUES (1, 'Morvane', '0.1');\" (char *)\n");
  testing::internal::CaptureStdout ();
  db_close (db_connect (path.c_str ()));
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             "sql: \"SELECT db_version FROM app_info;\" (char *)\n");
  std::filesystem::remove_all (directory);
}

TEST (db_connect, waits_for_another_writer)
{
  Store store;
  Texts rows;
  db_exec (store.db, "PRAGMA busy_timeout;", collect_row, &rows);
  EXPECT_EQ (rows, (Texts{"5000"}));
}

TEST (db_connect, stops_where_no_file_can_be_made)
{
  EXPECT_DEATH (
    {
      log_to_stderr ();
      db_connect ("/proc/morvane-store.db");
    },
    "sqlite3_errmsg \\(db\\): \"unable to open database file\" \\(char \\*\\)\n(.|\n)*" +
      stop_at ("open_error == SQLITE_OK"));
}

TEST (db_connect, stops_where_there_is_no_directory)
{
  Store store;
  std::string path = (store.directory / "missing" / "store.db").string ();
  EXPECT_DEATH (db_connect (path.c_str ()), stop_at ("open_error == SQLITE_OK"));
}

TEST (db_connect, stops_at_a_file_that_is_no_database)
{
  Store store;
  std::string path = (store.directory / "text").string ();
  FILE *file = fopen (path.c_str (), "w");
  for (int i = 0; i < 200; ++i) {
    fputs ("this is no database\n", file);
  }
  fclose (file);
  EXPECT_DEATH (
    {
      log_to_stderr ();
      db_connect (path.c_str ());
    },
    "sql: \"CREATE TABLE(.|\n)*error_msg: \"file is not a database\" \\(char \\*\\)\n(.|\n)*" +
      stop_at ("!error"));
}

TEST (db_close, stops_while_a_statement_is_open)
{
  Store store;
  sqlite3_stmt *statement = NULL;
  ASSERT_EQ (sqlite3_prepare_v2 (store.db, "SELECT * FROM accounts;", -1, &statement, NULL),
             SQLITE_OK);
  EXPECT_DEATH (
    {
      log_to_stderr ();
      db_close (store.db);
    },
    "close_error: 5 \\(s32\\)\n(.|\n)*" + stop_at ("!close_error"));
  sqlite3_finalize (statement);
}

// ---- Statements ----

TEST (db_exec, shows_the_statement_before_it_runs)
{
  Store store;
  testing::internal::CaptureStdout ();
  db_exec (store.db, "SELECT 'x' AS y;", db_print_rows, NULL);
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             "sql: \"SELECT 'x' AS y;\" (char *)\n{y: 'x', }\n");
}

TEST (db_exec, runs_several_statements_and_hands_over_the_argument)
{
  Store store;
  Texts rows;
  db_exec (store.db, "SELECT 1; SELECT 2 UNION SELECT 3;", collect_row, &rows);
  EXPECT_EQ (rows, (Texts{"1", "2", "3"}));
}

TEST (db_exec, stops_at_an_error_and_shows_statement_and_message)
{
  Store store;
  EXPECT_DEATH (
    {
      log_to_stderr ();
      db_exec (store.db, "SELECT * FROM nowhere;", NULL, NULL);
    },
    "sql: \"SELECT \\* FROM nowhere;\" \\(char \\*\\)\nsql: \"SELECT \\* FROM nowhere;\" \\(char \\*\\)\nerror_msg: \"no such table: nowhere\" \\(char \\*\\)\n(.|\n)*" +
      stop_at ("!error"));
}

TEST (db_exec, stops_without_a_database)
{
  EXPECT_DEATH (db_exec (NULL, "SELECT 1;", NULL, NULL), stop_at ("!error"));
}

TEST (db_exec_quiet, shows_nothing_when_it_succeeds)
{
  Store store;
  Texts rows;
  testing::internal::CaptureStdout ();
  db_exec_quiet (store.db, "SELECT 4;", collect_row, &rows);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
  EXPECT_EQ (rows, (Texts{"4"}));
}

TEST (db_exec_quiet, stops_at_an_error_and_shows_it_once)
{
  Store store;
  EXPECT_DEATH (
    {
      log_to_stderr ();
      fputs ("begin\n", stderr);
      db_exec_quiet (store.db, "nonsense;", NULL, NULL);
    },
    "begin\nsql: \"nonsense;\" \\(char \\*\\)\nerror_msg: \"near \"nonsense\": syntax error\" \\(char \\*\\)\n(.|\n)*" +
      stop_at ("!error"));
}

TEST (db_print_rows, writes_one_line_a_row)
{
  char *names[] = {(char *) "a", (char *) "b"};
  char *values[] = {(char *) "1", NULL};
  testing::internal::CaptureStdout ();
  EXPECT_EQ (db_print_rows (NULL, 2, values, names), 0);
  EXPECT_EQ (db_print_rows (NULL, 0, values, names), 0);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "{a: '1', b: '(null)', }\n{}\n");
}

TEST (db_print_rows, shows_a_long_text_whole_and_warns_of_nothing)
{
  std::string text (200000, 'x');
  char *names[] = {(char *) "text"};
  char *values[] = {text.data ()};
  testing::internal::CaptureStdout ();
  testing::internal::CaptureStderr ();
  db_print_rows (NULL, 1, values, names);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "{text: '" + text + "', }\n");
  EXPECT_EQ (testing::internal::GetCapturedStderr (), "");
}

TEST (db_get_db_version, takes_the_first_column_when_it_is_the_version)
{
  char *names[] = {(char *) "db_version", (char *) "other"};
  char *values[] = {(char *) "42", (char *) "7"};
  u64 version = 0;
  EXPECT_EQ (_db_get_db_version (&version, 2, values, names), 0);
  EXPECT_EQ (version, 42u);
}

TEST (db_get_db_version, leaves_the_number_alone_for_anything_else)
{
  char *names[] = {(char *) "other", (char *) "db_version"};
  char *values[] = {(char *) "42", (char *) "7"};
  char *nothing[] = {NULL};
  u64 version = 3;
  EXPECT_EQ (_db_get_db_version (&version, 2, values, names), 0);
  EXPECT_EQ (_db_get_db_version (&version, 0, values, names), 0);
  EXPECT_EQ (_db_get_db_version (&version, 1, nothing, names + 1), 0);
  EXPECT_EQ (version, 3u);
}

TEST (db_get_db_version, stops_without_a_place_for_it)
{
  char *names[] = {(char *) "db_version"};
  char *values[] = {(char *) "1"};
  EXPECT_DEATH (_db_get_db_version (NULL, 1, values, names), stop_at ("db_version_out"));
}

// ---- Quoting ----

TEST (buffer_append_dbtext, doubles_an_apostrophe)
{
  u8 block[16];
  Buffer buffer_p = buffer_append_dbtext ({block, sizeof (block)}, to_string ("a'bc"));
  EXPECT_EQ (buffer_p.data, block + 5);
  EXPECT_EQ (buffer_p.size, 11u);
  EXPECT_EQ (std::string ((char *) block, 5), "a''bc");
}

TEST (buffer_append_dbtext, writes_nothing_for_an_empty_text)
{
  u8 block[4];
  Buffer buffer_p = buffer_append_dbtext ({block, sizeof (block)}, to_string (""));
  EXPECT_EQ (buffer_p.data, block);
  EXPECT_EQ (buffer_p.size, 4u);
}

TEST (buffer_append_dbtext, changes_no_other_byte)
{
  std::string text;
  for (int c = 0; c < 256; ++c) {
    if (c != '\'') {
      text += (char) c;
    }
  }
  std::string block (300, 'x');
  Buffer buffer_p = buffer_append_dbtext ({(u8 *) block.data (), block.size ()}, string_of (text));
  EXPECT_EQ (buffer_p.size, block.size () - text.size ());
  EXPECT_EQ (block.substr (0, text.size ()), text);
}

TEST (buffer_append_dbtext, stops_where_the_room_ends)
{
  u8 block[5] = {0, 0, 0, 0, 'z'};
  Buffer buffer_p = buffer_append_dbtext ({block, 4}, to_string ("abcdef"));
  EXPECT_EQ (buffer_p.data, block + 4);
  EXPECT_EQ (buffer_p.size, 0u);
  EXPECT_EQ (std::string ((char *) block, 5), "abcdz");
}

TEST (buffer_append_dbtext, fills_the_room_exactly_with_a_doubled_apostrophe)
{
  u8 block[3] = {0, 0, 'z'};
  Buffer buffer_p = buffer_append_dbtext ({block, 2}, to_string ("'"));
  EXPECT_EQ (buffer_p.size, 0u);
  EXPECT_EQ (std::string ((char *) block, 3), "''z");
}

TEST (buffer_append_dbtext, never_writes_half_an_apostrophe_nor_past_the_end)
{
  u8 block[4] = {0, 'y', 'z', 'z'};
  Buffer buffer_p = buffer_append_dbtext ({block, 2}, to_string ("a'b"));
  EXPECT_EQ (buffer_p.data, block + 1);
  EXPECT_EQ (buffer_p.size, 1u);
  EXPECT_EQ (std::string ((char *) block, 4), "ayzz");
}

TEST (buffer_append_dbtext, writes_nothing_without_room)
{
  u8 block[1] = {'z'};
  EXPECT_EQ (buffer_append_dbtext ({block, 0}, to_string ("'a")).data, block);
  EXPECT_EQ (block[0], 'z');
}

// ---- Accounts ----

TEST (db_get_account_db_id, gives_0_for_a_stranger)
{
  Store store;
  EXPECT_EQ (db_get_account_db_id (store.db, to_string ("a@example.org")), 0u);
}

TEST (db_insert_account, gives_row_1_in_a_new_file)
{
  Store store;
  EXPECT_EQ (db_insert_account (store.db, to_string ("a@example.org")), 1u);
  EXPECT_EQ (db_insert_account (store.db, to_string ("b@example.org")), 2u);
  EXPECT_EQ (store.rows ("SELECT * FROM accounts;"), (Texts{"1|a@example.org", "2|b@example.org"}));
}

TEST (db_get_account_db_id, finds_what_was_inserted)
{
  Store store;
  db_insert_account (store.db, to_string ("a@example.org"));
  db_insert_account (store.db, to_string ("b@example.org"));
  EXPECT_EQ (db_get_account_db_id (store.db, to_string ("b@example.org")), 2u);
  EXPECT_EQ (db_get_account_db_id (store.db, to_string ("B@example.org")), 0u);
}

TEST (db_get_account_db_id, takes_the_last_of_several_rows)
{
  Store store;
  store.rows (
    "INSERT INTO accounts VALUES (3, 'a@example.org'), (9, 'a@example.org'), (5, 'b@example.org');");
  EXPECT_EQ (db_get_account_db_id (store.db, to_string ("a@example.org")), 9u);
}

TEST (db_account_statements, are_these)
{
  Store store;
  Texts statements;
  store.trace (&statements);
  db_get_account_db_id (store.db, to_string ("a@example.org"));
  db_insert_account (store.db, to_string ("a@example.org"));
  store.trace (NULL);
  EXPECT_EQ (statements, (Texts{"SELECT db_id FROM accounts WHERE bare_jid = 'a@example.org';",
                                "INSERT INTO accounts (bare_jid) VALUES ('a@example.org');"}));
}

TEST (db_account_statements, hold_a_jid_of_any_length)
{
  Store store;
  u64 expected_db_id = 0;
  // From below the block on the stack over each length around its end to far beyond it.
  for (u64 size :
       {1, 75, 76, 77, 78, 79, 80, 81, 82, 83, 84, 85, 86, 87, 88, 89, 90, 200, 2000, 70000}) {
    std::string bare_jid (size, 'j');
    EXPECT_EQ (db_get_account_db_id (store.db, string_of (bare_jid)), 0u);
    EXPECT_EQ (db_insert_account (store.db, string_of (bare_jid)), ++expected_db_id);
    EXPECT_EQ (db_get_account_db_id (store.db, string_of (bare_jid)), expected_db_id);
    EXPECT_EQ (store.rows ("SELECT bare_jid FROM accounts ORDER BY db_id DESC LIMIT 1;"),
               (Texts{bare_jid}));
  }
}

TEST (db_insert_account, stops_at_an_apostrophe)
{
  Store store;
  EXPECT_DEATH (db_insert_account (store.db, to_string ("o'neil@example.org")), stop_at ("!error"));
}

TEST (db_get_account_db_id_callback, logs_the_pair_and_keeps_the_number)
{
  char *names[] = {(char *) "db_id"};
  char *values[] = {(char *) "12"};
  u64 db_id = 0;
  testing::internal::CaptureStdout ();
  EXPECT_EQ (_db_get_account_db_id (&db_id, 1, values, names), 0);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "db_id: '12', ");
  EXPECT_EQ (db_id, 12u);
}

TEST (db_get_account_db_id_callback, takes_a_row_without_columns)
{
  u64 db_id = 4;
  testing::internal::CaptureStdout ();
  EXPECT_EQ (_db_get_account_db_id (&db_id, 0, NULL, NULL), 0);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
  EXPECT_EQ (db_id, 4u);
}

TEST (db_get_account_db_id_callback, stops_at_rows_of_another_shape)
{
  char *names[] = {(char *) "db_id", (char *) "bare_jid"};
  char *values[] = {(char *) "12", (char *) "a"};
  char *nothing[] = {NULL};
  u64 db_id = 0;
  EXPECT_DEATH (_db_get_account_db_id (&db_id, 2, values, names),
                stop_at ("columns_count == 0 || columns_count == 1"));
  EXPECT_DEATH (_db_get_account_db_id (&db_id, 1, values, names + 1),
                stop_at ("!strcmp (key, \"db_id\")"));
  EXPECT_DEATH (_db_get_account_db_id (&db_id, 1, nothing, names), stop_at ("value"));
}

TEST (db_begin, stores_nothing_until_the_commit)
{
  Store store;
  testing::internal::CaptureStdout ();
  db_begin (store.db);
  db_exec_quiet (store.db, "INSERT INTO accounts VALUES (1, 'a@x'), (2, 'b@x');", NULL, NULL);
  EXPECT_EQ (store.rows ("SELECT * FROM accounts"), Texts ());
  db_commit (store.db);
  fflush (stdout);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
  EXPECT_EQ (store.rows ("SELECT * FROM accounts"), (Texts{"1|a@x", "2|b@x"}));
}

TEST (db_begin, stops_within_another)
{
  Store store;
  EXPECT_DEATH (
    {
      db_begin (store.db);
      db_begin (store.db);
    },
    stop_at ("!error"));
}

TEST (db_commit, stops_without_a_beginning)
{
  Store store;
  EXPECT_DEATH (db_commit (store.db), stop_at ("!error"));
}

// ---- Loading ----

struct Loaded {
  ContactStack contacts;
  ProceduresStack procedures;

  Loaded (Store *store, u64 account_db_id)
  {
    db_load_account (store->db, account_db_id, &contacts, &procedures);
  }

  ~Loaded ()
  {
    dealloc_contact_stack (contacts);
    dealloc_procedure_stack (procedures);
  }
};

TEST (db_load_account, gives_empty_stacks_for_a_new_account)
{
  Store store;
  Loaded loaded (&store, 1);
  EXPECT_EQ (loaded.contacts.max, 64u);
  EXPECT_EQ (loaded.contacts.count, 0u);
  EXPECT_EQ (loaded.procedures.max, 64u);
  EXPECT_EQ (loaded.procedures.count, 0u);
}

TEST (db_load_account, stops_without_a_database)
{
  ContactStack contacts;
  ProceduresStack procedures;
  EXPECT_DEATH (db_load_account (NULL, 1, &contacts, &procedures), stop_at ("db"));
}

TEST (db_load_account, loads_contacts_as_unavailable_in_row_order)
{
  Store store;
  store.rows ("INSERT INTO contacts VALUES (7, 1, 'z@x'), (3, 1, 'y@x'), (5, 2, 'other@x');");
  Loaded loaded (&store, 1);
  ASSERT_EQ (loaded.contacts.count, 2u);
  EXPECT_EQ (loaded.contacts.contacts[0]->db_id, 3u);
  EXPECT_EQ (loaded.contacts.contacts[1]->db_id, 7u);
  EXPECT_EQ (loaded.contacts.contacts[0]->account_db_id, 1u);
  EXPECT_EQ (text_of (loaded.contacts.contacts[0]->bare_jid), "y@x");
  EXPECT_EQ (text_of (loaded.contacts.contacts[0]->status), "unavailable");
}

TEST (db_load_account, orders_contact_messages_by_time)
{
  Store store;
  store.rows (
    "INSERT INTO contacts VALUES (3, 1, 'y@x');"
    "INSERT INTO contact_messages VALUES (1, 3, 30, 'y@x', 'third'), (2, 3, 10, 'a@x', 'first'), (3, 3, 20, 'y@x', 'second'), (4, 9, 5, 'b', 'not his');");
  Loaded loaded (&store, 1);
  Contact *contact = loaded.contacts.contacts[0];
  ASSERT_EQ (contact->messages_count, 3u);
  EXPECT_EQ (text_of (contact->messages[0]->body), "first");
  EXPECT_EQ (text_of (contact->messages[1]->body), "second");
  EXPECT_EQ (text_of (contact->messages[2]->body), "third");
  EXPECT_EQ (contact->messages[0]->db_id, 2u);
  EXPECT_EQ (contact->messages[0]->contact_db_id, 3u);
  EXPECT_EQ (contact->messages[0]->time, 10);
  EXPECT_EQ (text_of (contact->messages[0]->author), "a@x");
}

TEST (db_load_account, orders_procedures_and_clauses_by_time)
{
  Store store;
  store.rows (
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (1, 1, 200, 'a', 'b', 'late'), (2, 1, 100, 'a', 'b', 'early'), (3, 2, 50, 'c', 'b', 'other');"
    "INSERT INTO clauses VALUES (1, 2, 30, 'a', 1), (2, 2, 10, 'a', 3), (3, 2, 20, 'b', 2), (4, 1, -5, 'b', 1);");
  Loaded loaded (&store, 1);
  ASSERT_EQ (loaded.procedures.count, 2u);
  Procedure *early = loaded.procedures.procedures[0];
  EXPECT_EQ (text_of (early->title), "early");
  EXPECT_EQ (text_of (loaded.procedures.procedures[1]->title), "late");
  ASSERT_EQ (early->clauses_count, 3u);
  EXPECT_EQ (early->clauses[0]->time, 10);
  EXPECT_EQ (early->clauses[1]->time, 20);
  EXPECT_EQ (early->clauses[2]->time, 30);
  EXPECT_EQ (early->clauses[0]->position, 3u);
  ASSERT_EQ (loaded.procedures.procedures[1]->clauses_count, 1u);
  EXPECT_EQ (loaded.procedures.procedures[1]->clauses[0]->time, -5);
}

TEST (db_load_account, orders_clause_messages_and_revisions_by_time)
{
  Store store;
  store.rows (
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (1, 1, 1, 'a', 'b', 't');"
    "INSERT INTO clauses VALUES (1, 1, 1, 'a', 1);"
    "INSERT INTO clause_messages VALUES (1, 1, 9, 'a', 'later'), (2, 1, 8, 'b', 'sooner');"
    "INSERT INTO clause_revisions VALUES (1, 1, 9, 'a', 'COMMITTED', 'later'), (2, 1, 8, 'b', 'COMMITTED', 'sooner');");
  Loaded loaded (&store, 1);
  Clause *clause = loaded.procedures.procedures[0]->clauses[0];
  ASSERT_EQ (clause->messages_count, 2u);
  EXPECT_EQ (text_of (clause->messages[0]->text), "sooner");
  EXPECT_EQ (text_of (clause->messages[1]->text), "later");
  ASSERT_EQ (clause->revisions_count, 2u);
  EXPECT_EQ (text_of (clause->revisions[0]->text), "sooner");
  EXPECT_EQ (text_of (clause->revisions[1]->text), "later");
  EXPECT_EQ (clause->draft, nullptr);
}

TEST (db_load_account, orders_what_shares_a_second_by_author)
{
  Store store;
  store.rows (
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (1, 1, 1, 'a', 'b', 't');"
    "INSERT INTO clauses VALUES (1, 1, 5, 'b', 1), (2, 1, 5, 'a', 1);"
    "INSERT INTO clause_messages VALUES (1, 1, 9, 'b', 'x'), (2, 1, 9, 'a', 'z'), (3, 1, 9, 'a', 'y');"
    "INSERT INTO clause_revisions VALUES (1, 1, 9, 'b', 'COMMITTED', 'x'), (2, 1, 9, 'a', 'DRAFT', 'y'), (3, 1, 9, 'a', 'COMMITTED', 'z');");
  Loaded loaded (&store, 1);
  Procedure *procedure = loaded.procedures.procedures[0];
  ASSERT_EQ (procedure->clauses_count, 2u);
  EXPECT_EQ (procedure->clauses[0]->db_id, 2u);
  Clause *clause = procedure->clauses[1];
  EXPECT_EQ (clause->db_id, 1u);
  ASSERT_EQ (clause->messages_count, 3u);
  // An answer in the second of its question follows it.
  EXPECT_EQ (clause->messages[0]->db_id, 1u);
  EXPECT_EQ (clause->messages[1]->db_id, 2u);
  EXPECT_EQ (clause->messages[2]->db_id, 3u);
  ASSERT_EQ (clause->revisions_count, 2u);
  EXPECT_EQ (clause->revisions[0]->db_id, 3u);
  EXPECT_EQ (clause->revisions[1]->db_id, 1u);
  ASSERT_TRUE (clause->draft);
  EXPECT_EQ (clause->draft->db_id, 2u);
}

TEST (db_load_account, keeps_the_draft_apart_and_its_decisions_where_they_are)
{
  Store store;
  store.rows (
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (1, 1, 1, 'a', 'b', 't');"
    "INSERT INTO clauses VALUES (1, 1, 1, 'a', 1);"
    "INSERT INTO clause_revisions VALUES (1, 1, 1, 'a', 'COMMITTED', 'text'), (2, 1, 2, 'a', 'DRAFT', 'draft');"
    "INSERT INTO clause_revision_decisions VALUES (1, 1, 3, 'a', 'AGREE'), (2, 1, 2, 'b', 'DISAGREE'), (3, 2, 1, 'a', 'AGREE');");
  Loaded loaded (&store, 1);
  Clause *clause = loaded.procedures.procedures[0]->clauses[0];
  ASSERT_EQ (clause->revisions_count, 1u);
  EXPECT_EQ (clause->revisions[0]->status, REVISION_COMMITTED);
  ASSERT_EQ (clause->revisions[0]->decisions_count, 2u);
  EXPECT_EQ (clause->revisions[0]->decisions[0]->db_id, 1u);
  EXPECT_EQ (clause->revisions[0]->decisions[0]->status, DECISION_AGREE);
  EXPECT_EQ (clause->revisions[0]->decisions[1]->db_id, 2u);
  EXPECT_EQ (clause->revisions[0]->decisions[1]->status, DECISION_DISAGREE);
  ASSERT_NE (clause->draft, nullptr);
  EXPECT_EQ (clause->draft->db_id, 2u);
  EXPECT_EQ (clause->draft->status, REVISION_DRAFT);
  EXPECT_EQ (text_of (clause->draft->text), "draft");
  EXPECT_EQ (clause->draft->decisions_count, 0u);
}

TEST (db_load_account, stops_at_a_second_draft)
{
  Store store;
  store.rows (
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (1, 1, 1, 'a', 'b', 't');"
    "INSERT INTO clauses VALUES (1, 1, 1, 'a', 1);"
    "INSERT INTO clause_revisions VALUES (1, 1, 1, 'a', 'DRAFT', 'one'), (2, 1, 2, 'a', 'DRAFT', 'two');");
  ContactStack contacts;
  ProceduresStack procedures;
  EXPECT_DEATH (db_load_account (store.db, 1, &contacts, &procedures), stop_at ("!clause->draft"));
}

TEST (db_load_account, takes_more_than_the_first_64_of_each)
{
  Store store;
  store.rows (
    "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 70) INSERT INTO contacts SELECT i, 1, 'c' || i FROM n;"
    "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 70) INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) SELECT i, 1, i, 'a', 'b', 't' || i FROM n;"
    "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 70) INSERT INTO clauses SELECT i, 1, i, 'a', i FROM n;");
  Loaded loaded (&store, 1);
  EXPECT_EQ (loaded.contacts.count, 70u);
  ASSERT_EQ (loaded.procedures.count, 70u);
  EXPECT_EQ (text_of (loaded.procedures.procedures[69]->title), "t70");
  EXPECT_EQ (loaded.procedures.procedures[0]->clauses_count, 70u);
}

TEST (db_load_account, runs_these_statements_in_this_order)
{
  Store store;
  store.rows (
    "INSERT INTO contacts VALUES (11, 1, 'y@x'), (12, 1, 'z@x');"
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (21, 1, 1, 'a', 'b', 't'), (22, 1, 2, 'a', 'b', 'u');"
    "INSERT INTO clauses VALUES (31, 21, 1, 'a', 1), (32, 22, 1, 'a', 1);"
    "INSERT INTO clause_revisions VALUES (41, 31, 1, 'a', 'COMMITTED', 'x'), (42, 31, 2, 'b', 'COMMITTED', 'y'), (43, 31, 3, 'a', 'DRAFT', 'z');");
  Texts statements;
  store.trace (&statements);
  {
    Loaded loaded (&store, 1);
    EXPECT_EQ (loaded.procedures.count, 2u);
  }
  store.trace (NULL);
  Texts expected = {
    "SELECT * FROM contacts WHERE account_db_id = 1;",
    "SELECT * FROM contact_messages WHERE contact_db_id = 11 ORDER BY time ASC;",
    "SELECT * FROM contact_messages WHERE contact_db_id = 12 ORDER BY time ASC;",
    "SELECT * FROM procedures WHERE account_db_id = 1 ORDER BY time ASC;",
    "SELECT * FROM clauses WHERE procedure_db_id = 21 ORDER BY time ASC;",
    "SELECT * FROM clause_messages WHERE clause_db_id = 31 ORDER BY time ASC;",
    "SELECT * FROM clause_revisions WHERE clause_db_id = 31 ORDER BY time ASC;",
    "SELECT * FROM clause_revision_decisions WHERE clause_revision_db_id = 41;",
    "SELECT * FROM clause_revision_decisions WHERE clause_revision_db_id = 42;",
    "SELECT * FROM clauses WHERE procedure_db_id = 22 ORDER BY time ASC;",
    "SELECT * FROM clause_messages WHERE clause_db_id = 32 ORDER BY time ASC;",
    "SELECT * FROM clause_revisions WHERE clause_db_id = 32 ORDER BY time ASC;",
  };
  EXPECT_EQ (statements, expected);
}

TEST (db_load_account, holds_the_highest_row_ids)
{
  Store store;
  store.rows (
    "INSERT INTO contacts VALUES (9223372036854775807, 9223372036854775807, 'y@x');"
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (9223372036854775807, 9223372036854775807, -9223372036854775808, 'a', 'b', 't');"
    "INSERT INTO clauses VALUES (9223372036854775807, 9223372036854775807, 9223372036854775807, 'a', 9223372036854775807);");
  Loaded loaded (&store, 9223372036854775807u);
  ASSERT_EQ (loaded.contacts.count, 1u);
  ASSERT_EQ (loaded.procedures.count, 1u);
  EXPECT_EQ (loaded.procedures.procedures[0]->time, INT64_MIN);
  ASSERT_EQ (loaded.procedures.procedures[0]->clauses_count, 1u);
  EXPECT_EQ (loaded.procedures.procedures[0]->clauses[0]->position, 9223372036854775807u);
}

TEST (db_load_account, logs_every_column_of_every_row)
{
  Store store;
  store.rows (
    "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (1, 1, 0, 'a', 'b', 't');");
  testing::internal::CaptureStdout ();
  {
    Loaded loaded (&store, 1);
    EXPECT_EQ (loaded.procedures.count, 1u);
  }
  std::string log = testing::internal::GetCapturedStdout ();
  EXPECT_NE (
    log.find (
      "sql: \"SELECT * FROM procedures WHERE account_db_id = 1 ORDER BY time ASC;\" (char *)\n"
      "{db_id: '1', account_db_id: '1', time: '0', initiator: 'a', contractor: 'b', title: 't', finished_time: '(null)', updated_time: '(null)', last_seen_time: '(null)', }\n"),
    std::string::npos)
    << log;
}

TEST (db_load_account, ignores_columns_it_does_not_know)
{
  Store store;
  store.rows (
    "ALTER TABLE contacts ADD COLUMN nickname TEXT; INSERT INTO contacts VALUES (1, 1, 'y@x', NULL);");
  Loaded loaded (&store, 1);
  EXPECT_EQ (loaded.contacts.count, 1u);
}

// One row for a loading callback as a person would write it: "name=value name=value"; "-" is NULL.
struct BadRow {
  const char *table;       // which callback
  const char *columns;     // the row
  const char *expression;  // where it stops
};

static void
call_loader (const BadRow &row)
{
  Texts names;
  Texts values;
  std::string columns = row.columns;
  for (size_t begin = 0; begin < columns.size ();) {
    size_t end = columns.find (' ', begin);
    end = end == std::string::npos ? columns.size () : end;
    size_t equals = columns.find ('=', begin);
    names.push_back (columns.substr (begin, equals - begin));
    values.push_back (columns.substr (equals + 1, end - equals - 1));
    begin = end + 1;
  }
  std::vector<char *> names_data;
  std::vector<char *> values_data;
  for (size_t i = 0; i < names.size (); ++i) {
    names_data.push_back (names[i].data ());
    values_data.push_back (values[i] == "-" ? NULL : values[i].data ());
  }
  int count = (int) names.size ();
  char **v = values_data.data ();
  char **n = names_data.data ();

  ContactStack contacts = alloc_contact_stack (1);
  ProceduresStack procedures = alloc_procedure_stack ();
  Contact *contact = alloc_test_contact ("c");
  contact_stack_push (&contacts, contact);
  Procedure *procedure = alloc_test_procedure ("t");
  procedures_stack_add_procedure (&procedures, procedure);
  Clause *clause = alloc_test_clause ();
  procedure_add_clause (procedure, clause);
  ClauseRevision *revision = alloc_test_revision ("t");
  clause_add_revision (clause, revision);
  std::string table = row.table;
  int result = 1;
  if (table == "contacts") {
    result = _db_load_contact (&contacts, count, v, n);
  } else if (table == "contact_messages") {
    result = _db_load_contact_message (contact, count, v, n);
  } else if (table == "procedures") {
    result = db_load_procedure (&procedures, count, v, n);
  } else if (table == "clauses") {
    result = db_load_clause (procedure, count, v, n);
  } else if (table == "clause_messages") {
    result = db_load_clause_message (clause, count, v, n);
  } else if (table == "clause_revisions") {
    result = db_load_clause_revision (clause, count, v, n);
  } else if (table == "clause_revision_decisions") {
    result = _db_load_clause_revision_decision (revision, count, v, n);
  }
  EXPECT_EQ (result, 0);
  u32 children = contacts.count + procedures.count + contact->messages_count +
                 procedure->clauses_count + clause->messages_count + clause->revisions_count +
                 revision->decisions_count;
  EXPECT_EQ (children, 5u);  // the four above, and the row
  dealloc_contact_stack (contacts);
  dealloc_procedure_stack (procedures);
}

class db_load_bad_row : public testing::TestWithParam<BadRow> {};

TEST_P (db_load_bad_row, stops_the_program)
{
  EXPECT_DEATH (call_loader (GetParam ()), stop_at (GetParam ().expression));
}

INSTANTIATE_TEST_SUITE_P (
  contacts, db_load_bad_row,
  testing::Values (BadRow{"contacts", "account_db_id=1 bare_jid=a", "db_id"},
                   BadRow{"contacts", "db_id=0 account_db_id=0 bare_jid=a", "db_id"},
                   BadRow{"contacts", "db_id=1 bare_jid=a", "account_db_id"},
                   BadRow{"contacts", "db_id=1 account_db_id=0", "account_db_id"},
                   BadRow{"contacts", "db_id=1 account_db_id=1", "bare_jid"},
                   BadRow{"contacts", "db_id=- account_db_id=1 bare_jid=a", "value"},
                   BadRow{"contacts", "db_id=1 account_db_id=- bare_jid=a", "value"},
                   BadRow{"contacts", "db_id=1 account_db_id=1 bare_jid=-", "value"}));

INSTANTIATE_TEST_SUITE_P (
  contact_messages, db_load_bad_row,
  testing::Values (
    BadRow{"contact_messages", "contact_db_id=1 time=1 author=a body=b", "db_id"},
    BadRow{"contact_messages", "db_id=1 time=1 author=a body=b", "contact_db_id"},
    BadRow{"contact_messages", "db_id=1 contact_db_id=1 author=a body=b", "have_time"},
    BadRow{"contact_messages", "db_id=1 contact_db_id=1 time=1 body=b", "author"},
    BadRow{"contact_messages", "db_id=1 contact_db_id=1 time=1 author=a", "body"},
    BadRow{"contact_messages", "db_id=0", "db_id"}, BadRow{"contact_messages", "db_id=-", "value"},
    BadRow{"contact_messages", "contact_db_id=-", "value"},
    BadRow{"contact_messages", "time=-", "value"}, BadRow{"contact_messages", "author=-", "value"},
    BadRow{"contact_messages", "body=-", "value"}));

INSTANTIATE_TEST_SUITE_P (
  procedures, db_load_bad_row,
  testing::Values (
    BadRow{"procedures", "account_db_id=1 time=1 title=t initiator=i contractor=c", "db_id"},
    BadRow{"procedures", "db_id=1 time=1 title=t initiator=i contractor=c", "account_db_id"},
    BadRow{"procedures", "db_id=1 account_db_id=1 title=t initiator=i contractor=c", "have_time"},
    BadRow{"procedures", "db_id=1 account_db_id=1 time=1", "title"},
    BadRow{"procedures", "db_id=1 account_db_id=1 time=1 title=t", "initiator"},
    BadRow{"procedures", "db_id=1 account_db_id=1 time=1 title=t initiator=i", "contractor"},
    BadRow{"procedures", "db_id=0", "db_id"},
    BadRow{"procedures", "db_id=1 account_db_id=0", "account_db_id"},
    BadRow{"procedures", "db_id=-", "value"}, BadRow{"procedures", "account_db_id=-", "value"},
    BadRow{"procedures", "time=-", "value"}, BadRow{"procedures", "title=-", "value"},
    BadRow{"procedures", "initiator=-", "value"}, BadRow{"procedures", "contractor=-", "value"}));

INSTANTIATE_TEST_SUITE_P (
  clauses, db_load_bad_row,
  testing::Values (
    BadRow{"clauses", "procedure_db_id=1 time=1 initiator=i position=1", "db_id"},
    BadRow{"clauses", "db_id=1 time=1 initiator=i position=1", "procedure_db_id"},
    BadRow{"clauses", "db_id=1 procedure_db_id=1 initiator=i position=1", "have_time"},
    BadRow{"clauses", "db_id=1 procedure_db_id=1 time=1", "initiator"},
    BadRow{"clauses", "db_id=1 procedure_db_id=1 time=1 initiator=i", "position"},
    BadRow{"clauses", "db_id=1 procedure_db_id=1 time=1 initiator=i position=0", "position"},
    BadRow{"clauses", "db_id=-", "value"}, BadRow{"clauses", "procedure_db_id=-", "value"},
    BadRow{"clauses", "time=-", "value"}, BadRow{"clauses", "initiator=-", "value"},
    BadRow{"clauses", "position=-", "value"}));

INSTANTIATE_TEST_SUITE_P (
  clause_messages, db_load_bad_row,
  testing::Values (BadRow{"clause_messages", "clause_db_id=1 time=1 author=a text=t", "db_id"},
                   BadRow{"clause_messages", "db_id=1 time=1 author=a text=t", "clause_db_id"},
                   BadRow{"clause_messages", "db_id=1 clause_db_id=1 author=a text=t", "have_time"},
                   BadRow{"clause_messages", "db_id=1 clause_db_id=1 time=1 text=t", "author"},
                   BadRow{"clause_messages", "db_id=1 clause_db_id=1 time=1 author=a", "text"},
                   BadRow{"clause_messages", "db_id=-", "value"},
                   BadRow{"clause_messages", "clause_db_id=-", "value"},
                   BadRow{"clause_messages", "time=-", "value"},
                   BadRow{"clause_messages", "author=-", "value"},
                   BadRow{"clause_messages", "text=-", "value"}));

INSTANTIATE_TEST_SUITE_P (
  clause_revisions, db_load_bad_row,
  testing::Values (
    BadRow{"clause_revisions", "clause_db_id=1 time=1 author=a status=DRAFT text=t", "db_id"},
    BadRow{"clause_revisions", "db_id=1 time=1 author=a status=DRAFT text=t", "clause_db_id"},
    BadRow{"clause_revisions", "db_id=1 clause_db_id=1 author=a status=DRAFT text=t", "have_time"},
    BadRow{"clause_revisions", "db_id=1 clause_db_id=1 time=1 status=DRAFT text=t", "author"},
    BadRow{"clause_revisions", "db_id=1 clause_db_id=1 time=1 author=a text=t",
           "status != REVISION_INVALID"},
    BadRow{"clause_revisions", "db_id=1 clause_db_id=1 time=1 author=a status=COMMITTED", "text"},
    // An unknown word stops at once, before the missing columns are noticed.
    BadRow{"clause_revisions", "status=draft", "status != REVISION_INVALID"},
    BadRow{"clause_revisions", "status=INVALID", "status != REVISION_INVALID"},
    BadRow{"clause_revisions", "db_id=-", "value"},
    BadRow{"clause_revisions", "clause_db_id=-", "value"},
    BadRow{"clause_revisions", "time=-", "value"}, BadRow{"clause_revisions", "author=-", "value"},
    BadRow{"clause_revisions", "status=-", "value"},
    BadRow{"clause_revisions", "text=-", "value"}));

INSTANTIATE_TEST_SUITE_P (
  clause_revision_decisions, db_load_bad_row,
  testing::Values (
    BadRow{"clause_revision_decisions", "clause_revision_db_id=1 time=1 author=a status=AGREE",
           "db_id"},
    BadRow{"clause_revision_decisions", "db_id=1 time=1 author=a status=AGREE", "revision_db_id"},
    BadRow{"clause_revision_decisions", "db_id=1 clause_revision_db_id=1 author=a status=AGREE",
           "have_time"},
    BadRow{"clause_revision_decisions", "db_id=1 clause_revision_db_id=1 time=1 status=AGREE",
           "author"},
    BadRow{"clause_revision_decisions", "db_id=1 clause_revision_db_id=1 time=1 author=a",
           "status != DECISION_INVALID"},
    BadRow{"clause_revision_decisions", "status=agree", "status != DECISION_INVALID"},
    BadRow{"clause_revision_decisions", "status=INVALID", "status != DECISION_INVALID"},
    BadRow{"clause_revision_decisions", "db_id=-", "value"},
    BadRow{"clause_revision_decisions", "clause_revision_db_id=-", "value"},
    BadRow{"clause_revision_decisions", "time=-", "value"},
    BadRow{"clause_revision_decisions", "author=-", "value"},
    BadRow{"clause_revision_decisions", "status=-", "value"}));

class db_load_good_row : public testing::TestWithParam<BadRow> {};

TEST_P (db_load_good_row, becomes_a_record)
{
  call_loader (GetParam ());
}

// Time 0 and empty texts are valid, unknown columns are not looked at, the order does not matter.
INSTANTIATE_TEST_SUITE_P (
  rows, db_load_good_row,
  testing::Values (
    BadRow{"contacts", "bare_jid= account_db_id=1 db_id=1 other=-", ""},
    BadRow{"contact_messages", "db_id=1 contact_db_id=1 time=0 author= body= other=-", ""},
    BadRow{
      "procedures",
      "db_id=1 account_db_id=1 time=0 initiator= contractor= title= finished_time=- updated_time=- last_seen_time=-",
      ""},
    BadRow{"clauses", "db_id=1 procedure_db_id=1 time=0 initiator= position=1 other=-", ""},
    BadRow{"clause_messages", "db_id=1 clause_db_id=1 time=-7 author= text= other=-", ""},
    BadRow{"clause_revisions",
           "db_id=1 clause_db_id=1 time=0 author= status=COMMITTED text= other=-", ""},
    BadRow{"clause_revision_decisions",
           "db_id=1 clause_revision_db_id=1 time=0 author= status=DISAGREE other=-", ""}));

// ---- Inserts ----

TEST (db_insert_contact, writes_the_row_and_sets_the_id)
{
  Store store;
  Contact *contact = alloc_test_contact ("c@example.org");
  Texts statements;
  store.trace (&statements);
  db_insert_contact (store.db, contact);
  store.trace (NULL);
  EXPECT_EQ (statements,
             (Texts{
               "INSERT INTO contacts (account_db_id, bare_jid) VALUES ('5', 'c@example.org');"}));
  EXPECT_EQ (contact->db_id, 1u);
  EXPECT_EQ (store.rows ("SELECT *, typeof (account_db_id) FROM contacts;"),
             (Texts{"1|5|c@example.org|integer"}));
  db_insert_contact (store.db, contact);
  EXPECT_EQ (contact->db_id, 2u);
  dealloc_test_contact (contact);
}

TEST (db_insert_contact, stops_where_a_promise_is_broken)
{
  Store store;
  Contact *contact = alloc_test_contact ("o'neil@example.org");
  EXPECT_DEATH (db_insert_contact (NULL, contact), stop_at ("db"));
  EXPECT_DEATH (db_insert_contact (store.db, contact),
                stop_at ("find_char (contact->bare_jid, '\\'').size == 0"));
  contact->account_db_id = 0;
  EXPECT_DEATH (db_insert_contact (store.db, contact), stop_at ("contact->account_db_id"));
  dealloc_test_contact (contact);
}

TEST (db_insert_contact_message, writes_the_row_and_sets_the_id)
{
  Store store;
  ContactMessage *message = alloc_test_contact_message ("it's");
  Texts statements;
  store.trace (&statements);
  db_insert_contact_message (store.db, message);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "INSERT INTO contact_messages (contact_db_id, time, author, body) VALUES (5, 1000, 'a@example.org', 'it''s');"}));
  EXPECT_EQ (message->db_id, 1u);
  EXPECT_EQ (store.rows ("SELECT * FROM contact_messages;"),
             (Texts{"1|5|1000|a@example.org|it's"}));
  dealloc_contact_message (message);
}

TEST (db_insert_contact_message, leaves_an_apostrophe_in_the_author_to_sql)
{
  Store store;
  ContactMessage *message = alloc_test_contact_message ("x", "o'neil");
  EXPECT_DEATH (db_insert_contact_message (NULL, message), stop_at ("db"));
  EXPECT_DEATH (db_insert_contact_message (store.db, message), stop_at ("!error"));
  dealloc_contact_message (message);
}

TEST (db_insert_clause_message, writes_the_row_and_sets_the_id)
{
  Store store;
  ClauseMessage *message = alloc_test_clause_message ("it's");
  Texts statements;
  store.trace (&statements);
  db_insert_clause_message (store.db, message);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "INSERT INTO clause_messages (clause_db_id, time, author, text) VALUES (5, 1000, 'a@example.org', 'it''s');"}));
  EXPECT_EQ (message->db_id, 1u);
  EXPECT_EQ (store.rows ("SELECT * FROM clause_messages;"), (Texts{"1|5|1000|a@example.org|it's"}));
  dealloc_clause_message (message);
}

TEST (db_insert_clause_message, stops_where_a_promise_is_broken)
{
  Store store;
  ClauseMessage *message = alloc_test_clause_message ("x", "o'neil");
  EXPECT_DEATH (db_insert_clause_message (NULL, message), stop_at ("db"));
  EXPECT_DEATH (db_insert_clause_message (store.db, message),
                stop_at ("find_char (message->author, '\\'').size == 0"));
  dealloc_clause_message (message);
}

TEST (db_insert_clause_revision, writes_the_row_and_sets_the_id)
{
  Store store;
  ClauseRevision *revision = alloc_test_revision ("'it''s' fine'");
  ClauseRevision *draft = alloc_test_revision ("", REVISION_DRAFT);
  Texts statements;
  store.trace (&statements);
  db_insert_clause_revision (store.db, revision);
  db_insert_clause_revision (store.db, draft);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "INSERT INTO clause_revisions (clause_db_id, time, author, status, text) VALUES (5, 1000, 'a@example.org', 'COMMITTED', '''it''''s'' fine''');",
      "INSERT INTO clause_revisions (clause_db_id, time, author, status, text) VALUES (5, 1000, 'a@example.org', 'DRAFT', '');"}));
  EXPECT_EQ (revision->db_id, 1u);
  EXPECT_EQ (draft->db_id, 2u);
  EXPECT_EQ (store.rows ("SELECT * FROM clause_revisions;"),
             (Texts{"1|5|1000|a@example.org|COMMITTED|'it''s' fine'",
                    "2|5|1000|a@example.org|DRAFT|"}));
  dealloc_clause_revision (revision);
  dealloc_clause_revision (draft);
}

TEST (db_insert_clause_revision, stops_where_a_promise_is_broken)
{
  Store store;
  ClauseRevision *revision = alloc_test_revision ("x", REVISION_COMMITTED, "o'neil");
  EXPECT_DEATH (db_insert_clause_revision (NULL, revision), stop_at ("db"));
  EXPECT_DEATH (db_insert_clause_revision (store.db, revision),
                stop_at ("find_char (revision->author, '\\'').size == 0"));
  dealloc_clause_revision (revision);
}

TEST (db_insert_clause_revision_decision, writes_the_row_and_sets_the_id)
{
  Store store;
  ClauseRevisionDecision *agree = alloc_test_decision (DECISION_AGREE);
  ClauseRevisionDecision *disagree = alloc_test_decision (DECISION_DISAGREE, "b");
  Texts statements;
  store.trace (&statements);
  db_insert_clause_revision_decision (store.db, agree);
  db_insert_clause_revision_decision (store.db, disagree);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "INSERT INTO clause_revision_decisions (clause_revision_db_id, time, author, status) VALUES (5, 1000, 'a@example.org', 'AGREE');",
      "INSERT INTO clause_revision_decisions (clause_revision_db_id, time, author, status) VALUES (5, 1000, 'b', 'DISAGREE');"}));
  EXPECT_EQ (agree->db_id, 1u);
  EXPECT_EQ (disagree->db_id, 2u);
  EXPECT_EQ (store.rows ("SELECT * FROM clause_revision_decisions;"),
             (Texts{"1|5|1000|a@example.org|AGREE", "2|5|1000|b|DISAGREE"}));
  dealloc_clause_revision_decision (agree);
  dealloc_clause_revision_decision (disagree);
}

TEST (db_insert_clause_revision_decision, stops_where_a_promise_is_broken)
{
  Store store;
  ClauseRevisionDecision *decision = alloc_test_decision (DECISION_AGREE, "o'neil");
  EXPECT_DEATH (db_insert_clause_revision_decision (NULL, decision), stop_at ("db"));
  EXPECT_DEATH (db_insert_clause_revision_decision (store.db, decision),
                stop_at ("find_char (decision->author, '\\'').size == 0"));
  dealloc_clause_revision_decision (decision);
}

TEST (db_insert_clause, writes_the_row_and_sets_the_id)
{
  Store store;
  Clause *clause = alloc_clause (0, 5, -1000, to_string ("a@example.org"), 4);
  Texts statements;
  store.trace (&statements);
  db_insert_clause (store.db, clause);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "INSERT INTO clauses (procedure_db_id, time, initiator, position) VALUES (5, -1000, 'a@example.org', 4);"}));
  EXPECT_EQ (clause->db_id, 1u);
  EXPECT_EQ (store.rows ("SELECT * FROM clauses;"), (Texts{"1|5|-1000|a@example.org|4"}));
  dealloc_clause (clause);
}

TEST (db_insert_clause, stops_where_a_promise_is_broken)
{
  Store store;
  Clause *clause = alloc_test_clause ("o'neil");
  EXPECT_DEATH (db_insert_clause (NULL, clause), stop_at ("db"));
  EXPECT_DEATH (db_insert_clause (store.db, clause), stop_at ("!error"));
  clause->db_id = 1;
  EXPECT_DEATH (db_insert_clause (store.db, clause), stop_at ("!clause->db_id"));
  dealloc_clause (clause);
}

TEST (db_insert_procedure, writes_the_row_and_sets_the_id)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ("Sale of a \"house\"");
  Texts statements;
  store.trace (&statements);
  db_insert_procedure (store.db, procedure);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "INSERT INTO procedures (account_db_id, time, initiator, contractor, title) VALUES (5, 1000, 'a@example.org', 'b@example.org', 'Sale of a \"house\"');"}));
  EXPECT_EQ (procedure->db_id, 1u);
  EXPECT_EQ (store.rows ("SELECT * FROM procedures;"),
             (Texts{"1|5|1000|a@example.org|b@example.org|Sale of a \"house\"|NULL|NULL|NULL"}));
  dealloc_procedure (procedure);
}

TEST (db_insert_procedure, stops_where_a_promise_is_broken)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ("it's");
  EXPECT_DEATH (db_insert_procedure (NULL, procedure), stop_at ("db"));
  EXPECT_DEATH (db_insert_procedure (store.db, procedure), stop_at ("!error"));
  procedure->db_id = 1;
  EXPECT_DEATH (db_insert_procedure (store.db, procedure), stop_at ("!procedure->db_id"));
  dealloc_procedure (procedure);
}

// ---- Titles of any size ----

// How many bytes of title make a statement of 4,000 bytes with these.
static u64
title_size_at_the_limit (u64 account_db_id, s64 time, const std::string &initiator,
                         const std::string &contractor)
{
  return 4000 -
         strlen (
           "INSERT INTO procedures (account_db_id, time, initiator, contractor, title) VALUES (, , '', '', '');") -
         std::to_string (account_db_id).size () - std::to_string (time).size () -
         initiator.size () - contractor.size ();
}

TEST (db_can_hold_procedure, takes_a_statement_of_4000_bytes_and_no_more)
{
  std::string a = "a@example.org";
  std::string b = "b@example.org";
  u64 size = title_size_at_the_limit (5, 1000, a, b);
  std::string title (size, 't');
  EXPECT_TRUE (db_can_hold_procedure (5, 1000, string_of (a), string_of (b), string_of (title)));
  title += 't';
  EXPECT_FALSE (db_can_hold_procedure (5, 1000, string_of (a), string_of (b), string_of (title)));
}

TEST (db_can_hold_procedure, counts_the_digits_and_both_jids)
{
  std::string a = "a";
  std::string b = "b";
  std::string title (title_size_at_the_limit (UINT64_MAX, INT64_MIN, a, b), 't');
  EXPECT_TRUE (
    db_can_hold_procedure (UINT64_MAX, INT64_MIN, string_of (a), string_of (b), string_of (title)));
  EXPECT_FALSE (db_can_hold_procedure (UINT64_MAX, INT64_MIN, to_string ("aa"), string_of (b),
                                       string_of (title)));
  EXPECT_FALSE (db_can_hold_procedure (UINT64_MAX, INT64_MIN, string_of (a), to_string ("bb"),
                                       string_of (title)));
  title += 't';
  EXPECT_FALSE (
    db_can_hold_procedure (UINT64_MAX, INT64_MIN, string_of (a), string_of (b), string_of (title)));
  EXPECT_TRUE (
    db_can_hold_procedure (1, INT64_MIN, string_of (a), string_of (b), string_of (title)));
}

TEST (db_can_hold_procedure, takes_empty_texts_and_refuses_huge_ones)
{
  std::string huge (1000000, 'x');
  EXPECT_TRUE (db_can_hold_procedure (1, 1, {}, {}, {}));
  EXPECT_FALSE (db_can_hold_procedure (1, 1, string_of (huge), {}, {}));
  EXPECT_FALSE (db_can_hold_procedure (1, 1, {}, string_of (huge), {}));
  EXPECT_FALSE (db_can_hold_procedure (1, 1, {}, {}, string_of (huge)));
}

TEST (db_insert_procedure, holds_the_longest_title_that_may_be_held)
{
  Store store;
  std::string title (title_size_at_the_limit (5, 1000, "a@example.org", "b@example.org"), 't');
  Procedure *procedure = alloc_test_procedure (title);
  Texts statements;
  store.trace (&statements);
  db_insert_procedure (store.db, procedure);
  store.trace (NULL);
  ASSERT_EQ (statements.size (), 1u);
  EXPECT_EQ (statements[0].size (), 4000u);
  EXPECT_EQ (store.rows ("SELECT title FROM procedures;"), (Texts{title}));
  dealloc_procedure (procedure);
}

TEST (db_insert_procedure, stops_in_sql_when_the_statement_is_cut)
{
  Store store;
  Procedure *procedure = alloc_test_procedure (std::string (5000, 't'));
  EXPECT_DEATH (db_insert_procedure (store.db, procedure), stop_at ("!error"));
  dealloc_procedure (procedure);
}

// ---- Room ----

// Every statement with a text in it, with the longest numbers, an author and a text of the given
// sizes; all apostrophes, so that it doubles.
static void
write_at_full_size (Store *store, u64 author_size, u64 text_size)
{
  std::string author (author_size, 'j');
  std::string text (text_size, '\'');
  u64 id = INT64_MAX;
  s64 time = INT64_MIN + 1;
  ContactMessage *contact_message =
    alloc_contact_message (0, id, time, string_of (author), string_of (text));
  ClauseMessage *clause_message =
    alloc_clause_message (0, id, time, string_of (author), string_of (text));
  ClauseRevision *revision =
    alloc_clause_revision (0, id, time, string_of (author), REVISION_COMMITTED, string_of (text));
  ClauseRevisionDecision *decision =
    alloc_clause_revision_decision (0, id, time, string_of (author), DECISION_DISAGREE);
  db_insert_contact_message (store->db, contact_message);
  db_insert_clause_message (store->db, clause_message);
  db_insert_clause_revision (store->db, revision);
  db_insert_clause_revision_decision (store->db, decision);
  std::string sizes = std::to_string (id) + "|" + std::to_string (time) + "|" +
                      std::to_string (author_size) + "|" + std::to_string (text_size);
  for (const char *sql :
       {"SELECT contact_db_id, time, length (author), length (body) FROM contact_messages",
        "SELECT clause_db_id, time, length (author), length (text) FROM clause_messages",
        "SELECT clause_db_id, time, length (author), length (text) FROM clause_revisions"}) {
    EXPECT_EQ (store->rows (std::string (sql) + " ORDER BY db_id DESC LIMIT 1;"), (Texts{sizes}));
  }
  // The row of the highest id, with the updates.
  store->rows ("UPDATE clause_revisions SET db_id = 9223372036854775807 WHERE db_id = " +
               std::to_string (revision->db_id) + ";");
  store->rows ("UPDATE clause_revision_decisions SET db_id = 9223372036854775807 WHERE db_id = " +
               std::to_string (decision->db_id) + ";");
  revision->db_id = decision->db_id = INT64_MAX;
  db_update_clause_revision_text (store->db, revision);
  db_update_clause_revision_status (store->db, revision);
  db_update_clause_revision_status_and_text (store->db, revision);
  db_update_clause_revision_decision_time_and_status (store->db, decision);
  EXPECT_EQ (store->rows (
               "SELECT length (text) FROM clause_revisions WHERE db_id = 9223372036854775807;"),
             (Texts{std::to_string (text_size)}));
  db_delete_clause_revision (store->db, revision);
  db_delete_clause_revision_decision (store->db, decision);
  dealloc_contact_message (contact_message);
  dealloc_clause_message (clause_message);
  dealloc_clause_revision (revision);
  dealloc_clause_revision_decision (decision);
}

TEST (db_statements, hold_every_size_of_author_and_text)
{
  Store store;
  for (u64 author_size : {0, 1, 3071, 100000}) {
    for (u64 text_size : {0, 1, 2, 63, 64, 65, 200000}) {
      write_at_full_size (&store, author_size, text_size);
    }
  }
}

// A size so large that its double, or its triple, is a small number of 64 bits: the block gets no
// room for the text. Of the text itself only the first bytes are read.
static String
make_oversized_string (std::string *text, u64 size)
{
  text->assign (4096, 'x');
  return {(u8 *) text->data (), size};
}

TEST (db_statements, stop_the_program_when_they_fill_their_room)
{
  Store store;
  std::string text;
  String half = make_oversized_string (&text, (u64) 1 << 63);
  String third = make_oversized_string (&text, UINT64_MAX / 3 + 1);
  String author = to_string ("a");
  ContactMessage contact_message = {0, 5, 1000, author, third, 0};
  ClauseMessage clause_message = {0, 5, 1000, author, half};
  ClauseRevision revision = {7, 5, 1000, author, REVISION_DRAFT, half, 0, 0, NULL};
  std::string stop = stop_at ("sql_buffer_p.size > 0");
  EXPECT_DEATH (db_insert_contact_message (store.db, &contact_message), stop);
  EXPECT_DEATH (db_insert_clause_message (store.db, &clause_message), stop);
  EXPECT_DEATH (db_insert_clause_revision (store.db, &revision), stop);
  EXPECT_DEATH (db_update_clause_revision_text (store.db, &revision), stop);
  EXPECT_DEATH (db_update_clause_revision_status_and_text (store.db, &revision), stop);
}

// ---- Updates ----

TEST (db_update_clause_revision_text, writes_text_and_time_of_this_row_only)
{
  Store store;
  ClauseRevision *revision = alloc_test_revision ("old", REVISION_DRAFT);
  db_insert_clause_revision (store.db, revision);
  store.rows ("INSERT INTO clause_revisions VALUES (2, 5, 1, 'b', 'COMMITTED', 'other');");
  dealloc_string (revision->text);
  revision->text = alloc_string ("it's new");
  revision->time = 2000;
  revision->status = REVISION_COMMITTED;
  Texts statements;
  store.trace (&statements);
  db_update_clause_revision_text (store.db, revision);
  store.trace (NULL);
  EXPECT_EQ (statements,
             (Texts{
               "UPDATE clause_revisions SET text = 'it''s new', time = 2000 WHERE db_id = 1;"}));
  EXPECT_EQ (store.rows ("SELECT * FROM clause_revisions;"),
             (Texts{"1|5|2000|a@example.org|DRAFT|it's new", "2|5|1|b|COMMITTED|other"}));
  dealloc_clause_revision (revision);
}

TEST (db_update_clause_revision_status, writes_status_and_time_only)
{
  Store store;
  ClauseRevision *revision = alloc_test_revision ("old", REVISION_DRAFT);
  db_insert_clause_revision (store.db, revision);
  dealloc_string (revision->text);
  revision->text = alloc_string ("new");
  revision->time = 2000;
  revision->status = REVISION_COMMITTED;
  Texts statements;
  store.trace (&statements);
  db_update_clause_revision_status (store.db, revision);
  store.trace (NULL);
  EXPECT_EQ (statements,
             (Texts{
               "UPDATE clause_revisions SET time = 2000, status = 'COMMITTED' WHERE db_id = 1;"}));
  EXPECT_EQ (store.rows ("SELECT * FROM clause_revisions;"),
             (Texts{"1|5|2000|a@example.org|COMMITTED|old"}));
  dealloc_clause_revision (revision);
}

TEST (db_update_clause_revision_status_and_text, writes_all_three)
{
  Store store;
  ClauseRevision *revision = alloc_test_revision ("old", REVISION_DRAFT);
  db_insert_clause_revision (store.db, revision);
  dealloc_string (revision->text);
  revision->text = alloc_string ("'");
  revision->time = -2000;
  revision->status = REVISION_COMMITTED;
  Texts statements;
  store.trace (&statements);
  db_update_clause_revision_status_and_text (store.db, revision);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "UPDATE clause_revisions SET text = '''', time = -2000, status = 'COMMITTED' WHERE db_id = 1;"}));
  EXPECT_EQ (store.rows ("SELECT * FROM clause_revisions;"),
             (Texts{"1|5|-2000|a@example.org|COMMITTED|'"}));
  dealloc_clause_revision (revision);
}

TEST (db_update_clause_revision_decision_time_and_status, writes_both)
{
  Store store;
  ClauseRevisionDecision *decision = alloc_test_decision (DECISION_AGREE);
  db_insert_clause_revision_decision (store.db, decision);
  decision->time = 2000;
  decision->status = DECISION_DISAGREE;
  Texts statements;
  store.trace (&statements);
  db_update_clause_revision_decision_time_and_status (store.db, decision);
  store.trace (NULL);
  EXPECT_EQ (
    statements,
    (Texts{
      "UPDATE clause_revision_decisions SET time = 2000, status = 'DISAGREE' WHERE db_id = 1;"}));
  EXPECT_EQ (store.rows ("SELECT * FROM clause_revision_decisions;"),
             (Texts{"1|5|2000|a@example.org|DISAGREE"}));
  dealloc_clause_revision_decision (decision);
}

TEST (db_updates, stop_when_the_row_is_gone)
{
  Store store;
  ClauseRevision *revision = alloc_test_revision ("text");
  ClauseRevisionDecision *decision = alloc_test_decision ();
  revision->db_id = decision->db_id = 77;
  EXPECT_DEATH (db_update_clause_revision_text (store.db, revision),
                stop_at ("sqlite3_changes (db) == 1"));
  EXPECT_DEATH (db_update_clause_revision_status (store.db, revision),
                stop_at ("sqlite3_changes (db) == 1"));
  EXPECT_DEATH (db_update_clause_revision_status_and_text (store.db, revision),
                stop_at ("sqlite3_changes (db) == 1"));
  EXPECT_DEATH (db_update_clause_revision_decision_time_and_status (store.db, decision),
                stop_at ("sqlite3_changes (db) == 1"));
  dealloc_clause_revision (revision);
  dealloc_clause_revision_decision (decision);
}

TEST (db_updates, stop_without_a_database)
{
  ClauseRevision *revision = alloc_test_revision ("text");
  ClauseRevisionDecision *decision = alloc_test_decision ();
  EXPECT_DEATH (db_update_clause_revision_text (NULL, revision), stop_at ("db"));
  EXPECT_DEATH (db_update_clause_revision_status (NULL, revision), stop_at ("db"));
  EXPECT_DEATH (db_update_clause_revision_status_and_text (NULL, revision), stop_at ("db"));
  EXPECT_DEATH (db_update_clause_revision_decision_time_and_status (NULL, decision),
                stop_at ("db"));
  dealloc_clause_revision (revision);
  dealloc_clause_revision_decision (decision);
}

// ---- Deletes ----

// A clause as a session has it: two messages, a committed revision with two decisions, a draft.
// Its rows are 11; 21, 22; 31, 32 (the draft); 41, 42.
static Clause *
alloc_stored_clause (Store *store)
{
  store->rows (
    "INSERT INTO clauses VALUES (11, 5, 1000, 'a@example.org', 1), (12, 5, 1, 'b', 1);"
    "INSERT INTO clause_messages VALUES (21, 11, 1, 'a', 'x'), (22, 11, 2, 'b', 'y'), (23, 12, 1, 'a', 'kept');"
    "INSERT INTO clause_revisions VALUES (31, 11, 1, 'a', 'COMMITTED', 'x'), (32, 11, 2, 'a', 'DRAFT', 'y'), (33, 12, 1, 'a', 'DRAFT', 'kept');"
    "INSERT INTO clause_revision_decisions VALUES (41, 31, 1, 'a', 'AGREE'), (42, 31, 2, 'b', 'DISAGREE'), (43, 33, 1, 'b', 'AGREE');");
  Clause *clause = alloc_test_clause ();
  clause->db_id = 11;
  for (u64 db_id : {21, 22}) {
    clause_add_message (clause, alloc_test_clause_message ("x"));
    clause->messages[clause->messages_count - 1]->db_id = db_id;
  }
  ClauseRevision *revision = alloc_test_revision ("x");
  revision->db_id = 31;
  clause_add_revision (clause, revision);
  for (u64 db_id : {41, 42}) {
    clause_revision_add_decision (revision, alloc_test_decision ());
    revision->decisions[revision->decisions_count - 1]->db_id = db_id;
  }
  clause->draft = alloc_test_revision ("y", REVISION_DRAFT);
  clause->draft->db_id = 32;
  return clause;
}

static const Texts CLAUSE_DELETES = {
  "DELETE FROM clause_messages WHERE db_id = 21;",
  "DELETE FROM clause_messages WHERE db_id = 22;",
  "DELETE FROM clause_revision_decisions WHERE db_id = 41;",
  "DELETE FROM clause_revision_decisions WHERE db_id = 42;",
  "DELETE FROM clause_revisions WHERE db_id = 31;",
  "DELETE FROM clause_revisions WHERE db_id = 32;",
  "DELETE FROM clauses WHERE db_id = 11;",
};

TEST (db_delete_clause, deletes_the_children_first_and_nothing_else)
{
  Store store;
  Clause *clause = alloc_stored_clause (&store);
  Texts statements;
  store.trace (&statements);
  db_delete_clause (store.db, clause);
  store.trace (NULL);
  EXPECT_EQ (statements, CLAUSE_DELETES);
  EXPECT_EQ (
    store.rows (
      "SELECT db_id FROM clauses UNION SELECT db_id FROM clause_messages UNION SELECT db_id FROM clause_revisions UNION SELECT db_id FROM clause_revision_decisions;"),
    (Texts{"12", "23", "33", "43"}));
  // The records are the caller's, as they were.
  EXPECT_EQ (clause->db_id, 11u);
  EXPECT_EQ (clause->messages_count, 2u);
  EXPECT_EQ (clause->revisions_count, 1u);
  dealloc_clause (clause);
}

TEST (db_delete_clause, leaves_out_a_draft_that_was_never_stored)
{
  Store store;
  Clause *clause = alloc_stored_clause (&store);
  clause->draft->db_id = 0;
  Texts statements;
  store.trace (&statements);
  db_delete_clause (store.db, clause);
  store.trace (NULL);
  Texts expected = CLAUSE_DELETES;
  expected.erase (expected.begin () + 5);
  EXPECT_EQ (statements, expected);
  dealloc_clause (clause);
}

TEST (db_delete_clause, takes_a_clause_without_a_draft)
{
  Store store;
  Clause *clause = alloc_test_clause ();
  db_insert_clause (store.db, clause);
  db_delete_clause (store.db, clause);
  EXPECT_EQ (store.rows ("SELECT * FROM clauses;"), Texts ());
  dealloc_clause (clause);
}

TEST (db_delete_clause, warns_when_there_is_no_row)
{
  Store store;
  Clause *clause = alloc_test_clause ();
  clause->db_id = 77;
  testing::internal::CaptureStdout ();
  db_delete_clause (store.db, clause);
  EXPECT_EQ (
    testing::internal::GetCapturedStdout (),
    "sql: \"DELETE FROM clauses WHERE db_id = 77;\" (char *)\nWarning: Couldn't delete clause with db_id = 77\n");
  dealloc_clause (clause);
}

TEST (db_delete_procedure, deletes_its_clauses_first)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ("t");
  db_insert_procedure (store.db, procedure);
  procedure_add_clause (procedure, alloc_stored_clause (&store));
  Clause *second = alloc_test_clause ();
  second->db_id = 12;
  procedure_add_clause (procedure, second);
  Texts statements;
  store.trace (&statements);
  db_delete_procedure (store.db, procedure);
  store.trace (NULL);
  Texts expected = CLAUSE_DELETES;
  expected.push_back ("DELETE FROM clauses WHERE db_id = 12;");
  expected.push_back ("DELETE FROM procedures WHERE db_id = 1;");
  EXPECT_EQ (statements, expected);
  EXPECT_EQ (store.rows ("SELECT db_id FROM procedures UNION SELECT db_id FROM clauses;"),
             Texts ());
  dealloc_procedure (procedure);
}

TEST (db_delete_procedure, warns_when_there_is_no_row)
{
  Store store;
  Procedure *procedure = alloc_test_procedure ("t");
  procedure->db_id = 78;
  testing::internal::CaptureStdout ();
  db_delete_procedure (store.db, procedure);
  EXPECT_EQ (
    testing::internal::GetCapturedStdout (),
    "sql: \"DELETE FROM procedures WHERE db_id = 78;\" (char *)\nWarning: Couldn't delete procedure with db_id = 78\n");
  dealloc_procedure (procedure);
}

TEST (db_delete_clause_revision, deletes_its_decisions_first)
{
  Store store;
  Clause *clause = alloc_stored_clause (&store);
  Texts statements;
  store.trace (&statements);
  db_delete_clause_revision (store.db, clause->revisions[0]);
  store.trace (NULL);
  EXPECT_EQ (statements, Texts (CLAUSE_DELETES.begin () + 2, CLAUSE_DELETES.begin () + 5));
  dealloc_clause (clause);
}

TEST (db_delete_clause_message, deletes_one_row)
{
  Store store;
  Clause *clause = alloc_stored_clause (&store);
  db_delete_clause_message (store.db, clause->messages[1]);
  EXPECT_EQ (store.rows ("SELECT db_id FROM clause_messages;"), (Texts{"21", "23"}));
  dealloc_clause (clause);
}

TEST (db_delete_clause_revision_decision, deletes_one_row)
{
  Store store;
  Clause *clause = alloc_stored_clause (&store);
  db_delete_clause_revision_decision (store.db, clause->revisions[0]->decisions[0]);
  EXPECT_EQ (store.rows ("SELECT db_id FROM clause_revision_decisions;"), (Texts{"42", "43"}));
  dealloc_clause (clause);
}

TEST (db_lower_deletes, stop_when_the_row_is_gone)
{
  Store store;
  ClauseMessage *message = alloc_test_clause_message ("x");
  ClauseRevision *revision = alloc_test_revision ("x");
  ClauseRevisionDecision *decision = alloc_test_decision ();
  message->db_id = revision->db_id = decision->db_id = 77;
  EXPECT_DEATH (db_delete_clause_message (store.db, message),
                stop_at ("sqlite3_changes (db) == 1"));
  EXPECT_DEATH (db_delete_clause_revision (store.db, revision),
                stop_at ("sqlite3_changes (db) == 1"));
  EXPECT_DEATH (db_delete_clause_revision_decision (store.db, decision),
                stop_at ("sqlite3_changes (db) == 1"));
  dealloc_clause_message (message);
  dealloc_clause_revision (revision);
  dealloc_clause_revision_decision (decision);
}

TEST (db_deletes, stop_without_a_database)
{
  ClauseMessage *message = alloc_test_clause_message ("x");
  ClauseRevision *revision = alloc_test_revision ("x");
  ClauseRevisionDecision *decision = alloc_test_decision ();
  Clause *clause = alloc_test_clause ();
  Procedure *procedure = alloc_test_procedure ("t");
  EXPECT_DEATH (db_delete_clause_message (NULL, message), stop_at ("db"));
  EXPECT_DEATH (db_delete_clause_revision (NULL, revision), stop_at ("db"));
  EXPECT_DEATH (db_delete_clause_revision_decision (NULL, decision), stop_at ("db"));
  EXPECT_DEATH (db_delete_clause (NULL, clause), stop_at ("db"));
  EXPECT_DEATH (db_delete_procedure (NULL, procedure), stop_at ("db"));
  dealloc_clause_message (message);
  dealloc_clause_revision (revision);
  dealloc_clause_revision_decision (decision);
  dealloc_clause (clause);
  dealloc_procedure (procedure);
}

// ---- The store gives back what it was given ----

static std::string
random_text (std::mt19937 *random, u64 size_max)
{
  std::string text ((*random) () % (size_max + 1), ' ');
  for (char &c : text) {
    u32 number = (*random) ();
    c = number % 4 ? (char) (number / 4 % 255 + 1) : '\'';
  }
  return text;
}

TEST (store, returns_the_bytes_it_was_given)
{
  Store store;
  std::mt19937 random (20240502);
  Contact *contact = alloc_test_contact ("c@example.org");
  db_insert_contact (store.db, contact);
  Procedure *procedure = alloc_test_procedure ("t");
  db_insert_procedure (store.db, procedure);
  Clause *clause = alloc_test_clause ();
  clause->procedure_db_id = procedure->db_id;
  db_insert_clause (store.db, clause);
  Texts texts;
  for (s64 time = 0; time < 60; ++time) {
    std::string text = random_text (&random, time < 50 ? 40 : 3000);
    texts.push_back (text);
    ContactMessage *contact_message =
      alloc_contact_message (0, contact->db_id, time, to_string ("a"), string_of (text));
    ClauseMessage *clause_message =
      alloc_clause_message (0, clause->db_id, time, to_string ("a"), string_of (text));
    ClauseRevision *revision =
      alloc_clause_revision (0, clause->db_id, time, to_string ("a"), REVISION_COMMITTED,
                             time % 2 ? string_of (text) : to_string ("before"));
    db_insert_contact_message (store.db, contact_message);
    db_insert_clause_message (store.db, clause_message);
    db_insert_clause_revision (store.db, revision);
    if (time % 2 == 0) {
      dealloc_string (revision->text);
      revision->text = alloc_string (string_of (text));
      if (time % 4) {
        db_update_clause_revision_text (store.db, revision);
      } else {
        db_update_clause_revision_status_and_text (store.db, revision);
      }
    }
    dealloc_contact_message (contact_message);
    dealloc_clause_message (clause_message);
    dealloc_clause_revision (revision);
  }
  store.reopen ();
  Loaded loaded (&store, 5);
  ASSERT_EQ (loaded.contacts.count, 1u);
  ASSERT_EQ (loaded.procedures.count, 1u);
  Clause *loaded_clause = loaded.procedures.procedures[0]->clauses[0];
  ASSERT_EQ (loaded.contacts.contacts[0]->messages_count, 60u);
  ASSERT_EQ (loaded_clause->messages_count, 60u);
  ASSERT_EQ (loaded_clause->revisions_count, 60u);
  for (u32 i = 0; i < 60; ++i) {
    EXPECT_EQ (text_of (loaded.contacts.contacts[0]->messages[i]->body), texts[i]);
    EXPECT_EQ (text_of (loaded_clause->messages[i]->text), texts[i]);
    EXPECT_EQ (text_of (loaded_clause->revisions[i]->text), texts[i]);
  }
  dealloc_test_contact (contact);
  dealloc_procedure (procedure);
  dealloc_clause (clause);
}

// Writes down a whole account, field by field.
static std::string
describe (ContactStack contacts, ProceduresStack procedures)
{
  std::string out;
  for (u32 i = 0; i < contacts.count; ++i) {
    Contact *c = contacts.contacts[i];
    out += "contact " + std::to_string (c->db_id) + " " + std::to_string (c->account_db_id) + " " +
           text_of (c->bare_jid) + " " + text_of (c->status) + "\n";
    for (u32 j = 0; j < c->messages_count; ++j) {
      ContactMessage *m = c->messages[j];
      out += " message " + std::to_string (m->db_id) + " " + std::to_string (m->contact_db_id) +
             " " + std::to_string (m->time) + " " + text_of (m->author) + " " + text_of (m->body) +
             "\n";
    }
  }
  for (u32 i = 0; i < procedures.count; ++i) {
    Procedure *p = procedures.procedures[i];
    out += "procedure " + std::to_string (p->db_id) + " " + std::to_string (p->account_db_id) +
           " " + std::to_string (p->time) + " " + text_of (p->initiator) + " " +
           text_of (p->contractor) + " " + text_of (p->title) + "\n";
    for (u32 j = 0; j < p->clauses_count; ++j) {
      Clause *c = p->clauses[j];
      out += " clause " + std::to_string (c->db_id) + " " + std::to_string (c->procedure_db_id) +
             " " + std::to_string (c->time) + " " + text_of (c->initiator) + " " +
             std::to_string (c->position) + "\n";
      for (u32 k = 0; k < c->messages_count; ++k) {
        ClauseMessage *m = c->messages[k];
        out += "  message " + std::to_string (m->db_id) + " " + std::to_string (m->clause_db_id) +
               " " + std::to_string (m->time) + " " + text_of (m->author) + " " +
               text_of (m->text) + "\n";
      }
      for (u32 k = 0; k <= c->revisions_count; ++k) {
        ClauseRevision *r = k < c->revisions_count ? c->revisions[k] : c->draft;
        if (!r) {
          continue;
        }
        out += "  revision " + std::to_string (r->db_id) + " " + std::to_string (r->clause_db_id) +
               " " + std::to_string (r->time) + " " + text_of (r->author) + " " +
               REVISION_STATUS_STRINGS[r->status] + " " + text_of (r->text) + "\n";
        for (u32 l = 0; l < r->decisions_count; ++l) {
          ClauseRevisionDecision *d = r->decisions[l];
          out += "   decision " + std::to_string (d->db_id) + " " +
                 std::to_string (d->clause_revision_db_id) + " " + std::to_string (d->time) + " " +
                 text_of (d->author) + " " + DECISION_STATUS_STRINGS[d->status] + "\n";
        }
      }
    }
  }
  return out;
}

static void
add_clause_with_children (Store *store, Procedure *procedure, s64 time)
{
  Clause *clause = alloc_clause (0, procedure->db_id, time, to_string (time % 2 ? "a@x" : "b@x"),
                                 procedure->clauses_count + 1);
  db_insert_clause (store->db, clause);
  procedure_add_clause (procedure, clause);
  for (s64 i = 0; i < 3; ++i) {
    ClauseMessage *message =
      alloc_clause_message (0, clause->db_id, time + i, to_string ("a"), to_string ("don't\nknow"));
    db_insert_clause_message (store->db, message);
    clause_add_message (clause, message);
    ClauseRevision *revision =
      alloc_clause_revision (0, clause->db_id, time + i, to_string ("b@x"), REVISION_COMMITTED,
                             to_string ("§ 1 \"it's\" <so>"));
    db_insert_clause_revision (store->db, revision);
    clause_add_revision (clause, revision);
    for (DecisionStatus status : {DECISION_AGREE, DECISION_DISAGREE}) {
      ClauseRevisionDecision *decision =
        alloc_clause_revision_decision (0, revision->db_id, time + i,
                                        to_string (status == DECISION_AGREE ? "a@x" : "b@x"),
                                        status);
      db_insert_clause_revision_decision (store->db, decision);
      clause_revision_add_decision (revision, decision);
    }
  }
  if (time % 2) {
    clause->draft = alloc_clause_revision (0, clause->db_id, time + 9, to_string ("a@x"),
                                           REVISION_DRAFT, to_string ("draft"));
    db_insert_clause_revision (store->db, clause->draft);
  }
}

TEST (store, gives_a_whole_account_back)
{
  Store store;
  u64 other_account_db_id = db_insert_account (store.db, to_string ("other@x"));
  u64 account_db_id = db_insert_account (store.db, to_string ("a@x"));
  ContactStack contacts = alloc_contact_stack (64);
  ProceduresStack procedures = alloc_procedure_stack ();
  for (int i = 0; i < 3; ++i) {
    Contact *contact =
      alloc_contact (0, account_db_id, to_string (("c" + std::to_string (i)).c_str ()),
                     to_string ("unavailable"));
    db_insert_contact (store.db, contact);
    contact_stack_push (&contacts, contact);
    for (s64 time = 10; time < 14; ++time) {
      ContactMessage *message =
        alloc_contact_message (0, contact->db_id, time, to_string ("a@x"), to_string ("it's"));
      db_insert_contact_message (store.db, message);
      contact_add_message (contact, message);
    }
    Procedure *procedure = alloc_procedure (0, account_db_id, 100 + i, to_string ("Ein Häuschen"),
                                            to_string ("a@x"), to_string ("b@x"));
    db_insert_procedure (store.db, procedure);
    procedures_stack_add_procedure (&procedures, procedure);
    for (s64 time = 1000; time < 1004; ++time) {
      add_clause_with_children (&store, procedure, time);
    }
  }
  std::string expected = describe (contacts, procedures);
  dealloc_contact_stack (contacts);
  dealloc_procedure_stack (procedures);
  store.reopen ();

  EXPECT_EQ (db_get_account_db_id (store.db, to_string ("a@x")), account_db_id);
  Loaded loaded (&store, account_db_id);
  EXPECT_EQ (describe (loaded.contacts, loaded.procedures), expected);
  EXPECT_GT (expected.size (), 5000u);
  Loaded other (&store, other_account_db_id);
  EXPECT_EQ (describe (other.contacts, other.procedures), "");
}
