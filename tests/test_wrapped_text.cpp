#include "wrapped_text.h"

#include "clause_chat_page.h"
#include "clause_view.h"
#include "contact_chat_page.h"
#include "db.h"
#include "login_page.h"
#include "morvane.h"
#include "procedure_view.h"
#include "vcard_page.h"
#include "widget_test.h"

#include <gdk/gdkx.h>

// What half of a small screen has, in pixels.
static const int NARROW = 460;

static std::string
repeat (const char *text, u32 count)
{
  std::string repeated;
  for (u32 i = 0; i < count; ++i)
    repeated += text;
  return repeated;
}

// What others may have written, by a name for each.
struct HostileText {
  const char *name;
  std::string text;
};

static const HostileText HOSTILE_TEXTS[] = {
  {"a long word", repeat ("w", 400)},
  {"500 tabs", repeat ("\t", 500) + "x"},
  {"Chinese", repeat ("\u5951\u7d04\u66f8", 100)},
  {"Arabic", repeat ("\u0627\u0644\u0639\u0642\u062f", 80)},
  {"words joined by blanks that nobody sees", repeat ("w\u200b", 200)},
  {"words that must not be broken", repeat ("word\u00a0\u2060", 80)},
  {"a letter below many marks", "a" + repeat ("\u0301", 200)},
  {"pictures joined into one", repeat ("\U0001f468\u200d", 80)},
};

// A text is laid out bit by bit while nothing else is to be done.
static void
expect_narrow (TestWindow *test, const char *what)
{
  pump ();
  int minimum = 0;
  gtk_widget_get_preferred_width (GTK_WIDGET (test->window), &minimum, NULL);
  EXPECT_LE (minimum, NARROW) << what;
  int width = 0;
  gtk_window_get_size (GTK_WINDOW (test->window), &width, NULL);
  EXPECT_EQ (width, 640) << what;
}

static Procedure *
add_procedure (TestWindow *test, const char *title, const char *contractor)
{
  AppWindow *window = test->window;
  Procedure *procedure = alloc_procedure (0, window->account_db_id, 5, to_string (title),
                                          to_string ("alice@alpha.test"), to_string (contractor));
  db_insert_procedure (window->db, procedure);
  procedures_stack_add_procedure (&window->procedures, procedure);
  Clause *clause = alloc_clause (0, procedure->db_id, 7, to_string ("alice@alpha.test"), 1);
  db_insert_clause (window->db, clause);
  procedure_add_clause (procedure, clause);
  return procedure;
}

static void
add_revision (TestWindow *test, Clause *clause, const char *author, const char *text)
{
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, 10 + clause->revisions_count, to_string (author),
                           REVISION_COMMITTED, to_string (text));
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

static std::string
get_long_address ()
{
  return repeat ("b", 990) + "@beta.test";
}

// ---- What others write ----

TEST (wrapped_text, lets_the_window_be_narrow_with_any_revision)
{
  TestWindow test;
  log_in (&test);
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    Procedure *procedure = add_procedure (&test, "Planks", "bob@beta.test");
    add_revision (&test, procedure->clauses[0], "bob@beta.test", hostile.text.c_str ());
    show (&test, procedure);
    expect_narrow (&test, hostile.name);
    app_window_remove_procedure (test.window, procedure);
  }
}

TEST (wrapped_text, lets_the_window_be_narrow_with_any_comparison)
{
  TestWindow test;
  log_in (&test);
  std::string author = get_long_address ();
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    Procedure *procedure = add_procedure (&test, "Planks", author.c_str ());
    Clause *clause = procedure->clauses[0];
    add_revision (&test, clause, author.c_str (), "Planks of oak");
    add_revision (&test, clause, author.c_str (), (hostile.text + " and of ash").c_str ());
    show (&test, procedure);
    clause_view_show_diff (clause->view, clause->revisions[0], clause->revisions[1]);
    expect_narrow (&test, hostile.name);
    app_window_remove_procedure (test.window, procedure);
  }
}

TEST (wrapped_text, lets_the_window_be_narrow_with_any_title)
{
  TestWindow test;
  log_in (&test);
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    Procedure *procedure = add_procedure (&test, hostile.text.c_str (), "bob@beta.test");
    show (&test, procedure);
    expect_narrow (&test, hostile.name);
    app_window_remove_procedure (test.window, procedure);
    expect_narrow (&test, hostile.name);
  }
}

TEST (wrapped_text, lets_the_window_be_narrow_with_any_chat_line)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "Planks", "bob@beta.test");
  show (&test, procedure);
  Clause *clause = procedure->clauses[0];
  procedure_view_show_clause_chat_page (procedure->view, clause->chat_page);
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    ClauseMessage *message = alloc_clause_message (0, 1, 1, to_string (hostile.text.c_str ()),
                                                   to_string (hostile.text.c_str ()));
    clause_add_message (clause, message);
    clause_chat_page_add_message (clause->chat_page, message);
    expect_narrow (&test, hostile.name);
  }
}

TEST (wrapped_text, lets_the_window_be_narrow_with_any_contact)
{
  TestWindow test;
  log_in (&test);
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    std::string address = hostile.text.substr (0, 1000) + "@beta.test";
    app_window_create_new_contact (test.window, to_string (address.c_str ()),
                                   to_string (hostile.text.c_str ()));
    ContactStack *contacts = &test.window->contacts;
    Contact *contact = contacts->contacts[contacts->count - 1];
    app_window_add_contact_message (test.window, contact, to_string (hostile.text.c_str ()));
    gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (contact->chat_page));
    GtkWidget *stack = find_widget (test.window, "roster_stack");
    gtk_stack_set_visible_child_name (GTK_STACK (stack), "contacts");
    expect_narrow (&test, hostile.name);
  }
}

TEST (wrapped_text, lets_the_window_be_narrow_with_any_profile)
{
  TestWindow test;
  log_in (&test);
  VCardPage *page = test.window->vcard_page;
  gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (page));
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    char *text = (char *) hostile.text.c_str ();
    vcard_page_set_title (page, to_string (text));
    vcard_page_set_vcard (page, {text, text, text, text, text, text, text, text});
    expect_narrow (&test, hostile.name);
  }
}

TEST (wrapped_text, lets_the_window_be_narrow_with_any_outcome_of_a_login)
{
  TestWindow test;
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    login_page_handle_login_failure (alloc_thread_message (test.window, hostile.text.c_str (), 0));
    expect_narrow (&test, hostile.name);
  }
}

TEST (wrapped_text, lets_the_window_be_narrow_with_any_line_of_the_console)
{
  TestWindow test;
  press_key (&test, GDK_KEY_grave, GDK_MOD1_MASK);
  gtk_paned_set_position (test.window->console_paned, 200);
  for (const HostileText &hostile : HOSTILE_TEXTS) {
    gtk_text_buffer_set_text (test.console, hostile.text.c_str (), -1);
    expect_narrow (&test, hostile.name);
  }
}

// ---- A window that was wide ----

struct WantedSize {
  GtkWindow *window;
  int width;
};

static bool
has_wanted_width (void *data)
{
  WantedSize *wanted = (WantedSize *) data;
  int width = 0;
  gtk_window_get_size (wanted->window, &width, NULL);
  return width == wanted->width;
}

static void
resize (TestWindow *test, int width)
{
  WantedSize wanted = {GTK_WINDOW (test->window), width};
  gtk_window_resize (wanted.window, width, 640);
  EXPECT_TRUE (pump_until (has_wanted_width, &wanted)) << width;
  pump ();
}

// In pixels of the text.
static int
get_end_of_lines (GtkTextView *text_view)
{
  GtkTextIter end;
  GdkRectangle last_line;
  gtk_text_buffer_get_end_iter (gtk_text_view_get_buffer (text_view), &end);
  gtk_text_view_get_iter_location (text_view, &end, &last_line);
  return last_line.y + last_line.height;
}

static bool
is_as_high_as_its_lines (void *widget)
{
  int height = gtk_widget_get_allocated_height (GTK_WIDGET (widget));
  return height == get_end_of_lines (GTK_TEXT_VIEW (widget)) + 2 * 12;
}

TEST (wrapped_text, lets_the_window_shrink_again)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "Planks", "bob@beta.test");
  std::string text = repeat ("Planks of oak and of ash, ", 200);
  add_revision (&test, procedure->clauses[0], "bob@beta.test", text.c_str ());
  show (&test, procedure);
  for (int width : {1300, NARROW, 900, NARROW, 640})
    resize (&test, width);
  // The text is as high as it is at this width, and not as it was at another.
  EXPECT_TRUE (pump_until (is_as_high_as_its_lines, find_widget (procedure->view, "text_view")));
}

// ---- Height ----

// What X takes for the height of a picture, in pixels.
static const int PICTURE_MAX = 32767;

static bool
is_higher_than_any_picture (void *text_view)
{
  return get_end_of_lines (GTK_TEXT_VIEW (text_view)) > PICTURE_MAX * 5 / 4;
}

static void
draw_somewhere (GtkWidget *widget)
{
  cairo_surface_t *surface = cairo_image_surface_create (CAIRO_FORMAT_ARGB32, 300, 300);
  cairo_t *cr = cairo_create (surface);
  gtk_widget_draw (widget, cr);
  cairo_destroy (cr);
  cairo_surface_destroy (surface);
}

// As it is between the frame in which a text wraps anew and the one in which its page has made room. No
// program but the X server says whether it takes what is drawn.
TEST (wrapped_text, is_drawn_where_it_outgrows_its_window_and_any_picture)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "Planks", "bob@beta.test");
  std::string text = repeat ("Planks of oak and of ash.\n", 3000);
  add_revision (&test, procedure->clauses[0], "bob@beta.test", text.c_str ());
  show (&test, procedure);
  GtkWidget *text_view = find_widget (procedure->view, "text_view");
  ASSERT_TRUE (pump_until (is_higher_than_any_picture, text_view));
  GtkAllocation allocation;
  gtk_widget_get_allocation (text_view, &allocation);
  allocation.height = PICTURE_MAX * 5 / 4;
  GdkDisplay *display = gdk_display_get_default ();
  gdk_x11_display_error_trap_push (display);
  gtk_widget_size_allocate (text_view, &allocation);
  draw_somewhere (text_view);
  EXPECT_EQ (gdk_x11_display_error_trap_pop (display), 0);
}

// ---- Lines ----

// The characters in the longest line as it is seen.
static int
get_longest_line (GtkWidget *widget)
{
  GtkTextView *text_view = GTK_TEXT_VIEW (widget);
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (gtk_text_view_get_buffer (text_view), &start);
  int longest = 0;
  bool has_more = true;
  while (has_more) {
    GtkTextIter end = start;
    has_more = gtk_text_view_forward_display_line (text_view, &end);
    longest = MAX (longest, gtk_text_iter_get_offset (&end) - gtk_text_iter_get_offset (&start));
    start = end;
  }
  return longest;
}

static const char PROSE[] = "The contractor delivers the planks of oak and of ash in the week that "
                            "follows the payment, and takes back what has not been used. ";

TEST (wrapped_text, has_no_line_much_longer_than_90_characters)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "Planks", "bob@beta.test");
  add_revision (&test, procedure->clauses[0], "bob@beta.test", repeat (PROSE, 20).c_str ());
  show (&test, procedure);
  GtkWidget *text_view = find_widget (procedure->view, "text_view");
  EXPECT_LT (get_longest_line (text_view), 80);
  resize (&test, 1390);
  int longest = get_longest_line (text_view);
  EXPECT_GT (longest, 80);
  EXPECT_LE (longest, 100);
  resize (&test, 640);
  EXPECT_LT (get_longest_line (text_view), 80);
}

TEST (wrapped_text, has_no_line_much_longer_than_90_characters_in_a_chat)
{
  TestWindow test;
  log_in (&test);
  app_window_create_new_contact (test.window, to_string ("bob@beta.test"), to_string ("available"));
  Contact *contact = test.window->contacts.contacts[0];
  std::string text = repeat (PROSE, 10) + "\n" + repeat (PROSE, 10);
  app_window_add_contact_message (test.window, contact, to_string (text.c_str ()));
  gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (contact->chat_page));
  resize (&test, 1390);
  int longest = get_longest_line (find_widget (contact->chat_page, "chat_text_view"));
  EXPECT_GT (longest, 80);
  EXPECT_LE (longest, 100);
}

TEST (wrapped_text, has_its_margin_where_lines_end)
{
  GtkTextDirection directions[] = {GTK_TEXT_DIR_LTR, GTK_TEXT_DIR_RTL};
  for (GtkTextDirection direction : directions) {
    TestWindow test;
    log_in (&test);
    Procedure *procedure = add_procedure (&test, "Planks", "bob@beta.test");
    add_revision (&test, procedure->clauses[0], "bob@beta.test", repeat (PROSE, 20).c_str ());
    show (&test, procedure);
    GtkWidget *text_view = find_widget (procedure->view, "text_view");
    gtk_widget_set_direction (text_view, direction);
    resize (&test, 1390);
    int left = gtk_text_view_get_left_margin (GTK_TEXT_VIEW (text_view));
    int right = gtk_text_view_get_right_margin (GTK_TEXT_VIEW (text_view));
    bool is_rtl = direction == GTK_TEXT_DIR_RTL;
    EXPECT_GT (is_rtl ? left : right, 100);
    EXPECT_EQ (is_rtl ? right : left, 0);
  }
}

TEST (wrapped_text, gives_the_console_all_the_room)
{
  TestWindow test;
  press_key (&test, GDK_KEY_grave, GDK_MOD1_MASK);
  gtk_paned_set_position (test.window->console_paned, 200);
  gtk_text_buffer_set_text (test.console, (repeat (PROSE, 20) + repeat ("w", 3000)).c_str (), -1);
  resize (&test, 1390);
  EXPECT_GT (get_longest_line (GTK_WIDGET (test.window->console)), 120);
}

// ---- Long words ----

static GtkWrapMode
get_wrap_mode (Clause *clause)
{
  return gtk_text_view_get_wrap_mode (GTK_TEXT_VIEW (find_widget (clause->view, "text_view")));
}

TEST (wrapped_text, breaks_at_any_letter_as_long_as_a_word_is_too_long_for_pango)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "Planks", "bob@beta.test");
  Clause *clause = procedure->clauses[0];
  std::string texts[] = {repeat ("w", 1999), repeat ("w", 1999) + " " + repeat ("w", 1999),
                         repeat (PROSE, 100), "Planks\n" + repeat ("w", 2000) + "\nof oak"};
  GtkWrapMode modes[] = {GTK_WRAP_WORD_CHAR, GTK_WRAP_WORD_CHAR, GTK_WRAP_WORD_CHAR, GTK_WRAP_CHAR};
  for (const std::string &text : texts)
    add_revision (&test, clause, "bob@beta.test", text.c_str ());
  show (&test, procedure);
  for (u32 i : {3u, 2u, 3u, 1u, 3u, 0u}) {
    clause_view_show_revision (clause->view, clause->revisions[i], test.window->account.bare_jid);
    EXPECT_EQ (get_wrap_mode (clause), modes[i]) << i;
    pump ();
  }
  // Pasted, and then more behind it.
  type (clause->view, "text_view", repeat ("w", 2000).c_str ());
  EXPECT_EQ (get_wrap_mode (clause), GTK_WRAP_CHAR);
  GtkWidget *text_view = find_widget (clause->view, "text_view");
  gtk_text_buffer_insert_at_cursor (gtk_text_view_get_buffer (GTK_TEXT_VIEW (text_view)), " oak",
                                    -1);
  EXPECT_EQ (get_wrap_mode (clause), GTK_WRAP_CHAR);
  // As wide as other texts.
  resize (&test, 1390);
  EXPECT_LE (get_longest_line (text_view), 100);
}

TEST (wrapped_text, breaks_a_title_at_any_letter_where_it_is_one_long_word)
{
  TestWindow test;
  log_in (&test);
  for (u32 size : {1999u, 2000u}) {
    Procedure *procedure = add_procedure (&test, repeat ("w", size).c_str (), "bob@beta.test");
    show (&test, procedure);
    GtkLabel *label = GTK_LABEL (find_widget (procedure->view, "title_label"));
    EXPECT_EQ (gtk_label_get_line_wrap_mode (label),
               size < 2000 ? PANGO_WRAP_WORD_CHAR : PANGO_WRAP_CHAR);
  }
}
