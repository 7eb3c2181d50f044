#include "procedure_view.h"

#include "clause_chat_page.h"
#include "clause_view.h"
#include "db.h"
#include "deletion.h"
#include "morvane.h"
#include "widget_test.h"

// A procedure of the account, in the store and on the stack, not yet shown.
static Procedure *
add_procedure (TestWindow *test, const char *title = "Planks")
{
  AppWindow *window = test->window;
  Procedure *procedure =
    alloc_procedure (0, window->account_db_id, 5, to_string (title), to_string ("alice@alpha.test"),
                     to_string ("bob@beta.test"));
  db_insert_procedure (window->db, procedure);
  procedures_stack_add_procedure (&window->procedures, procedure);
  return procedure;
}

static Clause *
add_clause (TestWindow *test, Procedure *procedure)
{
  u64 position = procedure->clauses_count + 1;
  Clause *clause = alloc_clause (0, procedure->db_id, (s64) (6 + position),
                                 to_string ("alice@alpha.test"), position);
  db_insert_clause (test->window->db, clause);
  procedure_add_clause (procedure, clause);
  return clause;
}

static void
add_revision (TestWindow *test, Clause *clause, const char *text)
{
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, 10 + clause->revisions_count,
                           to_string ("bob@beta.test"), REVISION_COMMITTED, to_string (text));
  db_insert_clause_revision (test->window->db, revision);
  clause_add_revision (clause, revision);
}

static void
show (TestWindow *test, Procedure *procedure)
{
  app_window_add_procedure (test->window, procedure);
  gtk_stack_set_visible_child (test->window->main_page_stack, GTK_WIDGET (procedure->view));
  pump ();
}

static u32
count_clause_views (Procedure *procedure)
{
  GList *views =
    gtk_container_get_children (GTK_CONTAINER (find_widget (procedure->view, "clauses_box")));
  u32 count = g_list_length (views);
  g_list_free (views);
  return count;
}

// ---- Looks ----

TEST (procedure_view_new, shows_title_and_add_button_of_a_procedure_without_clauses)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "<b>Planks</b> & more");
  show (&test, procedure);
  EXPECT_EQ (get_text (procedure->view, "title_label"), "<b>Planks</b> & more");
  EXPECT_EQ (count_clause_views (procedure), 0u);
  EXPECT_EQ (get_page (procedure->view, "stack"), "main_box");
  EXPECT_TRUE (is_sensitive (procedure->view, "add_clause_button"));
  EXPECT_TRUE (is_sensitive (procedure->view, "delete_button"));
}

TEST (procedure_view_new, names_its_widgets_for_assistive_technology)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  add_clause (&test, procedure);
  show (&test, procedure);
  ProcedureView *view = procedure->view;
  EXPECT_EQ (list_unnamed_widgets (view), "");
  EXPECT_EQ (find_accessible (view, "Add clause"), find_widget (view, "add_clause_button"));
  EXPECT_EQ (find_accessible (view, "Delete procedure"), find_widget (view, "delete_button"));
  for (const char *name : {"Clause chat", "Revisions", "Clause text", "Agree", "Disagree"}) {
    EXPECT_TRUE (find_accessible (view, name)) << name;
  }
}

TEST (procedure_view_new, keeps_the_title_to_its_place)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "Oak \u202eplanks");
  show (&test, procedure);
  EXPECT_EQ (get_text (procedure->view, "title_label"), "\u2068Oak \u202eplanks\u2069");
}

TEST (procedure_view_new, takes_a_title_that_is_no_text_without_a_warning)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "a\xff");
  show (&test, procedure);
  EXPECT_EQ (get_text (procedure->view, "title_label"), "a\xef\xbf\xbd");
}

static bool
is_mapped (void *clause)
{
  return gtk_widget_get_mapped (GTK_WIDGET (((Clause *) clause)->view));
}

static Procedure *
show_short_clauses (TestWindow *test)
{
  log_in (test);
  Procedure *procedure = add_procedure (test);
  for (u32 i = 0; i < 40; i++) {
    add_revision (test, add_clause (test, procedure), "Planks of oak");
  }
  show (test, procedure);
  return procedure;
}

TEST (procedure_view_new, maps_only_the_clauses_near_to_what_is_in_sight)
{
  TestWindow test;
  Procedure *procedure = show_short_clauses (&test);
  Clause *first = procedure->clauses[0];
  Clause *last = procedure->clauses[39];
  EXPECT_TRUE (pump_until (is_mapped, first));
  EXPECT_FALSE (is_mapped (last));
  EXPECT_TRUE (gtk_widget_get_visible (GTK_WIDGET (last->view)));

  GtkWidget *viewport = gtk_widget_get_ancestor (GTK_WIDGET (last->view), GTK_TYPE_VIEWPORT);
  GtkAdjustment *adjustment = gtk_scrollable_get_vadjustment (GTK_SCROLLABLE (viewport));
  gtk_adjustment_set_value (adjustment, gtk_adjustment_get_upper (adjustment));
  EXPECT_TRUE (pump_until (is_mapped, last));
  EXPECT_FALSE (is_mapped (procedure->clauses[20]));
  // It may have the focus.
  EXPECT_TRUE (is_mapped (first));
}

static Procedure *
show_many_clauses (TestWindow *test)
{
  log_in (test);
  Procedure *procedure = add_procedure (test);
  for (u32 i = 0; i < 40; i++) {
    std::string text = "Planks of oak";
    for (u32 word = 0; word < i * 10; word++) {
      text += " and of elm";
    }
    add_revision (test, add_clause (test, procedure), text.c_str ());
  }
  show (test, procedure);
  return procedure;
}

static int
get_text_width (Clause *clause)
{
  return gtk_widget_get_allocated_width (find_widget (clause->view, "text_view"));
}

static bool
is_all_laid_out (void *data)
{
  Procedure *procedure = (Procedure *) data;
  for (u32 i = 0; i < procedure->clauses_count; i++) {
    if (gtk_widget_get_allocated_width (GTK_WIDGET (procedure->clauses[i]->view)) <= 1 ||
        get_text_width (procedure->clauses[i]) != get_text_width (procedure->clauses[0])) {
      return false;
    }
  }
  return true;
}

static bool
has_height (void *widget)
{
  return gtk_widget_get_allocated_height (GTK_WIDGET (widget)) > 1;
}

// As a box does: what room the page has is for whoever would like more than it must have.
TEST (procedure_view_new, gives_what_room_there_is_to_what_would_like_it)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  add_revision (&test, add_clause (&test, procedure), "Of oak");
  show (&test, procedure);
  GtkWidget *area = gtk_drawing_area_new ();
  gtk_widget_set_size_request (area, 50, 200);
  GtkWidget *child = gtk_scrolled_window_new (NULL, NULL);
  gtk_scrolled_window_set_propagate_natural_height (GTK_SCROLLED_WINDOW (child), TRUE);
  gtk_container_add (GTK_CONTAINER (child), area);
  gtk_container_add (GTK_CONTAINER (find_widget (procedure->view, "clauses_box")), child);
  gtk_widget_show_all (child);
  int minimum;
  int natural;
  gtk_widget_get_preferred_height (child, &minimum, &natural);
  EXPECT_LT (minimum, natural);
  EXPECT_TRUE (pump_until (has_height, child));
  EXPECT_EQ (gtk_widget_get_allocated_height (child), natural);
}

// Hundreds at once would keep the user waiting.
TEST (procedure_view_new, lays_out_the_clauses_in_sight_first)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  gtk_window_resize (GTK_WINDOW (test.window), 900, 640);
  static bool was_last_later;
  was_last_later = false;
  g_signal_connect (find_widget (procedure->view, "clauses_box"), "size-allocate",
                    G_CALLBACK (+[] (GtkWidget *, GdkRectangle *, Procedure *shown) {
                      was_last_later |=
                        get_text_width (shown->clauses[39]) < get_text_width (shown->clauses[0]);
                    }),
                    procedure);
  EXPECT_TRUE (pump_until ([] (void *) { return was_last_later; }, NULL));
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
}

TEST (procedure_view_new, lays_out_the_clauses_out_of_sight_for_the_width_of_the_page)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  int width = get_text_width (procedure->clauses[39]);
  gtk_window_resize (GTK_WINDOW (test.window), 900, 640);
  EXPECT_TRUE (pump_until (
    [] (void *data) {
      Clause **clauses = ((Procedure *) data)->clauses;
      return get_text_width (clauses[0]) > 500 && is_all_laid_out (data);
    },
    procedure));
  EXPECT_GT (get_text_width (procedure->clauses[39]), width);
  EXPECT_FALSE (is_mapped (procedure->clauses[39]));
}

// Some hundreds of words, which are pages high behind a wrong width.
static Clause *
add_long_clause (TestWindow *test, Procedure *procedure)
{
  Clause *clause = add_clause (test, procedure);
  std::string text;
  for (int i = 0; i < 300; i++) {
    text += "Planks of oak, ";
  }
  add_revision (test, clause, text.c_str ());
  return clause;
}

// As for a clause that comes from the other party, with its first revision.
static void
show_new_clause (TestWindow *test, Procedure *procedure)
{
  Clause *clause = add_long_clause (test, procedure);
  procedure_view_add_clause (procedure->view, clause);
  clause_view_show_revision (clause->view, clause->revisions[0], test->window->account.bare_jid);
}

// What is laid out ahead of its place would be as narrow as a letter.
TEST (procedure_view_new, lays_out_no_clause_before_it_has_its_place)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  show_new_clause (&test, procedure);
  Clause *clause = procedure->clauses[40];
  static int narrowest;
  narrowest = G_MAXINT;
  g_signal_connect (clause->view, "size-allocate",
                    G_CALLBACK (+[] (GtkWidget *, GdkRectangle *place, gpointer) {
                      narrowest = MIN (narrowest, place->width);
                    }),
                    NULL);
  // The page is scrolled before the next frame.
  g_signal_emit_by_name (procedure_view_get_page (GTK_WIDGET (clause->view)), "value-changed");
  EXPECT_EQ (narrowest, G_MAXINT);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  EXPECT_GT (narrowest, 100);
}

TEST (procedure_view_new, keeps_the_place_in_a_clause_that_fills_the_page)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  GtkWidget *last = GTK_WIDGET (procedure->clauses[39]->view);
  GtkAdjustment *page = procedure_view_get_page (last);
  GtkAllocation place;
  gtk_widget_get_allocation (last, &place);
  ASSERT_GT (place.height, 200 + gtk_adjustment_get_page_size (page));
  gtk_adjustment_set_value (page, place.y + 100);
  pump ();
  gtk_window_resize (GTK_WINDOW (test.window), 900, 640);
  static int width;
  width = get_text_width (procedure->clauses[39]);
  EXPECT_TRUE (pump_until (
    [] (void *data) {
      return get_text_width (((Procedure *) data)->clauses[39]) > width && is_all_laid_out (data);
    },
    procedure));
  int y = place.y;
  gtk_widget_get_allocation (last, &place);
  EXPECT_LT (place.y, y);
  EXPECT_EQ (gtk_adjustment_get_value (page) - place.y, 100);
}

TEST (procedure_view_new, lays_out_a_clause_that_comes_while_another_is_laid_out)
{
  static TestWindow *current;
  TestWindow test;
  current = &test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  // The first has its place, and is to be laid out, when the second comes.
  g_signal_connect (find_widget (procedure->view, "clauses_box"), "size-allocate",
                    G_CALLBACK (+[] (GtkWidget *, GdkRectangle *, Procedure *shown) {
                      if (shown->clauses_count == 41)
                        show_new_clause (current, shown);
                    }),
                    procedure);
  show_new_clause (&test, procedure);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return ((Procedure *) data)->clauses_count == 42; }, procedure));
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
}

TEST (procedure_view_new, lays_out_a_clause_that_comes_after_another_was_removed)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  press (procedure->view, "add_clause_button");
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  press (procedure->clauses[40]->view, "cancel_button");
  ASSERT_EQ (procedure->clauses_count, 40u);
  pump ();
  // The page followed the new clause to its end, where the next one would be in sight.
  gtk_adjustment_set_value (procedure_view_get_page (GTK_WIDGET (procedure->clauses[0]->view)), 0);
  pump ();
  show_new_clause (&test, procedure);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  EXPECT_FALSE (is_mapped (procedure->clauses[40]));
}

// The clause that lies `pages` pages below the top of the clauses, when all are laid out.
static Clause *
get_clause_at (Procedure *procedure, double pages)
{
  GtkWidget *first = GTK_WIDGET (procedure->clauses[0]->view);
  double y = pages * gtk_adjustment_get_page_size (procedure_view_get_page (first));
  for (u32 i = 0; i < procedure->clauses_count; i++) {
    GtkAllocation place;
    gtk_widget_get_allocation (GTK_WIDGET (procedure->clauses[i]->view), &place);
    if (place.y <= y && place.y + place.height > y)
      return procedure->clauses[i];
  }
  return NULL;
}

// A turn of the wheel finds the clauses of the next page there already.
TEST (procedure_view_new, maps_the_page_after_what_is_in_sight)
{
  TestWindow test;
  Procedure *procedure = show_short_clauses (&test);
  EXPECT_TRUE (pump_until (is_mapped, procedure->clauses[0]));
  Clause *next = get_clause_at (procedure, 6.9);
  Clause *far = get_clause_at (procedure, 8.5);
  EXPECT_FALSE (is_mapped (next));
  GtkAdjustment *page = procedure_view_get_page (GTK_WIDGET (procedure->clauses[0]->view));
  gtk_adjustment_set_value (page, 5 * gtk_adjustment_get_page_size (page));
  EXPECT_TRUE (pump_until (is_mapped, next));
  EXPECT_FALSE (is_mapped (far));
}

// The removed one is hidden, for as long as its removal can be undone, and was never in sight.
TEST (procedure_view_new, lays_out_a_clause_that_comes_behind_a_removed_one)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  gtk_button_clicked (GTK_BUTTON (find_widget (procedure->view, "add_clause_button")));
  ASSERT_EQ (procedure->clauses_count, 41u);
  GtkWidget *removed = GTK_WIDGET (procedure->clauses[40]->view);
  gtk_button_clicked (GTK_BUTTON (find_widget (removed, "cancel_button")));
  ASSERT_EQ (procedure->clauses_count, 40u);
  EXPECT_FALSE (gtk_widget_get_child_visible (removed));
  show_new_clause (&test, procedure);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
}

// Pages away it is not mapped, and the focus goes to what is.
TEST (procedure_view_new, lets_the_focus_pass_to_a_clause_far_below)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  for (u32 i = 0; i < 19; i++) {
    add_long_clause (&test, procedure);
  }
  show (&test, procedure);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  Clause *below = procedure->clauses[18];
  GtkWidget *button = find_widget (procedure->clauses[15]->view, "disagree_button");
  gtk_widget_grab_focus (button);
  ASSERT_FALSE (is_mapped (below));
  gtk_widget_grab_focus (find_widget (procedure->view, "add_clause_button"));
  gtk_widget_child_focus (GTK_WIDGET (test.window), GTK_DIR_TAB_BACKWARD);
  GtkWidget *focus = gtk_window_get_focus (GTK_WINDOW (test.window));
  EXPECT_TRUE (gtk_widget_is_ancestor (focus, GTK_WIDGET (below->view)));

  for (u32 i = 16; i < 19; i++) {
    gtk_widget_grab_focus (find_widget (procedure->clauses[i - 1]->view, "disagree_button"));
    for (int tabs = 0; tabs < 9; tabs++) {
      gtk_widget_child_focus (GTK_WIDGET (test.window), GTK_DIR_TAB_FORWARD);
      focus = gtk_window_get_focus (GTK_WINDOW (test.window));
      if (!gtk_widget_is_ancestor (focus, GTK_WIDGET (procedure->clauses[i - 1]->view)))
        break;
    }
    EXPECT_TRUE (gtk_widget_is_ancestor (focus, GTK_WIDGET (procedure->clauses[i]->view))) << i;
  }
}

// Whether each clause stands below the one before it, and is as high as it wants to be.
static bool
is_in_order (void *data)
{
  Procedure *procedure = (Procedure *) data;
  GtkAllocation above;
  gtk_widget_get_allocation (GTK_WIDGET (procedure->clauses[0]->view), &above);
  int end = above.y;
  for (u32 i = 0; i < procedure->clauses_count; i++) {
    GtkWidget *view = GTK_WIDGET (procedure->clauses[i]->view);
    GtkAllocation place;
    gtk_widget_get_allocation (view, &place);
    int height;
    gtk_widget_get_preferred_height_for_width (view, place.width, NULL, &height);
    if (place.x != above.x || place.width != above.width || place.y != end ||
        place.height != height) {
      return false;
    }
    end = place.y + place.height + 16;
  }
  return true;
}

TEST (procedure_view_new, places_the_clauses_one_below_the_other)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  EXPECT_TRUE (pump_until (is_in_order, procedure));
  EXPECT_GT (gtk_widget_get_allocated_height (GTK_WIDGET (procedure->clauses[39]->view)), 300);
}

static bool
is_high (void *clause)
{
  return gtk_widget_get_allocated_height (GTK_WIDGET (((Clause *) clause)->view)) > 300;
}

TEST (procedure_view_new, knows_the_heights_of_the_texts_before_they_are_shown)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  Clause *clause = add_long_clause (&test, procedure);
  app_window_add_procedure (test.window, procedure);
  int before;
  gtk_widget_get_preferred_height (GTK_WIDGET (clause->view), NULL, &before);
  gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (procedure->view));
  EXPECT_TRUE (pump_until (is_high, clause));
  int height = gtk_widget_get_allocated_height (GTK_WIDGET (clause->view));
  EXPECT_NEAR (before, height, 0.2 * height);
}

static GtkAdjustment *
get_page (Clause *clause)
{
  GtkWidget *viewport = gtk_widget_get_ancestor (GTK_WIDGET (clause->view), GTK_TYPE_VIEWPORT);
  return gtk_scrollable_get_vadjustment (GTK_SCROLLABLE (viewport));
}

static bool
is_page_high (void *clause)
{
  return gtk_adjustment_get_upper (get_page ((Clause *) clause)) > 2000;
}

// A clause of two hundred lines, in sight from its beginning.
static Clause *
show_long_clause (TestWindow *test)
{
  log_in (test);
  Procedure *procedure = add_procedure (test);
  Clause *clause = add_clause (test, procedure);
  std::string text;
  for (int i = 0; i < 200; i++) {
    text += "Planks of oak\n";
  }
  add_revision (test, clause, text.c_str ());
  show (test, procedure);
  EXPECT_TRUE (pump_until (is_page_high, clause));
  return clause;
}

TEST (procedure_view_new, stays_where_it_is_when_a_long_text_gets_the_focus)
{
  TestWindow test;
  Clause *clause = show_long_clause (&test);
  gtk_adjustment_set_value (get_page (clause), 1000);
  pump ();
  gtk_widget_grab_focus (find_widget (clause->view, "text_view"));
  pump ();
  EXPECT_EQ (gtk_adjustment_get_value (get_page (clause)), 1000);
}

TEST (procedure_view_new, follows_the_cursor_through_a_long_text)
{
  TestWindow test;
  Clause *clause = show_long_clause (&test);
  GtkWidget *text_view = find_widget (clause->view, "text_view");
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (GTK_TEXT_VIEW (text_view));
  GtkTextIter place;
  gtk_text_buffer_get_start_iter (text_buffer, &place);
  gtk_text_buffer_place_cursor (text_buffer, &place);
  gtk_widget_grab_focus (text_view);
  pump ();
  EXPECT_LT (gtk_adjustment_get_value (get_page (clause)), 200);

  gtk_text_buffer_get_iter_at_line (text_buffer, &place, 150);
  gtk_text_buffer_place_cursor (text_buffer, &place);
  pump ();
  GdkRectangle cursor;
  gtk_text_view_get_iter_location (GTK_TEXT_VIEW (text_view), &place, &cursor);
  double start = gtk_adjustment_get_value (get_page (clause));
  double end = start + gtk_adjustment_get_page_size (get_page (clause));
  EXPECT_GT (start, 0);
  EXPECT_LT (start, cursor.y);
  EXPECT_GT (end, cursor.y + cursor.height);
}

class RevisionMeanwhile : public testing::TestWithParam<bool> {};

// The focus is still in the text, and the user is reading elsewhere.
TEST_P (RevisionMeanwhile, leaves_the_page_where_it_is)
{
  TestWindow test;
  Clause *clause = show_long_clause (&test);
  GtkWidget *text_view = find_widget (clause->view, "text_view");
  gtk_widget_grab_focus (text_view);
  if (GetParam ())
    type (clause->view, "text_view", std::string (4000, '\n').c_str ());
  pump ();
  EXPECT_TRUE (pump_until (is_page_high, clause));
  gtk_adjustment_set_value (get_page (clause), 1000);
  pump ();
  ASSERT_EQ (gtk_adjustment_get_value (get_page (clause)), 1000);
  add_revision (&test, clause, std::string (4000, '\n').c_str ());
  ClauseRevision *revision = clause->revisions[1];
  clause_view_add_revision (clause->view, revision);
  clause_view_show_revision (clause->view, revision, test.window->account.bare_jid);
  pump ();
  EXPECT_EQ (gtk_adjustment_get_value (get_page (clause)), 1000);
  // What was typed is not typed on.
  EXPECT_EQ (gtk_widget_is_focus (text_view), !GetParam ());
}

INSTANTIATE_TEST_SUITE_P (typed, RevisionMeanwhile, testing::Bool ());

// ---- Lines under a reader's eyes ----

// Where a clause stands within what is in sight, in pixels.
static int
get_place_in_sight (Clause *clause)
{
  GtkWidget *viewport = gtk_widget_get_ancestor (GTK_WIDGET (clause->view), GTK_TYPE_VIEWPORT);
  int y = 0;
  gtk_widget_translate_coordinates (GTK_WIDGET (clause->view), viewport, 0, 0, NULL, &y);
  return y;
}

// Moves the page to where the clause begins.
static void
read_clause (Clause *clause)
{
  GtkAllocation place;
  gtk_widget_get_allocation (GTK_WIDGET (clause->view), &place);
  gtk_adjustment_set_value (get_page (clause), place.y - 10);
  pump ();
}

struct ReaderCase {
  const char *name;
  bool is_at_end;  // of the page, where a page that becomes less high moves by itself
  int focused;     // a clause whose text has the focus, by its index; -1 for none
  int read;        // the clause that is read
  int words;       // of the text that the changed clause gets
};

class Reader : public testing::TestWithParam<ReaderCase> {};

static int expected_place;

TEST_P (Reader, keeps_the_lines_when_a_clause_above_changes)
{
  TestWindow test;
  ReaderCase reader = GetParam ();
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  Clause *read = procedure->clauses[reader.read];
  read_clause (read);
  if (reader.focused >= 0)
    gtk_widget_grab_focus (find_widget (procedure->clauses[reader.focused]->view, "text_view"));
  GtkAdjustment *page = get_page (read);
  if (reader.is_at_end)
    gtk_adjustment_set_value (page, gtk_adjustment_get_upper (page));
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  pump ();
  expected_place = get_place_in_sight (read);

  Clause *changed = procedure->clauses[reader.read - 2];
  int before = gtk_widget_get_allocated_height (GTK_WIDGET (changed->view));
  std::string text = "Planks";
  for (int i = 0; i < reader.words; i++)
    text += " and of elm";
  add_revision (&test, changed, text.c_str ());
  clause_view_add_revision (changed->view, changed->revisions[1]);
  clause_view_show_revision (changed->view, changed->revisions[1], test.window->account.bare_jid);
  static int height_before;
  height_before = before;
  EXPECT_TRUE (pump_until (
    [] (void *data) {
      return gtk_widget_get_allocated_height (GTK_WIDGET (((Clause *) data)->view)) !=
             height_before;
    },
    changed));
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  pump ();
  EXPECT_EQ (get_place_in_sight (read), expected_place);
}

INSTANTIATE_TEST_SUITE_P (
  procedure_view, Reader,
  testing::Values (ReaderCase{"grows", false, -1, 20, 900}, ReaderCase{"shrinks", false, -1, 20, 2},
                   ReaderCase{"grows_beside_the_focus", false, 20, 20, 900},
                   ReaderCase{"grows_with_the_focus_elsewhere", false, 2, 20, 900},
                   ReaderCase{"shrinks_at_the_end", true, -1, 39, 2},
                   ReaderCase{"grows_at_the_end", true, -1, 39, 900}),
  [] (const testing::TestParamInfo<ReaderCase> &reader) { return reader.param.name; });

// After a decision the focus is on the clause that is going to change, whose end is still in sight.
TEST (procedure_view, keeps_the_lines_below_the_clause_with_the_focus)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  Clause *changed = procedure->clauses[10];
  Clause *read = procedure->clauses[11];
  read_clause (read);
  gtk_adjustment_set_value (get_page (read), gtk_adjustment_get_value (get_page (read)) - 40);
  pump ();
  double value = gtk_adjustment_get_value (get_page (read));
  gtk_widget_grab_focus (find_widget (changed->view, "revision_select_menu_button"));
  pump ();
  // A button that gets the focus comes into sight.
  gtk_adjustment_set_value (get_page (read), value);
  pump ();
  ASSERT_LT (get_place_in_sight (changed), 0);
  int place = get_place_in_sight (read);
  static int height;
  for (const char *text : {"Planks", "Planks\nof oak\nand\nof elm\nand\nof ash\nand more"}) {
    height = gtk_widget_get_allocated_height (GTK_WIDGET (changed->view));
    add_revision (&test, changed, text);
    ClauseRevision *revision = changed->revisions[changed->revisions_count - 1];
    clause_view_add_revision (changed->view, revision);
    clause_view_show_revision (changed->view, revision, test.window->account.bare_jid);
    EXPECT_TRUE (pump_until (
      [] (void *data) { return gtk_widget_get_allocated_height (GTK_WIDGET (data)) != height; },
      changed->view));
    pump ();
    EXPECT_EQ (get_place_in_sight (read), place) << text;
  }
}

// What the user chooses in a clause changes the clause below its buttons.
TEST (procedure_view, keeps_the_buttons_of_the_clause_that_the_user_changes)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  Clause *changed = procedure->clauses[10];
  add_revision (&test, changed, "Planks");
  clause_view_add_revision (changed->view, changed->revisions[1]);
  read_clause (changed);
  gtk_widget_grab_focus (find_widget (changed->view, "revision_select_menu_button"));
  pump ();
  int place = get_place_in_sight (changed);
  static int height;
  height = gtk_widget_get_allocated_height (GTK_WIDGET (changed->view));
  GtkMenuButton *button =
    GTK_MENU_BUTTON (find_widget (changed->view, "revision_select_menu_button"));
  GtkWidget *scroller = gtk_bin_get_child (GTK_BIN (gtk_menu_button_get_popover (button)));
  GtkListBox *list =
    GTK_LIST_BOX (gtk_bin_get_child (GTK_BIN (gtk_bin_get_child (GTK_BIN (scroller)))));
  g_signal_emit_by_name (list, "row-activated", gtk_list_box_get_row_at_index (list, 1));
  EXPECT_TRUE (
    pump_until ([] (
                  void *
                    data) { return gtk_widget_get_allocated_height (GTK_WIDGET (data)) != height; },
                changed->view));
  pump ();
  EXPECT_EQ (get_place_in_sight (changed), place);
}

TEST (procedure_view_new, shows_the_button_that_gets_the_focus)
{
  TestWindow test;
  Clause *clause = show_long_clause (&test);
  gtk_adjustment_set_value (get_page (clause), 0);
  pump ();
  GtkWidget *button = find_widget (clause->view, "disagree_button");
  gtk_widget_grab_focus (button);
  pump ();
  int y = 0;
  GtkWidget *viewport = gtk_widget_get_ancestor (button, GTK_TYPE_VIEWPORT);
  gtk_widget_translate_coordinates (button, viewport, 0, 0, NULL, &y);
  EXPECT_GE (y, 0);
  EXPECT_LE (y + gtk_widget_get_allocated_height (button),
             gtk_widget_get_allocated_height (viewport));
}

TEST (procedure_view_new, maps_a_clause_that_is_added_in_sight)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  show (&test, procedure);
  press (procedure->view, "add_clause_button");
  ASSERT_EQ (procedure->clauses_count, 1u);
  EXPECT_TRUE (pump_until (is_mapped, procedure->clauses[0]));
}

// With all of its siblings in each path, a page of hundreds of clauses took seconds.
TEST (procedure_view_new, gives_a_clause_a_style_path_without_its_siblings)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  add_clause (&test, procedure);
  add_clause (&test, procedure);
  show (&test, procedure);
  GtkWidgetPath *path = gtk_widget_get_path (GTK_WIDGET (procedure->clauses[1]->view));
  EXPECT_GT (gtk_widget_path_length (path), 1);
  EXPECT_EQ (gtk_widget_path_iter_get_siblings (path, -1), nullptr);
}

// A procedure with a clause that has a revision and one that has none.
static Procedure *
add_two_clauses (TestWindow *test)
{
  log_in (test);
  Procedure *procedure = add_procedure (test);
  add_revision (test, add_clause (test, procedure), "Planks of oak");
  add_clause (test, procedure);
  return procedure;
}

static void
show_view (Procedure *procedure, GtkWidget *view)
{
  show_alone (view);
  procedure->view = MORVANE_PROCEDURE_VIEW (view);
}

static void
expect_two_clauses (Procedure *procedure)
{
  EXPECT_EQ (count_clause_views (procedure), 2u);
  EXPECT_EQ (get_text (procedure->clauses[0]->view, "text_view"), "Planks of oak");
  EXPECT_EQ (get_text (procedure->clauses[1]->view, "revision_status_label"), "draft");
}

TEST (procedure_view_new, has_the_clauses_at_once)
{
  TestWindow test;
  Procedure *procedure = add_two_clauses (&test);
  show_view (procedure, procedure_view_new (procedure, test.window->account.bare_jid));
  expect_two_clauses (procedure);
}

TEST (procedure_view_new, is_the_same_in_two_steps)
{
  TestWindow test;
  Procedure *procedure = add_two_clauses (&test);
  show_view (procedure, procedure_view_new_empty (procedure));
  EXPECT_EQ (count_clause_views (procedure), 0u);
  procedure_view_fill (procedure->view, test.window->account.bare_jid);
  expect_two_clauses (procedure);
}

TEST (procedure_view_new, wraps_a_long_title_instead_of_widening_the_window)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, std::string (1000, 'x').c_str ());
  show (&test, procedure);
  int width = 0;
  gtk_window_get_size (GTK_WINDOW (test.window), &width, NULL);
  EXPECT_EQ (width, 640);
}

TEST (procedure_view_new, shows_the_last_revision_of_each_clause_in_order)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  Clause *first = add_clause (&test, procedure);
  Clause *second = add_clause (&test, procedure);
  add_revision (&test, first, "first, old");
  add_revision (&test, first, "first, new");
  add_revision (&test, second, "second");
  show (&test, procedure);
  EXPECT_EQ (get_text (first->view, "text_view"), "first, new");
  EXPECT_EQ (get_text (second->view, "text_view"), "second");
  EXPECT_EQ (get_text (first->view, "revision_status_label"), "bob@beta.test:11");
  GList *views =
    gtk_container_get_children (GTK_CONTAINER (find_widget (procedure->view, "clauses_box")));
  EXPECT_EQ (views->data, first->view);
  EXPECT_EQ (views->next->data, second->view);
  g_list_free (views);
}

TEST (procedure_view_new, loads_the_draft_of_a_clause_without_revision_when_the_page_is_seen)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  Clause *clause = add_clause (&test, procedure);
  clause->draft = alloc_clause_revision (0, clause->db_id, 9, to_string ("alice@alpha.test"),
                                         REVISION_DRAFT, to_string ("kept"));
  db_insert_clause_revision (test.window->db, clause->draft);
  app_window_add_procedure (test.window, procedure);
  pump ();
  EXPECT_EQ (get_text (clause->view, "revision_status_label"), "draft");
  EXPECT_EQ (get_text (clause->view, "text_view"), "");
  gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (procedure->view));
  pump ();
  EXPECT_EQ (get_text (clause->view, "revision_status_label"), "draft");
  EXPECT_EQ (get_text (clause->view, "text_view"), "kept");
  EXPECT_TRUE (is_sensitive (clause->view, "cancel_button"));
}

// ---- Adding a clause ----

TEST (procedure_view_add_clause_button, makes_a_stored_clause_in_draft_mode_and_sends_nothing)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  show (&test, procedure);
  s64 before = get_posix_time ();
  press (procedure->view, "add_clause_button");
  ASSERT_EQ (procedure->clauses_count, 1u);
  Clause *clause = procedure->clauses[0];
  EXPECT_GE (clause->time, before);
  EXPECT_EQ (to_std_string (clause->initiator), "alice@alpha.test");
  EXPECT_EQ (clause->position, 1u);
  EXPECT_EQ (query (&test, "SELECT db_id, procedure_db_id, initiator, position FROM clauses"),
             std::to_string (clause->db_id) + "|" + std::to_string (procedure->db_id) +
               "|alice@alpha.test|1\n");
  EXPECT_EQ (count_clause_views (procedure), 1u);
  EXPECT_EQ (get_text (clause->view, "revision_status_label"), "draft");
  EXPECT_EQ (take_sent (&test), "");
}

TEST (procedure_view_add_clause_button, counts_positions_on_and_gives_each_clause_its_second)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  add_clause (&test, procedure);
  show (&test, procedure);
  press (procedure->view, "add_clause_button");
  press (procedure->view, "add_clause_button");
  ASSERT_EQ (procedure->clauses_count, 3u);
  EXPECT_EQ (query (&test, "SELECT position FROM clauses ORDER BY db_id"), "1\n2\n3\n");
  EXPECT_LT (procedure->clauses[1]->time, procedure->clauses[2]->time);
  EXPECT_EQ (query (&test, "SELECT COUNT(DISTINCT time) FROM clauses"), "3\n");
}

TEST (procedure_view_add_clause, links_the_clause_to_its_view_and_its_chat_page)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  show (&test, procedure);
  Clause *clause = add_clause (&test, procedure);
  procedure_view_add_clause (procedure->view, clause);
  EXPECT_TRUE (MORVANE_IS_CLAUSE_VIEW (clause->view));
  EXPECT_TRUE (MORVANE_IS_CLAUSE_CHAT_PAGE (clause->chat_page));
  EXPECT_TRUE (gtk_widget_get_visible (GTK_WIDGET (clause->view)));
  EXPECT_EQ (gtk_widget_get_parent (GTK_WIDGET (clause->view)),
             find_widget (procedure->view, "clauses_box"));
  EXPECT_EQ (gtk_widget_get_parent (GTK_WIDGET (clause->chat_page)),
             find_widget (procedure->view, "stack"));
}

// ---- The focus ----

TEST (procedure_view_add_clause_button, lets_the_user_type_with_commit_in_sight)
{
  TestWindow test;
  Procedure *procedure = show_many_clauses (&test);
  EXPECT_TRUE (pump_until (is_all_laid_out, procedure));
  press (procedure->view, "add_clause_button");
  static Clause *clause;
  clause = procedure->clauses[40];
  EXPECT_TRUE (gtk_widget_is_focus (find_widget (clause->view, "text_view")));
  EXPECT_TRUE (pump_until (
    [] (void *) {
      for (const char *name : {"commit_button", "cancel_button"}) {
        GtkWidget *button = find_widget (clause->view, name);
        GtkWidget *viewport = gtk_widget_get_ancestor (button, GTK_TYPE_VIEWPORT);
        int y = -1;
        gtk_widget_translate_coordinates (button, viewport, 0, 0, NULL, &y);
        int height = gtk_widget_get_allocated_height (button);
        if (!gtk_widget_get_mapped (button) || height <= 1 || y < 0 ||
            y + height > gtk_widget_get_allocated_height (viewport)) {
          return false;
        }
      }
      return true;
    },
    NULL));
}

// Everything that the Tab key comes to, from where the focus is until it leaves the page.
static std::string
walk_focus (TestWindow *test, Procedure *procedure)
{
  std::string walk;
  for (int tabs = 0; tabs < 40; tabs++) {
    GtkWidget *focus = gtk_window_get_focus (GTK_WINDOW (test->window));
    if (!focus || !gtk_widget_is_ancestor (focus, GTK_WIDGET (procedure->view)))
      break;
    walk += std::string (gtk_buildable_get_name (GTK_BUILDABLE (focus))) + " ";
    gtk_widget_child_focus (GTK_WIDGET (test->window), GTK_DIR_TAB_FORWARD);
  }
  return walk;
}

TEST (procedure_view_init, makes_delete_button_the_last_stop_of_the_focus)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  add_revision (&test, add_clause (&test, procedure), "text");
  // The page takes the focus over from what is shown before.
  gtk_widget_grab_focus (find_widget (test.window->procedure_creation_page, "title_entry"));
  show (&test, procedure);
  EXPECT_EQ (walk_focus (&test, procedure),
             "chat_button revision_select_menu_button text_view agree_button disagree_button "
             "add_clause_button delete_button ");
}

TEST (procedure_view_init, never_begins_at_delete_button)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  gtk_widget_grab_focus (find_widget (test.window->procedure_creation_page, "title_entry"));
  show (&test, procedure);
  EXPECT_EQ (walk_focus (&test, procedure), "add_clause_button delete_button ");
}

// ---- Pages ----

TEST (procedure_view_show_clause_chat_page, shows_the_chat_and_back_the_clauses)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  Clause *first = add_clause (&test, procedure);
  Clause *second = add_clause (&test, procedure);
  add_revision (&test, first, "text");
  show (&test, procedure);
  GtkStack *stack = GTK_STACK (find_widget (procedure->view, "stack"));
  procedure_view_show_clause_chat_page (procedure->view, second->chat_page);
  EXPECT_EQ (gtk_stack_get_visible_child (stack), GTK_WIDGET (second->chat_page));
  procedure_view_show_clause (procedure->view);
  EXPECT_EQ (get_page (procedure->view, "stack"), "main_box");
  press (first->view, "chat_button");
  EXPECT_EQ (gtk_stack_get_visible_child (stack), GTK_WIDGET (first->chat_page));
}

// ---- Deleting ----

TEST (procedure_view_delete_button, removes_the_procedure_here_and_tells_nobody)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  Procedure *other = add_procedure (&test, "Other");
  add_revision (&test, add_clause (&test, procedure), "text");
  show (&test, other);
  show (&test, procedure);
  press (procedure->view, "delete_button");
  ASSERT_EQ (test.window->procedures.count, 1u);
  EXPECT_EQ (test.window->procedures.procedures[0], other);
  EXPECT_EQ (query (&test, "SELECT title FROM procedures"), "Other\n");
  EXPECT_EQ (query (&test, "SELECT COUNT(*) FROM clauses"), "0\n");
  EXPECT_EQ (query (&test, "SELECT COUNT(*) FROM clause_revisions"), "0\n");
  EXPECT_FALSE (gtk_list_box_get_selected_row (test.window->procedures_list_box));
  deletion_end (test.window);
  EXPECT_EQ (gtk_list_box_get_row_at_index (test.window->procedures_list_box, 0), other->list_item);
  EXPECT_FALSE (gtk_list_box_get_row_at_index (test.window->procedures_list_box, 1));
  EXPECT_EQ (take_sent (&test), "");
}

TEST (procedure_view_delete_button, removes_a_procedure_whose_clause_is_being_typed)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test);
  show (&test, procedure);
  press (procedure->view, "add_clause_button");
  GtkWidget *text_view = find_widget (procedure->clauses[0]->view, "text_view");
  gtk_widget_grab_focus (text_view);
  pump ();
  type (procedure->clauses[0]->view, "text_view", "half a clause");
  press (procedure->view, "delete_button");
  EXPECT_EQ (test.window->procedures.count, 0u);
  EXPECT_EQ (query (&test, "SELECT COUNT(*) FROM clause_revisions"), "0\n");
}
