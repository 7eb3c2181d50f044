#include "contact_chat_page.h"

#include "morvane.h"
#include "widget_test.h"

static ContactMessage *
make_message (const char *author, const char *body)
{
  return alloc_contact_message (0, 1, 1, to_string (author), to_string (body));
}

// A contact of a window that is logged in, its chat on the screen.
static Contact *
show_chat (TestWindow *test)
{
  log_in (test);
  app_window_create_new_contact (test->window, to_string ("bob@beta.test"),
                                 to_string ("available"));
  Contact *contact = test->window->contacts.contacts[0];
  gtk_stack_set_visible_child (test->window->main_page_stack, GTK_WIDGET (contact->chat_page));
  pump ();
  return contact;
}

static GtkAdjustment *
get_vadjustment (Contact *contact)
{
  GtkWidget *scrolled_window = find_widget (contact->chat_page, "chat_scrolled_window");
  return gtk_scrolled_window_get_vadjustment (GTK_SCROLLED_WINDOW (scrolled_window));
}

static bool
is_at_end (void *data)
{
  GtkAdjustment *adjustment = get_vadjustment ((Contact *) data);
  double end = gtk_adjustment_get_upper (adjustment) - gtk_adjustment_get_page_size (adjustment);
  return end > 0 && gtk_adjustment_get_value (adjustment) >= end - 1;
}

static void
add_lines (Contact *contact, u32 count)
{
  for (u32 i = 0; i < count; ++i) {
    ContactMessage *message = make_message ("bob@beta.test", "a line of some length, to be read");
    contact_add_message (contact, message);
    contact_chat_page_add_message (contact->chat_page, message);
  }
}

// ---- Looks ----

TEST (contact_chat_page_init, shows_an_empty_chat_and_an_insensitive_send_button)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"), "");
  EXPECT_EQ (get_text (contact->chat_page, "send_button"), "_Send");
  EXPECT_EQ (get_text (contact->chat_page, "close_button"), "_Close");
  EXPECT_FALSE (is_sensitive (contact->chat_page, "send_button"));
  GtkWidget *text_view = find_widget (contact->chat_page, "chat_text_view");
  EXPECT_FALSE (gtk_text_view_get_editable (GTK_TEXT_VIEW (text_view)));
  EXPECT_FALSE (gtk_widget_get_can_focus (text_view));
  EXPECT_EQ (list_unnamed_widgets (contact->chat_page), "");
  EXPECT_EQ (find_accessible (contact->chat_page, "Message"),
             find_widget (contact->chat_page, "chat_entry"));
}

// ---- Appending ----

TEST (contact_chat_page_add_message, puts_no_line_break_before_the_first_line_only)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  ContactMessage *first = make_message ("bob@beta.test", "Hello");
  ContactMessage *second = make_message ("alice@alpha.test", "Hi");
  contact_chat_page_add_message (contact->chat_page, first);
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"), "bob@beta.test: Hello");
  contact_chat_page_add_message (contact->chat_page, second);
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"),
             "bob@beta.test: Hello\nalice@alpha.test: Hi");
  dealloc_contact_message (first);
  dealloc_contact_message (second);
}

TEST (contact_chat_page_add_message, shows_the_author_bold_and_the_text_plain)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  ContactMessage *message = make_message ("b&<o>b", "say <b>no</b> &amp; go");
  contact_chat_page_add_message (contact->chat_page, message);
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"), "b&<o>b: say <b>no</b> &amp; go");
  GtkTextBuffer *text_buffer =
    gtk_text_view_get_buffer (GTK_TEXT_VIEW (find_widget (contact->chat_page, "chat_text_view")));
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
  dealloc_contact_message (message);
}

TEST (contact_chat_page_add_message, takes_awkward_bytes_without_a_warning)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  ContactMessage *message = make_message ("b\xff\x01", "\xc3(\n\t");
  contact_chat_page_add_message (contact->chat_page, message);
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"),
             "b\xef\xbf\xbd\x01: \xef\xbf\xbd(\n\t");
  dealloc_contact_message (message);
}

TEST (contact_chat_page_add_message, takes_a_long_author)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  std::string author (5000, '&');
  ContactMessage *message = make_message (author.c_str (), "");
  contact_chat_page_add_message (contact->chat_page, message);
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"), author + ": ");
  dealloc_contact_message (message);
}

TEST (contact_chat_page_new, shows_the_messages_that_the_contact_has_in_order)
{
  TestWindow test;
  log_in (&test);
  Contact *contact = alloc_contact (1, 1, to_string ("bob@beta.test"), to_string ("available"));
  contact_add_message (contact, make_message ("bob@beta.test", "one"));
  contact_add_message (contact, make_message ("alice@alpha.test", "two"));
  contact_add_message (contact, make_message ("bob@beta.test", "three"));
  contact_stack_push (&test.window->contacts, contact);
  app_window_add_contact (test.window, contact);
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"),
             "bob@beta.test: one\nalice@alpha.test: two\nbob@beta.test: three");
}

// ---- Scrolling ----

TEST (contact_chat_page_new, opens_scrolled_to_its_end)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  gtk_stack_set_visible_child (test.window->main_page_stack,
                               GTK_WIDGET (test.window->procedure_creation_page));
  add_lines (contact, 100);
  pump ();
  gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (contact->chat_page));
  EXPECT_TRUE (pump_until (is_at_end, contact));
}

TEST (contact_chat_page_add_message, follows_the_end_while_it_is_in_sight)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  for (int i = 0; i < 5; ++i) {
    add_lines (contact, 60);
    EXPECT_TRUE (pump_until (is_at_end, contact)) << i;
  }
}

TEST (contact_chat_page_add_message, leaves_a_reader_of_older_lines_where_he_is)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  add_lines (contact, 100);
  EXPECT_TRUE (pump_until (is_at_end, contact));
  pump ();
  gtk_adjustment_set_value (get_vadjustment (contact), 100);
  pump ();
  int line = get_first_line_in_sight (contact->chat_page, "chat_text_view");
  EXPECT_GT (line, 0);
  add_lines (contact, 1);
  pump ();
  EXPECT_EQ (get_first_line_in_sight (contact->chat_page, "chat_text_view"), line);
}

// ---- Sending ----

struct Line {
  const char *typed;
  bool can_send;
};

class ContactChatPageEntry : public testing::TestWithParam<Line> {};

TEST_P (ContactChatPageEntry, switches_the_send_button)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  type (contact->chat_page, "chat_entry", GetParam ().typed);
  EXPECT_EQ (is_sensitive (contact->chat_page, "send_button"), GetParam ().can_send);
}

INSTANTIATE_TEST_SUITE_P (contact_chat_page_chat_entry_changed, ContactChatPageEntry,
                          testing::Values (Line{"", false}, Line{" ", false}, Line{"   ", false},
                                           Line{"\t\n\r ", false}, Line{"   a", true},
                                           Line{"a", true}));

TEST (contact_chat_page_send_button, stores_shows_and_sends_the_line)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  s64 before = get_posix_time ();
  type (contact->chat_page, "chat_entry", "It's <fine> & 'good'");
  press (contact->chat_page, "send_button");
  EXPECT_EQ (take_sent (&test),
             "<message type='chat' id='1' from='alice@alpha.test/morvane' to='bob@beta.test'>"
             "<body>It&apos;s &lt;fine&gt; &amp; &apos;good&apos;</body></message>");
  EXPECT_EQ (query (&test, "SELECT contact_db_id, author, body FROM contact_messages"),
             std::to_string (contact->db_id) + "|alice@alpha.test|It's <fine> & 'good'\n");
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"),
             "alice@alpha.test: It's <fine> & 'good'");
  ASSERT_EQ (contact->messages_count, 1u);
  EXPECT_GE (contact->messages[0]->time, before);
  EXPECT_NE (contact->messages[0]->db_id, 0u);
  EXPECT_EQ (get_text (contact->chat_page, "chat_entry"), "");
  EXPECT_FALSE (is_sensitive (contact->chat_page, "send_button"));
}

TEST (contact_chat_page_send_button, drops_what_xml_forbids_on_both_sides)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  type (contact->chat_page, "chat_entry",
        "a\x01"
        "b\r\nc");
  press (contact->chat_page, "send_button");
  EXPECT_EQ (query (&test, "SELECT body FROM contact_messages"), "ab\nc\n");
  EXPECT_NE (take_sent (&test).find ("<body>ab\nc</body>"), std::string::npos);
}

TEST (contact_chat_page_send_button, sends_nothing_when_nothing_can_be_sent)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  type (contact->chat_page, "chat_entry", "\x01");
  press (contact->chat_page, "send_button");
  EXPECT_EQ (take_sent (&test), "");
  EXPECT_EQ (contact->messages_count, 0u);
  EXPECT_EQ (get_text (contact->chat_page, "chat_entry"), "");
}

TEST (contact_chat_page_send_button, scrolls_to_the_new_line)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  add_lines (contact, 100);
  EXPECT_TRUE (pump_until (is_at_end, contact));
  gtk_adjustment_set_value (get_vadjustment (contact), 0);
  pump ();
  type (contact->chat_page, "chat_entry", "new");
  press (contact->chat_page, "send_button");
  EXPECT_TRUE (pump_until (is_at_end, contact));
}

static bool
has_message (void *data)
{
  return ((Contact *) data)->messages_count == 1;
}

TEST (contact_chat_page_chat_entry_focus_in, lets_enter_send)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  GtkWidget *entry = find_widget (contact->chat_page, "chat_entry");
  gtk_widget_grab_focus (find_widget (contact->chat_page, "close_button"));
  pump ();
  gtk_widget_grab_focus (entry);
  pump ();
  EXPECT_EQ (gtk_window_get_default_widget (GTK_WINDOW (test.window)),
             find_widget (contact->chat_page, "send_button"));
  type (contact->chat_page, "chat_entry", "by key");
  press_key (&test, GDK_KEY_Return);
  EXPECT_TRUE (pump_until (has_message, contact));
}

TEST (contact_chat_page_chat_entry_focus_in, ends_the_handling_of_the_event)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  GtkWidget *entry = find_widget (contact->chat_page, "chat_entry");
  GdkEvent *event = gdk_event_new (GDK_FOCUS_CHANGE);
  event->focus_change.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (entry)));
  event->focus_change.in = TRUE;
  gboolean is_handled = FALSE;
  g_signal_emit_by_name (entry, "focus-in-event", event, &is_handled);
  gdk_event_free (event);
  EXPECT_TRUE (is_handled);
}

// ---- Closing ----

TEST (contact_chat_page_close_button, returns_to_the_creation_page)
{
  TestWindow test;
  Contact *contact = show_chat (&test);
  press (contact->chat_page, "close_button");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}
