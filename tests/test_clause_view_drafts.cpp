// What becomes of typed text in a clause's view while other things happen; test_clause_view.cpp has
// the rest.

#include "clause_view.h"

#include <memory>
#include <set>
#include <vector>

#include "clause_view_parts.h"
#include "db.h"
#include "fake_session.h"
#include "key_guard.h"
#include "morvane.h"
#include "procedure_view.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"

// ---- What the tests begin with ----

static void
run (TestWindow *test, const std::string &sql)
{
  EXPECT_EQ (sqlite3_exec (test->db, sql.c_str (), NULL, NULL, NULL), SQLITE_OK) << sql;
}

static void
copy (sqlite3 *from, sqlite3 *to)
{
  sqlite3_backup *backup = sqlite3_backup_init (to, "main", from, "main");
  EXPECT_EQ (sqlite3_backup_step (backup, -1), SQLITE_DONE);
  sqlite3_backup_finish (backup);
}

// A window that shows Alice's procedure with Bob, with one clause of hers.
struct Drafts {
  std::unique_ptr<TestWindow> test = std::make_unique<TestWindow> ();
  Procedure *procedure;
  Clause *clause;

  // The clause's revisions have these texts, by her and him in turn from second 3000 on.
  explicit Drafts (std::initializer_list<const char *> texts, const char *draft = NULL)
  {
    run (test.get (), "PRAGMA synchronous = OFF;"
                      "INSERT INTO accounts VALUES (1, '" ALICE "');"
                      "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor,"
                      " title) VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Rent');"
                      "INSERT INTO clauses VALUES (1, 1, 2000, '" ALICE "', 1);");
    int index = 0;
    for (const char *text : texts) {
      insert (3000 + index, index % 2 ? BOB : ALICE, "COMMITTED", text);
      index++;
    }
    if (draft)
      insert (9000, ALICE, "DRAFT", draft);
    show ();
  }

  void insert (int time, const char *author, const char *status, const char *text)
  {
    run (test.get (), "INSERT INTO clause_revisions (clause_db_id, time, author, status, text)"
                      " VALUES (1, " +
                        std::to_string (time) + ", '" + author + "', '" + status + "', '" + text +
                        "');");
  }

  void show ()
  {
    log_in (test.get ());
    procedure = test->window->procedures.procedures[0];
    clause = procedure->clauses[0];
    gtk_widget_activate (GTK_WIDGET (procedure->list_item));
    pump ();
  }

  // The program is started again over this store.
  void start (sqlite3 *db)
  {
    std::unique_ptr<TestWindow> next = std::make_unique<TestWindow> ();
    copy (db, next->db);
    run (next.get (), "PRAGMA synchronous = OFF;");
    test = std::move (next);
    show ();
  }

  // The program ends and is started again.
  void restart ()
  {
    close_window (test.get ());
    start (test->db);
  }

  // The same without an end: what the store has at this moment is all that is left.
  void die ()
  {
    sqlite3 *store;
    EXPECT_EQ (sqlite3_open (":memory:", &store), SQLITE_OK);
    copy (test->db, store);
    close_window (test.get ());
    start (store);
    sqlite3_close (store);
  }

  std::string stored ()
  {
    return query (test.get (), "SELECT text FROM clause_revisions WHERE status = 'DRAFT'");
  }

  void receive (s64 time, const char *text)
  {
    deliver_revision (test->window, {ALICE, 1000}, {ALICE, 2000}, {BOB, time}, text);
  }

  std::string text ()
  {
    return get_text (clause->view, "text_view");
  }

  std::string status ()
  {
    return get_text (clause->view, "revision_status_label");
  }

  GtkWidget *widget (const char *name)
  {
    return find_widget (clause->view, name);
  }

  GtkTextBuffer *buffer ()
  {
    return gtk_text_view_get_buffer (GTK_TEXT_VIEW (widget ("text_view")));
  }

  void focus (GtkWidget *wanted)
  {
    EXPECT_TRUE (
      pump_until ([] (void
                        *data) { return (bool) gtk_window_has_toplevel_focus (GTK_WINDOW (data)); },
                  test->window));
    gtk_widget_grab_focus (wanted);
    pump ();
    EXPECT_TRUE (gtk_widget_has_focus (wanted));
  }

  void focus (const char *name)
  {
    focus (widget (name));
  }

  // The keys of a word, one by one.
  void keys (const char *word)
  {
    for (; *word; word++)
      press_key (test.get (), gdk_unicode_to_keyval ((guint) *word));
  }
};

static GtkListBox *
get_list (Clause *clause)
{
  GtkMenuButton *button =
    GTK_MENU_BUTTON (find_widget (clause->view, "revision_select_menu_button"));
  GtkWidget *scroller = gtk_bin_get_child (GTK_BIN (gtk_menu_button_get_popover (button)));
  return GTK_LIST_BOX (gtk_bin_get_child (GTK_BIN (gtk_bin_get_child (GTK_BIN (scroller)))));
}

// The row with this label; NULL when there is none.
static GtkListBoxRow *
find_row (Clause *clause, const std::string &label)
{
  for (int i = 0;; i++) {
    GtkListBoxRow *row = gtk_list_box_get_row_at_index (get_list (clause), i);
    if (!row || get_text (row, "label") == label)
      return row;
  }
}

static void
show_row (Clause *clause, const std::string &label)
{
  GtkListBoxRow *row = find_row (clause, label);
  ASSERT_TRUE (row) << label;
  gtk_widget_activate (GTK_WIDGET (row));
  pump ();
}

// ---- The text's menu ----

static std::vector<GtkMenuItem *>
list_items (GtkWidget *menu)
{
  std::vector<GtkMenuItem *> found;
  GList *items = gtk_container_get_children (GTK_CONTAINER (menu));
  for (GList *link = items; link; link = link->next) {
    if (GTK_IS_MENU_ITEM (link->data) && gtk_menu_item_get_label (GTK_MENU_ITEM (link->data)))
      found.push_back (GTK_MENU_ITEM (link->data));
  }
  g_list_free (items);
  return found;
}

// Chooses an entry of the menu that the text would show now; false when it is not offered.
static bool
choose (Clause *clause, const std::string &label)
{
  GtkWidget *menu = GTK_WIDGET (g_object_ref_sink (gtk_menu_new ()));
  g_signal_emit_by_name (find_widget (clause->view, "text_view"), "populate-popup", menu);
  bool is_found = false;
  for (GtkMenuItem *item : list_items (menu)) {
    if (label == gtk_menu_item_get_label (item) && gtk_widget_get_sensitive (GTK_WIDGET (item)) &&
        !is_found) {
      is_found = true;
      gtk_menu_item_activate (item);
    }
  }
  gtk_widget_destroy (menu);
  g_object_unref (menu);
  pump ();
  return is_found;
}

static const char BRING_BACK[] = "Bring back the replaced draft";
static const char GO_BACK[] = "Go back to your text";
static const char GO_BACK_TO_COMPARISON[] = "Go back to your comparison";
static const char WITH_PREVIOUS[] = "Compare with the previous revision";
static const char TAKE_NEWER[] = "Take all of the newer text";
static const char USE_AS_DRAFT[] = "Use this text as draft";

// Compares a row with what is shown, by the menu of the row.
static void
compare_row (Drafts *drafts, const std::string &label)
{
  GtkWidget *button = drafts->widget ("revision_select_menu_button");
  gtk_toggle_button_set_active (GTK_TOGGLE_BUTTON (button), TRUE);
  pump ();
  GtkListBoxRow *row = find_row (drafts->clause, label);
  ASSERT_TRUE (row);
  // He waits until keys are heard again.
  key_guard_end (GTK_WINDOW (drafts->test->window));
  gtk_widget_grab_focus (GTK_WIDGET (row));
  press_key (drafts->test.get (), GDK_KEY_Menu);
  pump ();
  GList *menus = gtk_menu_get_for_attach_widget (GTK_WIDGET (row));
  ASSERT_TRUE (menus);
  gtk_menu_item_activate (list_items (GTK_WIDGET (menus->data))[0]);
  gtk_menu_shell_deactivate (GTK_MENU_SHELL (menus->data));
  pump ();
}

// ---- The replaced drafts in the popover ----

static void
collect_buttons (GtkWidget *widget, gpointer data)
{
  if (GTK_IS_BUTTON (widget)) {
    ((std::vector<GtkWidget *> *) data)->push_back (widget);
  } else if (GTK_IS_CONTAINER (widget)) {
    gtk_container_forall (GTK_CONTAINER (widget), collect_buttons, data);
  }
}

// They stand above the first row or, in a list without rows, in their place.
static std::vector<GtkWidget *>
list_kept_buttons (Clause *clause)
{
  std::vector<GtkWidget *> buttons;
  GtkListBoxRow *first = gtk_list_box_get_row_at_index (get_list (clause), 0);
  GtkWidget *place = first ? gtk_list_box_row_get_header (first) : GTK_WIDGET (get_list (clause));
  if (place)
    collect_buttons (place, &buttons);
  return buttons;
}

// The texts that can be brought back, the last one first. They are short, so the tooltips have them.
static std::vector<std::string>
list_kept (Clause *clause)
{
  std::vector<std::string> texts;
  for (GtkWidget *button : list_kept_buttons (clause)) {
    char *tooltip = gtk_widget_get_tooltip_text (button);
    std::string text = tooltip ? tooltip : "";
    g_free (tooltip);
    // Between quotation marks of three bytes each.
    texts.push_back (text.size () >= 6 ? text.substr (3, text.size () - 6) : text);
  }
  return texts;
}

static std::string
join (const std::vector<std::string> &texts)
{
  std::string joined;
  for (const std::string &text : texts)
    joined += text + "\n";
  return joined;
}

// ---- A draft and what takes its place ----

TEST (clause_view_drafts, key_behind_a_received_revision_keeps_the_draft_at_hand)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  type (drafts.clause->view, "text_view", "my words");
  drafts.focus ("cancel_button");
  EXPECT_EQ (drafts.stored (), "my words\n");
  drafts.receive (6000, "their words");
  EXPECT_EQ (drafts.text (), "their words");
  type (drafts.clause->view, "text_view", "their wordsx");
  clause_view_save_draft (drafts.clause->view);
  EXPECT_EQ (drafts.stored (), "their wordsx\n");
  EXPECT_EQ (join (list_kept (drafts.clause)), "my words\n");
}

TEST (clause_view_drafts, typing_on_the_draft_keeps_no_earlier_one)
{
  Drafts drafts ({"first"}, "draft");
  show_row (drafts.clause, "draft");
  type (drafts.clause->view, "text_view", "draft and more");
  clause_view_save_draft (drafts.clause->view);
  type (drafts.clause->view, "text_view", "draft and still more");
  clause_view_save_draft (drafts.clause->view);
  EXPECT_EQ (drafts.stored (), "draft and still more\n");
  EXPECT_EQ (join (list_kept (drafts.clause)), "");
  EXPECT_FALSE (choose (drafts.clause, BRING_BACK));
}

TEST (clause_view_drafts, brought_back_one_changes_places_with_the_draft)
{
  Drafts drafts ({"first"}, "old draft");
  type (drafts.clause->view, "text_view", "new draft");
  EXPECT_TRUE (choose (drafts.clause, BRING_BACK));
  EXPECT_EQ (drafts.text (), "old draft");
  EXPECT_EQ (drafts.status (), "draft");
  EXPECT_EQ (drafts.stored (), "old draft\n");
  EXPECT_EQ (join (list_kept (drafts.clause)), "new draft\n");
  EXPECT_TRUE (gtk_widget_is_focus (drafts.widget ("text_view")));
  gtk_button_clicked (GTK_BUTTON (list_kept_buttons (drafts.clause)[0]));
  pump ();
  EXPECT_EQ (drafts.text (), "new draft");
  EXPECT_EQ (drafts.stored (), "new draft\n");
  EXPECT_EQ (join (list_kept (drafts.clause)), "old draft\n");
}

TEST (clause_view_drafts, several_pile_up_and_each_can_be_brought_back)
{
  Drafts drafts ({"first"});
  for (const char *text : {"one", "two", "three", "four"}) {
    show_row (drafts.clause, ALICE ":3000");
    type (drafts.clause->view, "text_view", text);
    clause_view_save_draft (drafts.clause->view);
  }
  EXPECT_EQ (join (list_kept (drafts.clause)), "three\ntwo\none\n");
  EXPECT_TRUE (choose (drafts.clause, "Bring back the replaced draft \u201cone\u201d"));
  EXPECT_EQ (drafts.text (), "one");
  EXPECT_EQ (join (list_kept (drafts.clause)), "four\nthree\ntwo\n");
}

TEST (clause_view_drafts, the_replaced_ones_stay_at_hand_when_a_deletion_is_undone)
{
  Drafts drafts ({"first"}, "old draft");
  type (drafts.clause->view, "text_view", "typed on the revision");
  clause_view_save_draft (drafts.clause->view);
  app_window_remove_procedure (drafts.test->window, drafts.procedure);
  press (drafts.test->window, "undo_button");
  pump ();
  drafts.procedure = drafts.test->window->procedures.procedures[0];
  drafts.clause = drafts.procedure->clauses[0];
  EXPECT_EQ (join (list_kept (drafts.clause)), "old draft\n");
  EXPECT_TRUE (choose (drafts.clause, BRING_BACK));
  EXPECT_EQ (drafts.stored (), "old draft\n");
  EXPECT_EQ (join (list_kept (drafts.clause)), "typed on the revision\n");
}

TEST (clause_view_drafts, cancel_and_commit_leave_the_replaced_ones_at_hand)
{
  Drafts drafts ({"first"}, "old draft");
  type (drafts.clause->view, "text_view", "typed on the revision");
  press (drafts.clause->view, "cancel_button");
  EXPECT_EQ (drafts.stored (), "");
  EXPECT_EQ (join (list_kept (drafts.clause)), "old draft\n");
  type (drafts.clause->view, "text_view", "committed");
  press (drafts.clause->view, "commit_button");
  EXPECT_EQ (join (list_kept (drafts.clause)), "old draft\n");
  EXPECT_TRUE (choose (drafts.clause, BRING_BACK));
  EXPECT_EQ (drafts.stored (), "old draft\n");
}

TEST (clause_view_drafts, text_of_a_comparison_keeps_an_unrelated_draft_at_hand)
{
  Drafts drafts ({"one two", "one three"}, "unrelated");
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  EXPECT_TRUE (choose (drafts.clause, USE_AS_DRAFT));
  EXPECT_EQ (drafts.stored (), "one three\n");
  EXPECT_EQ (join (list_kept (drafts.clause)), "unrelated\n");
}

TEST (clause_view_drafts, typing_after_an_escape_from_a_comparison_keeps_the_draft_at_hand)
{
  Drafts drafts ({"one two", "one three"}, "unrelated");
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  drafts.focus ("text_view");
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), "one three");
  drafts.keys ("x");
  clause_view_save_draft (drafts.clause->view);
  EXPECT_NE (drafts.stored (), "unrelated\n");
  EXPECT_EQ (join (list_kept (drafts.clause)), "unrelated\n");
}

// ---- A draft that waits ----

static std::string
describe_revisions_button (Clause *clause)
{
  GtkWidget *button = find_widget (clause->view, "revision_select_menu_button");
  char *tooltip = gtk_widget_get_tooltip_text (button);
  const char *description = atk_object_get_description (gtk_widget_get_accessible (button));
  bool has_class =
    gtk_style_context_has_class (gtk_widget_get_style_context (button), "draft-waiting");
  std::string all =
    std::string (has_class ? "*" : "") + tooltip + "|" + (description ? description : "");
  g_free (tooltip);
  return all;
}

TEST (clause_view_drafts, revisions_button_tells_that_one_waits)
{
  static const char WAITING[] = "*Revisions: your draft is waiting|Your draft is waiting";
  static const char NOTHING[] = "Revisions|";
  Drafts drafts ({"one two", "one three"}, "kept");
  EXPECT_EQ (describe_revisions_button (drafts.clause), WAITING);
  show_row (drafts.clause, "draft");
  EXPECT_EQ (describe_revisions_button (drafts.clause), NOTHING);
  show_row (drafts.clause, BOB ":3001");
  EXPECT_EQ (describe_revisions_button (drafts.clause), WAITING);
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_EQ (describe_revisions_button (drafts.clause), WAITING);
  show_row (drafts.clause, "draft");
  press (drafts.clause->view, "cancel_button");
  EXPECT_EQ (describe_revisions_button (drafts.clause), NOTHING);
}

TEST (clause_view_drafts, clause_without_revision_shows_its_stored_draft)
{
  Drafts drafts ({}, "begun yesterday");
  EXPECT_EQ (drafts.text (), "begun yesterday");
  EXPECT_EQ (drafts.status (), "draft");
  EXPECT_TRUE (is_sensitive (drafts.clause->view, "commit_button"));
  EXPECT_TRUE (find_row (drafts.clause, "draft"));
  drafts.focus ("text_view");
  drafts.keys ("x");
  press_key (drafts.test.get (), GDK_KEY_BackSpace);
  drafts.focus ("cancel_button");
  EXPECT_EQ (drafts.stored (), "begun yesterday\n");
}

// ---- A revision that arrives ----

static GtkWidget *
find_note (Clause *clause, const char *text)
{
  GtkWidget *note = NULL;
  GList *rows = gtk_container_get_children (GTK_CONTAINER (clause->view));
  for (GList *link = rows; link; link = link->next) {
    if (GTK_IS_LABEL (link->data) && gtk_widget_get_visible (GTK_WIDGET (link->data)) &&
        !strcmp (gtk_label_get_text (GTK_LABEL (link->data)), text))
      note = GTK_WIDGET (link->data);
  }
  g_list_free (rows);
  return note;
}

static bool
is_note_shown (Clause *clause, const char *text)
{
  return find_note (clause, text);
}

static const char TEXT_IS_KEPT[] = "Your text is kept: Escape goes back to it.";
static const char COMPARISON_IS_KEPT[] = "Your comparison is kept: Escape goes back to it.";

static bool
is_popover_shown (Drafts *drafts)
{
  GtkWidget *button = drafts->widget ("revision_select_menu_button");
  return gtk_toggle_button_get_active (GTK_TOGGLE_BUTTON (button));
}

static void
get_labels (GtkWidget *widget, gpointer labels)
{
  if (GTK_IS_LABEL (widget))
    ((std::vector<GtkWidget *> *) labels)->push_back (widget);
  if (GTK_IS_CONTAINER (widget))
    gtk_container_forall (GTK_CONTAINER (widget), get_labels, labels);
}

// Whether the widget lies within the window and, where the page scrolls it, within what is in sight
// of the page.
static bool
is_in_sight (GtkWidget *widget)
{
  if (!gtk_widget_get_mapped (widget) || !gtk_widget_get_child_visible (widget))
    return false;
  GtkWidget *scroller = gtk_widget_get_ancestor (widget, GTK_TYPE_SCROLLED_WINDOW);
  GtkWidget *frames[] = {gtk_widget_get_toplevel (widget), scroller};
  for (GtkWidget *frame : frames) {
    int y = 0;
    if (!frame)
      continue;
    EXPECT_TRUE (gtk_widget_translate_coordinates (widget, frame, 0, 0, NULL, &y));
    int height = gtk_widget_get_allocated_height (widget);
    if (height <= 1 || y < 0 || y + height > gtk_widget_get_allocated_height (frame))
      return false;
  }
  return true;
}

// How often these words can be read without scrolling.
static u32
count_in_sight (Drafts *drafts, const char *text)
{
  std::vector<GtkWidget *> labels;
  get_labels (GTK_WIDGET (drafts->test->window), &labels);
  u32 count = 0;
  for (GtkWidget *label : labels)
    count += !strcmp (gtk_label_get_text (GTK_LABEL (label)), text) && is_in_sight (label);
  return count;
}

static std::string
make_lines (int count)
{
  std::string lines;
  for (int i = 0; i < count; i++)
    lines += "Planks of oak\n";
  return lines;
}

static bool
is_page_high (void *clause)
{
  GtkAdjustment *page = procedure_view_get_page (GTK_WIDGET (((Clause *) clause)->view));
  return gtk_adjustment_get_upper (page) > 3000;
}

static bool
has_left_the_top (void *clause)
{
  GtkAdjustment *page = procedure_view_get_page (GTK_WIDGET (((Clause *) clause)->view));
  return gtk_adjustment_get_value (page) > 1000;
}

// With the cursor at the end of a clause that is higher than the page.
static void
type_at_the_end (Drafts *drafts, const char *word)
{
  EXPECT_TRUE (pump_until (is_page_high, drafts->clause));
  drafts->focus ("text_view");
  press_key (drafts->test.get (), GDK_KEY_End, GDK_CONTROL_MASK);
  EXPECT_TRUE (pump_until (has_left_the_top, drafts->clause));
  drafts->keys (word);
}

struct NoteInSight {
  Drafts *drafts;
  const char *text;
  u32 count;
};

static bool
is_count_in_sight (void *data)
{
  NoteInSight *note = (NoteInSight *) data;
  return count_in_sight (note->drafts, note->text) == note->count;
}

TEST (clause_view_note, can_be_read_at_the_end_of_a_high_clause)
{
  std::string lines = make_lines (200);
  Drafts drafts ({lines.c_str ()});
  type_at_the_end (&drafts, "x");
  drafts.receive (6000, make_lines (220).c_str ());
  NoteInSight once = {&drafts, TEXT_IS_KEPT, 1};
  EXPECT_TRUE (pump_until (is_count_in_sight, &once));
  EXPECT_TRUE (has_left_the_top (drafts.clause));
  // Scrolling to the clause's beginning leads to the same words, and not to a second copy of them.
  GtkAdjustment *page = procedure_view_get_page (GTK_WIDGET (drafts.clause->view));
  for (double value : {0.0, 1500.0, 0.0, gtk_adjustment_get_upper (page)}) {
    gtk_adjustment_set_value (page, value);
    pump ();
    EXPECT_TRUE (pump_until (is_count_in_sight, &once)) << value;
  }
  drafts.focus ("revision_select_menu_button");
  press_key (drafts.test.get (), GDK_KEY_Escape);
  NoteInSight none = {&drafts, TEXT_IS_KEPT, 0};
  EXPECT_TRUE (pump_until (is_count_in_sight, &none));
  EXPECT_EQ (drafts.text (), lines + "x");
}

// Which may have 460 pixels only, with the list of procedures beside it.
TEST (clause_view_note, asks_for_little_of_the_windows_width)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  drafts.receive (6000, "their words");
  GtkWidget *note = find_note (drafts.clause, TEXT_IS_KEPT);
  ASSERT_TRUE (note);
  int minimum = 0;
  gtk_widget_get_preferred_width (note, &minimum, NULL);
  EXPECT_LE (minimum, 100);
}

TEST (clause_view_note, waits_for_who_comes_back_to_the_page)
{
  std::string lines = make_lines (200);
  Drafts drafts ({lines.c_str ()});
  type_at_the_end (&drafts, "x");
  AppWindow *window = drafts.test->window;
  gtk_stack_set_visible_child (window->main_page_stack,
                               GTK_WIDGET (window->procedure_creation_page));
  pump ();
  drafts.receive (6000, make_lines (220).c_str ());
  NoteInSight none = {&drafts, TEXT_IS_KEPT, 0};
  EXPECT_TRUE (pump_until (is_count_in_sight, &none));
  gtk_stack_set_visible_child (window->main_page_stack, GTK_WIDGET (drafts.procedure->view));
  NoteInSight once = {&drafts, TEXT_IS_KEPT, 1};
  EXPECT_TRUE (pump_until (is_count_in_sight, &once));
}

TEST (clause_view_note, says_where_he_looks_why_blanks_are_not_committed)
{
  std::string blanks (300, '\n');
  Drafts drafts ({"first"}, blanks.c_str ());
  show_row (drafts.clause, "draft");
  type_at_the_end (&drafts, " ");
  press_key (drafts.test.get (), GDK_KEY_Return, GDK_CONTROL_MASK);
  NoteInSight once = {&drafts, "A text of blanks can't be committed.", 1};
  EXPECT_TRUE (pump_until (is_count_in_sight, &once));
  EXPECT_TRUE (has_left_the_top (drafts.clause));
  // As long as in its own place.
  NoteInSight none = {&drafts, "A text of blanks can't be committed.", 0};
  EXPECT_TRUE (pump_until (is_count_in_sight, &none));
}

struct SeenText {
  Drafts *drafts;
  std::string text;
};

static void
note_text (GtkWidget *, SeenText *seen)
{
  seen->text = seen->drafts->text ();
}

// Whoever listens to the screen is read the text that the focus comes to.
TEST (clause_view_arrival, gives_the_focus_to_the_text_that_is_back)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  std::string typed = drafts.text ();
  drafts.receive (6000, "their words");
  SeenText seen = {&drafts, ""};
  g_signal_connect (drafts.widget ("text_view"), "grab-focus", G_CALLBACK (note_text), &seen);
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (seen.text, typed);
}

TEST (clause_view_arrival, swallows_the_keys_of_who_types_on)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  press_key (drafts.test.get (), GDK_KEY_End);
  drafts.keys ("xy");
  press_key (drafts.test.get (), GDK_KEY_Left);
  drafts.receive (6000, "their words");
  drafts.keys ("typed on");
  press_key (drafts.test.get (), GDK_KEY_space);
  press_key (drafts.test.get (), GDK_KEY_Return);
  press_key (drafts.test.get (), GDK_KEY_Tab);
  EXPECT_EQ (drafts.text (), "their words");
  EXPECT_EQ (drafts.status (), BOB ":6000");
  EXPECT_FALSE (is_popover_shown (&drafts));
  EXPECT_EQ (drafts.stored (), "firstxy\n");
  EXPECT_TRUE (is_note_shown (drafts.clause, TEXT_IS_KEPT));
  // Back, with the cursor where it was.
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_FALSE (is_note_shown (drafts.clause, TEXT_IS_KEPT));
  drafts.keys ("z");
  EXPECT_EQ (drafts.text (), "firstxzy");
}

TEST (clause_view_arrival, swallows_keys_when_the_typing_is_saved_already)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  drafts.focus ("cancel_button");
  drafts.focus ("text_view");
  drafts.receive (6000, "their words");
  drafts.keys ("abc");
  EXPECT_EQ (drafts.text (), "their words");
  EXPECT_EQ (drafts.status (), BOB ":6000");
}

static bool
is_guard_over (void *window)
{
  return !key_guard_is_active (GTK_WINDOW (window));
}

TEST (clause_view_arrival, hears_keys_again_after_a_pause)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  drafts.receive (6000, "their words");
  EXPECT_TRUE (key_guard_is_active (GTK_WINDOW (drafts.test->window)));
  s64 start = g_get_monotonic_time ();
  EXPECT_TRUE (pump_until (is_guard_over, drafts.test->window));
  EXPECT_GE (g_get_monotonic_time () - start, 900000);
  // Escape still goes back.
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), "firstx");
}

// Each key that comes begins the second anew.
TEST (clause_view_arrival, hears_no_key_as_long_as_others_come)
{
  Drafts drafts ({"first"});
  GtkWindow *window = GTK_WINDOW (drafts.test->window);
  static s64 end;
  // Where the machine was busy for too long, the guard is over: then once more.
  for (int i = 0; i < 10 && !key_guard_is_active (window); i++) {
    key_guard_begin (window);
    end = g_get_monotonic_time () + 300000;
    EXPECT_TRUE (pump_until ([] (void *) { return g_get_monotonic_time () > end; }, NULL));
  }
  ASSERT_TRUE (key_guard_is_active (window));
  s64 last_key = g_get_monotonic_time ();
  press_key (drafts.test.get (), GDK_KEY_x);
  EXPECT_TRUE (pump_until (is_guard_over, window));
  EXPECT_GE (g_get_monotonic_time () - last_key, 1000000);
}

TEST (clause_view_arrival, hears_keys_again_after_a_click_with_any_button)
{
  for (guint button : {GDK_BUTTON_PRIMARY, GDK_BUTTON_MIDDLE}) {
    Drafts drafts ({"first"});
    drafts.focus ("text_view");
    drafts.keys ("x");
    drafts.receive (6000, "their words");
    GdkEvent *event = gdk_event_new (GDK_BUTTON_PRESS);
    GtkWidget *label = drafts.widget ("text_view");
    event->button.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (label)));
    event->button.button = button;
    GdkSeat *seat = gdk_display_get_default_seat (gtk_widget_get_display (label));
    gdk_event_set_device (event, gdk_seat_get_pointer (seat));
    gtk_main_do_event (event);
    event->type = GDK_BUTTON_RELEASE;
    gtk_main_do_event (event);
    gdk_event_free (event);
    // Without time for the guard's own end.
    EXPECT_FALSE (key_guard_is_active (GTK_WINDOW (drafts.test->window))) << button;
    pump ();
  }
}

TEST (clause_view_arrival, leaves_keys_alone_that_go_elsewhere)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  press (drafts.procedure->view, "add_clause_button");
  Clause *other = drafts.procedure->clauses[1];
  drafts.focus (find_widget (other->view, "text_view"));
  drafts.receive (6000, "their words");
  drafts.keys ("other");
  EXPECT_EQ (get_text (other->view, "text_view"), "other");
  EXPECT_EQ (drafts.text (), "their words");
}

TEST (clause_view_arrival, of_a_second_revision_still_leads_back_to_the_text)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  drafts.receive (6000, "their words");
  drafts.receive (6001, "their next words");
  EXPECT_EQ (drafts.text (), "their next words");
  EXPECT_TRUE (choose (drafts.clause, GO_BACK));
  EXPECT_EQ (drafts.text (), "firstx");
  EXPECT_FALSE (choose (drafts.clause, GO_BACK));
}

TEST (clause_view_arrival, keeps_a_comparison_with_its_decisions)
{
  Drafts drafts ({"one two", "one three"});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  std::string status = drafts.status ();
  drafts.receive (6000, "their words");
  drafts.keys ("abc");
  EXPECT_EQ (drafts.text (), "their words");
  EXPECT_TRUE (gtk_text_view_get_editable (GTK_TEXT_VIEW (drafts.widget ("text_view"))));
  EXPECT_TRUE (is_note_shown (drafts.clause, COMPARISON_IS_KEPT));
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), "one three");
  EXPECT_EQ (drafts.status (), status);
  EXPECT_TRUE (choose (drafts.clause, USE_AS_DRAFT));
  EXPECT_EQ (drafts.stored (), "one three\n");
  // Typing, undoing and saving go on in what was kept.
  drafts.focus ("text_view");
  drafts.keys ("x");
  press_key (drafts.test.get (), GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_EQ (drafts.text (), "one three");
}

// The buffer of what was kept comes back whole, and no insertion tells of the word in it.
TEST (clause_view_arrival, keeps_a_comparison_with_a_word_too_long_to_be_wrapped_as_one)
{
  std::string word (3000, 'w');
  Drafts drafts ({"one two", (word + " two").c_str ()});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  GtkTextView *text_view = GTK_TEXT_VIEW (drafts.widget ("text_view"));
  EXPECT_EQ (gtk_text_view_get_wrap_mode (text_view), GTK_WRAP_CHAR);
  drafts.receive (6000, "their words");
  EXPECT_EQ (gtk_text_view_get_wrap_mode (text_view), GTK_WRAP_WORD_CHAR);
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), word + " two");
  EXPECT_EQ (gtk_text_view_get_wrap_mode (text_view), GTK_WRAP_CHAR);
}

TEST (clause_view_arrival, keeps_a_comparison_under_its_own_name)
{
  Drafts drafts ({"one two", "one three"});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  std::string status = drafts.status ();
  compare_row (&drafts, BOB ":3001");
  ASSERT_EQ (drafts.status (), "A revision can't be compared with itself.");
  drafts.receive (6000, "their words");
  EXPECT_TRUE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  EXPECT_EQ (drafts.status (), status);
}

TEST (clause_view_arrival, goes_back_to_the_text_that_was_left_after_a_comparison)
{
  Drafts drafts ({"one two", "one three"});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  std::string status = drafts.status ();
  drafts.receive (6000, "their words");
  gtk_text_buffer_insert_at_cursor (drafts.buffer (), "my words", -1);
  std::string draft = drafts.text ();
  drafts.receive (6001, "their next words");
  EXPECT_TRUE (is_note_shown (drafts.clause, TEXT_IS_KEPT));
  drafts.focus (drafts.widget ("agree_button"));
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), draft);
  EXPECT_EQ (drafts.status (), "draft");
  EXPECT_FALSE (is_note_shown (drafts.clause, TEXT_IS_KEPT));
  // The comparison is still at hand.
  EXPECT_TRUE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  EXPECT_EQ (drafts.text (), "one three");
  EXPECT_EQ (drafts.status (), status);
  EXPECT_EQ (drafts.stored (), draft + "\n");
  EXPECT_FALSE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
}

TEST (clause_view_arrival, goes_back_to_the_comparison_that_was_left_after_a_text)
{
  Drafts drafts ({"one two", "one three"});
  gtk_text_buffer_insert_at_cursor (drafts.buffer (), "my words", -1);
  std::string draft = drafts.text ();
  drafts.receive (6000, "their words");
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  std::string status = drafts.status ();
  drafts.receive (6001, "their next words");
  EXPECT_TRUE (is_note_shown (drafts.clause, COMPARISON_IS_KEPT));
  drafts.focus (drafts.widget ("agree_button"));
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), "their words");
  EXPECT_EQ (drafts.status (), status);
  EXPECT_FALSE (is_note_shown (drafts.clause, COMPARISON_IS_KEPT));
  EXPECT_TRUE (choose (drafts.clause, GO_BACK));
  EXPECT_EQ (drafts.text (), draft);
  EXPECT_EQ (drafts.status (), "draft");
}

TEST (clause_view_arrival, leads_back_to_the_draft_that_a_kept_comparison_began_at)
{
  Drafts drafts ({"one two", "one three"}, "one four");
  show_row (drafts.clause, "draft");
  compare_row (&drafts, ALICE ":3000");
  press_key (drafts.test.get (), GDK_KEY_F8);
  press (drafts.clause->view, "diff_add_button");
  drafts.receive (6000, "their words");
  EXPECT_TRUE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), "one four");
  EXPECT_EQ (drafts.status (), "draft");
}

TEST (clause_view_arrival, closes_well_with_a_comparison_kept)
{
  Drafts drafts ({"one two", "one three"});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  drafts.receive (6000, "their words");
  drafts.restart ();
  EXPECT_EQ (drafts.text (), "their words");
}

// ---- Decisions in a comparison that goes ----

// Takes the first change as the newer text has it, and leaves the others, in
// which there is a return symbol. Returns the text as it stands then, without the symbol.
static std::string
begin_to_decide (Drafts *drafts)
{
  static const std::string SYMBOL = "\u23ce";
  EXPECT_TRUE (choose (drafts->clause, WITH_PREVIOUS));
  press_key (drafts->test.get (), GDK_KEY_F8);
  press (drafts->clause->view, "diff_add_button");
  std::string text = drafts->text ();
  size_t place = text.find (SYMBOL);
  EXPECT_NE (place, std::string::npos) << text;
  if (place != std::string::npos)
    text.erase (place, SYMBOL.size ());
  EXPECT_EQ (text.find (SYMBOL), std::string::npos) << text;
  return text;
}

// In their tooltips, line breaks are blanks.
static std::string
excerpt (std::string text)
{
  for (char &c : text)
    c = c == '\n' ? ' ' : c;
  return text;
}

TEST (clause_view_decisions, stay_at_hand_when_another_comparison_begins)
{
  Drafts drafts ({"one two x\nthree", "eins two y three"});
  std::string text = begin_to_decide (&drafts);
  drafts.receive (6000, "their words");
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_FALSE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  EXPECT_EQ (join (list_kept (drafts.clause)), excerpt (text) + "\n");
  EXPECT_TRUE (choose (drafts.clause, BRING_BACK));
  EXPECT_EQ (drafts.text (), text);
  EXPECT_EQ (drafts.stored (), text + "\n");
}

// Nothing is left that Escape could go back to, and nothing says so.
TEST (clause_view_decisions, are_not_promised_any_more_when_another_comparison_begins)
{
  Drafts drafts ({"one two x\nthree", "eins two y three"});
  begin_to_decide (&drafts);
  drafts.receive (6000, "their words");
  ASSERT_TRUE (is_note_shown (drafts.clause, COMPARISON_IS_KEPT));
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_FALSE (is_note_shown (drafts.clause, COMPARISON_IS_KEPT));
  key_guard_end (GTK_WINDOW (drafts.test->window));
  for (int i = 0; i < 2; i++) {
    press_key (drafts.test.get (), GDK_KEY_Escape);
    EXPECT_EQ (drafts.text (), "their words");
    EXPECT_EQ (drafts.status (), BOB ":6000");
  }
}

TEST (clause_view_decisions, leave_the_promise_of_a_later_text_when_another_comparison_begins)
{
  Drafts drafts ({"one two", "one three"});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  drafts.receive (6000, "their words");
  gtk_text_buffer_insert_at_cursor (drafts.buffer (), "my words", -1);
  std::string draft = drafts.text ();
  drafts.receive (6001, "their next words");
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (is_note_shown (drafts.clause, TEXT_IS_KEPT));
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), "their next words");
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (drafts.text (), draft);
}

// A menu may stay open while a revision arrives.
TEST (clause_view_decisions, are_used_and_not_what_arrived_while_the_menu_was_open)
{
  Drafts drafts ({"one two", "one three"});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  GtkWidget *menu = GTK_WIDGET (g_object_ref_sink (gtk_menu_new ()));
  g_signal_emit_by_name (drafts.widget ("text_view"), "populate-popup", menu);
  drafts.receive (6000, "their words");
  int count = 0;
  for (GtkMenuItem *item : list_items (menu)) {
    if (!strcmp (gtk_menu_item_get_label (item), USE_AS_DRAFT)) {
      gtk_menu_item_activate (item);
      count++;
    }
  }
  gtk_widget_destroy (menu);
  g_object_unref (menu);
  pump ();
  EXPECT_EQ (count, 1);
  EXPECT_EQ (drafts.text (), "their words");
  EXPECT_EQ (drafts.status (), BOB ":6000");
  EXPECT_EQ (drafts.stored (), "");
  EXPECT_TRUE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  EXPECT_EQ (drafts.text (), "one three");
}

// A U+23CE of the user's own is text.
TEST (clause_view_decisions, stay_at_hand_with_the_symbols_that_were_typed)
{
  Drafts drafts ({"a \u23ce b", "a \u23ce c"});
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  drafts.receive (6000, "their words");
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_EQ (join (list_kept (drafts.clause)), "a \u23ce c\n");
}

TEST (clause_view_decisions, stay_in_the_comparison_when_a_row_is_chosen)
{
  Drafts drafts ({"one two x\nthree", "eins two y three"});
  begin_to_decide (&drafts);
  std::string text = drafts.text ();
  drafts.receive (6000, "their words");
  show_row (drafts.clause, ALICE ":3000");
  EXPECT_EQ (join (list_kept (drafts.clause)), "");
  EXPECT_TRUE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  EXPECT_EQ (drafts.text (), text);
}

// The draft that the comparison began at is committed meanwhile.
TEST (clause_view_decisions, stay_with_what_is_shown_where_their_draft_is_gone)
{
  Drafts drafts ({"one two", "one three"}, "one four");
  show_row (drafts.clause, "draft");
  compare_row (&drafts, ALICE ":3000");
  press_key (drafts.test.get (), GDK_KEY_F8);
  press (drafts.clause->view, "diff_add_button");
  drafts.receive (6000, "one five");
  show_row (drafts.clause, "draft");
  press (drafts.clause->view, "commit_button");
  EXPECT_TRUE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  compare_row (&drafts, BOB ":3001");
  EXPECT_EQ (drafts.status ().find (BOB ":3001 > " ALICE ":"), 0u) << drafts.status ();
}

TEST (clause_view_decisions, given_up_with_escape_are_gone)
{
  Drafts drafts ({"one two x\nthree", "eins two y three"});
  begin_to_decide (&drafts);
  press_key (drafts.test.get (), GDK_KEY_Escape);
  EXPECT_EQ (join (list_kept (drafts.clause)), "");
}

class ClauseViewDecisions : public testing::TestWithParam<bool> {};

// Shown, or kept behind a revision that has arrived.
TEST_P (ClauseViewDecisions, stay_in_the_comparison_when_a_deletion_is_undone)
{
  Drafts drafts ({"one two x\nthree", "eins two y three"});
  begin_to_decide (&drafts);
  std::string text = drafts.text ();
  if (GetParam ())
    drafts.receive (6000, "their words");
  app_window_remove_procedure (drafts.test->window, drafts.procedure);
  press (drafts.test->window, "undo_button");
  pump ();
  EXPECT_EQ (join (list_kept (drafts.clause)), "");
  if (GetParam ()) {
    EXPECT_EQ (drafts.text (), "their words");
    EXPECT_TRUE (choose (drafts.clause, GO_BACK_TO_COMPARISON));
  }
  EXPECT_EQ (drafts.text (), text);
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
}

INSTANTIATE_TEST_SUITE_P (shown_or_aside, ClauseViewDecisions, testing::Bool ());

// ---- A press in haste ----

static void
point_at (Drafts *drafts, const char *name)
{
  GtkWidget *widget = drafts->widget (name);
  EXPECT_TRUE (
    pump_until ([] (void
                      *button) { return gtk_widget_get_allocated_width (GTK_WIDGET (button)) > 1; },
                widget));
  GdkWindow *gdk_window = gtk_widget_get_window (widget);
  GtkAllocation place;
  gtk_widget_get_allocation (widget, &place);
  int x;
  int y;
  gdk_window_get_root_coords (gdk_window, place.x + place.width / 2, place.y + place.height / 2, &x,
                              &y);
  GdkDisplay *display = gtk_widget_get_display (widget);
  gdk_device_warp (gdk_seat_get_pointer (gdk_display_get_default_seat (display)),
                   gdk_window_get_screen (gdk_window), x, y);
  pump ();
}

static std::string
list_decisions (Drafts *drafts)
{
  return query (drafts->test.get (), "SELECT status FROM clause_revision_decisions");
}

TEST (clause_view_haste, press_meant_for_the_revision_before_decides_nothing)
{
  Drafts drafts ({"first", "second"});
  point_at (&drafts, "agree_button");
  drafts.receive (6000, "their words");
  press (drafts.clause->view, "agree_button");
  EXPECT_EQ (list_decisions (&drafts), "");
  EXPECT_EQ (take_sent (drafts.test.get ()), "");
}

// The decision buttons may come to lie where the others were.
TEST (clause_view_haste, press_meant_for_commit_or_cancel_decides_nothing)
{
  for (const char *name : {"commit_button", "cancel_button"}) {
    Drafts drafts ({"first", "second"});
    drafts.focus ("text_view");
    drafts.keys ("x");
    point_at (&drafts, name);
    drafts.receive (6000, "their words");
    press (drafts.clause->view, "disagree_button");
    EXPECT_EQ (list_decisions (&drafts), "") << name;
    EXPECT_EQ (drafts.stored (), "secondx\n");
  }
}

TEST (clause_view_haste, pointer_that_was_elsewhere_decides)
{
  Drafts drafts ({"first", "second"});
  point_at (&drafts, "text_view");
  drafts.receive (6000, "their words");
  press (drafts.clause->view, "agree_button");
  EXPECT_EQ (list_decisions (&drafts), "AGREE\n");
}

TEST (clause_view_haste, press_half_a_second_later_decides)
{
  Drafts drafts ({"first", "second"});
  point_at (&drafts, "agree_button");
  drafts.receive (6000, "their words");
  static s64 end;
  end = g_get_monotonic_time () + 500000;
  EXPECT_TRUE (pump_until ([] (void *) { return g_get_monotonic_time () > end; }, NULL));
  press (drafts.clause->view, "agree_button");
  EXPECT_EQ (list_decisions (&drafts), "AGREE\n");
}

TEST (clause_view_haste, lasts_half_a_second)
{
  Drafts drafts ({"first", "second"});
  point_at (&drafts, "agree_button");
  drafts.receive (6000, "their words");
  g_signal_emit_by_name (drafts.widget ("agree_button"), "pressed");
  DecisionButtons *buttons = &drafts.clause->view->decision_buttons;
  for (s64 age : {499999, 500000}) {
    buttons->arrival_time = buttons->press_time - age;
    EXPECT_EQ (decision_buttons_are_hasty (buttons), age < 500000) << age;
  }
}

TEST (clause_view_haste, press_that_began_before_decides_nothing)
{
  Drafts drafts ({"first", "second"});
  point_at (&drafts, "agree_button");
  g_signal_emit_by_name (drafts.widget ("agree_button"), "pressed");
  drafts.receive (6000, "their words");
  static s64 end;
  end = g_get_monotonic_time () + 500000;
  EXPECT_TRUE (pump_until ([] (void *) { return g_get_monotonic_time () > end; }, NULL));
  press (drafts.clause->view, "agree_button");
  EXPECT_EQ (list_decisions (&drafts), "");
}

static bool
is_left_by_pointer (void *button)
{
  return !(gtk_widget_get_state_flags (GTK_WIDGET (button)) & GTK_STATE_FLAG_PRELIGHT);
}

// A press that ended beside the button is over, and says nothing of a key hours later.
TEST (clause_view_haste, press_that_ended_elsewhere_is_forgotten)
{
  Drafts drafts ({"first", "second"});
  point_at (&drafts, "text_view");
  // The window may have come up with the pointer above the button.
  EXPECT_TRUE (pump_until (is_left_by_pointer, drafts.widget ("agree_button")));
  g_signal_emit_by_name (drafts.widget ("agree_button"), "pressed");
  g_signal_emit_by_name (drafts.widget ("agree_button"), "released");
  ASSERT_EQ (list_decisions (&drafts), "");
  point_at (&drafts, "agree_button");
  drafts.receive (6000, "their words");
  static s64 end;
  end = g_get_monotonic_time () + 500000;
  EXPECT_TRUE (pump_until ([] (void *) { return g_get_monotonic_time () > end; }, NULL));
  press (drafts.clause->view, "agree_button");
  EXPECT_EQ (list_decisions (&drafts), "AGREE\n");
}

// ---- Undoing ----

static void
undo (Drafts *drafts)
{
  press_key (drafts->test.get (), GDK_KEY_z, GDK_CONTROL_MASK);
}

static void
redo (Drafts *drafts)
{
  press_key (drafts->test.get (), GDK_KEY_Z, (GdkModifierType) (GDK_CONTROL_MASK | GDK_SHIFT_MASK));
}

TEST (clause_view_undo, goes_back_to_where_typing_began_and_forth)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  press_key (drafts.test.get (), GDK_KEY_End);
  drafts.keys (" and more");
  EXPECT_EQ (drafts.text (), "first and more");
  std::string steps;
  for (int i = 0; i < 5; i++) {
    undo (&drafts);
    steps += drafts.text () + "\n";
  }
  EXPECT_EQ (steps, "first and \nfirst \nfirst\nfirst\nfirst\n");
  for (int i = 0; i < 5; i++)
    redo (&drafts);
  EXPECT_EQ (drafts.text (), "first and more");
  EXPECT_EQ (drafts.status (), "draft");
}

// Of a keyboard with other letters: where those of both are on one, the Latin ones come first.
TEST (clause_view_undo, hears_the_key_whatever_letters_it_has)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  GtkWidget *text_view = drafts.widget ("text_view");
  GdkKeymapKey *places = NULL;
  int count = 0;
  GdkKeymap *keymap = gdk_keymap_get_for_display (gtk_widget_get_display (text_view));
  ASSERT_TRUE (gdk_keymap_get_entries_for_keyval (keymap, GDK_KEY_z, &places, &count));
  GdkEvent *event = gdk_event_new (GDK_KEY_PRESS);
  event->key.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (text_view)));
  GdkSeat *seat = gdk_display_get_default_seat (gtk_widget_get_display (text_view));
  gdk_event_set_device (event, gdk_seat_get_keyboard (seat));
  event->key.hardware_keycode = (guint16) places[0].keycode;
  for (guint keyval : {GDK_KEY_Cyrillic_ya, GDK_KEY_Greek_zeta}) {
    event->key.keyval = keyval;
    event->key.state = GDK_CONTROL_MASK;
    EXPECT_TRUE (gtk_widget_event (text_view, event));
    EXPECT_EQ (drafts.text (), "first") << keyval;
    event->key.state |= GDK_SHIFT_MASK;
    EXPECT_TRUE (gtk_widget_event (text_view, event));
    EXPECT_EQ (drafts.text (), "firstx") << keyval;
  }
  gdk_event_free (event);
  g_free (places);
}

TEST (clause_view_undo, never_reaches_into_another_text)
{
  Drafts drafts ({"first", "second"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  drafts.focus ("cancel_button");
  show_row (drafts.clause, ALICE ":3000");
  drafts.focus ("text_view");
  undo (&drafts);
  redo (&drafts);
  EXPECT_EQ (drafts.text (), "first");
  EXPECT_EQ (drafts.status (), ALICE ":3000");
  // It goes on with its own.
  show_row (drafts.clause, "draft");
  EXPECT_EQ (drafts.text (), "secondx");
  drafts.focus ("text_view");
  undo (&drafts);
  EXPECT_EQ (drafts.text (), "second");
  EXPECT_EQ (drafts.status (), "draft");
}

TEST (clause_view_undo, ends_where_another_draft_began)
{
  Drafts drafts ({"first", "second"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  show_row (drafts.clause, ALICE ":3000");
  drafts.focus ("text_view");
  press_key (drafts.test.get (), GDK_KEY_Home, GDK_CONTROL_MASK);
  drafts.keys ("y");
  EXPECT_EQ (drafts.text (), "yfirst");
  for (int i = 0; i < 3; i++)
    undo (&drafts);
  EXPECT_EQ (drafts.text (), "first");
  EXPECT_TRUE (choose (drafts.clause, BRING_BACK));
  for (int i = 0; i < 3; i++)
    undo (&drafts);
  EXPECT_EQ (drafts.text (), "secondx");
}

TEST (clause_view_undo, never_takes_the_text_of_a_comparison_for_the_draft_before)
{
  Drafts drafts ({"one two", "one three"});
  drafts.focus ("text_view");
  press_key (drafts.test.get (), GDK_KEY_Home, GDK_CONTROL_MASK);
  drafts.keys ("x");
  show_row (drafts.clause, BOB ":3001");
  EXPECT_TRUE (choose (drafts.clause, WITH_PREVIOUS));
  EXPECT_TRUE (choose (drafts.clause, TAKE_NEWER));
  EXPECT_TRUE (choose (drafts.clause, USE_AS_DRAFT));
  show_row (drafts.clause, BOB ":3001");
  show_row (drafts.clause, "draft");
  drafts.focus ("text_view");
  undo (&drafts);
  EXPECT_EQ (drafts.text (), "one three");
}

TEST (clause_view_undo, has_nothing_to_undo_after_a_restart)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  drafts.restart ();
  show_row (drafts.clause, "draft");
  drafts.focus ("text_view");
  undo (&drafts);
  EXPECT_EQ (drafts.text (), "firstx");
  drafts.keys ("y");
  undo (&drafts);
  EXPECT_EQ (drafts.text (), "firstx");
}

// ---- Saving by itself ----

TEST (clause_view_save, comes_ten_seconds_after_the_last_key)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  drafts.keys ("x");
  GSource *source = g_main_context_find_source_by_user_data (NULL, drafts.clause->view);
  ASSERT_TRUE (source);
  s64 left = g_source_get_ready_time (source) - g_get_monotonic_time ();
  EXPECT_GT (left, 8 * G_USEC_PER_SEC);
  EXPECT_LE (left, 11 * G_USEC_PER_SEC);
  EXPECT_EQ (drafts.stored (), "");
  // Its time has come.
  g_source_set_ready_time (source, 0);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return ((Drafts *) data)->stored () == "firstx\n"; }, &drafts));
  EXPECT_EQ (drafts.text (), "firstx");
  EXPECT_EQ (drafts.status (), "draft");
  EXPECT_TRUE (gtk_widget_has_focus (drafts.widget ("text_view")));
  EXPECT_FALSE (g_main_context_find_source_by_user_data (NULL, drafts.clause->view));
}

// ---- The focus and the keys ----

static bool
is_at_revisions_button (Drafts *drafts)
{
  return gtk_window_get_focus (GTK_WINDOW (drafts->test->window)) ==
         drafts->widget ("revision_select_menu_button");
}

TEST (clause_view_focus, goes_to_the_revisions_button_after_each_choice)
{
  Drafts drafts ({"first", "second"});
  for (const char *name : {"agree_button", "disagree_button", "commit_button", "cancel_button"}) {
    if (name[0] == 'c')
      type (drafts.clause->view, "text_view", "typed");
    drafts.focus (name);
    press (drafts.clause->view, name);
    EXPECT_TRUE (is_at_revisions_button (&drafts)) << name;
  }
  std::string text = drafts.text ();
  drafts.keys ("x ");
  EXPECT_EQ (drafts.text (), text);
  EXPECT_EQ (list_decisions (&drafts), "DISAGREE\n");
}

TEST (clause_view_focus, goes_to_add_clause_button_after_a_new_clause_is_cancelled)
{
  Drafts drafts ({"first"});
  press (drafts.procedure->view, "add_clause_button");
  press (drafts.procedure->clauses[1]->view, "cancel_button");
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (drafts.test->window)),
             find_widget (drafts.procedure->view, "add_clause_button"));
}

TEST (clause_view_keys, ctrl_return_commits)
{
  Drafts drafts ({"first"});
  drafts.focus ("text_view");
  press_key (drafts.test.get (), GDK_KEY_Return, GDK_CONTROL_MASK);
  EXPECT_EQ (drafts.clause->revisions_count, 1u);
  EXPECT_EQ (drafts.text (), "first");
  drafts.keys ("x");
  press_key (drafts.test.get (), GDK_KEY_Return, GDK_CONTROL_MASK);
  ASSERT_EQ (drafts.clause->revisions_count, 2u);
  EXPECT_EQ (to_std_string (drafts.clause->revisions[1]->text), "firstx");
}

TEST (clause_view_commit, of_blanks_is_refused_and_says_why)
{
  Drafts drafts ({"first"}, "old draft");
  for (const char *text : {" ", "\n \t\n", "\u00a0\u3000"}) {
    type (drafts.clause->view, "text_view", text);
    press (drafts.clause->view, "commit_button");
    EXPECT_EQ (drafts.status (), "A text of blanks can't be committed.");
    EXPECT_EQ (drafts.clause->revisions_count, 1u);
    EXPECT_EQ (drafts.text (), text);
  }
  EXPECT_EQ (take_sent (drafts.test.get ()), "");
  type (drafts.clause->view, "text_view", " x");
  press (drafts.clause->view, "commit_button");
  EXPECT_EQ (drafts.clause->revisions_count, 2u);
}

// ---- Every order ----

// What is owed to the user, worked out beside the view.
struct DraftsModel {
  enum {
    REVISION,
    DRAFT,
    COMPARISON
  } shown;
  std::string text;    // of the draft that is shown
  bool is_unsaved;     // it was typed since the last save
  std::string stored;  // the draft; empty for none
  std::string parent;  // the saved draft that the text shown was typed on, which it may replace
  std::set<std::string> owed;
};

static void
own (DraftsModel *model, const std::string &text)
{
  model->stored = text;
  model->parent = text;
  if (!text.empty ())
    model->owed.insert (text);
}

static void
save (DraftsModel *model)
{
  if (!model->is_unsaved)
    return;
  model->is_unsaved = false;
  model->owed.erase (model->parent);
  own (model, model->text);
}

// Typing on top of the draft that is shown goes on with it, on anything else it begins another one.
static void
edit (DraftsModel *model, const std::string &text)
{
  if (model->shown != DraftsModel::DRAFT)
    model->parent = "";
  model->shown = DraftsModel::DRAFT;
  model->text = text;
  model->is_unsaved = true;
}

// The user takes the draft that is shown, and no other, out of the program's hands.
static void
give_up (DraftsModel *model)
{
  model->owed.erase (model->parent);
  model->is_unsaved = false;
  model->stored = "";
  model->parent = "";
  model->shown = DraftsModel::REVISION;
}

static void
show_draft (DraftsModel *model)
{
  save (model);
  model->shown = DraftsModel::DRAFT;
  model->text = model->stored;
  model->parent = model->stored;
}

// The program was started with what is stored, and the page is shown. A clause without a revision
// shows its draft.
static void
begin_again (Drafts *drafts, DraftsModel *model)
{
  model->owed.clear ();
  model->is_unsaved = false;
  own (model, model->stored);
  model->shown = drafts->clause->revisions_count ? DraftsModel::REVISION : DraftsModel::DRAFT;
  model->text = model->stored;
}

enum Step {
  STEP_TYPE,
  STEP_LEAVE,
  STEP_SHOW_REVISION,
  STEP_SHOW_DRAFT,
  STEP_RECEIVE,
  STEP_COMPARE,
  STEP_COMPARE_ROW,
  STEP_TAKE_NEWER,
  STEP_USE_AS_DRAFT,
  STEP_ESCAPE,
  STEP_ESCAPE_ELSEWHERE,
  STEP_GO_BACK,
  STEP_BRING_BACK,
  STEP_UNDO,
  STEP_COMMIT,
  STEP_CANCEL,
  STEP_DECIDE,
  STEP_DELETE_OTHER,
  STEP_DECIDE_RUN,
  STEP_DELETE_PROCEDURE,
  STEP_TEN_SECONDS,
  STEP_RESTART,
  STEP_KILL,
  STEPS_COUNT
};

// Of all that can be done, what a walk did.
struct DraftsFigures {
  unsigned counts[STEPS_COUNT];
};

static void
read_shown (Drafts *drafts, DraftsModel *model)
{
  std::string status = drafts->status ();
  model->shown = status == "draft"                          ? DraftsModel::DRAFT
                 : status.find (" > ") != std::string::npos ? DraftsModel::COMPARISON
                                                            : DraftsModel::REVISION;
}

// A clause without a revision that the user cancels is deleted, and comes back with an undo.
static bool
is_deleted_by_cancel (Drafts *drafts)
{
  return drafts->clause->revisions_count == 0;
}

static void
undo_deletion (Drafts *drafts)
{
  EXPECT_EQ (drafts->stored (), "");
  press (drafts->test->window, "undo_button");
  pump ();
  EXPECT_EQ (drafts->procedure->clauses[0], drafts->clause);
}

// What comes for a deleted procedure waits for the undo.
static void
send_to_deleted_procedure (Drafts *drafts, s64 time, const char *text)
{
  XMPPClauseRevision *record = alloc_record<XMPPClauseRevision> (drafts->test->window);
  record->text = alloc_string (text);
  record->procedure_initiator = alloc_string (ALICE);
  record->procedure_time = 1000;
  record->clause_initiator = alloc_string (ALICE);
  record->clause_time = 2000;
  record->revision_author = alloc_string (BOB);
  record->revision_time = time;
  app_window_get_xmpp_clause_revision (record);
}

// As a timer does when its time has come; the view has another one for what it refuses.
static void
let_ten_seconds_pass (Drafts *drafts)
{
  gpointer view = drafts->clause->view;
  for (int i = 0; i < 2; i++) {
    GSource *source = g_main_context_find_source_by_user_data (NULL, view);
    if (source)
      g_source_set_ready_time (source, 0);
    pump ();
  }
  EXPECT_FALSE (g_main_context_find_source_by_user_data (NULL, view));
}

static bool
has_changes (Drafts *drafts)
{
  GtkTextIter iter;
  gtk_text_buffer_get_start_iter (drafts->buffer (), &iter);
  return gtk_text_iter_starts_tag (&iter, NULL) ||
         gtk_text_iter_forward_to_tag_toggle (&iter, NULL);
}

// What the popover shows of a text.
static std::string
shorten (const std::string &text)
{
  return text.size () <= 40 ? text : text.substr (0, 40) + "\u2026";
}

static bool
has_row (Drafts *drafts)
{
  return find_row (drafts->clause, "draft") != NULL;
}

// Outside of the text, Escape does what the note promises, and nothing else.
static void
escape_elsewhere (Drafts *drafts, DraftsModel *model)
{
  bool is_text_kept = is_note_shown (drafts->clause, TEXT_IS_KEPT);
  bool is_comparison_kept = is_note_shown (drafts->clause, COMPARISON_IS_KEPT);
  std::string status = drafts->status ();
  drafts->focus ("text_view");
  drafts->focus ("revision_select_menu_button");
  save (model);
  press_key (drafts->test.get (), GDK_KEY_Escape);
  if (is_text_kept) {
    show_draft (model);
    EXPECT_EQ (drafts->status (), "draft");
  } else if (is_comparison_kept) {
    model->shown = DraftsModel::COMPARISON;
    EXPECT_NE (drafts->status ().find (" > "), std::string::npos) << drafts->status ();
  } else {
    EXPECT_EQ (drafts->status (), status);
  }
}

static void
take_step (Drafts *drafts, DraftsModel *model, Step step, unsigned number)
{
  Clause *clause = drafts->clause;
  TestWindow *test = drafts->test.get ();
  std::string text = "text " + std::to_string (number);
  switch (step) {
  case STEP_TYPE:
    if (!gtk_text_view_get_editable (GTK_TEXT_VIEW (drafts->widget ("text_view"))))
      break;
    type (clause->view, "text_view", text.c_str ());
    edit (model, text);
    break;
  case STEP_LEAVE:
    drafts->focus ("text_view");
    drafts->focus ("revision_select_menu_button");
    save (model);
    break;
  case STEP_SHOW_REVISION: {
    if (!clause->revisions_count)
      break;
    ClauseRevision *revision = clause->revisions[number % clause->revisions_count];
    show_row (clause, to_std_string (revision->author) + ":" + std::to_string (revision->time));
    save (model);
    model->shown = DraftsModel::REVISION;
    break;
  }
  case STEP_SHOW_DRAFT:
    if (!has_row (drafts) || (model->stored.empty () && !model->is_unsaved))
      break;
    show_row (clause, "draft");
    show_draft (model);
    break;
  case STEP_RECEIVE:
    drafts->receive (10000 + (s64) number, text.c_str ());
    save (model);
    model->shown = DraftsModel::REVISION;
    break;
  case STEP_COMPARE:
    if (choose (clause, WITH_PREVIOUS))
      model->shown = DraftsModel::COMPARISON;
    break;
  case STEP_COMPARE_ROW:
    if (model->shown != DraftsModel::DRAFT || model->text.empty () || !clause->revisions_count)
      break;
    compare_row (drafts, to_std_string (clause->revisions[0]->author) + ":" +
                           std::to_string (clause->revisions[0]->time));
    save (model);
    model->shown = DraftsModel::COMPARISON;
    break;
  case STEP_TAKE_NEWER:
    choose (clause, TAKE_NEWER);
    break;
  case STEP_USE_AS_DRAFT: {
    std::string result = drafts->text ();
    if (!choose (clause, USE_AS_DRAFT))
      break;
    edit (model, result);
    save (model);
    break;
  }
  case STEP_ESCAPE:
    drafts->focus ("text_view");
    press_key (test, GDK_KEY_Escape);
    if (model->shown == DraftsModel::DRAFT)
      break;
    read_shown (drafts, model);
    if (model->shown == DraftsModel::DRAFT)
      show_draft (model);
    break;
  case STEP_ESCAPE_ELSEWHERE:
    escape_elsewhere (drafts, model);
    break;
  case STEP_GO_BACK:
    if (choose (clause, GO_BACK)) {
      show_draft (model);
    } else if (choose (clause, GO_BACK_TO_COMPARISON)) {
      save (model);
      model->shown = DraftsModel::COMPARISON;
    }
    break;
  case STEP_BRING_BACK: {
    std::vector<std::string> kept = list_kept (clause);
    if (kept.empty ())
      break;
    size_t index = number % kept.size ();
    gtk_button_clicked (GTK_BUTTON (list_kept_buttons (clause)[index]));
    pump ();
    save (model);
    model->shown = DraftsModel::DRAFT;
    model->text = drafts->text ();
    EXPECT_EQ (shorten (model->text), kept[index]);
    own (model, model->text);
    break;
  }
  case STEP_UNDO: {
    if (model->shown != DraftsModel::DRAFT)
      break;
    drafts->focus ("text_view");
    std::string before = drafts->text ();
    press_key (test, GDK_KEY_z, GDK_CONTROL_MASK);
    if (drafts->text () != before)
      edit (model, drafts->text ());
    break;
  }
  case STEP_COMMIT:
    if (model->shown != DraftsModel::DRAFT || model->text.empty ())
      break;
    press (clause->view, "commit_button");
    give_up (model);
    break;
  case STEP_CANCEL:
    if (model->shown != DraftsModel::DRAFT)
      break;
    press (clause->view, "cancel_button");
    if (is_deleted_by_cancel (drafts)) {
      undo_deletion (drafts);
      save (model);
      break;
    }
    give_up (model);
    break;
  case STEP_DECIDE: {
    const char *name = number % 2 ? "agree_button" : "disagree_button";
    if (!is_sensitive (clause->view, name))
      break;
    press (clause->view, name);
    if (model->shown == DraftsModel::COMPARISON)
      model->shown = DraftsModel::REVISION;
    break;
  }
  case STEP_DELETE_OTHER:
    drafts->focus ("text_view");
    press (drafts->procedure->view, "add_clause_button");
    save (model);
    type (drafts->procedure->clauses[1]->view, "text_view", "other clause");
    press (drafts->procedure->clauses[1]->view, "cancel_button");
    break;
  case STEP_DECIDE_RUN: {
    if (model->shown != DraftsModel::COMPARISON || !has_changes (drafts))
      break;
    drafts->focus ("text_view");
    key_guard_end (GTK_WINDOW (test->window));
    press_key (test, GDK_KEY_F8);
    bool is_removed = number % 2;
    press (clause->view, is_removed ? "diff_del_button" : "diff_add_button");
    if (is_removed && !has_changes (drafts)) {
      edit (model, drafts->text ());
      save (model);
    }
    break;
  }
  case STEP_DELETE_PROCEDURE:
    press (drafts->procedure->view, "delete_button");
    save (model);
    EXPECT_EQ (test->window->procedures.count, 0u);
    if (number % 3 == 0) {
      send_to_deleted_procedure (drafts, 10000 + (s64) number, text.c_str ());
      model->shown = DraftsModel::REVISION;
    }
    undo_deletion (drafts);
    break;
  case STEP_TEN_SECONDS:
    if (model->is_unsaved)
      let_ten_seconds_pass (drafts);
    save (model);
    break;
  case STEP_RESTART:
    save (model);
    drafts->restart ();
    begin_again (drafts, model);
    break;
  case STEP_KILL:
    drafts->die ();
    begin_again (drafts, model);
    break;
  case STEPS_COUNT:
    break;
  }
}

// The draft is what the model says, and each text that is owed is the draft or at hand.
static void
expect_kept (Drafts *drafts, const DraftsModel &model)
{
  std::string stored = drafts->stored ();
  if (model.shown == DraftsModel::DRAFT) {
    EXPECT_EQ (drafts->text (), model.text);
  }
  EXPECT_EQ (stored == "\n" ? "" : stored, model.stored.empty () ? "" : model.stored + "\n");
  std::vector<std::string> kept = list_kept (drafts->clause);
  std::set<std::string> at_hand (kept.begin (), kept.end ());
  at_hand.insert (shorten (model.stored));
  for (const std::string &text : model.owed)
    EXPECT_TRUE (at_hand.count (shorten (text))) << text << " is gone; at hand:\n" << join (kept);
}

// A long walk, or another one, is asked for from outside.
static unsigned
get_number (const char *name, unsigned usual)
{
  const char *number = getenv (name);
  return number ? (unsigned) atoi (number) : usual;
}

static bool
is_rare (unsigned step)
{
  return step == STEP_RESTART || step == STEP_KILL;
}

class DraftsWalk : public testing::TestWithParam<unsigned> {};

// Every other one begins with a clause that has no revision.
TEST_P (DraftsWalk, loses_no_saved_text_in_any_order)
{
  unsigned seed = get_number ("MORVANE_SEED", GetParam ());
  unsigned steps = get_number ("MORVANE_STEPS", 150);
  std::initializer_list<const char *> texts = {"first text", "second text"};
  std::initializer_list<const char *> no_texts = {};
  Drafts drafts (seed % 2 ? texts : no_texts, "draft of yesterday");
  DraftsModel model = {};
  model.stored = "draft of yesterday";
  begin_again (&drafts, &model);
  DraftsFigures figures = {};
  // A linear congruential generator: the same walk at every run.
  unsigned random = seed;
  std::string walk;
  unsigned number = 1;
  for (; number <= steps && !HasFailure (); number++) {
    random = random * 1664525 + 1013904223;
    unsigned step = (random >> 16) % STEPS_COUNT;
    // A restart forgets much: it is rare.
    if (is_rare (step) && (random >> 24) % 4)
      step = STEP_TYPE;
    figures.counts[step]++;
    walk += std::to_string (step) + " ";
    SCOPED_TRACE (walk);
    take_step (&drafts, &model, (Step) step, number);
    expect_kept (&drafts, model);
  }
  printf ("walk: %u steps; %u texts typed, %u received, %u commits, %u deletions, %u restarts, "
          "%u kills\n",
          number - 1, figures.counts[STEP_TYPE], figures.counts[STEP_RECEIVE],
          figures.counts[STEP_COMMIT],
          figures.counts[STEP_DELETE_PROCEDURE] + figures.counts[STEP_DELETE_OTHER],
          figures.counts[STEP_RESTART], figures.counts[STEP_KILL]);
}

INSTANTIATE_TEST_SUITE_P (clause_view, DraftsWalk, testing::Range (1u, 9u));
