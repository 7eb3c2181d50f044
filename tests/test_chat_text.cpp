#include "chat_text.h"

#include "widget_test.h"

// A chat on the screen, narrow enough for long lines to wrap.
struct TestChat {
  GtkWidget *toplevel;
  GtkTextView *text_view;
  ChatText *chat_text;

  TestChat ()
  {
    chat_text = g_new0 (ChatText, 1);
    text_view = GTK_TEXT_VIEW (gtk_text_view_new ());
    gtk_text_view_set_wrap_mode (text_view, GTK_WRAP_WORD_CHAR);
    GtkWidget *scrolled_window = gtk_scrolled_window_new (NULL, NULL);
    gtk_widget_set_size_request (scrolled_window, 300, 200);
    gtk_container_add (GTK_CONTAINER (scrolled_window), GTK_WIDGET (text_view));
    gtk_widget_show (GTK_WIDGET (text_view));
    gtk_widget_show (scrolled_window);
    chat_text_init (chat_text, scrolled_window, text_view, GTK_SCROLLED_WINDOW (scrolled_window));
    toplevel = show_alone (scrolled_window);
  }

  ~TestChat ()
  {
    gtk_widget_destroy (toplevel);
    g_free (chat_text);
  }
};

// Where each line on the screen begins, in pixels from the nearer end of the text view's width, for
// the lines from this character on.
static std::vector<int>
get_line_starts (TestChat *test, int offset)
{
  std::vector<int> starts;
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (gtk_text_view_get_buffer (test->text_view), &iter, offset);
  do {
    GdkRectangle strong;
    gtk_text_view_get_cursor_locations (test->text_view, &iter, &strong, NULL);
    int from_right = gtk_widget_get_allocated_width (GTK_WIDGET (test->text_view)) - strong.x;
    starts.push_back (std::min (strong.x, from_right));
  } while (gtk_text_view_forward_display_line (test->text_view, &iter) &&
           !gtk_text_iter_is_end (&iter));
  return starts;
}

static const char *const MESSAGES[] = {
  "one\nbert: I agree",
  "one\r\nbert: I agree",
  "one\rbert: I agree",
  "one\u2029bert: I agree",
  "one\u2028bert: I agree",
  "\nbert: I agree",
  "one\n\n\nbert: I agree",
  "one two three four five six seven eight nine ten eleven twelve thirteen bert: I agree to all of it",
  "one\n\u05d0\u05d1\u05d2 \u05d3: \u05d4\u05d5",
  "\u05d0\u05d1\n\u05d0\u05d1\u05d2 \u05d3: \u05d4\u05d5",
};

TEST (chat_text_add_line, hangs_every_further_line_of_a_message_under_its_author)
{
  for (const char *message : MESSAGES) {
    TestChat test;
    chat_text_add_line (test.chat_text, to_string ("anna"), to_string (message));
    pump ();
    std::vector<int> starts = get_line_starts (&test, 0);
    ASSERT_GT (starts.size (), 1u) << message;
    EXPECT_LT (starts[0], 4) << message;
    for (size_t i = 1; i < starts.size (); ++i)
      EXPECT_GE (starts[i], 20) << message << " line " << i;
  }
}

TEST (chat_text_add_line, begins_the_next_message_where_authors_begin)
{
  for (const char *message : MESSAGES) {
    TestChat test;
    chat_text_add_line (test.chat_text, to_string ("anna"), to_string (message));
    int offset = gtk_text_buffer_get_char_count (gtk_text_view_get_buffer (test.text_view)) + 1;
    chat_text_add_line (test.chat_text, to_string ("bert"), to_string ("no"));
    pump ();
    EXPECT_EQ (get_line_starts (&test, offset)[0], get_line_starts (&test, 0)[0]) << message;
  }
}

TEST (chat_text_add_line, changes_nothing_of_a_message)
{
  TestChat test;
  chat_text_add_line (test.chat_text, to_string ("anna"), to_string ("a\n\u202eb"));
  chat_text_add_line (test.chat_text, to_string ("bert"), to_string (""));
  GtkTextIter start, end;
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (test.text_view);
  gtk_text_buffer_get_bounds (text_buffer, &start, &end);
  char *text = gtk_text_buffer_get_text (text_buffer, &start, &end, TRUE);
  EXPECT_STREQ (text, "anna: a\n\u202eb\nbert: ");
  g_free (text);
}

TEST (chat_text_add_line, keeps_an_author_to_his_place)
{
  TestChat test;
  chat_text_add_line (test.chat_text, to_string ("an\u202ena"), to_string ("5000"));
  GtkTextIter start, end;
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (test.text_view);
  gtk_text_buffer_get_bounds (text_buffer, &start, &end);
  char *text = gtk_text_buffer_get_text (text_buffer, &start, &end, TRUE);
  EXPECT_STREQ (text, "\u2068an\u202ena\u2069: 5000");
  g_free (text);
}

// Whether there is more than the page shows, and the end of that is shown.
static bool
is_end_in_sight (void *data)
{
  GtkScrolledWindow *scrolled_window = ((TestChat *) data)->chat_text->scrolled_window;
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (scrolled_window);
  double end = gtk_adjustment_get_upper (adjustment) - gtk_adjustment_get_page_size (adjustment);
  return end > 100 && gtk_adjustment_get_value (adjustment) >= end - 1;
}

TEST (chat_text_init, keeps_a_chat_that_appeared_empty_at_its_end)
{
  TestChat test;
  for (int i = 0; i < 60; ++i)
    chat_text_add_line (test.chat_text, to_string ("bert"), to_string ("I agree"));
  EXPECT_TRUE (pump_until (is_end_in_sight, &test));
}

// A pixel is what rounding leaves; who has scrolled back by more is reading.
TEST (chat_text_init, leaves_a_reader_where_he_is)
{
  TestChat test;
  for (int i = 0; i < 60; ++i)
    chat_text_add_line (test.chat_text, to_string ("bert"), to_string ("I agree"));
  EXPECT_TRUE (pump_until (is_end_in_sight, &test));
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (test.chat_text->scrolled_window);
  double end = gtk_adjustment_get_upper (adjustment) - gtk_adjustment_get_page_size (adjustment);
  EXPECT_TRUE (test.chat_text->is_at_end);
  gtk_adjustment_set_value (adjustment, end - 1.5);
  EXPECT_FALSE (test.chat_text->is_at_end);
  gtk_adjustment_set_value (adjustment, end - 1);
  EXPECT_TRUE (test.chat_text->is_at_end);
}
