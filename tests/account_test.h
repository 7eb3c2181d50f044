// An account with contacts, two procedures and a clause in front of the main window, and what is seen of
// them: for what tests the window, and for what tests what arrives for it.
//
// Threads: the main thread.
#pragma once

#include <string>

#include "db.h"
#include "fake_session.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"
#define CAROL "carol@alpha.test"

// ---- What the tests begin with ----

static const char ACCOUNT[] = "INSERT INTO accounts VALUES (1, '" ALICE "');";
static const char CONTACTS[] = "INSERT INTO contacts VALUES (1, 1, '" BOB "');"
                               "INSERT INTO contacts VALUES (2, 1, '" CAROL "');";
// One that Alice has opened, one that was opened with her.
static const char PROCEDURES[] =
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Rent');"
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (2, 1, 1500, '" CAROL "', '" ALICE "', 'Garden');";
static const char CLAUSES[] =
  "INSERT INTO clauses VALUES (1, 1, 2000, '" ALICE "', 1);"
  "INSERT INTO clause_messages VALUES (1, 1, 2500, 'alice', 'well?');"
  "INSERT INTO clause_revisions VALUES (1, 1, 3000, '" ALICE "', 'COMMITTED', 'first text');"
  "INSERT INTO clause_revisions VALUES (2, 1, 3100, '" ALICE "', 'DRAFT', 'drafted text');"
  "INSERT INTO clause_revision_decisions VALUES (1, 1, 3500, '" ALICE "', 'AGREE');";

// What those are called on the wire.
static const WireName RENT = {ALICE, 1000};
static const WireName CLAUSE = {ALICE, 2000};
static const WireName FIRST = {ALICE, 3000};

inline void
run (TestWindow *test, const std::string &sql)
{
  // Nothing here outlives a crash of the machine, so no write waits for the disk.
  std::string all = "PRAGMA synchronous = OFF;" + sql;
  char *error = NULL;
  EXPECT_EQ (sqlite3_exec (test->db, all.c_str (), NULL, NULL, &error), SQLITE_OK) << error;
}

// A window that is logged in to a store with these rows.
inline void
open_account (TestWindow *test, const std::string &sql = "")
{
  run (test, ACCOUNT + sql);
  log_in (test);
}

inline void
open_negotiation (TestWindow *test)
{
  open_account (test, std::string (CONTACTS) + PROCEDURES + CLAUSES);
}

inline Clause *
get_clause (TestWindow *test)
{
  return test->window->procedures.procedures[0]->clauses[0];
}

// ---- What is seen ----

inline bool
has (const std::string &text, const std::string &part)
{
  return text.find (part) != std::string::npos;
}

inline std::string
count (TestWindow *test, const char *table)
{
  return query (test, (std::string ("SELECT count (*) FROM ") + table).c_str ());
}

// The rows of a list that are seen, each with what its two labels show.
inline std::string
list_rows (GtkListBox *list_box, const char *label, const char *other_label)
{
  std::string list;
  for (int i = 0; gtk_list_box_get_row_at_index (list_box, i); i++) {
    GtkListBoxRow *row = gtk_list_box_get_row_at_index (list_box, i);
    if (!gtk_widget_get_visible (GTK_WIDGET (row)))
      continue;
    list += (gtk_list_box_row_is_selected (row) ? "*" : "") + get_text (row, label) + "|" +
            get_text (row, other_label) + "\n";
  }
  return list;
}

inline std::string
list_procedures (TestWindow *test)
{
  return list_rows (test->window->procedures_list_box, "title_label", "contact_label");
}

inline std::string
list_contacts (TestWindow *test)
{
  return list_rows (test->window->contacts_list_box, "name_label", "status_label");
}

inline GtkWidget *
get_main_page (TestWindow *test)
{
  return gtk_stack_get_visible_child (test->window->main_page_stack);
}

// What the console says from here to `end_capture`.
inline void
begin_capture ()
{
  testing::internal::CaptureStdout ();
}

inline std::string
end_capture ()
{
  return testing::internal::GetCapturedStdout ();
}
