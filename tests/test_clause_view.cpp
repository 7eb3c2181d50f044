#include "clause_view.h"

#include <vector>

#include "clause_chat_page.h"
#include "db.h"
#include "deletion.h"
#include "fake_session.h"
#include "morvane.h"
#include "procedure_view.h"
#include "session.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"

static const char AGREES[] = "<span foreground=\"#2b2\">contractor agrees</span>";
static const char DISAGREES[] = "<span foreground=\"#e44\">contractor disagrees</span>";
static const char MISSING_DRAFT_ROW[] = "Warning: Trying to remove draft row from revisions list, "
                                        "but there's no draft there.\n";
static const char TEXTS[] = "SELECT status, author, text FROM clause_revisions ORDER BY db_id";

// ---- What the tests begin with ----

// Alice's account and a procedure that she has opened with Bob.
static const char OWN_PROCEDURE[] =
  "INSERT INTO accounts VALUES (1, '" ALICE "');"
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Rent');";
static const char OWN_CLAUSE[] = "INSERT INTO clauses VALUES (1, 1, 2000, '" ALICE "', 1);";
static const char PEERS_CLAUSE[] = "INSERT INTO clauses VALUES (1, 1, 2000, '" BOB "', 1);";
static const char FIRST_REVISION[] =
  "INSERT INTO clause_revisions VALUES (1, 1, 3000, '" ALICE "', 'COMMITTED', 'first text');";
static const char SECOND_REVISION[] =
  "INSERT INTO clause_revisions VALUES (2, 1, 4000, '" BOB "', 'COMMITTED', 'second text');";
static const char STORED_DRAFT[] =
  "INSERT INTO clause_revisions VALUES (9, 1, 5000, '" ALICE "', 'DRAFT', 'drafted text');";

static void
run (TestWindow *test, const std::string &sql)
{
  // Nothing here outlives a crash of the machine, so no write waits for the disk.
  std::string all = "PRAGMA synchronous = OFF;" + sql;
  char *error = NULL;
  EXPECT_EQ (sqlite3_exec (test->db, all.c_str (), NULL, NULL, &error), SQLITE_OK) << error;
}

// The first clause of a store with these rows, in a window that shows it.
static Clause *
open_clause (TestWindow *test, const std::string &sql)
{
  run (test, sql);
  log_in (test);
  Procedure *procedure = test->window->procedures.procedures[0];
  gtk_widget_activate (GTK_WIDGET (procedure->list_item));
  pump ();
  return procedure->clauses_count ? procedure->clauses[0] : NULL;
}

static Clause *
open_two_revisions (TestWindow *test)
{
  return open_clause (test,
                      std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION + SECOND_REVISION);
}

static Clause *
open_one_revision (TestWindow *test)
{
  return open_clause (test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION);
}

// A clause that the user has just added.
static Clause *
open_new_clause (TestWindow *test)
{
  open_clause (test, OWN_PROCEDURE);
  Procedure *procedure = test->window->procedures.procedures[0];
  press (procedure->view, "add_clause_button");
  EXPECT_EQ (procedure->clauses_count, 1u);
  return procedure->clauses[0];
}

static Procedure *
get_procedure (TestWindow *test)
{
  return test->window->procedures.procedures[0];
}

// ---- What a view shows ----

static const char *const BUTTONS[4] = {"agree_button", "disagree_button", "commit_button",
                                       "cancel_button"};

// The action buttons that can be pressed, by their names.
static std::string
list_sensitive (Clause *clause)
{
  std::string list;
  for (const char *name : BUTTONS) {
    if (is_sensitive (clause->view, name)) {
      std::string word = name;
      list += (list.empty () ? "" : " ") + word.substr (0, word.find ('_'));
    }
  }
  return list;
}

static std::string
get_markup (Clause *clause)
{
  return gtk_label_get_label (GTK_LABEL (find_widget (clause->view, "decision_status_label")));
}

static std::string
get_status (Clause *clause)
{
  return get_text (clause->view, "revision_status_label");
}

static GtkListBox *
get_list (ClauseView *view)
{
  GtkMenuButton *button = GTK_MENU_BUTTON (find_widget (view, "revision_select_menu_button"));
  GtkWidget *scroller = gtk_bin_get_child (GTK_BIN (gtk_menu_button_get_popover (button)));
  GtkWidget *viewport = gtk_bin_get_child (GTK_BIN (scroller));
  return GTK_LIST_BOX (gtk_bin_get_child (GTK_BIN (viewport)));
}

// The list of revisions, a line a row, the selected one with a star.
static std::string
list_rows (ClauseView *view)
{
  std::string list;
  GtkListBox *list_box = get_list (view);
  for (int i = 0; gtk_list_box_get_row_at_index (list_box, i); i++) {
    GtkListBoxRow *row = gtk_list_box_get_row_at_index (list_box, i);
    list += (gtk_list_box_row_is_selected (row) ? "*" : "") + get_text (row, "label") + "\n";
  }
  return list;
}

static GtkWidget *
get_popover (Clause *clause)
{
  GtkWidget *button = find_widget (clause->view, "revision_select_menu_button");
  return GTK_WIDGET (gtk_menu_button_get_popover (GTK_MENU_BUTTON (button)));
}

static void
open_revisions (Clause *clause)
{
  GtkWidget *button = find_widget (clause->view, "revision_select_menu_button");
  gtk_toggle_button_set_active (GTK_TOGGLE_BUTTON (button), TRUE);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return (bool) gtk_widget_get_mapped (GTK_WIDGET (data)); },
                get_popover (clause)));
}

static void
activate_row (Clause *clause, int index)
{
  GtkListBoxRow *row = gtk_list_box_get_row_at_index (get_list (clause->view), index);
  ASSERT_TRUE (row);
  gtk_widget_activate (GTK_WIDGET (row));
  pump ();
}

static void
focus (TestWindow *test, GtkWidget *widget)
{
  EXPECT_TRUE (
    pump_until ([] (
                  void *data) { return (bool) gtk_window_has_toplevel_focus (GTK_WINDOW (data)); },
                test->window));
  gtk_widget_grab_focus (widget);
  pump ();
  EXPECT_TRUE (gtk_widget_has_focus (widget));
}

// Presses a button whatever it looks like.
static void
force (Clause *clause, const char *name)
{
  g_signal_emit_by_name (find_widget (clause->view, name), "clicked");
  pump ();
}

static bool
has_line (const std::string &text, const std::string &line)
{
  return text.find (line) != std::string::npos;
}

static void
receive_revision (TestWindow *test, Clause *clause, WireName revision, const char *text)
{
  Procedure *procedure = get_procedure (test);
  std::string procedure_initiator = to_std_string (procedure->initiator);
  std::string clause_initiator = to_std_string (clause->initiator);
  deliver_revision (test->window, {procedure_initiator.c_str (), procedure->time},
                    {clause_initiator.c_str (), clause->time}, revision, text);
}

static std::string
name_revision (ClauseRevision *revision)
{
  return to_std_string (revision->author) + ":" + std::to_string (revision->time);
}

// ---- Construction ----

struct LooseClause {
  Procedure *procedure =
    alloc_procedure (1, 1, 1000, to_string ("Rent"), to_string (ALICE), to_string (BOB));
  Clause *clause = alloc_clause (1, 1, 2000, to_string (ALICE), 1);
  GtkWidget *view = NULL;

  ~LooseClause ()
  {
    gtk_widget_destroy (view);
    g_object_unref (view);
    dealloc_clause (clause);
    dealloc_procedure (procedure);
  }
};

// The view alone, before anybody has it show anything.
static void
make_view (LooseClause *loose)
{
  loose->view = clause_view_new (loose->procedure, loose->clause);
  g_object_ref_sink (loose->view);
  loose->clause->view = MORVANE_CLAUSE_VIEW (loose->view);
}

static void
add_revision (LooseClause *loose, s64 time, const char *author)
{
  clause_add_revision (loose->clause,
                       alloc_clause_revision ((u64) time, 1, time, to_string (author),
                                              REVISION_COMMITTED, to_string ("some text")));
}

TEST (clause_view_new, shows_nothing_and_offers_nothing)
{
  LooseClause loose;
  make_view (&loose);
  EXPECT_EQ (list_sensitive (loose.clause), "");
  EXPECT_FALSE (is_sensitive (loose.view, "chat_button"));
  EXPECT_EQ (get_text (loose.view, "text_view"), "");
  EXPECT_EQ (get_status (loose.clause), "");
  EXPECT_EQ (get_markup (loose.clause), "");
  EXPECT_EQ (list_rows (loose.clause->view), "");
  EXPECT_FALSE (gtk_widget_get_visible (find_widget (loose.view, "diff_overlay_tools")));
}

TEST (clause_view_new, gives_each_revision_a_row_and_lets_the_user_chat)
{
  LooseClause loose;
  add_revision (&loose, 3000, ALICE);
  add_revision (&loose, 4000, BOB);
  make_view (&loose);
  EXPECT_EQ (list_rows (loose.clause->view), ALICE ":3000\n" BOB ":4000\n");
  EXPECT_TRUE (is_sensitive (loose.view, "chat_button"));
  EXPECT_EQ (list_sensitive (loose.clause), "");
  EXPECT_EQ (get_text (loose.view, "text_view"), "");
}

TEST (clause_view_new, gives_a_stored_draft_its_row)
{
  LooseClause loose;
  add_revision (&loose, 3000, ALICE);
  loose.clause->draft = alloc_clause_revision (9, 1, 5000, to_string (ALICE), REVISION_DRAFT,
                                               to_string ("drafted text"));
  make_view (&loose);
  EXPECT_EQ (list_rows (loose.clause->view), ALICE ":3000\ndraft\n");
}

static bool
has_state (AtkObject *accessible, AtkStateType type)
{
  AtkStateSet *states = atk_object_ref_state_set (accessible);
  bool has = atk_state_set_contains_state (states, type);
  g_object_unref (states);
  return has;
}

TEST (clause_view_new, puts_the_revisions_into_a_popover_that_scrolls)
{
  LooseClause loose;
  make_view (&loose);
  GtkMenuButton *button = GTK_MENU_BUTTON (find_widget (loose.view, "revision_select_menu_button"));
  GtkPopover *popover = gtk_menu_button_get_popover (button);
  EXPECT_EQ (gtk_popover_get_relative_to (popover), GTK_WIDGET (button));
  GtkWidget *scroller = gtk_bin_get_child (GTK_BIN (popover));
  EXPECT_TRUE (gtk_widget_get_visible (scroller));
  EXPECT_TRUE (gtk_widget_get_visible (GTK_WIDGET (get_list (loose.clause->view))));
  GtkPolicyType horizontal;
  GtkPolicyType vertical;
  gtk_scrolled_window_get_policy (GTK_SCROLLED_WINDOW (scroller), &horizontal, &vertical);
  EXPECT_EQ (horizontal, GTK_POLICY_NEVER);
  EXPECT_EQ (vertical, GTK_POLICY_AUTOMATIC);
  EXPECT_EQ (gtk_scrolled_window_get_min_content_height (GTK_SCROLLED_WINDOW (scroller)), 300);
}

// Below a text that was laid out anew for another width stood nothing, for pages.
TEST (clause_view_new, gives_a_long_text_the_height_that_it_has)
{
  TestWindow test;
  std::string text;
  for (int i = 0; i < 1000; i++) {
    text += "Some words of a long text, which are more than a line can hold in any window.\n";
  }
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE +
                                         "INSERT INTO clause_revisions VALUES (1, 1, 3000, '" ALICE
                                         "', 'COMMITTED', '" +
                                         text + "');");
  bool fits = pump_until (
    [] (void *data) {
      GtkTextView *text_view = GTK_TEXT_VIEW (find_widget (((Clause *) data)->view, "text_view"));
      GtkTextIter end;
      int y;
      int height;
      gtk_text_buffer_get_end_iter (gtk_text_view_get_buffer (text_view), &end);
      gtk_text_view_get_line_yrange (text_view, &end, &y, &height);
      int allocated = gtk_widget_get_allocated_height (GTK_WIDGET (text_view));
      return y > 10000 && allocated >= y + height && allocated < y + height + 100;
    },
    clause);
  EXPECT_TRUE (fits);
}

// An assistive program may ask for what has just gone.
TEST (clause_view_new, tells_an_assistive_program_that_its_popover_is_gone)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  GtkWidget *popover = get_popover (clause);
  press (clause->view, "revision_select_menu_button");
  AtkObject *accessible = ATK_OBJECT (g_object_ref (gtk_widget_get_accessible (popover)));
  EXPECT_EQ (atk_object_get_role (accessible), ATK_ROLE_PANEL);
  EXPECT_TRUE (has_state (accessible, ATK_STATE_MODAL));
  EXPECT_FALSE (has_state (accessible, ATK_STATE_DEFUNCT));
  app_window_log_in_again (test.window);
  EXPECT_TRUE (has_state (accessible, ATK_STATE_DEFUNCT));
  EXPECT_FALSE (has_state (accessible, ATK_STATE_MODAL));
  g_object_unref (accessible);
}

// How often a text was laid out, and the frames that are still to be counted.
struct Layouts {
  int count;
  int frames_left;
};

static void
note_layout (GtkWidget *, GdkRectangle *, gpointer layouts)
{
  ((Layouts *) layouts)->count++;
}

static gboolean
note_frame (GtkWidget *, GdkFrameClock *, gpointer layouts)
{
  return --((Layouts *) layouts)->frames_left > 0 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

static bool
has_no_frames_left (void *layouts)
{
  return ((Layouts *) layouts)->frames_left == 0;
}

// Whoever asks for the height again asks once.
TEST (clause_view_new, lays_a_text_out_no_more_than_it_must)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  GtkWidget *text_view = find_widget (clause->view, "text_view");
  Layouts layouts = {0, 12};
  gtk_widget_add_tick_callback (text_view, note_frame, &layouts, NULL);
  EXPECT_TRUE (pump_until (has_no_frames_left, &layouts));
  layouts.frames_left = 12;
  g_signal_connect (text_view, "size-allocate", G_CALLBACK (note_layout), &layouts);
  gtk_widget_add_tick_callback (text_view, note_frame, &layouts, NULL);
  EXPECT_TRUE (pump_until (has_no_frames_left, &layouts));
  EXPECT_EQ (layouts.count, 0);
  g_signal_handlers_disconnect_by_data (text_view, &layouts);
}

// A window works on all popovers that it has, each time that it is laid out or scrolled.
TEST (clause_view_new, lets_the_popover_join_the_window_when_it_is_opened)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  GtkWidget *popover = get_popover (clause);
  EXPECT_EQ (gtk_widget_get_parent (popover), nullptr);
  open_revisions (clause);
  EXPECT_EQ (gtk_widget_get_toplevel (popover), GTK_WIDGET (test.window));
  EXPECT_EQ (gtk_popover_get_relative_to (GTK_POPOVER (popover)),
             find_widget (clause->view, "revision_select_menu_button"));
}

TEST (clause_view_init, takes_text_widgets_and_names_from_the_template)
{
  LooseClause loose;
  make_view (&loose);
  GtkWidget *text_view = find_widget (loose.view, "text_view");
  EXPECT_EQ (gtk_text_view_get_wrap_mode (GTK_TEXT_VIEW (text_view)), GTK_WRAP_WORD_CHAR);
  EXPECT_FALSE (gtk_text_view_get_accepts_tab (GTK_TEXT_VIEW (text_view)));
  EXPECT_EQ (gtk_container_get_border_width (GTK_CONTAINER (text_view)), 12u);
  EXPECT_EQ (get_text (loose.view, "commit_button"), "Commit");
  EXPECT_EQ (get_text (loose.view, "cancel_button"), "Cancel");
  GtkLabel *status = GTK_LABEL (find_widget (loose.view, "revision_status_label"));
  EXPECT_EQ (gtk_label_get_ellipsize (status), PANGO_ELLIPSIZE_END);
  EXPECT_EQ (list_unnamed_widgets (loose.view), "");
}

struct IconCase {
  const char *button;
  const char *icon;
};

class ClauseViewIcons : public testing::TestWithParam<IconCase> {};

TEST_P (ClauseViewIcons, stand_on_the_buttons)
{
  LooseClause loose;
  make_view (&loose);
  GtkWidget *button = find_widget (loose.view, GetParam ().button);
  const char *icon = NULL;
  gtk_image_get_icon_name (GTK_IMAGE (gtk_bin_get_child (GTK_BIN (button))), &icon, NULL);
  EXPECT_STREQ (icon, GetParam ().icon);
}

INSTANTIATE_TEST_SUITE_P (clause_view_init, ClauseViewIcons,
                          testing::Values (IconCase{"chat_button", "user-available-symbolic"},
                                           IconCase{"agree_button", "object-select-symbolic"},
                                           IconCase{"disagree_button", "window-close-symbolic"},
                                           IconCase{"diff_add_button", "list-add-symbolic"},
                                           IconCase{"diff_del_button", "list-remove-symbolic"}));

// ---- Showing a revision ----

TEST (clause_view_show_revision, shows_text_author_and_time)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  EXPECT_EQ (get_text (clause->view, "text_view"), "second text");
  EXPECT_EQ (get_status (clause), BOB ":4000");
  EXPECT_EQ (get_markup (clause), " ");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*" BOB ":4000\n");
  clause_view_show_revision (clause->view, clause->revisions[0], to_string (ALICE));
  EXPECT_EQ (get_text (clause->view, "text_view"), "first text");
  EXPECT_EQ (get_status (clause), ALICE ":3000");
  EXPECT_EQ (list_rows (clause->view), "*" ALICE ":3000\n" BOB ":4000\n");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
}

TEST (clause_view_show_revision, never_starts_a_draft)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  testing::internal::CaptureStdout ();
  activate_row (clause, 0);
  activate_row (clause, 1);
  clause_view_save_draft (clause->view);
  EXPECT_FALSE (has_line (testing::internal::GetCapturedStdout (), "CLAUSE CHANGE"));
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*" BOB ":4000\n");
  EXPECT_EQ (query (&test, "SELECT count (*) FROM clause_revisions"), "2\n");
}

static bool
is_author_warned_of (Clause *clause)
{
  GtkWidget *label = find_widget (clause->view, "revision_status_label");
  return gtk_style_context_has_class (gtk_widget_get_style_context (label), "warning");
}

TEST (clause_view_show_revision, warns_of_an_author_who_may_imitate_another)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                          "INSERT INTO clause_revisions VALUES (2, 1, 4000, 'b\u03bfb@beta.test',"
                          " 'COMMITTED', 'second text');");
  EXPECT_TRUE (is_author_warned_of (clause));
  activate_row (clause, 0);
  EXPECT_FALSE (is_author_warned_of (clause));
  clause_view_show_diff (clause->view, clause->revisions[0], clause->revisions[1]);
  EXPECT_TRUE (is_author_warned_of (clause));
  activate_row (clause, 0);
  clause_view_show_diff (clause->view, clause->revisions[1], clause->revisions[0]);
  EXPECT_TRUE (is_author_warned_of (clause));
  clause_view_set_draft_mode (clause->view);
  EXPECT_FALSE (is_author_warned_of (clause));
}

TEST (clause_view_show_revision, keeps_its_author_to_his_place_in_the_tooltips)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE +
                          "INSERT INTO clause_revisions VALUES (1, 1, 3000, 'bob\u202e@beta.test',"
                          " 'COMMITTED', 'first text');");
  const char *verbs[] = {"Agree", "Disagree"};
  for (int i = 0; i < 2; i++) {
    char *tooltip = gtk_widget_get_tooltip_text (find_widget (clause->view, BUTTONS[i]));
    std::string begin =
      std::string (verbs[i]) + " with the revision of \u2068bob\u202e@beta.test\u2069, ";
    EXPECT_EQ (std::string (tooltip).substr (0, begin.size ()), begin);
    g_free (tooltip);
  }
}

struct DecisionCase {
  const char *own;     // status, or NULL for none
  const char *others;  // likewise
  const char *sensitive;
  const char *markup;
};

class ClauseViewDecisions : public testing::TestWithParam<DecisionCase> {};

static std::string
insert_decision (const char *author, const char *status)
{
  return std::string ("INSERT INTO clause_revision_decisions (clause_revision_db_id, time, author,"
                      " status) VALUES (1, 3500, '") +
         author + "', '" + status + "');";
}

TEST_P (ClauseViewDecisions, are_shown_with_the_revision)
{
  TestWindow test;
  DecisionCase decisions = GetParam ();
  std::string sql = std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION;
  if (decisions.own)
    sql += insert_decision (ALICE, decisions.own);
  if (decisions.others)
    sql += insert_decision (BOB, decisions.others);
  Clause *clause = open_clause (&test, sql);
  EXPECT_EQ (list_sensitive (clause), decisions.sensitive);
  EXPECT_EQ (get_markup (clause), decisions.markup);
}

INSTANTIATE_TEST_SUITE_P (
  clause_view_show_revision, ClauseViewDecisions,
  testing::Values (DecisionCase{NULL, NULL, "agree disagree", " "},
                   DecisionCase{NULL, "AGREE", "agree disagree", AGREES},
                   DecisionCase{NULL, "DISAGREE", "agree disagree", DISAGREES},
                   DecisionCase{"AGREE", NULL, "disagree", " "},
                   DecisionCase{"AGREE", "AGREE", "disagree", AGREES},
                   DecisionCase{"AGREE", "DISAGREE", "disagree", DISAGREES},
                   DecisionCase{"DISAGREE", NULL, "agree", " "},
                   DecisionCase{"DISAGREE", "AGREE", "agree", AGREES},
                   DecisionCase{"DISAGREE", "DISAGREE", "agree", DISAGREES}));

TEST (clause_view_show_revision, calls_the_initiator_contractor_too)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test,
                 std::string (
                   "INSERT INTO accounts VALUES (1, '" ALICE "');"
                   "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor,"
                   " title) VALUES (1, 1, 1000, '" BOB "', '" ALICE "', 'Rent');") +
                   PEERS_CLAUSE + FIRST_REVISION + insert_decision (BOB, "DISAGREE"));
  EXPECT_EQ (get_markup (clause), DISAGREES);
}

TEST (clause_view_show_revision, passes_over_a_strangers_decision)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                                         insert_decision ("carol@alpha.test", "AGREE"));
  EXPECT_EQ (get_markup (clause), " ");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
}

TEST (clause_view_show_revision, drops_the_decision_shown_before)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                                         SECOND_REVISION + insert_decision (BOB, "AGREE"));
  activate_row (clause, 0);
  EXPECT_EQ (get_markup (clause), AGREES);
  activate_row (clause, 1);
  EXPECT_EQ (get_markup (clause), " ");
}

TEST (clause_view_show_revision, without_a_row_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  ClauseRevision *stranger =
    alloc_clause_revision (7, 1, 7000, to_string (BOB), REVISION_COMMITTED, to_string ("x"));
  EXPECT_DEATH (clause_view_show_revision (clause->view, stranger, to_string (ALICE)),
                "src/clause_view\\.cpp.*Assertion `row'");
  dealloc_clause_revision (stranger);
}

TEST (clause_view_show_revision, with_an_invalid_own_decision_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  ClauseRevision *revision = clause->revisions[0];
  clause_revision_add_decision (revision,
                                alloc_clause_revision_decision (1, 1, 3500, to_string (ALICE),
                                                                DECISION_INVALID));
  EXPECT_DEATH (clause_view_show_revision (clause->view, revision, to_string (ALICE)),
                "src/clause_view\\.cpp.*!\"Unhandled decision case\\.\"");
}

TEST (clause_view_show_revision, with_an_invalid_other_decision_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  ClauseRevision *revision = clause->revisions[0];
  clause_revision_add_decision (revision,
                                alloc_clause_revision_decision (1, 1, 3500, to_string (BOB),
                                                                DECISION_INVALID));
  EXPECT_DEATH (clause_view_show_revision (clause->view, revision, to_string (ALICE)),
                "src/clause_view\\.cpp.*!\"Unhandled decision case\\.\"");
}

TEST (clause_view_show_revision, keeps_unsaved_typing_as_the_draft)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  type (clause->view, "text_view", "my counter-offer");
  activate_row (clause, 0);
  EXPECT_EQ (get_text (clause->view, "text_view"), "first text");
  EXPECT_EQ (list_rows (clause->view), "*" ALICE ":3000\n" BOB ":4000\ndraft\n");
  EXPECT_EQ (query (&test, TEXTS), "COMMITTED|" ALICE "|first text\nCOMMITTED|" BOB
                                   "|second text\nDRAFT|" ALICE "|my counter-offer\n");
  activate_row (clause, 2);
  EXPECT_EQ (get_text (clause->view, "text_view"), "my counter-offer");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
}

TEST (clause_view_show_revision, takes_the_focus_from_unsaved_typing)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  GtkWidget *text_view = find_widget (clause->view, "text_view");
  focus (&test, text_view);
  type (clause->view, "text_view", "my counter-offer");
  receive_revision (&test, clause, {BOB, 6000}, "their third text");
  EXPECT_FALSE (gtk_widget_is_focus (text_view));
}

TEST (clause_view_show_revision, leaves_the_focus_where_nothing_was_typed)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  GtkWidget *text_view = find_widget (clause->view, "text_view");
  focus (&test, text_view);
  receive_revision (&test, clause, {BOB, 6000}, "their third text");
  EXPECT_TRUE (gtk_widget_is_focus (text_view));
}

// ---- Typing ----

TEST (clause_view_text_changed_handle, starts_a_draft)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                          insert_decision (ALICE, "AGREE") + insert_decision (BOB, "AGREE"));
  EXPECT_EQ (get_markup (clause), AGREES);
  type (clause->view, "text_view", "other text");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (get_markup (clause), " ");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*draft\n");
}

TEST (clause_view_text_changed_handle, stores_nothing_by_itself)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  type (clause->view, "text_view", "other text");
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (query (&test, TEXTS), "COMMITTED|" ALICE "|first text\n");
  EXPECT_EQ (take_sent (&test), "");
}

TEST (clause_view_text_changed_handle, tells_the_console)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  testing::internal::CaptureStdout ();
  type (clause->view, "text_view", "other text");
  EXPECT_TRUE (has_line (testing::internal::GetCapturedStdout (),
                         "\"CLAUSE CHANGE\": \"CLAUSE CHANGE\" (char *)\n"));
}

TEST (clause_view_text_changed_handle, lets_nobody_commit_an_empty_text)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  type (clause->view, "text_view", "");
  EXPECT_EQ (list_sensitive (clause), "cancel");
  EXPECT_EQ (get_status (clause), "draft");
  type (clause->view, "text_view", "x");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
  type (clause->view, "text_view", "");
  EXPECT_EQ (list_sensitive (clause), "cancel");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*draft\n");
}

TEST (clause_view_text_changed_handle, hears_the_keyboard)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  press_key (&test, GDK_KEY_End);
  press_key (&test, GDK_KEY_x);
  EXPECT_EQ (get_text (clause->view, "text_view"), "first textx");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
}

// ---- Saving the draft ----

TEST (clause_view_focus_out_handle, stores_what_was_typed_as_a_draft)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  type (clause->view, "text_view", "it's \"new\" & <b>");
  s64 before = get_posix_time ();
  testing::internal::CaptureStdout ();
  focus (&test, find_widget (clause->view, "cancel_button"));
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_TRUE (has_line (console, "\"FOCUSE OUT\": \"FOCUSE OUT\" (char *)\n"));
  EXPECT_EQ (query (&test, "SELECT status, author, clause_db_id, text FROM clause_revisions "
                           "WHERE db_id > 1"),
             "DRAFT|" ALICE "|1|it's \"new\" & <b>\n");
  ASSERT_TRUE (clause->draft);
  EXPECT_EQ (clause->draft->status, REVISION_DRAFT);
  EXPECT_EQ (query (&test, "SELECT db_id, time FROM clause_revisions WHERE status = 'DRAFT'"),
             std::to_string (clause->draft->db_id) + "|" + std::to_string (clause->draft->time) +
               "\n");
  EXPECT_GE (clause->draft->time, before);
  EXPECT_LE (clause->draft->time, get_posix_time ());
  EXPECT_EQ (clause->revisions_count, 1u);
  EXPECT_EQ (take_sent (&test), "");
}

TEST (clause_view_focus_out_handle, replaces_the_draft_that_is_there)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION + STORED_DRAFT);
  focus (&test, find_widget (clause->view, "text_view"));
  type (clause->view, "text_view", "newer draft");
  s64 before = get_posix_time ();
  focus (&test, find_widget (clause->view, "cancel_button"));
  EXPECT_EQ (query (&test, "SELECT db_id, status, text FROM clause_revisions WHERE db_id > 1"),
             "9|DRAFT|newer draft\n");
  EXPECT_EQ (query (&test, ("SELECT time >= " + std::to_string (before) +
                            " FROM clause_revisions WHERE db_id = 9")
                             .c_str ()),
             "1\n");
  EXPECT_EQ (to_std_string (clause->draft->text), "newer draft");
}

TEST (clause_view_focus_out_handle, stores_nothing_when_nothing_was_typed)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  testing::internal::CaptureStdout ();
  focus (&test, find_widget (clause->view, "agree_button"));
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_TRUE (has_line (console, "FOCUSE OUT"));
  EXPECT_FALSE (has_line (console, "INSERT"));
  EXPECT_FALSE (clause->draft);
}

TEST (clause_view_focus_out_handle, saves_once_for_one_edit)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  type (clause->view, "text_view", "edit");
  focus (&test, find_widget (clause->view, "cancel_button"));
  focus (&test, find_widget (clause->view, "text_view"));
  testing::internal::CaptureStdout ();
  focus (&test, find_widget (clause->view, "cancel_button"));
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_TRUE (has_line (console, "FOCUSE OUT"));
  EXPECT_FALSE (has_line (console, "UPDATE"));
  EXPECT_FALSE (has_line (console, "INSERT"));
}

TEST (clause_view_focus_out_handle, saves_when_another_page_is_shown)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  type (clause->view, "text_view", "half a thought");
  press (test.window, "add_procedure_button");
  focus (&test, find_widget (test.window->procedure_creation_page, "title_entry"));
  ASSERT_TRUE (clause->draft);
  EXPECT_EQ (to_std_string (clause->draft->text), "half a thought");
}

TEST (clause_view_save_draft, stores_the_clause_first_when_it_is_not_stored)
{
  TestWindow test;
  open_clause (&test, OWN_PROCEDURE);
  Procedure *procedure = get_procedure (&test);
  Clause *clause = alloc_clause (0, procedure->db_id, 2000, to_string (ALICE), 1);
  procedure_add_clause (procedure, clause);
  procedure_view_add_clause (procedure->view, clause);
  clause_view_set_draft_mode (clause->view);
  type (clause->view, "text_view", "from nothing");
  clause_view_save_draft (clause->view);
  EXPECT_EQ (query (&test, "SELECT procedure_db_id, time, initiator, position FROM clauses"),
             "1|2000|" ALICE "|1\n");
  EXPECT_EQ (query (&test, "SELECT clause_db_id = (SELECT db_id FROM clauses), status, text "
                           "FROM clause_revisions"),
             "1|DRAFT|from nothing\n");
}

TEST (clause_view_save_draft, gives_a_new_clause_its_draft_row)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_EQ (list_rows (clause->view), "");
  type (clause->view, "text_view", "from nothing");
  clause_view_save_draft (clause->view);
  EXPECT_EQ (list_rows (clause->view), "*draft\n");
}

TEST (clause_view_save_draft, keeps_an_emptied_text_too)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  type (clause->view, "text_view", "");
  clause_view_save_draft (clause->view);
  EXPECT_EQ (query (&test, TEXTS), "COMMITTED|" ALICE "|first text\nDRAFT|" ALICE "|\n");
  activate_row (clause, 0);
  activate_row (clause, 1);
  EXPECT_EQ (get_text (clause->view, "text_view"), "");
  EXPECT_EQ (list_sensitive (clause), "cancel");
}

TEST (clause_view_save_draft, happens_when_the_window_is_closed)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  type (clause->view, "text_view", "last words");
  close_window (&test);
  EXPECT_EQ (query (&test, TEXTS), "COMMITTED|" ALICE "|first text\nDRAFT|" ALICE "|last words\n");
}

TEST (clause_view_show_draft, reaches_the_draft_of_an_earlier_run)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                                         SECOND_REVISION + STORED_DRAFT);
  EXPECT_EQ (get_text (clause->view, "text_view"), "second text");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*" BOB ":4000\ndraft\n");
  activate_row (clause, 2);
  EXPECT_EQ (get_text (clause->view, "text_view"), "drafted text");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (get_markup (clause), " ");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n" BOB ":4000\n*draft\n");
}

TEST (clause_view_show_draft, opens_a_clause_that_is_a_draft_only)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + STORED_DRAFT);
  EXPECT_FALSE (is_sensitive (clause->view, "chat_button"));
  EXPECT_EQ (get_text (clause->view, "text_view"), "drafted text");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
}

TEST (clause_view_show_draft, without_a_draft_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  EXPECT_DEATH (clause_view_show_draft (clause->view),
                "src/clause_view\\.cpp.*Assertion `self->clause->draft'");
}

TEST (clause_view_revision_select_list_box_row_activate_handle, closes_the_list)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  open_revisions (clause);
  activate_row (clause, 0);
  EXPECT_TRUE (pump_until ([] (void *data) { return !gtk_widget_get_mapped (GTK_WIDGET (data)); },
                           get_popover (clause)));
  EXPECT_EQ (get_status (clause), ALICE ":3000");
}

// Only committed revisions and the draft are anything to look at.
TEST (clause_view_revision_select_list_box_row_activate_handle, passes_over_an_invalid_revision)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  clause->revisions[0]->status = REVISION_INVALID;
  activate_row (clause, 0);
  EXPECT_EQ (get_status (clause), BOB ":4000");
  EXPECT_EQ (get_text (clause->view, "text_view"), "second text");
}

TEST (clause_view_set_text, replaces_the_text_and_starts_no_draft)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  clause_view_set_text (clause->view, to_string ("put there"));
  EXPECT_EQ (get_text (clause->view, "text_view"), "put there");
  EXPECT_EQ (get_status (clause), ALICE ":3000");
  clause_view_set_text (clause->view, {});
  EXPECT_EQ (get_text (clause->view, "text_view"), "");
  EXPECT_EQ (get_status (clause), ALICE ":3000");
  type (clause->view, "text_view", "typed");
  EXPECT_EQ (get_status (clause), "draft");
}

TEST (clause_view_set_draft_mode, lets_commit_only_what_has_text)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (get_markup (clause), " ");
  EXPECT_EQ (list_sensitive (clause), "cancel");
  type (clause->view, "text_view", "x");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
}

TEST (clause_view_begin_draft, adds_one_row_however_often)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  clause_view_begin_draft (clause->view);
  clause_view_begin_draft (clause->view);
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*draft\n");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
}

TEST (clause_view_remove_draft_from_revisions_select_list, removes_the_row_and_lets_it_come_again)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  clause_view_begin_draft (clause->view);
  testing::internal::CaptureStdout ();
  clause_view_remove_draft_from_revisions_select_list (clause->view);
  EXPECT_FALSE (has_line (testing::internal::GetCapturedStdout (), "Warning"));
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n");
  clause_view_begin_draft (clause->view);
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*draft\n");
}

TEST (clause_view_remove_draft_from_revisions_select_list, without_the_row_only_warns)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  testing::internal::CaptureStdout ();
  clause_view_remove_draft_from_revisions_select_list (clause->view);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), MISSING_DRAFT_ROW);
  EXPECT_EQ (list_rows (clause->view), "*" ALICE ":3000\n");
}

// ---- Commit ----

TEST (clause_view_commit_button_handle, sends_a_new_clause_and_then_its_revision)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_EQ (take_sent (&test), "");
  EXPECT_FALSE (is_sensitive (clause->view, "chat_button"));
  type (clause->view, "text_view", "Pay by the third");
  press (clause->view, "commit_button");
  EXPECT_TRUE (is_sensitive (clause->view, "chat_button"));
  ASSERT_EQ (clause->revisions_count, 1u);
  ClauseRevision *revision = clause->revisions[0];
  std::string clause_name = ALICE ":" + std::to_string (clause->time);
  EXPECT_EQ (take_sent (&test),
             "<message type='chat' id='1' from='" ALICE "/morvane' to='" BOB "'><body>"
             "<x-clause procedure='" ALICE ":1000' clause='" +
               clause_name +
               "'></x-clause></body></message>"
               "<message type='chat' id='2' from='" ALICE "/morvane' to='" BOB "'><body>"
               "<x-revision procedure='" ALICE ":1000' clause='" +
               clause_name + "' revision='" + name_revision (revision) +
               "'>Pay by the third</x-revision></body></message>");
}

TEST (clause_view_commit_button_handle, sends_a_later_revision_alone)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  type (clause->view, "text_view", "third text");
  press (clause->view, "commit_button");
  EXPECT_EQ (take_sent (&test),
             "<message type='chat' id='1' from='" ALICE "/morvane' to='" BOB "'><body>"
             "<x-revision procedure='" ALICE ":1000' clause='" ALICE ":2000' revision='" +
               name_revision (clause->revisions[2]) + "'>third text</x-revision></body></message>");
}

TEST (clause_view_commit_button_handle, shows_and_stores_the_revision)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  type (clause->view, "text_view", "it's new");
  s64 before = get_posix_time ();
  press (clause->view, "commit_button");
  ASSERT_EQ (clause->revisions_count, 2u);
  ClauseRevision *revision = clause->revisions[1];
  EXPECT_EQ (revision->status, REVISION_COMMITTED);
  EXPECT_GE (revision->time, before);
  EXPECT_LE (revision->time, get_posix_time ());
  EXPECT_EQ (get_status (clause), name_revision (revision));
  EXPECT_EQ (get_text (clause->view, "text_view"), "it's new");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*" + name_revision (revision) + "\n");
  EXPECT_EQ (query (&test, "SELECT db_id, clause_db_id, time, author, status, text "
                           "FROM clause_revisions WHERE db_id > 1"),
             std::to_string (revision->db_id) + "|1|" + std::to_string (revision->time) +
               "|" ALICE "|COMMITTED|it's new\n");
}

TEST (clause_view_commit_button_handle, takes_the_stored_draft_away)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION + STORED_DRAFT);
  activate_row (clause, 1);
  press (clause->view, "commit_button");
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (query (&test, TEXTS),
             "COMMITTED|" ALICE "|first text\nCOMMITTED|" ALICE "|drafted text\n");
}

TEST (clause_view_commit_button_handle, leaves_no_draft_behind_when_the_text_loses_the_focus)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  type (clause->view, "text_view", "committed at once");
  press (clause->view, "commit_button");
  focus (&test, find_widget (clause->view, "agree_button"));
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (query (&test, TEXTS),
             "COMMITTED|" ALICE "|first text\nCOMMITTED|" ALICE "|committed at once\n");
}

TEST (clause_view_commit_button_handle, stores_a_clause_that_was_not_stored)
{
  TestWindow test;
  open_clause (&test, OWN_PROCEDURE);
  Procedure *procedure = get_procedure (&test);
  Clause *clause = alloc_clause (0, procedure->db_id, 2000, to_string (ALICE), 1);
  procedure_add_clause (procedure, clause);
  procedure_view_add_clause (procedure->view, clause);
  type (clause->view, "text_view", "from nothing");
  press (clause->view, "commit_button");
  EXPECT_NE (clause->db_id, 0u);
  EXPECT_EQ (query (&test, "SELECT clause_db_id = (SELECT db_id FROM clauses), status, text "
                           "FROM clause_revisions"),
             "1|COMMITTED|from nothing\n");
}

TEST (clause_view_commit_button_handle, answers_a_peers_clause_with_the_revision_alone)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + PEERS_CLAUSE);
  type (clause->view, "text_view", "my words for it");
  press (clause->view, "commit_button");
  EXPECT_EQ (take_sent (&test),
             "<message type='chat' id='1' from='" ALICE "/morvane' to='" BOB "'><body>"
             "<x-revision procedure='" ALICE ":1000' clause='" BOB ":2000' revision='" +
               name_revision (clause->revisions[0]) +
               "'>my words for it</x-revision></body></message>");
  EXPECT_TRUE (is_sensitive (clause->view, "chat_button"));
}

TEST (clause_view_commit_button_handle, never_gives_two_revisions_one_second)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  for (const char *text : {"one", "two", "three"}) {
    type (clause->view, "text_view", text);
    press (clause->view, "commit_button");
  }
  ASSERT_EQ (clause->revisions_count, 4u);
  EXPECT_LT (clause->revisions[1]->time, clause->revisions[2]->time);
  EXPECT_LT (clause->revisions[2]->time, clause->revisions[3]->time);
  EXPECT_EQ (query (&test, "SELECT count (DISTINCT time) FROM clause_revisions"), "4\n");
}

TEST (clause_view_commit_button_handle, passes_over_the_seconds_that_the_author_has_used)
{
  TestWindow test;
  run (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE);
  s64 now = get_posix_time ();
  for (int i = 0; i < 30; i++) {
    run (&test, "INSERT INTO clause_revisions (clause_db_id, time, author, status, text) "
                "VALUES (1, " +
                  std::to_string (now + i) + ", '" ALICE "', 'COMMITTED', 'taken');");
  }
  Clause *clause = open_clause (&test, "");
  type (clause->view, "text_view", "next");
  press (clause->view, "commit_button");
  ASSERT_EQ (clause->revisions_count, 31u);
  EXPECT_EQ (clause->revisions[30]->time, now + 30);
}

struct TypedCase {
  const char *typed;
  const char *kept;
};

class ClauseViewTyped : public testing::TestWithParam<TypedCase> {};

TEST_P (ClauseViewTyped, text_is_the_same_on_both_sides)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  type (clause->view, "text_view", GetParam ().typed);
  clause_view_save_draft (clause->view);
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             std::string (GetParam ().kept) + "\n");
  press (clause->view, "commit_button");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions WHERE db_id > 1"),
             std::string (GetParam ().kept) + "\n");
  EXPECT_EQ (to_std_string (clause->revisions[1]->text), GetParam ().kept);
  EXPECT_EQ (get_text (clause->view, "text_view"), GetParam ().kept);
  EXPECT_TRUE (has_line (take_sent (&test), ">" + std::string (GetParam ().kept) + "</x-rev"));
}

INSTANTIATE_TEST_SUITE_P (
  clause_view_commit_button_handle, ClauseViewTyped,
  testing::Values (TypedCase{"a\r\nb\rc\nd", "a\nb\nc\nd"},
                   TypedCase{"bell\x07 escape\x1b.", "bell escape."},
                   TypedCase{"  indented", "indented"}, TypedCase{"a  b ", "a  b "},
                   TypedCase{"tab\there", "tab\there"},
                   TypedCase{"stra\u00dfe \U0001f600", "stra\u00dfe \U0001f600"}));

TEST (clause_view_commit_button_handle, escapes_what_it_sends_only)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  type (clause->view, "text_view", "<b> & 'c' \"d\"");
  press (clause->view, "commit_button");
  EXPECT_EQ (to_std_string (clause->revisions[1]->text), "<b> & 'c' \"d\"");
  std::string sent = take_sent (&test);
  EXPECT_TRUE (has_line (sent, "&lt;b&gt; &amp; ")) << sent;
  EXPECT_FALSE (has_line (sent, "<b>")) << sent;
}

TEST (clause_view_commit_button_handle, of_a_typed_new_clause_warns_of_the_row_that_is_not_there)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  type (clause->view, "text_view", "unsaved");
  testing::internal::CaptureStdout ();
  press (clause->view, "commit_button");
  EXPECT_TRUE (has_line (testing::internal::GetCapturedStdout (), MISSING_DRAFT_ROW));
  EXPECT_EQ (clause->revisions_count, 1u);
}

TEST (clause_view_commit_button_handle, outside_of_draft_mode_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  EXPECT_DEATH (force (clause, "commit_button"),
                "src/clause_view\\.cpp.*Assertion `self->is_draft'");
}

TEST (clause_view_commit_button_handle, of_an_empty_text_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_DEATH (
    force (clause, "commit_button"),
    "src/clause_view\\.cpp.*Assertion `gtk_text_buffer_get_char_count \\(text_buffer\\)'");
}

// ---- Cancel ----

TEST (clause_view_cancel_button_handle, returns_to_the_revision_and_discards_the_draft)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  type (clause->view, "text_view", "never mind");
  clause_view_save_draft (clause->view);
  EXPECT_TRUE (clause->draft);
  press (clause->view, "cancel_button");
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (get_text (clause->view, "text_view"), "second text");
  EXPECT_EQ (get_status (clause), BOB ":4000");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*" BOB ":4000\n");
  EXPECT_EQ (query (&test, TEXTS),
             "COMMITTED|" ALICE "|first text\nCOMMITTED|" BOB "|second text\n");
  EXPECT_EQ (take_sent (&test), "");
}

TEST (clause_view_cancel_button_handle, returns_to_what_was_shown_last)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  activate_row (clause, 0);
  type (clause->view, "text_view", "never mind");
  press (clause->view, "cancel_button");
  EXPECT_EQ (get_status (clause), ALICE ":3000");
  EXPECT_EQ (get_text (clause->view, "text_view"), "first text");
}

TEST (clause_view_cancel_button_handle, leaves_no_draft_when_the_text_loses_the_focus)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  type (clause->view, "text_view", "never mind");
  press (clause->view, "cancel_button");
  focus (&test, find_widget (clause->view, "agree_button"));
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (query (&test, TEXTS), "COMMITTED|" ALICE "|first text\n");
}

TEST (clause_view_cancel_button_handle, shows_the_last_revision_when_none_was_shown_yet)
{
  TestWindow test;
  open_clause (&test, OWN_PROCEDURE);
  Procedure *procedure = get_procedure (&test);
  Clause *clause = alloc_clause (0, procedure->db_id, 2000, to_string (ALICE), 1);
  db_insert_clause (test.db, clause);
  for (s64 time : {3000, 4000}) {
    ClauseRevision *revision = alloc_clause_revision (0, clause->db_id, time, to_string (BOB),
                                                      REVISION_COMMITTED, to_string ("text"));
    db_insert_clause_revision (test.db, revision);
    clause_add_revision (clause, revision);
  }
  procedure_add_clause (procedure, clause);
  procedure_view_add_clause (procedure->view, clause);
  clause_view_set_draft_mode (clause->view);
  testing::internal::CaptureStdout ();
  press (clause->view, "cancel_button");
  EXPECT_TRUE (has_line (testing::internal::GetCapturedStdout (), MISSING_DRAFT_ROW));
  EXPECT_EQ (get_status (clause), BOB ":4000");
}

// A clause that the user has just added, and what must be gone when it is.
struct NewClause {
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  gpointer view = clause->view;
  gpointer chat_page = clause->chat_page;

  NewClause ()
  {
    g_object_add_weak_pointer (G_OBJECT (view), &view);
    g_object_add_weak_pointer (G_OBJECT (chat_page), &chat_page);
  }
};

static void
expect_no_clause (NewClause *fresh)
{
  EXPECT_EQ (get_procedure (&fresh->test)->clauses_count, 0u);
  EXPECT_FALSE (gtk_widget_get_visible (GTK_WIDGET (fresh->view)));
  EXPECT_FALSE (gtk_widget_get_visible (GTK_WIDGET (fresh->chat_page)));
  // When it cannot be undone any more.
  deletion_end (fresh->test.window);
  EXPECT_FALSE (fresh->view);
  EXPECT_FALSE (fresh->chat_page);
  EXPECT_EQ (query (&fresh->test, "SELECT * FROM clauses"), "");
  EXPECT_EQ (query (&fresh->test, "SELECT * FROM clause_revisions"), "");
  EXPECT_EQ (take_sent (&fresh->test), "");
}

TEST (clause_view_cancel_button_handle, takes_a_new_clause_out_of_the_world)
{
  NewClause fresh;
  EXPECT_EQ (query (&fresh.test, "SELECT count (*) FROM clauses"), "1\n");
  press (fresh.clause->view, "cancel_button");
  expect_no_clause (&fresh);
}

TEST (clause_view_cancel_button_handle, takes_the_draft_of_a_new_clause_along)
{
  NewClause fresh;
  type (fresh.clause->view, "text_view", "first thought");
  clause_view_save_draft (fresh.clause->view);
  EXPECT_EQ (query (&fresh.test, "SELECT count (*) FROM clause_revisions"), "1\n");
  type (fresh.clause->view, "text_view", "second thought");
  press (fresh.clause->view, "cancel_button");
  expect_no_clause (&fresh);
}

TEST (clause_view_cancel_button_handle, forgets_what_was_typed_with_the_focus_in_the_text)
{
  NewClause fresh;
  focus (&fresh.test, find_widget (fresh.clause->view, "text_view"));
  type (fresh.clause->view, "text_view", "unsaved");
  press (fresh.clause->view, "cancel_button");
  expect_no_clause (&fresh);
}

TEST (clause_view_cancel_button_handle, leaves_the_other_clauses_alone)
{
  TestWindow test;
  open_one_revision (&test);
  Procedure *procedure = get_procedure (&test);
  press (procedure->view, "add_clause_button");
  press (procedure->view, "add_clause_button");
  ASSERT_EQ (procedure->clauses_count, 3u);
  Clause *last = procedure->clauses[2];
  press (procedure->clauses[1]->view, "cancel_button");
  ASSERT_EQ (procedure->clauses_count, 2u);
  EXPECT_EQ (procedure->clauses[1], last);
  EXPECT_EQ (query (&test, "SELECT count (*) FROM clauses"), "2\n");
  EXPECT_EQ (query (&test, TEXTS), "COMMITTED|" ALICE "|first text\n");
}

TEST (clause_view_cancel_button_handle, never_deletes_a_peers_clause)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + PEERS_CLAUSE + STORED_DRAFT);
  EXPECT_EQ (list_rows (clause->view), "*draft\n");
  EXPECT_EQ (get_text (clause->view, "text_view"), "drafted text");
  press (clause->view, "cancel_button");
  EXPECT_EQ (get_text (clause->view, "text_view"), "");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (list_sensitive (clause), "cancel");
  EXPECT_EQ (list_rows (clause->view), "");
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (query (&test, "SELECT count (*) FROM clauses"), "1\n");
  EXPECT_EQ (query (&test, TEXTS), "");
  type (clause->view, "text_view", "another try");
  press (clause->view, "commit_button");
  EXPECT_EQ (query (&test, TEXTS), "COMMITTED|" ALICE "|another try\n");
}

TEST (clause_view_cancel_button_handle, of_an_untouched_peers_clause_says_nothing)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + PEERS_CLAUSE);
  testing::internal::CaptureStdout ();
  press (clause->view, "cancel_button");
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
  EXPECT_EQ (list_sensitive (clause), "cancel");
}

TEST (clause_view_cancel_button_handle, outside_of_draft_mode_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  EXPECT_DEATH (force (clause, "cancel_button"),
                "src/clause_view\\.cpp.*Assertion `self->is_draft'");
}

// ---- Decisions ----

static const char DECISIONS[] =
  "SELECT clause_revision_db_id, author, status FROM clause_revision_decisions ORDER BY db_id";

static std::string
decision_message (int id, const char *revision, ClauseRevisionDecision *decision)
{
  return "<message type='chat' id='" + std::to_string (id) +
         "' from='" ALICE "/morvane' to='" BOB "'><body><x-clause-decision procedure='" ALICE
         ":1000' clause='" ALICE ":2000' revision='" +
         revision + "' decision='" ALICE ":" + std::to_string (decision->time) + "'>" +
         DECISION_STATUS_STRINGS[decision->status] + "</x-clause-decision></body></message>";
}

TEST (clause_view_agree_button_handle, decides_stores_and_sends)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  s64 before = get_posix_time ();
  press (clause->view, "agree_button");
  EXPECT_EQ (list_sensitive (clause), "disagree");
  ClauseRevision *revision = clause->revisions[1];
  ASSERT_EQ (revision->decisions_count, 1u);
  ClauseRevisionDecision *decision = revision->decisions[0];
  EXPECT_EQ (decision->status, DECISION_AGREE);
  EXPECT_GE (decision->time, before);
  EXPECT_EQ (query (&test, DECISIONS), "2|" ALICE "|AGREE\n");
  EXPECT_EQ (query (&test, "SELECT db_id, time FROM clause_revision_decisions"),
             std::to_string (decision->db_id) + "|" + std::to_string (decision->time) + "\n");
  EXPECT_EQ (take_sent (&test), decision_message (1, BOB ":4000", decision));
  EXPECT_EQ (get_markup (clause), " ");
}

TEST (clause_view_disagree_button_handle, decides_stores_and_sends)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  press (clause->view, "disagree_button");
  EXPECT_EQ (list_sensitive (clause), "agree");
  EXPECT_EQ (query (&test, DECISIONS), "1|" ALICE "|DISAGREE\n");
  EXPECT_EQ (take_sent (&test),
             decision_message (1, ALICE ":3000", clause->revisions[0]->decisions[0]));
}

TEST (clause_view_make_new_decision, changes_the_one_decision_again_and_again)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  ClauseRevision *revision = clause->revisions[0];
  press (clause->view, "agree_button");
  take_sent (&test);
  u64 db_id = revision->decisions[0]->db_id;
  press (clause->view, "disagree_button");
  EXPECT_EQ (list_sensitive (clause), "agree");
  EXPECT_EQ (take_sent (&test), decision_message (2, ALICE ":3000", revision->decisions[0]));
  press (clause->view, "agree_button");
  EXPECT_EQ (list_sensitive (clause), "disagree");
  EXPECT_EQ (take_sent (&test), decision_message (3, ALICE ":3000", revision->decisions[0]));
  EXPECT_EQ (revision->decisions_count, 1u);
  EXPECT_EQ (revision->decisions[0]->db_id, db_id);
  EXPECT_EQ (query (&test, DECISIONS), "1|" ALICE "|AGREE\n");
}

TEST (clause_view_make_new_decision, stamps_a_changed_decision_anew)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                                         insert_decision (ALICE, "AGREE"));
  s64 before = get_posix_time ();
  press (clause->view, "disagree_button");
  ClauseRevisionDecision *decision = clause->revisions[0]->decisions[0];
  EXPECT_GE (decision->time, before);
  EXPECT_EQ (query (&test, "SELECT status, time FROM clause_revision_decisions"),
             "DISAGREE|" + std::to_string (decision->time) + "\n");
}

TEST (clause_view_make_new_decision, is_there_when_the_revision_is_shown_again)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  press (clause->view, "agree_button");
  activate_row (clause, 0);
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
  activate_row (clause, 1);
  EXPECT_EQ (list_sensitive (clause), "disagree");
}

TEST (clause_view_agree_button_handle, without_a_revision_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_DEATH (force (clause, "agree_button"),
                "clause_view_agree_button_handle.*Assertion `self->revision'");
}

TEST (clause_view_disagree_button_handle, without_a_revision_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_DEATH (force (clause, "disagree_button"),
                "clause_view_disagree_button_handle.*Assertion `self->revision'");
}

TEST (clause_view_make_new_decision, without_a_revision_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_DEATH (clause_view_make_new_decision (clause->view, to_string (ALICE), DECISION_AGREE),
                "src/clause_view\\.cpp.*clause_view_make_new_decision.*Assertion `self->revision'");
}

// Lets the view know of a decision that nobody has recorded.
static void
set_others_decision (Clause *clause, ClauseRevision *revision, const char *author,
                     DecisionStatus status)
{
  ClauseRevisionDecision *decision =
    alloc_clause_revision_decision (1, revision->db_id, 4500, to_string (author), status);
  clause_view_set_others_revision_decision (clause->view, revision, decision);
  dealloc_clause_revision_decision (decision);
}

TEST (clause_view_set_others_revision_decision, shows_the_decision_on_the_revision_shown)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  set_others_decision (clause, clause->revisions[0], BOB, DECISION_AGREE);
  EXPECT_EQ (get_markup (clause), AGREES);
  EXPECT_EQ (get_text (clause->view, "decision_status_label"), "contractor agrees");
  set_others_decision (clause, clause->revisions[0], BOB, DECISION_DISAGREE);
  EXPECT_EQ (get_markup (clause), DISAGREES);
  EXPECT_EQ (get_text (clause->view, "decision_status_label"), "contractor disagrees");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
}

TEST (clause_view_set_others_revision_decision, passes_over_another_revision)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  set_others_decision (clause, clause->revisions[0], BOB, DECISION_AGREE);
  EXPECT_EQ (get_markup (clause), " ");
}

TEST (clause_view_set_others_revision_decision, passes_over_who_is_not_the_other_party)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  set_others_decision (clause, clause->revisions[0], ALICE, DECISION_AGREE);
  set_others_decision (clause, clause->revisions[0], "carol@alpha.test", DECISION_DISAGREE);
  EXPECT_EQ (get_markup (clause), " ");
}

// As a user may have typed the contractor, and as the server names it.
TEST (clause_view_set_others_revision_decision, knows_the_other_party_however_it_is_spelled)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test,
                 "INSERT INTO accounts VALUES (1, '" ALICE "');"
                 "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
                 " VALUES (1, 1, 1000, '" ALICE "', 'anna@B\u00dcCHER.test', 'Rent');" +
                   std::string (OWN_CLAUSE) + FIRST_REVISION +
                   "INSERT INTO clause_revisions VALUES (2, 1, 4000, '" ALICE
                   "', 'COMMITTED', 'second text');");
  WireName revision = {ALICE, 4000};
  deliver_decision (test.window, {ALICE, 1000}, {ALICE, 2000}, revision,
                    {"anna@b\u00fccher.test", 5000}, DECISION_AGREE);
  EXPECT_EQ (get_markup (clause), AGREES);
  // And where it is shown again.
  activate_row (clause, 0);
  EXPECT_EQ (get_markup (clause), " ");
  activate_row (clause, 1);
  EXPECT_EQ (get_markup (clause), AGREES);
  // However it is spelled, it is one party with one decision.
  deliver_decision (test.window, {ALICE, 1000}, {ALICE, 2000}, revision,
                    {"anna@b\u00fcche\uff52.test", 5001}, DECISION_DISAGREE);
  EXPECT_EQ (get_markup (clause), DISAGREES);
  EXPECT_EQ (query (&test, "SELECT status FROM clause_revision_decisions"), "DISAGREE\n");
}

TEST (clause_view_set_others_revision_decision, does_not_disturb_a_draft)
{
  TestWindow test;
  Clause *clause =
    open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION + STORED_DRAFT);
  // The draft is shown, and the revision below it is still the one shown before.
  activate_row (clause, 1);
  set_others_decision (clause, clause->revisions[0], BOB, DECISION_AGREE);
  EXPECT_EQ (get_markup (clause), " ");
  EXPECT_EQ (get_status (clause), "draft");
}

TEST (clause_view_set_others_revision_decision, of_an_invalid_status_stops_the_program)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  EXPECT_DEATH (set_others_decision (clause, clause->revisions[0], BOB, DECISION_INVALID),
                "src/clause_view\\.cpp.*!\"Unhandled decision case\\.\"");
}

// ---- What comes meanwhile, and the chat ----

TEST (clause_view_show_revision, received_meanwhile_keeps_the_typing_as_the_draft)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  type (clause->view, "text_view", "my half sentence");
  receive_revision (&test, clause, {BOB, 6000}, "their text");
  EXPECT_EQ (get_text (clause->view, "text_view"), "their text");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\ndraft\n*" BOB ":6000\n");
  EXPECT_EQ (query (&test, "SELECT status, text FROM clause_revisions WHERE db_id > 1 "
                           "ORDER BY status"),
             "COMMITTED|their text\nDRAFT|my half sentence\n");
  activate_row (clause, 1);
  EXPECT_EQ (get_text (clause->view, "text_view"), "my half sentence");
  press (clause->view, "cancel_button");
  EXPECT_EQ (get_text (clause->view, "text_view"), "their text");
}

TEST (clause_view_show_revision, received_for_a_new_peers_clause_ends_its_draft_mode)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + PEERS_CLAUSE);
  EXPECT_EQ (list_sensitive (clause), "cancel");
  receive_revision (&test, clause, {BOB, 6000}, "their text");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
  EXPECT_EQ (get_status (clause), BOB ":6000");
}

TEST (clause_view_chat_button_handle, shows_the_chat_of_the_clause)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  EXPECT_EQ (get_page (get_procedure (&test)->view, "stack"), "main_box");
  press (clause->view, "chat_button");
  EXPECT_EQ (get_page (get_procedure (&test)->view, "stack"), "ClauseChatPage");
  EXPECT_TRUE (gtk_widget_get_mapped (GTK_WIDGET (clause->chat_page)));
}

TEST (clause_view_enable_chat, switches_the_button_on)
{
  LooseClause loose;
  make_view (&loose);
  clause_view_enable_chat (loose.clause->view);
  EXPECT_TRUE (is_sensitive (loose.view, "chat_button"));
}

// ---- The comparison as a state ----

// Shows what the second revision changed in the first, as a user who asks for it gets it.
static void
compare (Clause *clause)
{
  clause_view_set_text (clause->view, {});
  clause_view_show_diff (clause->view, clause->revisions[0], clause->revisions[1]);
  pump ();
}

TEST (clause_view_show_diff, offers_no_edit_and_leaves_the_decision_buttons)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  press (clause->view, "agree_button");
  compare (clause);
  EXPECT_EQ (list_sensitive (clause), "disagree");
  EXPECT_EQ (get_status (clause), ALICE ":3000 > " BOB ":4000");
  EXPECT_EQ (get_text (clause->view, "text_view"), "first second text");
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*" BOB ":4000\n");
}

TEST (clause_view_show_diff, lets_the_user_decide_on_the_revision_shown_before)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  compare (clause);
  press (clause->view, "disagree_button");
  EXPECT_EQ (list_sensitive (clause), "agree");
  EXPECT_EQ (query (&test, DECISIONS), "2|" ALICE "|DISAGREE\n");
  set_others_decision (clause, clause->revisions[1], BOB, DECISION_AGREE);
  EXPECT_EQ (get_markup (clause), AGREES);
}

TEST (clause_view_show_diff, is_left_for_a_revision)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  compare (clause);
  activate_row (clause, 0);
  EXPECT_EQ (get_text (clause->view, "text_view"), "first text");
  EXPECT_EQ (get_status (clause), ALICE ":3000");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
  GtkTextView *text_view = GTK_TEXT_VIEW (find_widget (clause->view, "text_view"));
  EXPECT_TRUE (gtk_text_view_get_editable (text_view));
}

TEST (clause_view_show_diff, is_left_for_a_revision_that_arrives)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  compare (clause);
  receive_revision (&test, clause, {BOB, 6000}, "their third text");
  EXPECT_EQ (get_text (clause->view, "text_view"), "their third text");
  EXPECT_EQ (get_status (clause), BOB ":6000");
  EXPECT_FALSE (clause->draft);
}

TEST (clause_view_show_diff, is_left_for_the_draft)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                                         SECOND_REVISION + STORED_DRAFT);
  compare (clause);
  activate_row (clause, 2);
  EXPECT_EQ (get_text (clause->view, "text_view"), "drafted text");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
}

TEST (clause_view_show_diff, comes_after_a_draft_too)
{
  TestWindow test;
  Clause *clause = open_clause (&test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + FIRST_REVISION +
                                         SECOND_REVISION + STORED_DRAFT);
  activate_row (clause, 2);
  compare (clause);
  EXPECT_EQ (list_sensitive (clause), "");
  clause_view_set_draft_mode (clause->view);
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
  EXPECT_EQ (get_status (clause), "draft");
}

TEST (clause_view_show_diff, is_no_draft_to_commit)
{
  TestWindow test;
  Clause *clause = open_two_revisions (&test);
  compare (clause);
  EXPECT_DEATH (force (clause, "commit_button"),
                "src/clause_view\\.cpp.*Assertion `self->is_draft'");
}

// ---- The comparison: what it shows ----

static GtkTextBuffer *
get_buffer (Clause *clause)
{
  return gtk_text_view_get_buffer (GTK_TEXT_VIEW (find_widget (clause->view, "text_view")));
}

static std::string
get_color (GtkTextTag *tag)
{
  GdkRGBA *color = NULL;
  g_object_get (tag, "background-rgba", &color, NULL);
  char *text = gdk_rgba_to_string (color);
  std::string result = text;
  g_free (text);
  gdk_rgba_free (color);
  return result;
}

// The text with its runs: [+added] in #085, [-deleted] in #c55.
static std::string
list_runs (Clause *clause)
{
  std::string list;
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (get_buffer (clause), &start);
  while (!gtk_text_iter_is_end (&start)) {
    GtkTextIter end = start;
    gtk_text_iter_forward_to_tag_toggle (&end, NULL);
    char *text = gtk_text_iter_get_text (&start, &end);
    GSList *tags = gtk_text_iter_get_tags (&start);
    if (tags) {
      std::string color = get_color (GTK_TEXT_TAG (tags->data));
      list += color == "rgb(0,136,85)" ? "[+" : color == "rgb(204,85,85)" ? "[-" : "[?";
      list += std::string (text) + "]";
    } else {
      list += text;
    }
    g_slist_free (tags);
    g_free (text);
    start = end;
  }
  return list;
}

// A clause whose two revisions have these texts.
static Clause *
open_texts (TestWindow *test, const char *older, const char *newer)
{
  char *sql = sqlite3_mprintf ("INSERT INTO clause_revisions VALUES (1, 1, 3000, '" ALICE
                               "', 'COMMITTED', %Q);"
                               "INSERT INTO clause_revisions VALUES (2, 1, 4000, '" BOB
                               "', 'COMMITTED', %Q);",
                               older, newer);
  Clause *clause = open_clause (test, std::string (OWN_PROCEDURE) + OWN_CLAUSE + sql);
  sqlite3_free (sql);
  return clause;
}

struct DiffCase {
  const char *older;
  const char *newer;
  const char *runs;
};

class ClauseViewDiff : public testing::TestWithParam<DiffCase> {};

TEST_P (ClauseViewDiff, is_shown_word_by_word)
{
  TestWindow test;
  Clause *clause = open_texts (&test, GetParam ().older, GetParam ().newer);
  compare (clause);
  EXPECT_EQ (list_runs (clause), GetParam ().runs);
}

TEST (clause_view_commit, lets_the_user_chat_although_someone_guessed_the_clauses_second)
{
  TestWindow test;
  Clause *clause = open_new_clause (&test);
  EXPECT_FALSE (is_sensitive (clause->view, "chat_button"));
  deliver_revision (test.window, {ALICE, 1000}, {ALICE, clause->time}, {BOB, clause->time},
                    "guessed");
  // The other party does not know the clause.
  EXPECT_FALSE (is_sensitive (clause->view, "chat_button"));
  type (clause->view, "text_view", "own text");
  press (clause->view, "commit_button");
  EXPECT_EQ (clause->revisions_count, 2u);
  EXPECT_TRUE (is_sensitive (clause->view, "chat_button"));
}

// The menu item with this label, as the text's menu has it; NULL when there is none.
static GtkWidget *
find_menu_item (GtkWidget *menu, const std::string &label)
{
  GtkWidget *found = NULL;
  GList *items = gtk_container_get_children (GTK_CONTAINER (menu));
  for (GList *link = items; link; link = link->next) {
    if (label == gtk_menu_item_get_label (GTK_MENU_ITEM (link->data)))
      found = GTK_WIDGET (link->data);
  }
  g_list_free (items);
  return found;
}

// What the text's menu says about an item: "", "off" or "on"; one that is on is chosen on demand.
static std::string
use_text_menu (Clause *clause, const char *label, bool is_chosen)
{
  GtkWidget *menu = GTK_WIDGET (g_object_ref_sink (gtk_menu_new ()));
  g_signal_emit_by_name (find_widget (clause->view, "text_view"), "populate-popup", menu);
  GtkWidget *item = find_menu_item (menu, label);
  std::string state = !item ? "" : gtk_widget_get_sensitive (item) ? "on" : "off";
  if (item && is_chosen) {
    EXPECT_EQ (state, "on") << label;
    gtk_menu_item_activate (GTK_MENU_ITEM (item));
    pump ();
  }
  gtk_widget_destroy (menu);
  g_object_unref (menu);
  return state;
}

TEST_P (ClauseViewDiff, kept_whole_gives_the_newer_text)
{
  TestWindow test;
  Clause *clause = open_texts (&test, GetParam ().older, GetParam ().newer);
  use_text_menu (clause, "Compare with the previous revision", true);
  if (use_text_menu (clause, "Take all of the newer text", false) == "on")
    use_text_menu (clause, "Take all of the newer text", true);
  EXPECT_EQ (list_runs (clause), GetParam ().newer);
  EXPECT_FALSE (clause->draft);
  use_text_menu (clause, "Use this text as draft", true);
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             std::string (GetParam ().newer) + "\n");
}

INSTANTIATE_TEST_SUITE_P (
  clause_view_show_diff, ClauseViewDiff,
  testing::Values (DiffCase{"pay by noon", "pay by night", "pay by [-noon][+night]"},
                   DiffCase{"pay noon", "pay by noon", "pay [+by ]noon"},
                   DiffCase{"pay by noon", "pay noon", "pay [-by ]noon"},
                   DiffCase{"all old", "quite new", "[-all old][+quite new]"},
                   DiffCase{"same text", "same text", "same text"},
                   DiffCase{"one", "one\ntwo", "one[+\u23ce\ntwo]"},
                   DiffCase{"one\ntwo", "one", "one[-\u23ce\ntwo]"},
                   DiffCase{"one\ntwo", "one\nthree", "one\n[-two][+three]"},
                   DiffCase{"a \u23ce b", "a \u23ce c", "a \u23ce [-b][+c]"},
                   DiffCase{"stra\u00dfe", "gasse \U0001f600",
                            "[-stra\u00dfe][+gasse \U0001f600]"}));

// ---- The comparison: deciding on changes ----

// Moves the pointer over the text at this place; what the handler measures in is the text's own.
static void
hover (Clause *clause, int offset)
{
  GtkWidget *text_view = find_widget (clause->view, "text_view");
  GtkTextIter iter;
  GdkRectangle location;
  gtk_text_buffer_get_iter_at_offset (get_buffer (clause), &iter, offset);
  gtk_text_view_get_iter_location (GTK_TEXT_VIEW (text_view), &iter, &location);
  int border_width = (int) gtk_container_get_border_width (GTK_CONTAINER (text_view));
  int x = 0;
  int y = 0;
  gtk_text_view_buffer_to_window_coords (GTK_TEXT_VIEW (text_view), GTK_TEXT_WINDOW_WIDGET,
                                         location.x + 1 - border_width,
                                         location.y + 1 - border_width, &x, &y);
  GdkEvent *event = gdk_event_new (GDK_MOTION_NOTIFY);
  event->motion.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (text_view)));
  // Truncated, not rounded.
  event->motion.x = x + 0.9;
  event->motion.y = y + 0.9;
  GdkSeat *seat = gdk_display_get_default_seat (gtk_widget_get_display (text_view));
  gdk_event_set_device (event, gdk_seat_get_pointer (seat));
  gboolean is_handled = TRUE;
  g_signal_emit_by_name (text_view, "motion-notify-event", event, &is_handled);
  gdk_event_free (event);
  pump ();
}

static bool
has_tools (Clause *clause)
{
  return gtk_widget_get_visible (find_widget (clause->view, "diff_overlay_tools"));
}

// A comparison with a deletion from 4 and an addition from 8: "pay [-at ][+by ]noon".
static Clause *
open_comparison (TestWindow *test)
{
  Clause *clause = open_texts (test, "pay at noon", "pay by noon");
  compare (clause);
  EXPECT_EQ (list_runs (clause), "pay [-at ][+by ]noon");
  return clause;
}

TEST (clause_view_text_view_motion_notify_handle, shows_the_tools_at_a_change_only)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  EXPECT_FALSE (has_tools (clause));
  hover (clause, 5);
  EXPECT_TRUE (has_tools (clause));
  hover (clause, 1);
  EXPECT_FALSE (has_tools (clause));
  hover (clause, 4);
  EXPECT_TRUE (has_tools (clause));
}

TEST (clause_view_text_view_motion_notify_handle, puts_the_tools_under_the_line)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  hover (clause, 8);
  hover (clause, 8);
  GtkWidget *tools = find_widget (clause->view, "diff_overlay_tools");
  GtkTextIter iter;
  GdkRectangle location;
  gtk_text_buffer_get_iter_at_offset (get_buffer (clause), &iter, 8);
  gtk_text_view_get_iter_location (GTK_TEXT_VIEW (find_widget (clause->view, "text_view")), &iter,
                                   &location);
  EXPECT_EQ (gtk_widget_get_margin_top (tools), location.y + location.height + 12);
  int start = location.x + 1 + 24 - gtk_widget_get_allocated_width (tools) / 2;
  EXPECT_EQ (gtk_widget_get_margin_start (tools), MAX (0, start));
}

TEST (clause_view_diff_del_button_handle, takes_the_run_out)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  hover (clause, 5);
  press (clause->view, "diff_del_button");
  EXPECT_EQ (list_runs (clause), "pay [+by ]noon");
  EXPECT_FALSE (has_tools (clause));
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
  EXPECT_FALSE (clause->draft);
}

TEST (clause_view_diff_del_button_handle, of_the_last_change_leaves_a_draft)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  hover (clause, 5);
  press (clause->view, "diff_del_button");
  hover (clause, 5);
  press (clause->view, "diff_del_button");
  EXPECT_EQ (list_runs (clause), "pay noon");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n" BOB ":4000\n*draft\n");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             "pay noon\n");
  press (clause->view, "commit_button");
  EXPECT_EQ (to_std_string (clause->revisions[2]->text), "pay noon");
}

TEST (clause_view_diff_add_button_handle, keeps_the_run_as_ordinary_text)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  hover (clause, 9);
  press (clause->view, "diff_add_button");
  EXPECT_EQ (list_runs (clause), "pay [-at ]by noon");
  EXPECT_FALSE (has_tools (clause));
  hover (clause, 5);
  press (clause->view, "diff_add_button");
  EXPECT_EQ (list_runs (clause), "pay at by noon");
  // The last change is kept, and nothing is a draft by itself.
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
  EXPECT_FALSE (clause->draft);
  EXPECT_EQ (list_rows (clause->view), ALICE ":3000\n*" BOB ":4000\n");
}

TEST (clause_view_diff_add_button_handle, keeps_a_line_break_without_its_symbol)
{
  TestWindow test;
  Clause *clause = open_texts (&test, "one two", "one \ntwo");
  compare (clause);
  EXPECT_EQ (list_runs (clause), "one [+\u23ce\n]two");
  hover (clause, 4);
  press (clause->view, "diff_add_button");
  EXPECT_EQ (list_runs (clause), "one \ntwo");
}

TEST (clause_view_diff_add_button_handle, keeps_a_symbol_that_is_the_texts_own)
{
  TestWindow test;
  Clause *clause = open_texts (&test, "one", "two\u23ce");
  compare (clause);
  EXPECT_EQ (list_runs (clause), "[-one][+two\u23ce]");
  hover (clause, 4);
  press (clause->view, "diff_add_button");
  EXPECT_EQ (list_runs (clause), "[-one]two\u23ce");
}

TEST (clause_view_show_diff, lets_nobody_type_while_a_change_is_undecided)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  GtkTextView *text_view = GTK_TEXT_VIEW (find_widget (clause->view, "text_view"));
  EXPECT_FALSE (gtk_text_view_get_editable (text_view));
  use_text_menu (clause, "Take all of the newer text", true);
  EXPECT_TRUE (gtk_text_view_get_editable (text_view));
  type (clause->view, "text_view", "pay by noon, please");
  EXPECT_EQ (get_status (clause), "draft");
  EXPECT_EQ (list_sensitive (clause), "commit cancel");
}

TEST (clause_view_cursor_position_handle, shows_the_tools_at_the_cursor)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (get_buffer (clause), &iter, 5);
  gtk_text_buffer_place_cursor (get_buffer (clause), &iter);
  EXPECT_TRUE (has_tools (clause));
  press (clause->view, "diff_del_button");
  EXPECT_EQ (list_runs (clause), "pay [+by ]noon");
}

TEST (clause_view_text_view_key_press_handle, leaves_the_comparison_with_escape)
{
  TestWindow test;
  Clause *clause = open_comparison (&test);
  focus (&test, find_widget (clause->view, "text_view"));
  press_key (&test, GDK_KEY_Escape);
  EXPECT_EQ (list_runs (clause), "pay by noon");
  EXPECT_EQ (get_status (clause), BOB ":4000");
  EXPECT_EQ (list_sensitive (clause), "agree disagree");
}

TEST (clause_view_populate_popup_handle, offers_what_the_state_allows)
{
  TestWindow test;
  Clause *clause = open_texts (&test, "pay at noon", "pay by noon");
  EXPECT_EQ (use_text_menu (clause, "Compare with the previous revision", false), "on");
  EXPECT_EQ (use_text_menu (clause, "Leave the comparison", false), "");
  activate_row (clause, 0);
  EXPECT_EQ (use_text_menu (clause, "Compare with the previous revision", false), "off");
  activate_row (clause, 1);
  use_text_menu (clause, "Compare with the previous revision", true);
  EXPECT_EQ (list_runs (clause), "pay [-at ][+by ]noon");
  EXPECT_EQ (use_text_menu (clause, "Compare with the previous revision", false), "");
  EXPECT_EQ (use_text_menu (clause, "Take all of the newer text", false), "on");
  EXPECT_EQ (use_text_menu (clause, "Use this text as draft", false), "off");
  use_text_menu (clause, "Leave the comparison", true);
  EXPECT_EQ (get_status (clause), BOB ":4000");
  type (clause->view, "text_view", "typed");
  EXPECT_EQ (use_text_menu (clause, "Compare with the previous revision", false), "");
}

// Opens the menu of a row as the Menu key does, and chooses the comparison.
static void
compare_row (TestWindow *test, Clause *clause, int index)
{
  open_revisions (clause);
  GtkWidget *row = GTK_WIDGET (gtk_list_box_get_row_at_index (get_list (clause->view), index));
  focus (test, row);
  press_key (test, GDK_KEY_Menu);
  GList *menus = gtk_menu_get_for_attach_widget (row);
  ASSERT_TRUE (menus);
  GtkWidget *menu = GTK_WIDGET (menus->data);
  GtkWidget *item = find_menu_item (menu, "Compare with the revision shown");
  ASSERT_TRUE (item);
  gtk_menu_shell_activate_item (GTK_MENU_SHELL (menu), item, TRUE);
  pump ();
}

TEST (clause_view_compare, takes_a_row_and_what_is_shown_in_their_order)
{
  TestWindow test;
  Clause *clause = open_texts (&test, "pay at noon", "pay by noon");
  compare_row (&test, clause, 0);
  EXPECT_EQ (list_runs (clause), "pay [-at ][+by ]noon");
  activate_row (clause, 0);
  compare_row (&test, clause, 1);
  EXPECT_EQ (list_runs (clause), "pay [-at ][+by ]noon");
  EXPECT_EQ (get_status (clause), ALICE ":3000 > " BOB ":4000");
}

TEST (clause_view_compare, takes_the_draft_as_the_newest)
{
  TestWindow test;
  Clause *clause = open_texts (&test, "pay at noon", "pay by noon");
  type (clause->view, "text_view", "pay by night");
  compare_row (&test, clause, 1);
  EXPECT_EQ (list_runs (clause), "pay by [-noon][+night]");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             "pay by night\n");
}

TEST (clause_view_compare, of_a_revision_with_itself_is_refused)
{
  TestWindow test;
  Clause *clause = open_texts (&test, "pay at noon", "pay by noon");
  testing::internal::CaptureStdout ();
  compare_row (&test, clause, 1);
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             "Info: A revision can't be compared with itself.\n");
  EXPECT_EQ (get_status (clause), "A revision can't be compared with itself.");
  EXPECT_EQ (list_runs (clause), "pay by noon");
}

struct RefusalCase {
  std::string older;
  const char *refusal;
};

class ClauseViewRefusals : public testing::TestWithParam<RefusalCase> {};

TEST_P (ClauseViewRefusals, say_why_there_is_no_comparison)
{
  TestWindow test;
  std::string newer;
  for (int i = 0; i < 5000; i++)
    newer += "n ";
  Clause *clause = open_texts (&test, GetParam ().older.c_str (), newer.c_str ());
  testing::internal::CaptureStdout ();
  use_text_menu (clause, "Compare with the previous revision", true);
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             std::string ("Info: ") + GetParam ().refusal + "\n");
  EXPECT_EQ (get_status (clause), GetParam ().refusal);
  EXPECT_EQ (get_text (clause->view, "text_view"), newer);
}

static std::string
make_words (int count)
{
  std::string words;
  for (int i = 0; i < count; i++)
    words += "o ";
  return words;
}

INSTANTIATE_TEST_SUITE_P (
  clause_view_compare, ClauseViewRefusals,
  testing::Values (RefusalCase{"", "An empty text can't be compared."},
                   RefusalCase{make_words (5000), "These texts are too long to be compared."}));

// ---- Every order of the states ----

// What a view is to be, worked out beside it.
struct Model {
  std::vector<std::string> texts;   // of the revisions
  std::vector<std::string> own;     // decisions, by revision: "", "AGREE" or "DISAGREE"
  std::vector<std::string> others;  // likewise
  size_t base;                      // the revision shown last
  bool is_draft;
  std::string text;
  bool is_unsaved;
  bool has_draft;
  std::string draft;
  size_t draft_row;  // 0 for none, else the number of revision rows above it
};

static void
save (Model *model)
{
  if (!model->is_unsaved)
    return;
  model->is_unsaved = false;
  model->has_draft = true;
  model->draft = model->text;
}

static void
show (Model *model, size_t index)
{
  save (model);
  model->base = index;
  model->is_draft = false;
  model->text = model->texts[index];
}

static void
discard (Model *model)
{
  model->is_unsaved = false;
  model->has_draft = false;
  model->draft_row = 0;
}

static void
edit (Model *model, const std::string &text)
{
  model->text = text;
  model->is_draft = true;
  model->is_unsaved = true;
  if (!model->draft_row)
    model->draft_row = model->texts.size ();
}

static void
add (Model *model, const std::string &text)
{
  model->texts.push_back (text);
  model->own.push_back ("");
  model->others.push_back ("");
}

static void
expect_same (TestWindow *test, Clause *clause, const Model &model)
{
  EXPECT_EQ (get_text (clause->view, "text_view"), model.text);
  std::string rows;
  for (size_t i = 0; i < model.texts.size (); i++) {
    bool is_shown = !model.is_draft && i == model.base;
    rows += (is_shown ? "*" : "") + name_revision (clause->revisions[i]) + "\n";
    if (model.draft_row == i + 1)
      rows += model.is_draft ? "*draft\n" : "draft\n";
  }
  EXPECT_EQ (list_rows (clause->view), rows);
  if (model.is_draft) {
    EXPECT_EQ (get_status (clause), "draft");
    EXPECT_EQ (get_markup (clause), " ");
    EXPECT_EQ (list_sensitive (clause), model.text.empty () ? "cancel" : "commit cancel");
  } else {
    std::string own = model.own[model.base];
    std::string others = model.others[model.base];
    EXPECT_EQ (get_status (clause), name_revision (clause->revisions[model.base]));
    EXPECT_EQ (get_markup (clause), others.empty () ? " " : others == "AGREE" ? AGREES : DISAGREES);
    EXPECT_EQ (list_sensitive (clause), own.empty ()     ? "agree disagree"
                                        : own == "AGREE" ? "disagree"
                                                         : "agree");
  }
  std::string stored;
  for (const std::string &text : model.texts)
    stored += text + "\n";
  EXPECT_EQ (query (test, "SELECT text FROM clause_revisions WHERE status = 'COMMITTED' "
                          "ORDER BY db_id"),
             stored);
  EXPECT_EQ (query (test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             model.has_draft ? model.draft + "\n" : "");
}

enum Step {
  STEP_TYPE,
  STEP_CLEAR,
  STEP_SAVE,
  STEP_SHOW_REVISION,
  STEP_SHOW_DRAFT,
  STEP_RECEIVE,
  STEP_COMMIT,
  STEP_CANCEL,
  STEP_AGREE,
  STEP_DISAGREE,
  STEP_OTHERS_DECISION,
  STEPS_COUNT
};

// Takes one step in the window and in the model; `number` makes its text and picks its revision.
static void
take_step (TestWindow *test, Clause *clause, Model *model, Step step, unsigned number)
{
  size_t index = number % model->texts.size ();
  std::string text = "text " + std::to_string (number);
  bool has_row = model->draft_row;
  switch (step) {
  case STEP_TYPE:
    type (clause->view, "text_view", text.c_str ());
    edit (model, text);
    break;
  case STEP_CLEAR:
    type (clause->view, "text_view", "");
    if (!model->text.empty ())
      edit (model, "");
    break;
  case STEP_SAVE:
    clause_view_save_draft (clause->view);
    save (model);
    break;
  case STEP_SHOW_REVISION:
    activate_row (clause, (int) index + (has_row && index >= model->draft_row));
    show (model, index);
    break;
  case STEP_SHOW_DRAFT:
    if (!has_row)
      break;
    activate_row (clause, (int) model->draft_row);
    save (model);
    model->text = model->draft;
    model->is_draft = true;
    break;
  case STEP_RECEIVE:
    // Later than all others, or its row would not be the last.
    receive_revision (test, clause, {BOB, clause->revisions[clause->revisions_count - 1]->time + 1},
                      text.c_str ());
    add (model, text);
    show (model, model->texts.size () - 1);
    break;
  case STEP_COMMIT:
    if (!model->is_draft || model->text.empty ())
      break;
    press (clause->view, "commit_button");
    discard (model);
    add (model, model->text);
    show (model, model->texts.size () - 1);
    break;
  case STEP_CANCEL:
    if (!model->is_draft)
      break;
    press (clause->view, "cancel_button");
    discard (model);
    show (model, model->base);
    break;
  case STEP_AGREE:
  case STEP_DISAGREE: {
    std::string status = step == STEP_AGREE ? "AGREE" : "DISAGREE";
    if (model->is_draft || model->own[model->base] == status)
      break;
    press (clause->view, step == STEP_AGREE ? "agree_button" : "disagree_button");
    model->own[model->base] = status;
    break;
  }
  case STEP_OTHERS_DECISION: {
    ClauseRevision *revision = clause->revisions[index];
    DecisionStatus status = number % 3 ? DECISION_AGREE : DECISION_DISAGREE;
    std::string author = to_std_string (revision->author);
    deliver_decision (test->window, {ALICE, 1000}, {ALICE, 2000}, {author.c_str (), revision->time},
                      {BOB, 20000}, status);
    model->others[index] = DECISION_STATUS_STRINGS[status];
    break;
  }
  case STEPS_COUNT:
    break;
  }
}

class ClauseViewWalk : public testing::TestWithParam<unsigned> {};

// Every two steps follow each other in some walk, each from both states.
TEST_P (ClauseViewWalk, goes_through_the_states_in_every_order)
{
  TestWindow test;
  Clause *clause = open_one_revision (&test);
  Model model = {};
  add (&model, "first text");
  show (&model, 0);
  // A linear congruential generator: the same walk at every run.
  unsigned random = GetParam ();
  unsigned previous = 0;
  for (unsigned number = 1; number <= 150 && !HasFailure (); number++) {
    random = random * 1664525 + 1013904223;
    unsigned step = (random >> 16) % STEPS_COUNT;
    SCOPED_TRACE ("step " + std::to_string (number) + ": " + std::to_string (previous) + " then " +
                  std::to_string (step));
    take_step (&test, clause, &model, (Step) step, number);
    expect_same (&test, clause, model);
    previous = step;
  }
}

INSTANTIATE_TEST_SUITE_P (clause_view, ClauseViewWalk, testing::Values (1u, 2u, 3u, 4u));
