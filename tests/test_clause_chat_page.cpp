#include "clause_chat_page.h"

#include "db.h"
#include "morvane.h"
#include "procedure_view.h"
#include "widget_test.h"

static ClauseMessage *
make_message (const char *author, const char *text)
{
  return alloc_clause_message (0, 1, 1, to_string (author), to_string (text));
}

// A procedure between two parties with one clause, the account being one of them.
static Procedure *
add_procedure (TestWindow *test, const char *initiator, const char *contractor)
{
  AppWindow *window = test->window;
  Procedure *procedure = alloc_procedure (0, window->account_db_id, 5, to_string ("Planks"),
                                          to_string (initiator), to_string (contractor));
  db_insert_procedure (window->db, procedure);
  procedures_stack_add_procedure (&window->procedures, procedure);
  Clause *clause = alloc_clause (0, procedure->db_id, 7, to_string (initiator), 1);
  db_insert_clause (window->db, clause);
  procedure_add_clause (procedure, clause);
  return procedure;
}

static void
show_procedure (TestWindow *test, Procedure *procedure)
{
  app_window_add_procedure (test->window, procedure);
  gtk_stack_set_visible_child (test->window->main_page_stack, GTK_WIDGET (procedure->view));
  procedure_view_show_clause_chat_page (procedure->view, procedure->clauses[0]->chat_page);
  pump ();
}

// A clause of a window that is logged in, its chat on the screen.
static Clause *
show_chat (TestWindow *test)
{
  log_in (test);
  Procedure *procedure = add_procedure (test, "alice@alpha.test", "bob@beta.test");
  show_procedure (test, procedure);
  return procedure->clauses[0];
}

static GtkAdjustment *
get_vadjustment (Clause *clause)
{
  GtkWidget *scrolled_window = find_widget (clause->chat_page, "chat_scrolled_window");
  return gtk_scrolled_window_get_vadjustment (GTK_SCROLLED_WINDOW (scrolled_window));
}

static bool
is_at_end (void *data)
{
  GtkAdjustment *adjustment = get_vadjustment ((Clause *) data);
  double end = gtk_adjustment_get_upper (adjustment) - gtk_adjustment_get_page_size (adjustment);
  return end > 0 && gtk_adjustment_get_value (adjustment) >= end - 1;
}

static void
add_lines (Clause *clause, u32 count)
{
  for (u32 i = 0; i < count; ++i) {
    ClauseMessage *message = make_message ("bob@beta.test", "a line of some length, to be read");
    clause_add_message (clause, message);
    clause_chat_page_add_message (clause->chat_page, message);
  }
}

// ---- Looks ----

TEST (clause_chat_page_init, shows_an_empty_chat_and_an_insensitive_send_button)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"), "");
  EXPECT_EQ (get_text (clause->chat_page, "send_button"), "_Send");
  EXPECT_EQ (get_text (clause->chat_page, "close_button"), "_Close");
  EXPECT_FALSE (is_sensitive (clause->chat_page, "send_button"));
  GtkWidget *text_view = find_widget (clause->chat_page, "chat_text_view");
  EXPECT_FALSE (gtk_text_view_get_editable (GTK_TEXT_VIEW (text_view)));
  EXPECT_FALSE (gtk_widget_get_can_focus (text_view));
  EXPECT_EQ (list_unnamed_widgets (clause->chat_page), "");
  EXPECT_EQ (find_accessible (clause->chat_page, "Message"),
             find_widget (clause->chat_page, "chat_entry"));
}

// ---- Appending ----

TEST (clause_chat_page_add_message, puts_no_line_break_before_the_first_line_only)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  ClauseMessage *first = make_message ("bob@beta.test", "Hello");
  ClauseMessage *second = make_message ("alice@alpha.test", "Hi");
  clause_chat_page_add_message (clause->chat_page, first);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"), "bob@beta.test: Hello");
  clause_chat_page_add_message (clause->chat_page, second);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"),
             "bob@beta.test: Hello\nalice@alpha.test: Hi");
  dealloc_clause_message (first);
  dealloc_clause_message (second);
}

TEST (clause_chat_page_add_message, shows_the_author_bold_and_the_text_plain)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  ClauseMessage *message = make_message ("b&<o>b", "say <b>no</b> &amp; go");
  clause_chat_page_add_message (clause->chat_page, message);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"), "b&<o>b: say <b>no</b> &amp; go");
  GtkTextBuffer *text_buffer =
    gtk_text_view_get_buffer (GTK_TEXT_VIEW (find_widget (clause->chat_page, "chat_text_view")));
  for (int offset = 0; offset < 30; ++offset) {
    GtkTextIter iter;
    gtk_text_buffer_get_iter_at_offset (text_buffer, &iter, offset);
    GSList *tags = gtk_text_iter_get_tags (&iter);
    bool is_author = false;
    for (GSList *link = tags; link; link = link->next) {
      int weight = 0;
      double scale = 0;
      gboolean is_bold = FALSE;
      g_object_get (link->data, "weight", &weight, "scale", &scale, "weight-set", &is_bold, NULL);
      if (is_bold) {
        is_author = true;
        EXPECT_EQ (weight, PANGO_WEIGHT_BOLD);
        EXPECT_EQ (scale, PANGO_SCALE_SMALL);
      }
    }
    // "b&<o>b:" is small and bold; the blank behind it is not.
    EXPECT_EQ (is_author, offset < 7) << offset;
    g_slist_free (tags);
  }
  dealloc_clause_message (message);
}

TEST (clause_chat_page_add_message, takes_awkward_bytes_without_a_warning)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  ClauseMessage *message = make_message ("b\xff\x01", "\xc3(\n\t");
  clause_chat_page_add_message (clause->chat_page, message);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"),
             "b\xef\xbf\xbd\x01: \xef\xbf\xbd(\n\t");
  dealloc_clause_message (message);
}

TEST (clause_chat_page_add_message, takes_a_long_author)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  std::string author (5000, '&');
  ClauseMessage *message = make_message (author.c_str (), "");
  clause_chat_page_add_message (clause->chat_page, message);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"), author + ": ");
  dealloc_clause_message (message);
}

TEST (clause_chat_page_new, shows_the_messages_that_the_clause_has_in_order)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "alice@alpha.test", "bob@beta.test");
  Clause *clause = procedure->clauses[0];
  clause_add_message (clause, make_message ("bob", "one"));
  clause_add_message (clause, make_message ("alice", "two"));
  clause_add_message (clause, make_message ("bob", "three"));
  show_procedure (&test, procedure);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"), "bob: one\nalice: two\nbob: three");
}

// ---- Scrolling ----

TEST (clause_chat_page_new, opens_scrolled_to_its_end)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  procedure_view_show_clause (test.window->procedures.procedures[0]->view);
  add_lines (clause, 100);
  pump ();
  procedure_view_show_clause_chat_page (test.window->procedures.procedures[0]->view,
                                        clause->chat_page);
  EXPECT_TRUE (pump_until (is_at_end, clause));
}

TEST (clause_chat_page_add_message, follows_the_end_while_it_is_in_sight)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  for (int i = 0; i < 5; ++i) {
    add_lines (clause, 60);
    EXPECT_TRUE (pump_until (is_at_end, clause)) << i;
  }
}

TEST (clause_chat_page_add_message, leaves_a_reader_of_older_lines_where_he_is)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  add_lines (clause, 100);
  EXPECT_TRUE (pump_until (is_at_end, clause));
  pump ();
  gtk_adjustment_set_value (get_vadjustment (clause), 100);
  pump ();
  int line = get_first_line_in_sight (clause->chat_page, "chat_text_view");
  EXPECT_GT (line, 0);
  add_lines (clause, 1);
  pump ();
  EXPECT_EQ (get_first_line_in_sight (clause->chat_page, "chat_text_view"), line);
}

// ---- Sending ----

struct Line {
  const char *typed;
  bool can_send;
};

class ClauseChatPageEntry : public testing::TestWithParam<Line> {};

TEST_P (ClauseChatPageEntry, switches_the_send_button)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  type (clause->chat_page, "chat_entry", GetParam ().typed);
  EXPECT_EQ (is_sensitive (clause->chat_page, "send_button"), GetParam ().can_send);
}

INSTANTIATE_TEST_SUITE_P (clause_chat_page_chat_entry_changed, ClauseChatPageEntry,
                          testing::Values (Line{"", false}, Line{" ", false}, Line{"   ", false},
                                           Line{"\t\n\r ", false}, Line{"   a", true},
                                           Line{"a", true}));

// The stanza of the first message of the clause of `show_procedure`, with the text as it travels.
static std::string
make_stanza (Procedure *procedure, const char *to, const char *text)
{
  std::string initiator = to_std_string (procedure->initiator);
  return "<message type='chat' id='1' from='alice@alpha.test/morvane' to='" + std::string (to) +
         "'><body><x-clause-message procedure='" + initiator + ":5' clause='" + initiator +
         ":7' message='alice:" + std::to_string (procedure->clauses[0]->messages[0]->time) + "'>" +
         text + "</x-clause-message></body></message>";
}

TEST (clause_chat_page_send_button, stores_shows_and_sends_the_line)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  s64 before = get_posix_time ();
  type (clause->chat_page, "chat_entry", "It's <fine> & 'good'");
  press (clause->chat_page, "send_button");
  ASSERT_EQ (clause->messages_count, 1u);
  EXPECT_EQ (take_sent (&test), make_stanza (test.window->procedures.procedures[0], "bob@beta.test",
                                             "It&apos;s &lt;fine&gt; &amp; &apos;good&apos;"));
  EXPECT_EQ (query (&test, "SELECT clause_db_id, author, text FROM clause_messages"),
             std::to_string (clause->db_id) + "|alice|It's <fine> & 'good'\n");
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"), "alice: It's <fine> & 'good'");
  EXPECT_GE (clause->messages[0]->time, before);
  EXPECT_NE (clause->messages[0]->db_id, 0u);
  EXPECT_EQ (get_text (clause->chat_page, "chat_entry"), "");
  EXPECT_FALSE (is_sensitive (clause->chat_page, "send_button"));
}

TEST (clause_chat_page_send_button, sends_to_the_initiator_when_the_account_is_the_contractor)
{
  TestWindow test;
  log_in (&test);
  Procedure *procedure = add_procedure (&test, "bob@beta.test", "alice@alpha.test");
  show_procedure (&test, procedure);
  type (procedure->clauses[0]->chat_page, "chat_entry", "Hello");
  press (procedure->clauses[0]->chat_page, "send_button");
  EXPECT_EQ (take_sent (&test), make_stanza (procedure, "bob@beta.test", "Hello"));
}

TEST (clause_chat_page_send_button, drops_what_xml_forbids_on_both_sides)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  type (clause->chat_page, "chat_entry",
        "a\x01"
        "b\r\nc");
  press (clause->chat_page, "send_button");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_messages"), "ab\nc\n");
  EXPECT_NE (take_sent (&test).find ("'>ab\nc</x-clause-message>"), std::string::npos);
}

TEST (clause_chat_page_send_button, sends_nothing_when_nothing_can_be_sent)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  type (clause->chat_page, "chat_entry", "\x01");
  press (clause->chat_page, "send_button");
  EXPECT_EQ (take_sent (&test), "");
  EXPECT_EQ (clause->messages_count, 0u);
  EXPECT_EQ (get_text (clause->chat_page, "chat_entry"), "");
}

TEST (clause_chat_page_send_button, scrolls_to_the_new_line)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  add_lines (clause, 100);
  EXPECT_TRUE (pump_until (is_at_end, clause));
  gtk_adjustment_set_value (get_vadjustment (clause), 0);
  pump ();
  type (clause->chat_page, "chat_entry", "new");
  press (clause->chat_page, "send_button");
  EXPECT_TRUE (pump_until (is_at_end, clause));
}

static bool
has_message (void *data)
{
  return ((Clause *) data)->messages_count == 1;
}

TEST (clause_chat_page_chat_entry_focus_in, lets_enter_send)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  GtkWidget *entry = find_widget (clause->chat_page, "chat_entry");
  gtk_widget_grab_focus (find_widget (clause->chat_page, "close_button"));
  pump ();
  gtk_widget_grab_focus (entry);
  pump ();
  EXPECT_EQ (gtk_window_get_default_widget (GTK_WINDOW (test.window)),
             find_widget (clause->chat_page, "send_button"));
  type (clause->chat_page, "chat_entry", "by key");
  press_key (&test, GDK_KEY_Return);
  EXPECT_TRUE (pump_until (has_message, clause));
}

TEST (clause_chat_page_chat_entry_focus_in, ends_the_handling_of_the_event)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  GtkWidget *entry = find_widget (clause->chat_page, "chat_entry");
  GdkEvent *event = gdk_event_new (GDK_FOCUS_CHANGE);
  event->focus_change.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (entry)));
  event->focus_change.in = TRUE;
  gboolean is_handled = FALSE;
  g_signal_emit_by_name (entry, "focus-in-event", event, &is_handled);
  gdk_event_free (event);
  EXPECT_TRUE (is_handled);
}

// ---- Closing ----

TEST (clause_chat_page_close_button, returns_to_the_clauses)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  ProcedureView *view = test.window->procedures.procedures[0]->view;
  EXPECT_EQ (get_page (view, "stack"), "ClauseChatPage");
  press (clause->chat_page, "close_button");
  EXPECT_EQ (get_page (view, "stack"), "main_box");
}

TEST (clause_chat_page_count_unsent, marks_the_lines_until_the_last_has_gone)
{
  TestWindow test;
  Clause *clause = show_chat (&test);
  GtkStyleContext *style =
    gtk_widget_get_style_context (find_widget (clause->chat_page, "chat_text_view"));
  clause_chat_page_count_unsent (clause->chat_page, true);
  clause_chat_page_count_unsent (clause->chat_page, true);
  clause_chat_page_count_unsent (clause->chat_page, false);
  EXPECT_TRUE (gtk_style_context_has_class (style, "not-sent"));
  clause_chat_page_count_unsent (clause->chat_page, false);
  EXPECT_FALSE (gtk_style_context_has_class (style, "not-sent"));
}
