// The comparison of two revisions inside of a clause's view; test_clause_view.cpp has the rest.

#include "clause_view.h"

#include <stdlib.h>
#include <time.h>

#include <random>
#include <vector>

#include "clause_view_parts.h"
#include "db.h"
#include "fake_session.h"
#include "morvane.h"
#include "procedure_view.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"

// ---- What the tests begin with ----

// A clause of Alice's whose revisions have these texts, written by her and Bob in turn from second
// 3000 on, in a window that shows the last.
struct Comparison {
  TestWindow test;
  Clause *clause;

  explicit Comparison (std::initializer_list<std::string> texts, const char *draft = NULL)
  {
    run ("INSERT INTO accounts VALUES (1, '" ALICE "');"
         "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
         " VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Rent');"
         "INSERT INTO clauses VALUES (1, 1, 2000, '" ALICE "', 1);");
    int index = 0;
    for (const std::string &text : texts) {
      insert (3000 + index, index % 2 ? BOB : ALICE, "COMMITTED", text);
      index++;
    }
    if (draft)
      insert (9000, ALICE, "DRAFT", draft);
    log_in (&test);
    Procedure *procedure = test.window->procedures.procedures[0];
    gtk_widget_activate (GTK_WIDGET (procedure->list_item));
    pump ();
    clause = procedure->clauses[0];
  }

  void run (const std::string &sql)
  {
    EXPECT_EQ (sqlite3_exec (test.db, sql.c_str (), NULL, NULL, NULL), SQLITE_OK) << sql;
  }

  void insert (int time, const char *author, const char *status, const std::string &text)
  {
    char *sql = sqlite3_mprintf ("INSERT INTO clause_revisions (clause_db_id, time, author, status,"
                                 " text) VALUES (1, %d, %Q, %Q, %Q);",
                                 time, author, status, text.c_str ());
    run (sql);
    sqlite3_free (sql);
  }

  std::string drafts ()
  {
    return query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'");
  }
};

static GtkTextView *
get_text_view (Clause *clause)
{
  return GTK_TEXT_VIEW (find_widget (clause->view, "text_view"));
}

static GtkTextBuffer *
get_buffer (Clause *clause)
{
  return gtk_text_view_get_buffer (get_text_view (clause));
}

// The text with each coloured run in brackets: [+added+] and [-removed-].
static std::string
show_runs (Clause *clause)
{
  GtkTextBuffer *buffer = get_buffer (clause);
  std::string runs;
  std::string open;
  GtkTextIter iter;
  gtk_text_buffer_get_start_iter (buffer, &iter);
  for (;;) {
    std::string sign;
    GSList *tags = gtk_text_iter_get_tags (&iter);
    if (tags) {
      GdkRGBA *colour = NULL;
      g_object_get (tags->data, "background-rgba", &colour, NULL);
      GdkRGBA added;
      gdk_rgba_parse (&added, "#085");
      sign = gdk_rgba_equal (colour, &added) ? "+" : "-";
      gdk_rgba_free (colour);
      g_slist_free (tags);
    }
    if (sign != open) {
      runs += open.empty () ? "" : open + "]";
      runs += sign.empty () ? "" : "[" + sign;
      open = sign;
    }
    if (gtk_text_iter_is_end (&iter))
      return runs;
    char bytes[6];
    runs.append (bytes, g_unichar_to_utf8 (gtk_text_iter_get_char (&iter), bytes));
    gtk_text_iter_forward_char (&iter);
  }
}

static GtkListBox *
get_list (Clause *clause)
{
  GtkMenuButton *button =
    GTK_MENU_BUTTON (find_widget (clause->view, "revision_select_menu_button"));
  GtkWidget *scroller = gtk_bin_get_child (GTK_BIN (gtk_menu_button_get_popover (button)));
  return GTK_LIST_BOX (gtk_bin_get_child (GTK_BIN (gtk_bin_get_child (GTK_BIN (scroller)))));
}

static GtkWidget *
find_menu_item (GtkWidget *menu, const char *label)
{
  GtkWidget *found = NULL;
  GList *items = gtk_container_get_children (GTK_CONTAINER (menu));
  for (GList *link = items; link; link = link->next) {
    const char *text =
      GTK_IS_MENU_ITEM (link->data) ? gtk_menu_item_get_label (GTK_MENU_ITEM (link->data)) : NULL;
    if (text && !strcmp (text, label))
      found = GTK_WIDGET (link->data);
  }
  g_list_free (items);
  return found;
}

// The menu that the text view would show now.
struct TextMenu {
  GtkWidget *menu = GTK_WIDGET (g_object_ref_sink (gtk_menu_new ()));
  explicit TextMenu (Clause *clause)
  {
    g_signal_emit_by_name (get_text_view (clause), "populate-popup", menu);
  }
  ~TextMenu ()
  {
    gtk_widget_destroy (menu);
    g_object_unref (menu);
  }
};

// "-" where the text's menu has no such entry, "off" where it is insensitive.
static std::string
get_menu_state (Clause *clause, const char *label)
{
  TextMenu menu (clause);
  GtkWidget *item = find_menu_item (menu.menu, label);
  return !item ? "-" : gtk_widget_get_sensitive (item) ? "on" : "off";
}

static void
choose (Clause *clause, const char *label)
{
  TextMenu menu (clause);
  GtkWidget *item = find_menu_item (menu.menu, label);
  ASSERT_TRUE (item) << label;
  ASSERT_TRUE (gtk_widget_get_sensitive (item)) << label;
  gtk_menu_item_activate (GTK_MENU_ITEM (item));
  pump ();
}

// Opens the popover, puts the focus on a row and asks for its menu as the Menu key does.
static void
compare_row (TestWindow *test, Clause *clause, int index)
{
  GtkMenuButton *button =
    GTK_MENU_BUTTON (find_widget (clause->view, "revision_select_menu_button"));
  gtk_button_clicked (GTK_BUTTON (button));
  pump ();
  GtkListBoxRow *row = gtk_list_box_get_row_at_index (get_list (clause), index);
  ASSERT_TRUE (row);
  gtk_widget_grab_focus (GTK_WIDGET (row));
  press_key (test, GDK_KEY_Menu);
  pump ();
  GList *menus = gtk_menu_get_for_attach_widget (GTK_WIDGET (row));
  ASSERT_TRUE (menus);
  GtkWidget *item = find_menu_item (GTK_WIDGET (menus->data), "Compare with the revision shown");
  ASSERT_TRUE (item);
  gtk_menu_item_activate (GTK_MENU_ITEM (item));
  gtk_menu_shell_deactivate (GTK_MENU_SHELL (menus->data));
  pump ();
}

static void
activate_row (Clause *clause, int index)
{
  gtk_widget_activate (GTK_WIDGET (gtk_list_box_get_row_at_index (get_list (clause), index)));
  pump ();
}

static bool
are_tools_shown (Clause *clause)
{
  return gtk_widget_get_visible (find_widget (clause->view, "diff_overlay_tools"));
}

// Moves the pointer onto a character of the text.
static void
hover (Clause *clause, int offset)
{
  GtkTextView *text_view = get_text_view (clause);
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (get_buffer (clause), &iter, offset);
  GdkRectangle location;
  gtk_text_view_get_iter_location (text_view, &iter, &location);
  int border_width = (int) gtk_container_get_border_width (GTK_CONTAINER (text_view));
  int x;
  int y;
  gtk_text_view_buffer_to_window_coords (text_view, GTK_TEXT_WINDOW_WIDGET, location.x + 1,
                                         location.y + 1, &x, &y);
  GdkEvent *event = gdk_event_new (GDK_MOTION_NOTIFY);
  event->motion.window =
    GDK_WINDOW (g_object_ref (gtk_text_view_get_window (text_view, GTK_TEXT_WINDOW_TEXT)));
  // The widget's coordinates begin at its border, which the handler adds again.
  event->motion.x = x - border_width;
  event->motion.y = y - border_width;
  gboolean is_handled = TRUE;
  g_signal_emit_by_name (text_view, "motion-notify-event", event, &is_handled);
  EXPECT_FALSE (is_handled);
  gdk_event_free (event);
  pump ();
}

// Moves the cursor, as the arrow keys do.
static void
move_cursor (Clause *clause, int offset)
{
  gtk_widget_grab_focus (GTK_WIDGET (get_text_view (clause)));
  pump ();
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (get_buffer (clause), &iter, offset);
  gtk_text_buffer_place_cursor (get_buffer (clause), &iter);
  pump ();
}

// Decides on the change at `offset`: '+' keeps it, '-' drops it.
static void
decide (Clause *clause, int offset, char sign)
{
  hover (clause, offset);
  ASSERT_TRUE (are_tools_shown (clause));
  press (clause->view, sign == '+' ? "diff_add_button" : "diff_del_button");
}

static const char WITH_PREVIOUS[] = "Compare with the previous revision";
static const char TAKE_NEWER[] = "Take all of the newer text";
static const char TAKE_OLDER[] = "Take all of the older text";
static const char USE_AS_DRAFT[] = "Use this text as draft";
static const char LEAVE[] = "Leave the comparison";

static bool
is_over (Clause *clause)
{
  return gtk_text_tag_table_get_size (gtk_text_buffer_get_tag_table (get_buffer (clause))) == 0 &&
         gtk_text_view_get_editable (get_text_view (clause)) && !are_tools_shown (clause) &&
         get_menu_state (clause, LEAVE) == "-";
}

// ---- How it is reached ----

TEST (clause_view_comparison, previous_revision_from_the_menu_of_the_text)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_EQ (show_runs (comparison.clause), "a [-b-][+c+]");
}

TEST (clause_view_comparison, first_revision_has_none_before_it)
{
  Comparison comparison ({"a b"});
  EXPECT_EQ (get_menu_state (comparison.clause, WITH_PREVIOUS), "off");
}

// On a touch screen GTK asks for a popover of buttons instead of a menu.
TEST (clause_view_comparison, popover_for_touch_gets_no_menu_items)
{
  Comparison comparison ({"one", "two"});
  GtkWidget *box = GTK_WIDGET (g_object_ref_sink (gtk_box_new (GTK_ORIENTATION_HORIZONTAL, 0)));
  g_signal_emit_by_name (get_text_view (comparison.clause), "populate-popup", box);
  EXPECT_EQ (gtk_container_get_children (GTK_CONTAINER (box)), nullptr);
  g_object_unref (box);
}

TEST (clause_view_comparison, menu_key_without_a_row_that_has_the_focus_opens_nothing)
{
  Comparison comparison ({"one", "two"});
  gboolean is_handled = TRUE;
  g_signal_emit_by_name (get_list (comparison.clause), "popup-menu", &is_handled);
  EXPECT_FALSE (is_handled);
}

static gboolean
count_asked (GtkWidget *, int *count)
{
  ++*count;
  return FALSE;
}

// GTK asks the next handler, and the widgets around the list, where nobody has dealt with the key.
TEST (clause_view_comparison, menu_key_is_dealt_with_by_the_row_that_has_the_focus)
{
  Comparison comparison ({"one", "two"});
  int count = 0;
  g_signal_connect (get_list (comparison.clause), "popup-menu", G_CALLBACK (count_asked), &count);
  compare_row (&comparison.test, comparison.clause, 0);
  EXPECT_EQ (count, 0);
}

TEST (clause_view_comparison, text_that_is_scrolled_sideways_returns)
{
  Comparison comparison ({"one"});
  GtkAdjustment *adjustment =
    gtk_scrollable_get_hadjustment (GTK_SCROLLABLE (get_text_view (comparison.clause)));
  gtk_adjustment_configure (adjustment, 5, 0, 100, 1, 1, 10);
  EXPECT_EQ (gtk_adjustment_get_value (adjustment), 0);
}

TEST (clause_view_comparison, draft_offers_no_previous_revision)
{
  Comparison comparison ({"a b", "a c"});
  type (comparison.clause->view, "text_view", "typed");
  EXPECT_EQ (get_menu_state (comparison.clause, WITH_PREVIOUS), "-");
}

TEST (clause_view_comparison, row_menu_takes_the_revision_shown_as_the_other_end)
{
  Comparison comparison ({"a b", "x", "a c"});
  compare_row (&comparison.test, comparison.clause, 0);
  EXPECT_EQ (show_runs (comparison.clause), "a [-b-][+c+]");
}

TEST (clause_view_comparison, older_and_newer_go_by_the_order_of_the_revisions)
{
  Comparison comparison ({"a b", "a c"});
  activate_row (comparison.clause, 0);
  compare_row (&comparison.test, comparison.clause, 1);
  EXPECT_EQ (show_runs (comparison.clause), "a [-b-][+c+]");
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"),
             ALICE ":3000 > " BOB ":3001");
}

TEST (clause_view_comparison, draft_is_the_newest)
{
  Comparison comparison ({"a b", "a c"}, "a d");
  compare_row (&comparison.test, comparison.clause, 2);
  EXPECT_EQ (show_runs (comparison.clause), "a [-c-][+d+]");
}

TEST (clause_view_comparison, unsaved_typing_is_kept_as_the_draft_and_compared)
{
  Comparison comparison ({"a b", "a c"});
  type (comparison.clause->view, "text_view", "a e");
  compare_row (&comparison.test, comparison.clause, 0);
  EXPECT_EQ (show_runs (comparison.clause), "a [-b-][+e+]");
  EXPECT_EQ (comparison.drafts (), "a e\n");
}

TEST (clause_view_comparison, list_says_how_it_is_reached)
{
  Comparison comparison ({"a"});
  char *tooltip = gtk_widget_get_tooltip_text (GTK_WIDGET (get_list (comparison.clause)));
  EXPECT_STREQ (tooltip, "Shows a revision; its menu compares it with the one shown");
  g_free (tooltip);
}

// ---- What is refused ----

static void
expect_refusal (Comparison *comparison, int row, const std::string &text)
{
  std::string before = show_runs (comparison->clause);
  testing::internal::CaptureStdout ();
  compare_row (&comparison->test, comparison->clause, row);
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_NE (console.find ("Info: " + text + "\n"), std::string::npos) << console;
  EXPECT_EQ (get_text (comparison->clause->view, "revision_status_label"), text);
  EXPECT_EQ (show_runs (comparison->clause), before);
  EXPECT_TRUE (is_over (comparison->clause));
}

// What ends the showing of a refusal; NULL while none is shown.
static GSource *
find_refusal_source (Clause *clause)
{
  return g_main_context_find_source_by_user_data (NULL, &clause->view->status);
}

TEST (clause_view_comparison, refusal_gives_way_after_a_while)
{
  Comparison comparison ({"a", "b"});
  expect_refusal (&comparison, 1, "A revision can't be compared with itself.");
  expect_refusal (&comparison, 1, "A revision can't be compared with itself.");
  GSource *source = find_refusal_source (comparison.clause);
  ASSERT_TRUE (source);
  s64 left = g_source_get_ready_time (source) - g_get_monotonic_time ();
  EXPECT_GT (left, 0);
  EXPECT_LE (left, 10 * G_USEC_PER_SEC);
  g_source_set_ready_time (source, 0);
  pump ();
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"), BOB ":3001");
  EXPECT_FALSE (find_refusal_source (comparison.clause));
}

TEST (clause_view_comparison, refusal_in_a_comparison_gives_way_to_its_names)
{
  Comparison comparison ({"a", "b"});
  choose (comparison.clause, WITH_PREVIOUS);
  compare_row (&comparison.test, comparison.clause, 1);
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"),
             "A revision can't be compared with itself.");
  EXPECT_EQ (show_runs (comparison.clause), "[-a-][+b+]");
  g_source_set_ready_time (find_refusal_source (comparison.clause), 0);
  pump ();
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"),
             ALICE ":3000 > " BOB ":3001");
}

TEST (clause_view_comparison, refusal_ends_when_something_else_is_shown)
{
  Comparison comparison ({"a", "b"}, "c");
  const std::string shown[] = {ALICE ":3000", BOB ":3001", "draft"};
  for (int i = 0; i < 3; i++) {
    compare_row (&comparison.test, comparison.clause, i ? i - 1 : 1);
    ASSERT_TRUE (find_refusal_source (comparison.clause));
    activate_row (comparison.clause, i);
    EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"), shown[i]);
    EXPECT_FALSE (find_refusal_source (comparison.clause));
  }
}

TEST (clause_view_comparison, refusal_may_end_with_the_window)
{
  Comparison comparison ({"a", "b"});
  compare_row (&comparison.test, comparison.clause, 1);
  GSource *source = g_source_ref (find_refusal_source (comparison.clause));
  close_window (&comparison.test);
  EXPECT_TRUE (g_source_is_destroyed (source));
  g_source_unref (source);
}

TEST (clause_view_comparison, with_itself_is_refused)
{
  Comparison comparison ({"a", "b"});
  expect_refusal (&comparison, 1, "A revision can't be compared with itself.");
}

TEST (clause_view_comparison, with_an_empty_text_is_refused)
{
  Comparison comparison ({"", "b"});
  expect_refusal (&comparison, 0, "An empty text can't be compared.");
}

static std::string
repeat (const char *word, int count)
{
  std::string text;
  for (int i = 0; i < count; i++)
    text += word;
  return text;
}

TEST (clause_view_comparison, of_more_than_25_million_cells_is_refused)
{
  // 5,000 words make 5,001 rows of as many cells.
  Comparison comparison ({repeat ("a ", 5000), repeat ("a ", 5000)});
  expect_refusal (&comparison, 0, "These texts are too long to be compared.");
}

TEST (clause_view_comparison, of_25_million_cells_is_shown)
{
  Comparison comparison ({repeat ("a ", 4999), repeat ("a ", 4998) + "b"});
  compare_row (&comparison.test, comparison.clause, 0);
  EXPECT_EQ (show_runs (comparison.clause), "[-a -]" + repeat ("a ", 4998) + "[+b+]");
}

// ---- What is shown ----

TEST (clause_view_comparison, line_break_that_came_has_a_return_symbol)
{
  Comparison comparison ({"a b", "a\nb"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_EQ (show_runs (comparison.clause), "[-a -][+a\u23ce\n+]b");
}

TEST (clause_view_comparison, line_break_that_went_has_a_return_symbol)
{
  Comparison comparison ({"a\nb", "a b"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_EQ (show_runs (comparison.clause), "[-a\u23ce\n-][+a +]b");
}

TEST (clause_view_comparison, line_break_of_both_is_shown_as_it_is)
{
  Comparison comparison ({"a\nb", "a\nc"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_EQ (show_runs (comparison.clause), "a\n[-b-][+c+]");
}

TEST (clause_view_comparison, decision_buttons_stay_and_edit_buttons_are_insensitive)
{
  Comparison comparison ({"a b", "a c"});
  press (comparison.clause->view, "agree_button");
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_FALSE (is_sensitive (comparison.clause->view, "agree_button"));
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "disagree_button"));
  EXPECT_FALSE (is_sensitive (comparison.clause->view, "commit_button"));
  EXPECT_FALSE (is_sensitive (comparison.clause->view, "cancel_button"));
}

static bool
is_marked_unsent (Clause *clause, const char *name)
{
  GtkWidget *widget = find_widget (clause->view, name);
  return gtk_style_context_has_class (gtk_widget_get_style_context (widget), "not-sent");
}

// A comparison is nothing that goes out.
TEST (clause_view_comparison, is_not_marked_as_unsent)
{
  Comparison comparison ({"a b", "a c", "a d"});
  Clause *clause = comparison.clause;
  ClauseRevision *shown = clause->revisions[2];
  outbox_add (&comparison.test.window->outbox, OUTBOX_REVISION, shown->db_id);
  clause_view_show_unsent (clause->view, shown);
  ASSERT_TRUE (is_marked_unsent (clause, "revision_status_label"));
  choose (clause, WITH_PREVIOUS);
  EXPECT_FALSE (is_marked_unsent (clause, "revision_status_label"));
  clause_view_show_unsent (clause->view, shown);
  EXPECT_FALSE (is_marked_unsent (clause, "revision_status_label"));
  choose (clause, LEAVE);
  EXPECT_TRUE (is_marked_unsent (clause, "revision_status_label"));
}

// What stands beside a comparison with the draft says nothing of a revision that was shown before.
TEST (clause_view_comparison, with_the_draft_is_left_alone_by_decisions)
{
  Comparison comparison ({"a b", "a c"}, "a d");
  Clause *clause = comparison.clause;
  ClauseRevision *shown = clause->revisions[1];
  press (clause->view, "agree_button");
  activate_row (clause, 2);
  compare_row (&comparison.test, clause, 0);
  ASSERT_EQ (show_runs (clause), "a [-b-][+d+]");
  std::string before = get_text (clause->view, "decision_status_label");
  deliver_decision (comparison.test.window, {ALICE, 1000}, {ALICE, 2000}, {BOB, 3001}, {BOB, 4000},
                    DECISION_DISAGREE);
  EXPECT_EQ (get_text (clause->view, "decision_status_label"), before);
  Outbox *outbox = &comparison.test.window->outbox;
  outbox_add (outbox, OUTBOX_REVISION, shown->db_id);
  outbox_add (outbox, OUTBOX_DECISION, shown->decisions[0]->db_id);
  clause_view_show_unsent (clause->view, shown);
  EXPECT_FALSE (is_marked_unsent (clause, "revision_status_label"));
  EXPECT_FALSE (is_marked_unsent (clause, "agree_button"));
}

TEST (clause_view_comparison, text_is_not_editable_while_a_change_is_undecided)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_FALSE (gtk_text_view_get_editable (get_text_view (comparison.clause)));
  EXPECT_EQ (get_menu_state (comparison.clause, USE_AS_DRAFT), "off");
  EXPECT_EQ (get_menu_state (comparison.clause, TAKE_NEWER), "on");
  EXPECT_EQ (get_menu_state (comparison.clause, TAKE_OLDER), "on");
}

TEST (clause_view_comparison, starts_no_draft)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_EQ (comparison.drafts (), "");
  EXPECT_TRUE (comparison.clause->draft == NULL);
}

TEST (clause_view_comparison, of_equal_texts_has_nothing_to_decide)
{
  Comparison comparison ({"a b", "a b"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_EQ (show_runs (comparison.clause), "a b");
  EXPECT_TRUE (gtk_text_view_get_editable (get_text_view (comparison.clause)));
}

// ---- The tools ----

TEST (clause_view_comparison, tools_stand_under_a_change_only)
{
  Comparison comparison ({"common b", "common c"});
  choose (comparison.clause, WITH_PREVIOUS);
  EXPECT_FALSE (are_tools_shown (comparison.clause));
  hover (comparison.clause, 7);
  EXPECT_TRUE (are_tools_shown (comparison.clause));
  GtkWidget *tools = find_widget (comparison.clause->view, "diff_overlay_tools");
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (get_buffer (comparison.clause), &iter, 7);
  GdkRectangle location;
  gtk_text_view_get_iter_location (get_text_view (comparison.clause), &iter, &location);
  EXPECT_EQ (gtk_widget_get_margin_top (tools), location.y + location.height + 12);
  EXPECT_GE (gtk_widget_get_margin_start (tools), 0);
  hover (comparison.clause, 1);
  EXPECT_FALSE (are_tools_shown (comparison.clause));
}

TEST (clause_view_comparison, tools_follow_the_cursor_too)
{
  Comparison comparison ({"common b", "common c"});
  choose (comparison.clause, WITH_PREVIOUS);
  move_cursor (comparison.clause, 7);
  EXPECT_TRUE (are_tools_shown (comparison.clause));
  press (comparison.clause->view, "diff_add_button");
  EXPECT_EQ (show_runs (comparison.clause), "common b[+c+]");
  move_cursor (comparison.clause, 2);
  EXPECT_FALSE (are_tools_shown (comparison.clause));
}

TEST (clause_view_comparison, tab_leads_from_a_change_to_its_tools)
{
  Comparison comparison ({"common b\n1\n2\n3\n4\n5", "common c\n1\n2\n3\n4\n5"});
  choose (comparison.clause, WITH_PREVIOUS);
  move_cursor (comparison.clause, 7);
  press_key (&comparison.test, GDK_KEY_Tab);
  EXPECT_TRUE (gtk_widget_is_focus (find_widget (comparison.clause->view, "diff_add_button")));
}

TEST (clause_view_comparison, text_makes_room_for_the_tools_below_its_last_line)
{
  Comparison comparison ({"a b", "a c"});
  GtkTextView *text_view = get_text_view (comparison.clause);
  choose (comparison.clause, WITH_PREVIOUS);
  hover (comparison.clause, 2);
  GtkWidget *tools = find_widget (comparison.clause->view, "diff_overlay_tools");
  int height;
  gtk_widget_get_preferred_height (tools, NULL, &height);
  EXPECT_EQ (gtk_text_view_get_bottom_margin (text_view),
             height - gtk_widget_get_margin_top (tools));
  EXPECT_GT (gtk_text_view_get_bottom_margin (text_view), 16);
  choose (comparison.clause, LEAVE);
  EXPECT_EQ (gtk_text_view_get_bottom_margin (text_view), 0);
}

TEST (clause_view_comparison, cursor_shows_no_tools_without_a_comparison)
{
  Comparison comparison ({"a b"});
  move_cursor (comparison.clause, 1);
  EXPECT_FALSE (are_tools_shown (comparison.clause));
}

static std::string
get_tooltip (Clause *clause, const char *name)
{
  char *tooltip = gtk_widget_get_tooltip_text (find_widget (clause->view, name));
  std::string text = tooltip ? tooltip : "";
  g_free (tooltip);
  return text;
}

static std::string
get_accessible_name (Clause *clause, const char *name)
{
  const char *text =
    atk_object_get_name (gtk_widget_get_accessible (find_widget (clause->view, name)));
  return text ? text : "";
}

static void
expect_tools (Clause *clause, const std::string &words)
{
  EXPECT_EQ (get_tooltip (clause, "diff_add_button"), "Keep these words of " + words);
  EXPECT_EQ (get_tooltip (clause, "diff_del_button"), "Remove these words of " + words);
  EXPECT_EQ (get_accessible_name (clause, "diff_add_button"), "Keep these words of " + words);
  EXPECT_EQ (get_accessible_name (clause, "diff_del_button"), "Remove these words of " + words);
}

TEST (clause_view_comparison, tools_name_the_words_and_whose_they_are)
{
  std::string forty = "1234567890123456789012345678901234567\u00e990";
  Comparison comparison ({"a b\nc " + forty, "a \n " + forty + "!"});
  choose (comparison.clause, WITH_PREVIOUS);
  std::string runs = "a [-b\u23ce\nc " + forty + "-][+\n " + forty + "!+]";
  ASSERT_EQ (show_runs (comparison.clause), runs);
  hover (comparison.clause, 2);
  expect_tools (comparison.clause,
                "the older text: \u201cb\u23cec " + forty.substr (0, 35) + "\u2026\u201d");
  hover (comparison.clause, 3);
  expect_tools (comparison.clause,
                "the older text: \u201cb\u23cec " + forty.substr (0, 35) + "\u2026\u201d");
  move_cursor (comparison.clause, 50);
  expect_tools (comparison.clause,
                "the newer text: \u201c\u23ce " + forty.substr (0, 39) + "\u2026\u201d");
}

TEST (clause_view_comparison, tools_tell_forty_characters_whole)
{
  std::string forty = repeat ("\u00e9", 40);
  Comparison comparison ({"x", forty});
  choose (comparison.clause, WITH_PREVIOUS);
  hover (comparison.clause, 1);
  expect_tools (comparison.clause, "the newer text: \u201c" + forty + "\u201d");
}

static void
leave (Clause *clause, const char *name, int x_root, int y_root)
{
  GtkWidget *widget = find_widget (clause->view, name);
  GdkEvent *event = gdk_event_new (GDK_LEAVE_NOTIFY);
  event->crossing.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (widget)));
  event->crossing.x_root = x_root;
  event->crossing.y_root = y_root;
  gboolean is_handled = TRUE;
  g_signal_emit_by_name (widget, "leave-notify-event", event, &is_handled);
  gdk_event_free (event);
  pump ();
}

// Where a widget lies on the screen.
static GdkRectangle
get_place (GtkWidget *widget)
{
  GdkRectangle place;
  gtk_widget_get_allocation (widget, &place);
  GtkWidget *toplevel = gtk_widget_get_toplevel (widget);
  int x;
  int y;
  gtk_widget_translate_coordinates (widget, toplevel, 0, 0, &place.x, &place.y);
  gdk_window_get_origin (gtk_widget_get_window (toplevel), &x, &y);
  place.x += x;
  place.y += y;
  return place;
}

static bool
are_tools_laid_out (void *data)
{
  GtkWidget *tools = find_widget (((Clause *) data)->view, "diff_overlay_tools");
  GtkWidget *overlay = gtk_widget_get_parent (tools);
  int width = gtk_widget_get_allocated_width (tools);
  int left;
  int top;
  gtk_widget_translate_coordinates (tools, overlay, 0, 0, &left, &top);
  if (gtk_widget_get_direction (tools) == GTK_TEXT_DIR_RTL)
    left = gtk_widget_get_allocated_width (overlay) - left - width;
  return width > 1 && left == gtk_widget_get_margin_start (tools) &&
         top == gtk_widget_get_margin_top (tools);
}

// A text that is not laid out yet has all its characters in one place.
static bool
is_laid_out (void *data)
{
  Clause *clause = (Clause *) data;
  GtkTextIter iter;
  gtk_text_buffer_get_end_iter (get_buffer (clause), &iter);
  GdkRectangle location;
  gtk_text_view_get_iter_location (get_text_view (clause), &iter, &location);
  return location.x > 0;
}

// Shows the tools at a character of the text. When they are shown for the first time, they come to
// their place with the second motion.
static void
place_tools (Clause *clause, int offset)
{
  ASSERT_TRUE (pump_until (is_laid_out, clause));
  for (int i = 0; i < 2; i++) {
    hover (clause, offset);
    ASSERT_TRUE (are_tools_shown (clause));
    ASSERT_TRUE (pump_until (are_tools_laid_out, clause));
  }
}

TEST (clause_view_comparison, tools_go_when_the_pointer_leaves_text_and_tools)
{
  Comparison comparison ({"common b\n1\n2\n3", "common c\n1\n2\n3"});
  Clause *clause = comparison.clause;
  choose (clause, WITH_PREVIOUS);
  for (const char *name : {"text_view", "diff_add_button", "diff_del_button"}) {
    place_tools (clause, 7);
    GdkRectangle text = get_place (GTK_WIDGET (get_text_view (clause)));
    GdkRectangle tools = get_place (find_widget (clause->view, "diff_overlay_tools"));
    leave (clause, name, tools.x + 1, tools.y + 1);
    EXPECT_TRUE (are_tools_shown (clause)) << name;
    leave (clause, name, tools.x + tools.width - 1, tools.y + tools.height - 1);
    EXPECT_TRUE (are_tools_shown (clause)) << name;
    leave (clause, name, text.x + 1, text.y + text.height - 1);
    EXPECT_TRUE (are_tools_shown (clause)) << name;
    leave (clause, name, text.x - 1, text.y + 1);
    EXPECT_FALSE (are_tools_shown (clause)) << name;
    hover (clause, 7);
    leave (clause, name, text.x + 1, text.y + text.height);
    EXPECT_FALSE (are_tools_shown (clause)) << name;
  }
}

TEST (clause_view_comparison, tools_go_when_the_pointer_leaves_the_part_in_sight)
{
  Comparison comparison ({"common b" + repeat ("\nx", 200), "common c" + repeat ("\nx", 200)});
  Clause *clause = comparison.clause;
  choose (clause, WITH_PREVIOUS);
  place_tools (clause, 7);
  GdkRectangle text = get_place (GTK_WIDGET (get_text_view (clause)));
  GdkRectangle window = get_place (GTK_WIDGET (comparison.test.window));
  ASSERT_GT (text.y + text.height, window.y + window.height);
  leave (clause, "text_view", text.x + 1, text.y + 1);
  EXPECT_TRUE (are_tools_shown (clause));
  leave (clause, "text_view", text.x + 1, window.y + window.height + 1);
  EXPECT_FALSE (are_tools_shown (clause));
}

TEST (clause_view_comparison, tools_that_go_give_the_focus_back_to_the_text)
{
  Comparison comparison ({"common b", "common c"});
  choose (comparison.clause, WITH_PREVIOUS);
  move_cursor (comparison.clause, 7);
  press_key (&comparison.test, GDK_KEY_Tab);
  leave (comparison.clause, "text_view", 0, 0);
  EXPECT_FALSE (are_tools_shown (comparison.clause));
  EXPECT_TRUE (gtk_widget_is_focus (GTK_WIDGET (get_text_view (comparison.clause))));
}

// A text that gets shorter leaves the pointer behind, and the display tells it when keys are on their
// way to the next change.
TEST (clause_view_comparison, tools_stay_for_the_keyboard_while_the_pointer_rests)
{
  Comparison comparison ({"common b", "common c"});
  Clause *clause = comparison.clause;
  choose (clause, WITH_PREVIOUS);
  GdkDisplay *display = gtk_widget_get_display (GTK_WIDGET (get_text_view (clause)));
  GdkDevice *pointer = gdk_seat_get_pointer (gdk_display_get_default_seat (display));
  gdk_device_warp (pointer, gdk_display_get_default_screen (display), 3, 3);
  pump ();
  int x;
  int y;
  gdk_device_get_position (pointer, NULL, &x, &y);
  press_key (&comparison.test, GDK_KEY_F8);
  press_key (&comparison.test, GDK_KEY_Tab);
  leave (clause, "text_view", x, y);
  EXPECT_TRUE (are_tools_shown (clause));
  press_key (&comparison.test, GDK_KEY_space);
  EXPECT_EQ (show_runs (clause), "common b[+c+]");
  // One that moves takes them along, and so does one that brought them.
  press_key (&comparison.test, GDK_KEY_F8);
  leave (clause, "text_view", x + 1, y);
  EXPECT_FALSE (are_tools_shown (clause));
  press_key (&comparison.test, GDK_KEY_F8);
  hover (clause, 8);
  leave (clause, "text_view", x, y);
  EXPECT_FALSE (are_tools_shown (clause));
}

TEST (clause_view_comparison, tools_stand_under_their_change_whichever_way_the_window_reads)
{
  int shift[2];
  for (int i = 0; i < 2; i++) {
    gtk_widget_set_default_direction (i ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR);
    std::string words = repeat ("common ", 4);
    Comparison comparison ({words + "b", words + "c"});
    Clause *clause = comparison.clause;
    choose (clause, WITH_PREVIOUS);
    place_tools (clause, 28);
    GtkTextIter iter;
    gtk_text_buffer_get_iter_at_offset (get_buffer (clause), &iter, 28);
    GdkRectangle location;
    gtk_text_view_get_iter_location (get_text_view (clause), &iter, &location);
    int x;
    gtk_text_view_buffer_to_window_coords (get_text_view (clause), GTK_TEXT_WINDOW_WIDGET,
                                           location.x, location.y, &x, NULL);
    GdkRectangle text = get_place (GTK_WIDGET (get_text_view (clause)));
    GdkRectangle tools = get_place (find_widget (clause->view, "diff_overlay_tools"));
    shift[i] = tools.x + tools.width / 2 - text.x - x;
    EXPECT_LE (tools.x, text.x + x + 1);
    EXPECT_GE (tools.x + tools.width, text.x + x + 1);
  }
  gtk_widget_set_default_direction (GTK_TEXT_DIR_LTR);
  EXPECT_NEAR (shift[0], shift[1], 1);
}

TEST (clause_view_comparison, tools_are_centred_on_the_pointer)
{
  std::string words = repeat ("common ", 4);
  Comparison comparison ({words + "b", words + "c"});
  Clause *clause = comparison.clause;
  choose (clause, WITH_PREVIOUS);
  place_tools (clause, 28);
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (get_buffer (clause), &iter, 28);
  GdkRectangle location;
  gtk_text_view_get_iter_location (get_text_view (clause), &iter, &location);
  GtkWidget *tools = find_widget (clause->view, "diff_overlay_tools");
  // The pointer is a pixel behind the start of the change, and the text has a border of 12.
  int start = location.x + 1 + 2 * 12 - gtk_widget_get_allocated_width (tools) / 2;
  EXPECT_GT (start, 0);
  EXPECT_EQ (gtk_widget_get_margin_start (tools), start);
}

// The offset of the cursor, and of the change that the tools would decide on.
static int
get_cursor (Clause *clause)
{
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_mark (get_buffer (clause), &iter,
                                    gtk_text_buffer_get_insert (get_buffer (clause)));
  return gtk_text_iter_get_offset (&iter);
}

TEST (clause_view_comparison, f8_goes_from_change_to_change)
{
  Comparison comparison ({"b a b a b", "c a c a d"});
  Clause *clause = comparison.clause;
  choose (clause, WITH_PREVIOUS);
  ASSERT_EQ (show_runs (clause), "[-b -][+c +]a [-b -][+c +]a [-b-][+d+]");
  EXPECT_EQ (get_cursor (clause), 0);
  EXPECT_FALSE (are_tools_shown (clause));
  for (int offset : {0, 2, 6, 8, 12, 13, 0, 2}) {
    press_key (&comparison.test, GDK_KEY_F8);
    EXPECT_EQ (get_cursor (clause), offset);
    EXPECT_TRUE (are_tools_shown (clause));
  }
  for (int offset : {0, 13, 12, 8}) {
    press_key (&comparison.test, GDK_KEY_F8, GDK_SHIFT_MASK);
    EXPECT_EQ (get_cursor (clause), offset);
    EXPECT_TRUE (are_tools_shown (clause));
  }
  // From a tool, and from where a change was.
  press_key (&comparison.test, GDK_KEY_Tab);
  press_key (&comparison.test, GDK_KEY_F8);
  EXPECT_EQ (get_cursor (clause), 12);
  press_key (&comparison.test, GDK_KEY_Tab);
  press_key (&comparison.test, GDK_KEY_Tab);
  press_key (&comparison.test, GDK_KEY_space);
  EXPECT_EQ (show_runs (clause), "[-b -][+c +]a [-b -][+c +]a [+d+]");
  EXPECT_FALSE (are_tools_shown (clause));
  press_key (&comparison.test, GDK_KEY_F8);
  EXPECT_EQ (get_cursor (clause), 12);
  EXPECT_TRUE (are_tools_shown (clause));
  press (clause->view, "diff_add_button");
  EXPECT_EQ (show_runs (clause), "[-b -][+c +]a [-b -][+c +]a d");
  press_key (&comparison.test, GDK_KEY_F8, GDK_SHIFT_MASK);
  EXPECT_EQ (get_cursor (clause), 8);
}

TEST (clause_view_comparison, f8_goes_nowhere_without_a_change)
{
  Comparison comparison ({"a b", "a b"});
  choose (comparison.clause, WITH_PREVIOUS);
  for (GdkModifierType state : {(GdkModifierType) 0, GDK_SHIFT_MASK}) {
    press_key (&comparison.test, GDK_KEY_F8, state);
    EXPECT_EQ (get_cursor (comparison.clause), 0);
    EXPECT_FALSE (are_tools_shown (comparison.clause));
  }
}

// ---- Deciding ----

TEST (clause_view_comparison, kept_run_stays_as_ordinary_text)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 2, '+');
  EXPECT_EQ (show_runs (comparison.clause), "a b[+c+]");
  EXPECT_FALSE (are_tools_shown (comparison.clause));
  EXPECT_FALSE (gtk_text_view_get_editable (get_text_view (comparison.clause)));
}

TEST (clause_view_comparison, dropped_run_goes)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 2, '-');
  EXPECT_EQ (show_runs (comparison.clause), "a [+c+]");
  EXPECT_EQ (comparison.drafts (), "");
  EXPECT_TRUE (comparison.clause->draft == NULL);
}

TEST (clause_view_comparison, last_drop_makes_a_stored_draft)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 3, '+');
  decide (comparison.clause, 2, '-');
  EXPECT_EQ (show_runs (comparison.clause), "a c");
  EXPECT_EQ (comparison.drafts (), "a c\n");
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"), "draft");
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "commit_button"));
  EXPECT_TRUE (is_over (comparison.clause));
}

TEST (clause_view_comparison, last_keep_makes_the_text_editable_and_no_draft)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 2, '-');
  decide (comparison.clause, 2, '+');
  EXPECT_EQ (show_runs (comparison.clause), "a c");
  EXPECT_TRUE (gtk_text_view_get_editable (get_text_view (comparison.clause)));
  EXPECT_EQ (comparison.drafts (), "");
  EXPECT_FALSE (is_sensitive (comparison.clause->view, "commit_button"));
  EXPECT_EQ (get_menu_state (comparison.clause, USE_AS_DRAFT), "on");
  EXPECT_EQ (get_menu_state (comparison.clause, TAKE_NEWER), "off");
  EXPECT_EQ (get_menu_state (comparison.clause, TAKE_OLDER), "off");
}

TEST (clause_view_comparison, typing_after_the_last_keep_makes_a_draft)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 2, '-');
  decide (comparison.clause, 2, '+');
  gtk_text_buffer_insert_at_cursor (get_buffer (comparison.clause), "!", 1);
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"), "draft");
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "commit_button"));
  EXPECT_TRUE (is_over (comparison.clause));
}

TEST (clause_view_comparison, use_as_draft_stores_what_is_left)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 2, '-');
  decide (comparison.clause, 2, '+');
  choose (comparison.clause, USE_AS_DRAFT);
  EXPECT_EQ (comparison.drafts (), "a c\n");
  EXPECT_TRUE (is_over (comparison.clause));
}

TEST (clause_view_comparison, take_newer_is_the_newer_text)
{
  Comparison comparison ({"a b\nc d", "a x c\nd e"});
  choose (comparison.clause, WITH_PREVIOUS);
  choose (comparison.clause, TAKE_NEWER);
  EXPECT_EQ (show_runs (comparison.clause), "a x c\nd e");
  EXPECT_TRUE (gtk_text_view_get_editable (get_text_view (comparison.clause)));
}

TEST (clause_view_comparison, take_older_is_the_older_text)
{
  Comparison comparison ({"a b\nc d", "a x c\nd e"});
  choose (comparison.clause, WITH_PREVIOUS);
  choose (comparison.clause, TAKE_OLDER);
  EXPECT_EQ (show_runs (comparison.clause), "a b\nc d");
  EXPECT_TRUE (gtk_text_view_get_editable (get_text_view (comparison.clause)));
  EXPECT_EQ (comparison.drafts (), "");
}

TEST (clause_view_comparison, take_newer_leaves_single_decisions_as_they_are)
{
  Comparison comparison ({"a b c d", "a x c y"});
  choose (comparison.clause, WITH_PREVIOUS);
  ASSERT_EQ (show_runs (comparison.clause), "a [-b -][+x +]c [-d-][+y+]");
  decide (comparison.clause, 2, '+');
  decide (comparison.clause, 4, '-');
  choose (comparison.clause, TAKE_NEWER);
  EXPECT_EQ (show_runs (comparison.clause), "a b c y");
}

TEST (clause_view_comparison, kept_line_break_loses_its_return_symbol)
{
  Comparison comparison ({"a b", "a\nb"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 2, '+');
  EXPECT_EQ (show_runs (comparison.clause), "[-a -]a\nb");
}

TEST (clause_view_comparison, dropped_line_break_takes_its_return_symbol_with_it)
{
  Comparison comparison ({"Price: 5000\nEUR net", "Price: 5000 EUR net"});
  choose (comparison.clause, WITH_PREVIOUS);
  ASSERT_EQ (show_runs (comparison.clause), "Price: [-5000\u23ce\n-][+5000 +]EUR net");
  choose (comparison.clause, TAKE_NEWER);
  EXPECT_EQ (show_runs (comparison.clause), "Price: 5000 EUR net");
}

// Marks that stay behind would make return symbols of the next comparison's text.
static int
count_marks (Clause *clause)
{
  int count = 0;
  GtkTextIter iter;
  gtk_text_buffer_get_start_iter (get_buffer (clause), &iter);
  do {
    GSList *marks = gtk_text_iter_get_marks (&iter);
    count += (int) g_slist_length (marks);
    g_slist_free (marks);
  } while (gtk_text_iter_forward_char (&iter));
  GSList *marks = gtk_text_iter_get_marks (&iter);
  count += (int) g_slist_length (marks);
  g_slist_free (marks);
  return count;
}

TEST (clause_view_comparison, left_and_begun_again_starts_afresh)
{
  Comparison comparison ({"a\nb\nc", "\u23cea b c"});
  int usual = count_marks (comparison.clause);
  for (int i = 0; i < 3; i++) {
    choose (comparison.clause, WITH_PREVIOUS);
    EXPECT_EQ (count_marks (comparison.clause), usual + 2);
    choose (comparison.clause, LEAVE);
    EXPECT_EQ (count_marks (comparison.clause), usual);
    EXPECT_TRUE (is_over (comparison.clause));
  }
  choose (comparison.clause, WITH_PREVIOUS);
  ASSERT_EQ (show_runs (comparison.clause), "[-a\u23ce\nb\u23ce\n-][+\u23cea b +]c");
  choose (comparison.clause, TAKE_NEWER);
  EXPECT_EQ (show_runs (comparison.clause), "\u23cea b c");
}

TEST (clause_view_comparison, return_symbol_of_a_text_itself_stays)
{
  Comparison comparison ({"a b", "\u23ce\n\u23ce b"});
  choose (comparison.clause, WITH_PREVIOUS);
  ASSERT_EQ (show_runs (comparison.clause), "[-a -][+\u23ce\u23ce\n\u23ce +]b");
  decide (comparison.clause, 3, '+');
  EXPECT_EQ (show_runs (comparison.clause), "[-a -]\u23ce\n\u23ce b");
}

TEST (clause_view_comparison, committed_result_holds_no_trace_of_it)
{
  Comparison comparison ({"a b\nc", "a\nb c"});
  choose (comparison.clause, WITH_PREVIOUS);
  choose (comparison.clause, TAKE_NEWER);
  choose (comparison.clause, USE_AS_DRAFT);
  press (comparison.clause->view, "commit_button");
  EXPECT_EQ (query (&comparison.test, "SELECT status, text FROM clause_revisions"
                                      " ORDER BY db_id DESC LIMIT 1"),
             "COMMITTED|a\nb c\n");
}

// ---- Deciding on a revision meanwhile ----

static std::string
format_local_time (time_t time)
{
  struct tm broken_down;
  char text[100];
  localtime_r (&time, &broken_down);
  strftime (text, sizeof (text), "%Y-%m-%d %H:%M:%S", &broken_down);
  return text;
}

TEST (clause_view_comparison, agree_decides_on_the_revision_that_it_shows_first)
{
  Comparison comparison ({"900 EUR", "950 EUR"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 4, '-');
  decide (comparison.clause, 0, '+');
  ASSERT_EQ (show_runs (comparison.clause), "900 EUR");
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "agree_button"));
  take_sent (&comparison.test);
  press (comparison.clause->view, "agree_button");
  EXPECT_EQ (show_runs (comparison.clause), "950 EUR");
  EXPECT_TRUE (is_over (comparison.clause));
  EXPECT_FALSE (is_sensitive (comparison.clause->view, "agree_button"));
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "disagree_button"));
  EXPECT_EQ (query (&comparison.test,
                    "SELECT r.text, d.author, d.status FROM clause_revision_decisions d"
                    " JOIN clause_revisions r ON r.db_id = d.clause_revision_db_id"),
             "950 EUR|" ALICE "|AGREE\n");
  EXPECT_NE (take_sent (&comparison.test).find ("AGREE"), std::string::npos);
}

TEST (clause_view_comparison, disagree_decides_on_the_revision_that_it_shows_first)
{
  Comparison comparison ({"900 EUR", "950 EUR"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 0, '+');
  press (comparison.clause->view, "disagree_button");
  EXPECT_EQ (show_runs (comparison.clause), "950 EUR");
  EXPECT_TRUE (is_over (comparison.clause));
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "agree_button"));
  EXPECT_FALSE (is_sensitive (comparison.clause->view, "disagree_button"));
  EXPECT_EQ (query (&comparison.test,
                    "SELECT r.text, d.author, d.status FROM clause_revision_decisions d"
                    " JOIN clause_revisions r ON r.db_id = d.clause_revision_db_id"),
             "950 EUR|" ALICE "|DISAGREE\n");
}

TEST (clause_view_comparison, decision_buttons_name_their_revision_throughout)
{
  const char *zone = getenv ("TZ");
  std::string zone_before = zone ? zone : "";
  setenv ("TZ", "XYZ-05:30", 1);
  tzset ();
  {
    Comparison comparison ({"a b", "a c"});
    std::string name = " with the revision of " BOB ", " + format_local_time (3001);
    for (int i = 0; i < 2; i++) {
      EXPECT_EQ (get_tooltip (comparison.clause, "agree_button"), "Agree" + name);
      EXPECT_EQ (get_tooltip (comparison.clause, "disagree_button"), "Disagree" + name);
      choose (comparison.clause, i ? LEAVE : WITH_PREVIOUS);
    }
    activate_row (comparison.clause, 0);
    EXPECT_EQ (get_tooltip (comparison.clause, "agree_button"),
               "Agree with the revision of " ALICE ", " + format_local_time (3000));
    type (comparison.clause->view, "text_view", "typed");
    EXPECT_EQ (get_tooltip (comparison.clause, "agree_button"), "Agree");
    EXPECT_EQ (get_tooltip (comparison.clause, "disagree_button"), "Disagree");
  }
  zone ? setenv ("TZ", zone_before.c_str (), 1) : unsetenv ("TZ");
  tzset ();
}

TEST (clause_view_comparison, decision_buttons_name_a_revision_beyond_the_calendar)
{
  Comparison comparison ({"a"});
  deliver_revision (comparison.test.window, {ALICE, 1000}, {ALICE, 2000}, {BOB, 999999999999},
                    "late");
  EXPECT_EQ (get_tooltip (comparison.clause, "agree_button"),
             "Agree with the revision of " BOB ", 999999999999");
}

// ---- How it ends ----

TEST (clause_view_comparison, a_rows_menu_that_a_key_opens_has_its_item_selected)
{
  Comparison comparison ({"a b", "a c"});
  gtk_button_clicked (
    GTK_BUTTON (find_widget (comparison.clause->view, "revision_select_menu_button")));
  pump ();
  GtkWidget *row = GTK_WIDGET (gtk_list_box_get_row_at_index (get_list (comparison.clause), 0));
  gtk_widget_grab_focus (row);
  press_key (&comparison.test, GDK_KEY_Menu);
  pump ();
  GList *menus = gtk_menu_get_for_attach_widget (row);
  ASSERT_TRUE (menus);
  GtkMenuShell *menu = GTK_MENU_SHELL (menus->data);
  EXPECT_EQ (gtk_menu_shell_get_selected_item (menu),
             find_menu_item (GTK_WIDGET (menu), "Compare with the revision shown"));
  gtk_menu_shell_deactivate (menu);
  pump ();
}

TEST (clause_view_comparison, escape_in_the_text_leaves_it)
{
  Comparison comparison ({"a b", "a c"});
  for (int i = 0; i < 2; i++) {
    gtk_widget_grab_focus (find_widget (comparison.clause->view, "disagree_button"));
    if (i)
      compare_row (&comparison.test, comparison.clause, 0);
    else
      choose (comparison.clause, WITH_PREVIOUS);
    ASSERT_EQ (show_runs (comparison.clause), "a [-b-][+c+]");
    EXPECT_TRUE (gtk_widget_is_focus (GTK_WIDGET (get_text_view (comparison.clause))));
    press_key (&comparison.test, GDK_KEY_Escape);
    EXPECT_EQ (show_runs (comparison.clause), "a c");
    EXPECT_TRUE (is_over (comparison.clause));
    EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"), BOB ":3001");
  }
}

TEST (clause_view_comparison, ctrl_return_changes_nothing_where_all_is_decided)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  choose (comparison.clause, TAKE_NEWER);
  press_key (&comparison.test, GDK_KEY_Return, GDK_CONTROL_MASK);
  press_key (&comparison.test, GDK_KEY_KP_Enter, GDK_CONTROL_MASK);
  EXPECT_EQ (show_runs (comparison.clause), "a c");
  EXPECT_FALSE (is_over (comparison.clause));
  EXPECT_EQ (comparison.clause->revisions_count, 2u);
}

TEST (clause_view_comparison, escape_on_a_tool_leaves_it_to_the_text)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  press_key (&comparison.test, GDK_KEY_F8);
  press_key (&comparison.test, GDK_KEY_Tab);
  press_key (&comparison.test, GDK_KEY_Escape);
  EXPECT_EQ (show_runs (comparison.clause), "a c");
  EXPECT_TRUE (is_over (comparison.clause));
  EXPECT_TRUE (gtk_widget_is_focus (GTK_WIDGET (get_text_view (comparison.clause))));
}

TEST (clause_view_comparison, received_revision_takes_the_focus_from_a_tool_that_goes)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  press_key (&comparison.test, GDK_KEY_F8);
  press_key (&comparison.test, GDK_KEY_Tab);
  deliver_revision (comparison.test.window, {ALICE, 1000}, {ALICE, 2000}, {BOB, 3500}, "new");
  EXPECT_EQ (show_runs (comparison.clause), "new");
  EXPECT_TRUE (
    gtk_widget_is_focus (find_widget (comparison.clause->view, "revision_select_menu_button")));
}

TEST (clause_view_comparison, escape_without_it_changes_nothing)
{
  Comparison comparison ({"a b", "a c"}, "stored");
  gtk_widget_grab_focus (GTK_WIDGET (get_text_view (comparison.clause)));
  type (comparison.clause->view, "text_view", "typed");
  press_key (&comparison.test, GDK_KEY_Escape);
  EXPECT_EQ (show_runs (comparison.clause), "typed");
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"), "draft");
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "commit_button"));
}

TEST (clause_view_comparison, escape_returns_to_the_draft)
{
  Comparison comparison ({"a b", "a c"}, "a d");
  activate_row (comparison.clause, 2);
  compare_row (&comparison.test, comparison.clause, 0);
  ASSERT_EQ (show_runs (comparison.clause), "a [-b-][+d+]");
  press_key (&comparison.test, GDK_KEY_Escape);
  EXPECT_EQ (show_runs (comparison.clause), "a d");
  EXPECT_TRUE (is_over (comparison.clause));
  EXPECT_EQ (get_text (comparison.clause->view, "revision_status_label"), "draft");
  EXPECT_TRUE (is_sensitive (comparison.clause->view, "commit_button"));
  EXPECT_FALSE (is_sensitive (comparison.clause->view, "agree_button"));
  EXPECT_EQ (comparison.drafts (), "a d\n");
}

TEST (clause_view_comparison, leaving_returns_to_the_revision_though_there_is_a_draft)
{
  Comparison comparison ({"a b", "a c"}, "a d");
  activate_row (comparison.clause, 0);
  compare_row (&comparison.test, comparison.clause, 2);
  ASSERT_EQ (show_runs (comparison.clause), "a [-b-][+d+]");
  choose (comparison.clause, LEAVE);
  EXPECT_EQ (show_runs (comparison.clause), "a b");
}

TEST (clause_view_comparison, next_one_still_means_the_draft)
{
  Comparison comparison ({"a b", "a c"}, "a d");
  activate_row (comparison.clause, 2);
  compare_row (&comparison.test, comparison.clause, 0);
  compare_row (&comparison.test, comparison.clause, 1);
  EXPECT_EQ (show_runs (comparison.clause), "a [-c-][+d+]");
  choose (comparison.clause, LEAVE);
  EXPECT_EQ (show_runs (comparison.clause), "a d");
  activate_row (comparison.clause, 0);
  compare_row (&comparison.test, comparison.clause, 1);
  EXPECT_EQ (show_runs (comparison.clause), "a [-b-][+c+]");
  choose (comparison.clause, LEAVE);
  EXPECT_EQ (show_runs (comparison.clause), "a b");
}

TEST (clause_view_comparison, row_activation_ends_what_the_next_one_means)
{
  Comparison comparison ({"a b", "a c"}, "a d");
  activate_row (comparison.clause, 2);
  compare_row (&comparison.test, comparison.clause, 0);
  activate_row (comparison.clause, 0);
  compare_row (&comparison.test, comparison.clause, 1);
  EXPECT_EQ (show_runs (comparison.clause), "a [-b-][+c+]");
  choose (comparison.clause, LEAVE);
  EXPECT_EQ (show_runs (comparison.clause), "a b");
}

TEST (clause_view_comparison, menu_leaves_it)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  decide (comparison.clause, 2, '-');
  choose (comparison.clause, LEAVE);
  EXPECT_EQ (show_runs (comparison.clause), "a c");
  EXPECT_TRUE (is_over (comparison.clause));
  EXPECT_EQ (comparison.drafts (), "");
}

TEST (clause_view_comparison, row_activation_leaves_it)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  activate_row (comparison.clause, 0);
  EXPECT_EQ (show_runs (comparison.clause), "a b");
  EXPECT_TRUE (is_over (comparison.clause));
}

TEST (clause_view_comparison, received_revision_leaves_it)
{
  Comparison comparison ({"a b", "a c"});
  choose (comparison.clause, WITH_PREVIOUS);
  hover (comparison.clause, 2);
  deliver_revision (comparison.test.window, {ALICE, 1000}, {ALICE, 2000}, {BOB, 3500}, "new");
  EXPECT_EQ (show_runs (comparison.clause), "new");
  EXPECT_TRUE (is_over (comparison.clause));
}

TEST (clause_view_comparison, draft_row_activation_leaves_it)
{
  Comparison comparison ({"a b", "a c"}, "a d");
  choose (comparison.clause, WITH_PREVIOUS);
  activate_row (comparison.clause, 2);
  EXPECT_EQ (show_runs (comparison.clause), "a d");
  EXPECT_TRUE (is_over (comparison.clause));
}

TEST (clause_view_comparison, one_after_another_leaves_one_pair_of_tags)
{
  Comparison comparison ({"a b", "a c", "a d"});
  choose (comparison.clause, WITH_PREVIOUS);
  compare_row (&comparison.test, comparison.clause, 0);
  EXPECT_EQ (show_runs (comparison.clause), "a [-b-][+d+]");
  GtkTextTagTable *tags = gtk_text_buffer_get_tag_table (get_buffer (comparison.clause));
  EXPECT_EQ (gtk_text_tag_table_get_size (tags), 2);
}

TEST (clause_view_comparison, window_may_close_during_it)
{
  Comparison comparison ({"a b", "a\nc"});
  choose (comparison.clause, WITH_PREVIOUS);
  close_window (&comparison.test);
  EXPECT_EQ (comparison.drafts (), "");
}

// ---- Whatever is decided, in whatever order ----

// One stretch of a comparison, as the reference makes it: words that both texts have, that went, or
// that came.
struct Stretch {
  char kind;  // '=', '-' or '+'
  std::vector<std::string> words;
};

typedef std::vector<Stretch> Stretches;

// Each line break begins a word, and so does what follows a blank or a line break; blanks belong to
// the word ahead of them. A text that begins with a line break has an empty word first.
static std::vector<std::string>
split (const std::string &text)
{
  std::vector<std::string> words (1);
  for (size_t i = 0; i < text.size (); i++) {
    bool follows_blank = i && (text[i - 1] == ' ' || text[i - 1] == '\n');
    if (text[i] == '\n' || (text[i] != ' ' && follows_blank))
      words.push_back ("");
    words.back () += text[i];
  }
  return words;
}

// The words of both texts in the order of their display: of what changed at one place, the words that
// went come first, as many as leave the longest common subsequence.
static Stretches
compare (const std::string &older, const std::string &newer)
{
  std::vector<std::string> a = split (older);
  std::vector<std::string> b = split (newer);
  std::vector<std::vector<int>> common (a.size () + 1, std::vector<int> (b.size () + 1));
  for (size_t i = a.size (); i-- > 0;) {
    for (size_t j = b.size (); j-- > 0;) {
      common[i][j] =
        a[i] == b[j] ? common[i + 1][j + 1] + 1 : std::max (common[i + 1][j], common[i][j + 1]);
    }
  }
  Stretches stretches;
  size_t i = 0;
  size_t j = 0;
  while (i < a.size () || j < b.size ()) {
    int left = common[i][j];
    char kind = '=';
    if (i < a.size () && common[i + 1][j] == left)
      kind = '-';
    else if (j < b.size () && common[i][j + 1] == left)
      kind = '+';
    if (stretches.empty () || stretches.back ().kind != kind)
      stretches.push_back ({kind, {}});
    stretches.back ().words.push_back (kind == '+' ? b[j] : a[i]);
    i += kind != '+';
    j += kind != '-';
  }
  return stretches;
}

// A stretch as text, or as it is shown: a line break that came or went has a return symbol.
static std::string
join (const Stretch &stretch, bool is_shown)
{
  std::string text;
  for (const std::string &word : stretch.words) {
    text += is_shown && stretch.kind != '=' && word == "\n" ? "\u23ce" : "";
    text += word;
  }
  return text;
}

// What the text view must show: '=' marks what is decided, too.
static std::string
show_stretches (const Stretches &stretches)
{
  std::string text;
  for (const Stretch &stretch : stretches) {
    std::string shown = join (stretch, true);
    std::string sign (1, stretch.kind);
    text += stretch.kind == '=' || shown.empty () ? shown : "[" + sign + shown + sign + "]";
  }
  return text;
}

struct Walk {
  Comparison comparison;
  std::mt19937 source;
  bool with_keys_only;
  int by_mouse_count;
  int by_key_count;
  int at_once_count;

  explicit Walk (u32 seed)
      : comparison ({"a", "b"}), source (seed), with_keys_only (false), by_mouse_count (0),
        by_key_count (0), at_once_count (0)
  {
  }

  size_t draw (size_t count)
  {
    return source () % count;
  }

  std::string draw_text ()
  {
    static const char *plain[] = {"a",           "b ",    "a ", "c ",  "\u00e9 ", "\u65e5\u672c ",
                                  "\n",          "\n",    "\n", "\n ", "\u23ce",  "\u23ce\n",
                                  "\U0001f600 ", "word  "};
    // Right to left, without a width, and joined to what is ahead: no pointer finds these safely.
    static const char *odd[] = {"\u05e9\u05dc ", "\u200b ", "\u0301", "\u0627 "};
    std::string text;
    for (size_t count = 1 + draw (9); count; count--)
      text += with_keys_only && !draw (3) ? odd[draw (4)] : plain[draw (14)];
    return text;
  }
};

// Both revisions of the walk's clause get these texts, and are compared.
static void
begin_round (Walk *walk, const std::string &older, const std::string &newer)
{
  Clause *clause = walk->comparison.clause;
  const std::string *texts[] = {&older, &newer};
  for (u32 i = 0; i < 2; i++) {
    dealloc_string (clause->revisions[i]->text);
    clause->revisions[i]->text = alloc_string (to_string (texts[i]->c_str ()));
  }
  activate_row (clause, 1);
  choose (clause, WITH_PREVIOUS);
}

// Presses a tool of the change at `offset` with the keyboard alone.
static void
decide_by_key (Walk *walk, int offset, char sign)
{
  Clause *clause = walk->comparison.clause;
  if (walk->draw (2)) {
    move_cursor (clause, offset);
  } else {
    // There are fewer changes than that.
    GdkModifierType state = walk->draw (2) ? GDK_SHIFT_MASK : (GdkModifierType) 0;
    int count = 0;
    do
      press_key (&walk->comparison.test, GDK_KEY_F8, state);
    while (get_cursor (clause) != offset && ++count < 100);
  }
  ASSERT_EQ (get_cursor (clause), offset);
  ASSERT_TRUE (are_tools_shown (clause));
  for (int count = sign == '+' ? 1 : 2; count; count--)
    press_key (&walk->comparison.test, GDK_KEY_Tab);
  press_key (&walk->comparison.test, GDK_KEY_space);
}

static void
note_decision (Stretch *stretch, bool is_kept)
{
  stretch->kind = '=';
  if (!is_kept)
    stretch->words.clear ();
}

// Decides on one stretch, in the window and in the reference.
static void
decide_stretch (Walk *walk, Stretches *stretches, size_t index, char sign)
{
  std::string ahead;
  for (size_t i = 0; i < index; i++)
    ahead += join ((*stretches)[i], true);
  int offset = (int) g_utf8_strlen (ahead.c_str (), -1);
  if (walk->with_keys_only || walk->draw (2)) {
    decide_by_key (walk, offset, sign);
    walk->by_key_count++;
  } else {
    decide (walk->comparison.clause, offset, sign);
    walk->by_mouse_count++;
  }
  note_decision (&(*stretches)[index], sign == '+');
}

static std::vector<size_t>
list_changes (const Stretches &stretches)
{
  std::vector<size_t> changes;
  for (size_t i = 0; i < stretches.size (); i++) {
    if (stretches[i].kind != '=' && !join (stretches[i], true).empty ())
      changes.push_back (i);
  }
  return changes;
}

enum Side {
  NEWER,
  OLDER,
  EITHER,
};

// Decides on everything that is left, change by change in any order, and at some point perhaps all at
// once.
static void
decide_round (Walk *walk, Stretches *stretches, Side side)
{
  for (;;) {
    std::vector<size_t> changes = list_changes (*stretches);
    if (changes.empty ())
      return;
    if (!walk->draw (6)) {
      bool is_newer = side == EITHER ? walk->draw (2) : side == NEWER;
      choose (walk->comparison.clause, is_newer ? TAKE_NEWER : TAKE_OLDER);
      walk->at_once_count++;
      for (size_t index : changes)
        note_decision (&(*stretches)[index], ((*stretches)[index].kind == '+') == is_newer);
      ASSERT_EQ (show_runs (walk->comparison.clause), show_stretches (*stretches));
      return;
    }
    size_t index = changes[walk->draw (changes.size ())];
    char sign = walk->draw (2) ? '+' : '-';
    if (side != EITHER)
      sign = ((*stretches)[index].kind == '+') == (side == NEWER) ? '+' : '-';
    decide_stretch (walk, stretches, index, sign);
    ASSERT_EQ (show_runs (walk->comparison.clause), show_stretches (*stretches));
  }
}

// A long walk, or another one, is asked for from outside.
static u32
get_number (const char *name, u32 usual)
{
  const char *number = getenv (name);
  return number ? (u32) atoi (number) : usual;
}

TEST (clause_view_comparison_law, result_is_common_words_and_kept_runs)
{
  Walk walk (get_number ("MORVANE_SEED", 20240229));
  u32 rounds = get_number ("MORVANE_ROUNDS", 40);
  u32 round = 0;
  for (; round < rounds && !testing::Test::HasFailure (); round++) {
    walk.with_keys_only = round % 3 == 2;
    std::string older = walk.draw_text ();
    std::string newer = walk.draw_text ();
    SCOPED_TRACE ("round " + std::to_string (round) + ": '" + older + "' and '" + newer + "'");
    Side side = (Side) walk.draw (3);
    Stretches stretches = compare (older, newer);
    begin_round (&walk, older, newer);
    ASSERT_EQ (show_runs (walk.comparison.clause), show_stretches (stretches));
    decide_round (&walk, &stretches, side);
    std::string text = get_text (walk.comparison.clause->view, "text_view");
    std::string expected;
    for (const Stretch &stretch : stretches)
      expected += join (stretch, false);
    EXPECT_EQ (text, side == NEWER ? newer : side == OLDER ? older : expected);
  }
  printf ("\nwalk: %u pairs of texts, %d changes by mouse, %d by key, %d times all at once\n",
          round, walk.by_mouse_count, walk.by_key_count, walk.at_once_count);
}
