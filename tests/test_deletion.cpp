// The undo of a deletion: how long it is offered, and what of it meets the outbox and what comes
// meanwhile. The store's rows, read before and after, are the judge.
#include "deletion.h"

#include <string>

#include "clause_chat_page.h"
#include "clause_view.h"
#include "delivery.h"
#include "fake_session.h"
#include "procedure_view.h"
#include "session.h"
#include "session_test.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"

static const char ROWS[] =
  "PRAGMA synchronous = OFF;"
  "INSERT INTO accounts VALUES (1, '" ALICE "');"
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Rent');"
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (2, 1, 1500, '" BOB "', '" ALICE "', 'Garden');"
  "INSERT INTO clauses VALUES (1, 1, 2000, '" ALICE "', 1);"
  "INSERT INTO clauses VALUES (2, 2, 2000, '" ALICE "', 1);"
  "INSERT INTO clause_revisions VALUES (1, 1, 3000, '" ALICE "', 'COMMITTED', 'first text');";

static const WireName RENT = {ALICE, 1000};
static const WireName GARDEN = {BOB, 1500};

static void
open_account (TestWindow *test)
{
  EXPECT_EQ (sqlite3_exec (test->db, ROWS, NULL, NULL, NULL), SQLITE_OK);
  log_in (test);
}

static bool
is_undo_offered (AppWindow *window)
{
  return gtk_widget_get_visible (window->undo_bar);
}

static std::string
list_titles (TestWindow *test)
{
  return query (test, "SELECT title FROM procedures ORDER BY time");
}

// ---- What a user sees ----

static void
describe_text_buffer (GtkTextBuffer *text_buffer, std::string *lines)
{
  GtkTextIter start;
  GtkTextIter end;
  gtk_text_buffer_get_bounds (text_buffer, &start, &end);
  char *text = gtk_text_buffer_get_text (text_buffer, &start, &end, TRUE);
  gtk_text_buffer_get_selection_bounds (text_buffer, &start, &end);
  *lines += std::string (" '") + text + "' " + std::to_string (gtk_text_iter_get_offset (&start)) +
            "-" + std::to_string (gtk_text_iter_get_offset (&end));
  g_free (text);
  // Tags, as those of a comparison, begin and end here.
  gtk_text_buffer_get_start_iter (text_buffer, &start);
  while (gtk_text_iter_forward_to_tag_toggle (&start, NULL))
    *lines += " " + std::to_string (gtk_text_iter_get_offset (&start));
}

static void
describe_state (GtkWidget *widget, std::string *lines)
{
  if (GTK_IS_LABEL (widget))
    *lines += std::string (" '") + gtk_label_get_label (GTK_LABEL (widget)) + "'";
  if (GTK_IS_TEXT_VIEW (widget)) {
    describe_text_buffer (gtk_text_view_get_buffer (GTK_TEXT_VIEW (widget)), lines);
    *lines += gtk_text_view_get_editable (GTK_TEXT_VIEW (widget)) ? " editable" : "";
  }
  if (GTK_IS_ENTRY (widget)) {
    *lines += std::string (" '") + gtk_entry_get_text (GTK_ENTRY (widget)) + "' " +
              std::to_string (gtk_editable_get_position (GTK_EDITABLE (widget)));
  }
  if (GTK_IS_STACK (widget)) {
    GtkWidget *page = gtk_stack_get_visible_child (GTK_STACK (widget));
    *lines += page ? " " + std::string (G_OBJECT_TYPE_NAME (page)) : " no page";
  }
  if (GTK_IS_SCROLLED_WINDOW (widget)) {
    GtkAdjustment *page = gtk_scrolled_window_get_vadjustment (GTK_SCROLLED_WINDOW (widget));
    *lines += " at " + std::to_string (gtk_adjustment_get_value (page));
  }
  if (GTK_IS_LIST_BOX_ROW (widget))
    *lines += gtk_list_box_row_is_selected (GTK_LIST_BOX_ROW (widget)) ? " selected" : "";
}

// Writes a line for the widget and for all below it, the lists in their popovers too.
static void
describe_widget (GtkWidget *widget, gpointer data)
{
  std::string *lines = (std::string *) data;
  *lines += G_OBJECT_TYPE_NAME (widget);
  const char *name = gtk_buildable_get_name (GTK_BUILDABLE (widget));
  *lines += name ? std::string (" ") + name : "";
  *lines += gtk_widget_get_visible (widget) ? "" : " hidden";
  *lines += gtk_widget_get_sensitive (widget) ? "" : " insensitive";
  GtkStyleContext *style = gtk_widget_get_style_context (widget);
  for (const char *look : {"not-sent", "draft-waiting"})
    *lines += gtk_style_context_has_class (style, look) ? std::string (" ") + look : "";
  char *tooltip = gtk_widget_get_tooltip_text (widget);
  *lines += tooltip ? std::string (" (") + tooltip + ")" : "";
  g_free (tooltip);
  describe_state (widget, lines);
  *lines += "\n";
  if (GTK_IS_MENU_BUTTON (widget) && gtk_menu_button_get_popover (GTK_MENU_BUTTON (widget)))
    describe_widget (GTK_WIDGET (gtk_menu_button_get_popover (GTK_MENU_BUTTON (widget))), data);
  if (GTK_IS_CONTAINER (widget))
    gtk_container_forall (GTK_CONTAINER (widget), describe_widget, data);
}

static std::string
describe (TestWindow *test)
{
  pump ();
  std::string lines;
  describe_widget (GTK_WIDGET (test->window->procedures_list_box), &lines);
  describe_widget (GTK_WIDGET (test->window->main_page_stack), &lines);
  return lines;
}

// ---- The end of the undo ----

TEST (deletion, can_be_undone_for_ten_seconds)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  GSource *source = g_main_context_find_source_by_id (NULL, test.window->undo_source);
  ASSERT_TRUE (source);
  // A timeout in seconds may come up to one earlier or later, so that many are due together.
  s64 left = g_source_get_ready_time (source) - g_get_monotonic_time ();
  EXPECT_GT (left, 8 * G_USEC_PER_SEC);
  EXPECT_LE (left, 11 * G_USEC_PER_SEC);
  pump ();
  EXPECT_TRUE (is_undo_offered (test.window));

  g_source_set_ready_time (source, 0);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return !is_undo_offered ((AppWindow *) data); }, test.window));
  EXPECT_EQ (test.window->undo_source, 0u);
  EXPECT_EQ (test.window->negotiation.deletion.procedure, nullptr);
  deletion_undo (test.window);
  EXPECT_EQ (list_titles (&test), "Garden\n");
}

TEST (deletion, offers_the_second_one_for_a_time_of_its_own)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  guint first = test.window->undo_source;
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  EXPECT_FALSE (g_main_context_find_source_by_id (NULL, first));
  EXPECT_TRUE (g_main_context_find_source_by_id (NULL, test.window->undo_source));
  EXPECT_TRUE (is_undo_offered (test.window));
}

TEST (deletion, cannot_be_undone_any_more_when_the_window_closes)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  guint source = test.window->undo_source;
  close_window (&test);
  EXPECT_FALSE (g_main_context_find_source_by_id (NULL, source));
  EXPECT_EQ (test.window->negotiation.deletion.procedure, nullptr);
  EXPECT_EQ (list_titles (&test), "Garden\n");
}

TEST (deletion, cannot_be_undone_any_more_when_the_user_logs_in_again)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  guint source = test.window->undo_source;
  app_window_log_in_again (test.window);
  EXPECT_FALSE (g_main_context_find_source_by_id (NULL, source));
  EXPECT_FALSE (is_undo_offered (test.window));
  EXPECT_EQ (test.window->negotiation.deletion.procedure, nullptr);
  deletion_undo (test.window);
  EXPECT_EQ (list_titles (&test), "Garden\n");
}

// ---- Views ----

static Clause *
get_clause (AppWindow *window, u32 index = 0)
{
  return window->procedures.procedures[0]->clauses[index];
}

static GtkTextBuffer *
get_text_buffer (Clause *clause)
{
  return gtk_text_view_get_buffer (GTK_TEXT_VIEW (find_widget (clause->view, "text_view")));
}

// What the user was at.
struct Pastime {
  const char *name;
  void (*begin) (AppWindow *window);
};

static void
look_at_an_older_revision (AppWindow *window)
{
  Clause *clause = get_clause (window);
  clause_view_show_revision (clause->view, clause->revisions[0], to_string (ALICE));
}

static void
type_a_draft (AppWindow *window)
{
  type (get_clause (window)->view, "text_view", "half a thought");
  GtkTextIter start;
  GtkTextIter end;
  gtk_text_buffer_get_iter_at_offset (get_text_buffer (get_clause (window)), &start, 2);
  gtk_text_buffer_get_iter_at_offset (get_text_buffer (get_clause (window)), &end, 6);
  gtk_text_buffer_select_range (get_text_buffer (get_clause (window)), &start, &end);
}

static void
leave_a_draft (AppWindow *window)
{
  type_a_draft (window);
  look_at_an_older_revision (window);
}

static void
compare (AppWindow *window)
{
  Clause *clause = get_clause (window);
  clause_view_set_text (clause->view, {});
  clause_view_show_diff (clause->view, clause->revisions[0], clause->revisions[1]);
}

static void
decide_on_a_run (AppWindow *window)
{
  compare (window);
  GtkTextIter place;
  gtk_text_buffer_get_start_iter (get_text_buffer (get_clause (window)), &place);
  gtk_text_iter_forward_to_tag_toggle (&place, NULL);
  gtk_widget_grab_focus (find_widget (get_clause (window)->view, "text_view"));
  gtk_text_buffer_place_cursor (get_text_buffer (get_clause (window)), &place);
  press (get_clause (window)->view, "diff_add_button");
}

static void
put_a_comparison_aside (AppWindow *window)
{
  decide_on_a_run (window);
  deliver_revision (window, RENT, {ALICE, 2000}, {BOB, 3500}, "their words");
}

static void
chat (AppWindow *window)
{
  press (get_clause (window)->view, "chat_button");
  type (get_clause (window)->chat_page, "chat_entry", "half a line");
  gtk_editable_set_position (GTK_EDITABLE (
                               find_widget (get_clause (window)->chat_page, "chat_entry")),
                             4);
}

static bool
have_their_places (void *procedure)
{
  Procedure *self = (Procedure *) procedure;
  for (u32 i = 0; i < self->clauses_count; i++) {
    if (gtk_widget_get_allocated_width (GTK_WIDGET (self->clauses[i]->view)) <= 1)
      return false;
  }
  return true;
}

static void
scroll (AppWindow *window)
{
  for (int i = 0; i < 10; i++)
    press (window->procedures.procedures[0]->view, "add_clause_button");
  type (get_clause (window, 4)->view, "text_view", "one of many");
  look_at_an_older_revision (window);
  // The page follows each new clause to its place.
  EXPECT_TRUE (pump_until (have_their_places, window->procedures.procedures[0]));
  pump ();
  gtk_adjustment_set_value (procedure_view_get_page (GTK_WIDGET (get_clause (window)->view)), 321);
}

static const Pastime PASTIMES[] = {
  {"looked_at_an_older_revision", look_at_an_older_revision},
  {"typed_a_draft", type_a_draft},
  {"left_a_draft", leave_a_draft},
  {"compared", compare},
  {"decided_on_a_run", decide_on_a_run},
  {"put_a_comparison_aside", put_a_comparison_aside},
  {"chatted", chat},
  {"scrolled", scroll},
};

static std::string
name_of (const testing::TestParamInfo<Pastime> &info)
{
  return info.param.name;
}

// A window that shows the first procedure, with a second revision of its clause.
static void
open_negotiation (TestWindow *test)
{
  open_account (test);
  deliver_revision (test->window, RENT, {ALICE, 2000}, {BOB, 3100}, "second text, and longer");
  gtk_widget_activate (GTK_WIDGET (test->window->procedures.procedures[0]->list_item));
  pump ();
}

class DeletionViews : public testing::TestWithParam<Pastime> {};

TEST_P (DeletionViews, are_as_they_were_after_an_undo)
{
  TestWindow test;
  open_negotiation (&test);
  GetParam ().begin (test.window);
  app_window_save_drafts (test.window);
  std::string before = describe (&test);
  press (test.window->procedures.procedures[0]->view, "delete_button");
  EXPECT_NE (describe (&test), before);
  press (test.window, "undo_button");
  EXPECT_EQ (describe (&test), before);
  // And once more.
  press (test.window->procedures.procedures[0]->view, "delete_button");
  press (test.window, "undo_button");
  EXPECT_EQ (describe (&test), before);
}

INSTANTIATE_TEST_SUITE_P (deletion, DeletionViews, testing::ValuesIn (PASTIMES), name_of);

// The list is in the order of the procedures, and what is new meanwhile is above.
TEST (deletion, undone_after_another_procedure_began_leaves_the_list_in_order)
{
  TestWindow test;
  open_negotiation (&test);
  press (test.window->procedures.procedures[0]->view, "delete_button");
  deliver_procedure (test.window, {BOB, 5000}, "Barge");
  press (test.window, "undo_button");
  Procedure **procedures = test.window->procedures.procedures;
  ASSERT_EQ (test.window->procedures.count, 3u);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ (gtk_list_box_get_row_at_index (test.window->procedures_list_box, i),
               procedures[2 - i]->list_item);
  }
  EXPECT_EQ (gtk_list_box_get_selected_row (test.window->procedures_list_box),
             procedures[0]->list_item);
}

// The focus goes there when a clause is deleted. The page goes with it, to where it ends so far; how far
// it is laid out by then says nothing about the undo, so it is shown from its beginning.
static void
focus_add_clause_button (AppWindow *window)
{
  procedure_view_focus_add_clause_button (window->procedures.procedures[0]->view);
  pump ();
  gtk_adjustment_set_value (procedure_view_get_page (GTK_WIDGET (get_clause (window)->view)), 0);
}

TEST (deletion, of_a_clause_leaves_its_view_as_it_was_for_an_undo)
{
  TestWindow test;
  open_negotiation (&test);
  scroll (test.window);
  app_window_save_drafts (test.window);
  Clause *clause = get_clause (test.window, 4);
  focus_add_clause_button (test.window);
  std::string before = describe (&test);
  press (clause->view, "cancel_button");
  std::string between = describe (&test);
  EXPECT_NE (between, before);
  press (test.window, "undo_button");
  focus_add_clause_button (test.window);
  EXPECT_EQ (get_clause (test.window, 4), clause);
  EXPECT_EQ (describe (&test), before);
}

static std::string
list_clause_texts (AppWindow *window)
{
  std::string texts;
  GtkWidget *box = gtk_widget_get_parent (GTK_WIDGET (get_clause (window)->view));
  GList *views = gtk_container_get_children (GTK_CONTAINER (box));
  for (GList *link = views; link; link = link->next) {
    if (gtk_widget_get_visible (GTK_WIDGET (link->data)))
      texts += get_text (link->data, "text_view") + "|";
  }
  g_list_free (views);
  return texts;
}

// What takes its place on the page meanwhile has its own.
TEST (deletion, of_a_clause_leaves_the_others_in_their_order)
{
  TestWindow test;
  open_negotiation (&test);
  press (test.window->procedures.procedures[0]->view, "add_clause_button");
  type (get_clause (test.window, 1)->view, "text_view", "mine");
  press (get_clause (test.window, 1)->view, "cancel_button");
  EXPECT_EQ (list_clause_texts (test.window), "second text, and longer|");
  deliver_clause (test.window, RENT, {BOB, 1500});
  deliver_revision (test.window, RENT, {BOB, 1500}, {BOB, 6000}, "an older one");
  deliver_clause (test.window, RENT, {BOB, 2500});
  deliver_revision (test.window, RENT, {BOB, 2500}, {BOB, 6100}, "a newer one");
  EXPECT_EQ (list_clause_texts (test.window), "an older one|second text, and longer|a newer one|");
  press (test.window, "undo_button");
  EXPECT_EQ (list_clause_texts (test.window),
             "an older one|second text, and longer|a newer one|mine|");
}

// Whether the box of the clauses is as high as its first clause.
static bool
is_filled_by_one (void *data)
{
  GtkWidget *view = GTK_WIDGET (data);
  GtkWidget *box = gtk_widget_get_parent (view);
  return gtk_widget_get_allocated_height (box) == gtk_widget_get_allocated_height (view);
}

static bool
is_filled_by_more (void *data)
{
  return !is_filled_by_one (data);
}

TEST (deletion, of_a_clause_leaves_no_gap)
{
  TestWindow test;
  open_negotiation (&test);
  gpointer view = get_clause (test.window)->view;
  press (test.window->procedures.procedures[0]->view, "add_clause_button");
  EXPECT_TRUE (pump_until (is_filled_by_more, view));
  press (get_clause (test.window, 1)->view, "cancel_button");
  EXPECT_TRUE (pump_until (is_filled_by_one, view));
  press (test.window, "undo_button");
  EXPECT_TRUE (pump_until (is_filled_by_more, view));
}

// It is offered on the same page as before, where Return would press it.
TEST (deletion, undone_gives_no_focus_to_the_button_that_deletes)
{
  TestWindow test;
  open_negotiation (&test);
  GtkWidget *button = find_widget (test.window->procedures.procedures[0]->view, "delete_button");
  gtk_widget_grab_focus (button);
  gtk_button_clicked (GTK_BUTTON (button));
  pump ();
  GtkWidget *focus = gtk_window_get_focus (GTK_WINDOW (test.window));
  ASSERT_TRUE (focus);
  EXPECT_TRUE (gtk_widget_is_ancestor (focus, GTK_WIDGET (test.window->procedure_creation_page)));
  // By its mnemonic: the focus stays where it is.
  deletion_undo (test.window);
  pump ();
  EXPECT_NE (gtk_window_get_focus (GTK_WINDOW (test.window)), button);
}

// Neither what was typed nor what is typed there by a key that comes too late.
TEST (deletion, of_a_typed_text_holds_when_the_window_closes)
{
  TestWindow test;
  open_negotiation (&test);
  type_a_draft (test.window);
  press (test.window->procedures.procedures[0]->view, "delete_button");
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clause_revisions"), "0\n");
  close_window (&test);
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clause_revisions"), "0\n");
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clauses"), "1\n");
}

// Widgets borrow the records, which are freed at the end.
TEST (deletion, ends_with_the_widgets_of_what_was_deleted)
{
  TestWindow test;
  open_negotiation (&test);
  Procedure *procedure = test.window->procedures.procedures[0];
  press (procedure->view, "add_clause_button");
  Clause *clause = get_clause (test.window, 1);
  gpointer widgets[] = {clause->view, clause->chat_page, procedure->view, procedure->list_item};
  for (gpointer &widget : widgets)
    g_object_add_weak_pointer (G_OBJECT (widget), &widget);
  press (clause->view, "cancel_button");
  EXPECT_TRUE (widgets[0] && widgets[1]);
  // The next deletion ends that of the clause.
  press (procedure->view, "delete_button");
  EXPECT_FALSE (widgets[0] || widgets[1]);
  EXPECT_TRUE (widgets[2] && widgets[3]);
  deletion_end (test.window);
  EXPECT_FALSE (widgets[2] || widgets[3]);
}

// ---- What comes meanwhile ----

// Makes a record as the session does, but looks at nothing behind it: a held one lives on.
static void
receive_clause (AppWindow *window, WireName procedure, WireName clause)
{
  XMPPClause *record = alloc_record<XMPPClause> (window);
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  app_window_get_xmpp_clause (record);
}

static void
receive_revision (AppWindow *window, WireName procedure, WireName clause, s64 time,
                  const char *text)
{
  XMPPClauseRevision *record = alloc_record<XMPPClauseRevision> (window);
  record->text = alloc_string (text);
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  record->revision_author = alloc_string (BOB);
  record->revision_time = time;
  app_window_get_xmpp_clause_revision (record);
}

static void
receive_message (AppWindow *window, WireName procedure, WireName clause, s64 time, const char *text)
{
  XMPPClauseMessage *record = alloc_record<XMPPClauseMessage> (window);
  record->text = alloc_string (text);
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  record->message_author = alloc_string ("bob");
  record->message_time = time;
  app_window_get_xmpp_clause_message (record);
}

static void
receive_decision (AppWindow *window, WireName procedure, WireName clause, WireName revision,
                  DecisionStatus status)
{
  XMPPClauseRevisionDecisionSignal *record =
    alloc_record<XMPPClauseRevisionDecisionSignal> (window);
  record->status = status;
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  record->revision_author = alloc_string (revision.author);
  record->revision_time = revision.time;
  record->decision_author = alloc_string (BOB);
  record->decision_time = 4400;
  app_window_get_xmpp_clause_revision_decision_signal (record);
}

// Each needs the one before it: a revision its clause, a decision its revision; the last decision
// counts.
TEST (deletion, applies_what_came_meanwhile_in_its_order)
{
  TestWindow test;
  open_account (&test);
  AppWindow *window = test.window;
  const WireName NEW_CLAUSE = {BOB, 4000};
  const WireName NEW_REVISION = {BOB, 4100};
  app_window_remove_procedure (window, window->procedures.procedures[0]);
  receive_clause (window, RENT, NEW_CLAUSE);
  receive_revision (window, RENT, NEW_CLAUSE, 4100, "their clause");
  // To the other procedure, which has a clause of the same name: nothing of it is held.
  receive_revision (window, GARDEN, {ALICE, 2000}, 4150, "about the garden");
  receive_message (window, RENT, NEW_CLAUSE, 4200, "look at this");
  receive_decision (window, RENT, NEW_CLAUSE, NEW_REVISION, DECISION_AGREE);
  receive_decision (window, RENT, NEW_CLAUSE, NEW_REVISION, DECISION_DISAGREE);
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions"), "about the garden\n");
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clause_messages"), "0\n");
  EXPECT_EQ (g_slist_length (window->held_records), 5u);

  press (window, "undo_button");
  EXPECT_EQ (window->held_records, nullptr);
  EXPECT_EQ (list_titles (&test), "Rent\nGarden\n");
  EXPECT_EQ (query (&test, "SELECT p.title, r.text FROM clause_revisions r"
                           " JOIN clauses c ON c.db_id = r.clause_db_id"
                           " JOIN procedures p ON p.db_id = c.procedure_db_id ORDER BY r.time"),
             "Rent|first text\nRent|their clause\nGarden|about the garden\n");
  EXPECT_EQ (query (&test, "SELECT author, text FROM clause_messages"), "bob|look at this\n");
  EXPECT_EQ (query (&test, "SELECT author, status FROM clause_revision_decisions"),
             BOB "|DISAGREE\n");
  Procedure *procedure = window->procedures.procedures[0];
  ASSERT_EQ (procedure->clauses_count, 2u);
  EXPECT_EQ (get_text (procedure->clauses[1]->view, "text_view"), "their clause");
  EXPECT_EQ (get_text (procedure->clauses[1]->view, "decision_status_label"),
             "contractor disagrees");
}

TEST (deletion, drops_what_came_meanwhile_at_its_end)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  receive_clause (test.window, RENT, {BOB, 4000});
  EXPECT_EQ (g_slist_length (test.window->held_records), 1u);
  deletion_end (test.window);
  EXPECT_EQ (test.window->held_records, nullptr);
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clauses"), "1\n");
}

TEST (deletion, of_another_procedure_holds_nothing)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  // The same second, another initiator; the same initiator, another second.
  receive_clause (test.window, {BOB, 1000}, {BOB, 4000});
  receive_clause (test.window, {ALICE, 1001}, {BOB, 4000});
  EXPECT_EQ (test.window->held_records, nullptr);
}

// As of one that was in doubt and was sent again: the other row stays, without the clause.
TEST (deletion, of_a_procedure_that_came_twice_holds_what_the_other_row_has_no_place_for)
{
  TestWindow test;
  EXPECT_EQ (sqlite3_exec (test.db, ROWS, NULL, NULL, NULL), SQLITE_OK);
  EXPECT_EQ (
    sqlite3_exec (test.db,
                  "INSERT INTO procedures (account_db_id, time, initiator, contractor, title)"
                  " VALUES (1, 1000, '" ALICE "', '" BOB "', 'Rent');",
                  NULL, NULL, NULL),
    SQLITE_OK);
  log_in (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  const WireName CLAUSE = {ALICE, 2000};
  receive_revision (test.window, RENT, CLAUSE, 4100, "their text");
  receive_message (test.window, RENT, CLAUSE, 4200, "look at this");
  receive_decision (test.window, RENT, CLAUSE, {ALICE, 3000}, DECISION_AGREE);
  // The other row takes this one, with what goes to it.
  receive_clause (test.window, RENT, {BOB, 4000});
  receive_revision (test.window, RENT, {BOB, 4000}, 4300, "their clause");
  EXPECT_EQ (g_slist_length (test.window->held_records), 3u);
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions"), "their clause\n");

  press (test.window, "undo_button");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions ORDER BY time"),
             "first text\ntheir text\ntheir clause\n");
  EXPECT_EQ (query (&test, "SELECT author, text FROM clause_messages"), "bob|look at this\n");
  EXPECT_EQ (query (&test, "SELECT author, status FROM clause_revision_decisions"), BOB "|AGREE\n");
}

// ---- The outbox ----

static std::string
owed (TestWindow *test)
{
  bool has_table =
    query (test, "SELECT count(*) FROM sqlite_master WHERE name = 'outbox'") == "1\n";
  return has_table ? query (test, "SELECT kind FROM outbox ORDER BY sequence") : "";
}

static Procedure *
begin_procedure (Session *session, const char *title)
{
  app_window_create_new_procedure (session->window, to_string (title), to_string (BOB));
  return session->window->procedures.procedures[session->window->procedures.count - 1];
}

static Clause *
commit_clause (Procedure *procedure, const char *text)
{
  press (procedure->view, "add_clause_button");
  Clause *clause = procedure->clauses[procedure->clauses_count - 1];
  type (clause->view, "text_view", text);
  press (clause->view, "commit_button");
  return clause;
}

// The elements in the order in which they came to the server.
static std::string
list_sent (const std::string &received)
{
  std::string sent;
  for (size_t at = received.find ("<x-"); at != std::string::npos;
       at = received.find ("<x-", at + 1)) {
    sent += received.substr (at + 1, received.find (' ', at) - at);
  }
  return sent;
}

// The store of a closed window in a new one, as after a restart.
static void
restart_from (Session *next, Session *last)
{
  last->close ();
  sqlite3_backup *backup = sqlite3_backup_init (next->test.db, "main", last->test.db, "main");
  EXPECT_EQ (sqlite3_backup_step (backup, -1), SQLITE_DONE);
  EXPECT_EQ (sqlite3_backup_finish (backup), SQLITE_OK);
}

static bool
is_nothing_owed (void *data)
{
  return owed (&((Session *) data)->test).empty ();
}

static bool
is_marked (GtkWidget *widget)
{
  return gtk_style_context_has_class (gtk_widget_get_style_context (widget), "not-sent");
}

TEST (deletion, takes_what_waits_out_of_the_outbox_and_an_undo_brings_it_back)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  Procedure *procedure = begin_procedure (&first, "Lease");
  Clause *clause = commit_clause (procedure, "of a barge");
  press (clause->view, "agree_button");
  type (clause->chat_page, "chat_entry", "why?");
  press (clause->chat_page, "send_button");
  begin_procedure (&first, "Mooring");
  const std::string ALL = "procedure\nclause\nrevision\ndecision\nmessage\nprocedure\n";
  EXPECT_EQ (owed (&first.test), ALL);
  app_window_remove_procedure (first.window, procedure);
  EXPECT_EQ (owed (&first.test), "procedure\n");
  press (first.window, "undo_button");
  // Each at its place, ahead of what is younger.
  EXPECT_EQ (owed (&first.test), ALL);
  // Its widgets say so.
  procedure = first.window->procedures.procedures[0];
  EXPECT_TRUE (is_marked (GTK_WIDGET (procedure->list_item)));
  EXPECT_TRUE (is_marked (GTK_WIDGET (procedure->clauses[0]->view)));
  EXPECT_TRUE (is_marked (find_widget (procedure->clauses[0]->view, "agree_button")));
  first.finish ();

  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until ("Mooring</x-procedure></body></message>"), server_wait ()},
                {});
  EXPECT_TRUE (pump_until (is_nothing_owed, &second));
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received),
             "x-procedure x-clause x-revision x-clause-decision x-clause-message x-procedure ");
}

// The line in the chat counts once, also after two deletions.
TEST (deletion, undone_leaves_the_marks_to_the_delivery)
{
  Session session;
  session.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, session.window));
  Procedure *procedure = begin_procedure (&session, "Lease");
  Clause *clause = commit_clause (procedure, "of a barge");
  type (clause->chat_page, "chat_entry", "why?");
  press (clause->chat_page, "send_button");
  for (int i = 0; i < 2; i++) {
    app_window_remove_procedure (session.window, procedure);
    press (session.window, "undo_button");
  }
  GtkWidget *marked[] = {GTK_WIDGET (procedure->list_item), GTK_WIDGET (clause->view),
                         find_widget (clause->view, "revision_status_label"),
                         find_widget (clause->chat_page, "chat_text_view")};
  for (GtkWidget *widget : marked)
    EXPECT_TRUE (is_marked (widget));
  Outbox *outbox = &session.window->outbox;
  for (u32 i = 0; i < outbox->count; i++)
    outbox_note_sent (outbox, &outbox->entries[i], 0, 0, 1);
  delivery_update (session.window);
  for (GtkWidget *widget : marked)
    EXPECT_FALSE (is_marked (widget));
  session.finish ();
}

TEST (deletion, without_an_undo_sends_nothing_of_what_waited)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  Procedure *procedure = begin_procedure (&first, "Lease");
  commit_clause (procedure, "of a barge");
  begin_procedure (&first, "Mooring");
  app_window_remove_procedure (first.window, procedure);
  first.finish ();

  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until ("</x-procedure></body></message>"), server_wait ()}, {});
  EXPECT_TRUE (pump_until (is_nothing_owed, &second));
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received), "x-procedure ");
}
