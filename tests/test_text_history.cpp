#include "text_history.h"

#include <random>
#include <vector>

#include "widget_test.h"

struct History {
  GtkTextBuffer *buffer = gtk_text_buffer_new (NULL);
  TextHistory *history = alloc_text_history (buffer);

  ~History ()
  {
    dealloc_text_history (history);
    g_object_unref (buffer);
  }

  std::string text ()
  {
    GtkTextIter start;
    GtkTextIter end;
    gtk_text_buffer_get_bounds (buffer, &start, &end);
    char *text = gtk_text_buffer_get_text (buffer, &start, &end, TRUE);
    std::string copy = text;
    g_free (text);
    return copy;
  }

  void insert (int offset, const char *text)
  {
    GtkTextIter iter;
    gtk_text_buffer_get_iter_at_offset (buffer, &iter, offset);
    gtk_text_buffer_insert (buffer, &iter, text, -1);
  }

  void remove (int start, int end)
  {
    GtkTextIter start_iter;
    GtkTextIter end_iter;
    gtk_text_buffer_get_iter_at_offset (buffer, &start_iter, start);
    gtk_text_buffer_get_iter_at_offset (buffer, &end_iter, end);
    gtk_text_buffer_delete (buffer, &start_iter, &end_iter);
  }

  int cursor ()
  {
    int offset;
    g_object_get (buffer, "cursor-position", &offset, NULL);
    return offset;
  }
};

static const char *const PIECES[] = {"word",        " ",          "two words", "\n",
                                     "stra\u00dfe", "\U0001f600", "x"};

class TextHistoryWalk : public testing::TestWithParam<unsigned> {};

// Undoing is the way back through every text that there was, repeating the way forth.
TEST_P (TextHistoryWalk, goes_back_and_forth_through_every_text)
{
  std::mt19937 random (GetParam ());
  History history;
  std::vector<std::string> texts = {""};
  for (int i = 0; i < 200; i++) {
    int length = gtk_text_buffer_get_char_count (history.buffer);
    // Each user action is a step, whatever it is made of.
    gtk_text_buffer_begin_user_action (history.buffer);
    int count = 1 + (int) (random () % 3);
    for (int edit = 0; edit < count; edit++) {
      length = gtk_text_buffer_get_char_count (history.buffer);
      int start = (int) (random () % (unsigned) (length + 1));
      if (random () % 3 == 0 && length) {
        history.remove (start, MIN (length, start + (int) (random () % 4)));
      } else {
        history.insert (start, PIECES[1 + random () % 5]);
      }
    }
    gtk_text_buffer_end_user_action (history.buffer);
    if (history.text () != texts.back ())
      texts.push_back (history.text ());
  }
  for (size_t i = texts.size () - 1; i > 0; i--) {
    std::string before = history.text ();
    while (history.text () == before && text_history_undo (history.history))
      ;
    // What changed nothing, or was one word, may be one step with its neighbour.
    while (i > 1 && history.text () != texts[i - 1] && i > 0)
      i--;
    ASSERT_EQ (history.text (), texts[i - 1]);
  }
  while (text_history_undo (history.history))
    ;
  EXPECT_EQ (history.text (), "");
  while (text_history_redo (history.history))
    ;
  EXPECT_EQ (history.text (), texts.back ());
}

INSTANTIATE_TEST_SUITE_P (text_history, TextHistoryWalk, testing::Range (1u, 21u));

TEST (text_history_undo, takes_a_typed_word_as_one_step)
{
  History history;
  for (const char *character : {"o", "n", "e", " ", "t", "w", "o", "\n", "x"})
    history.insert (gtk_text_buffer_get_char_count (history.buffer), character);
  std::string steps;
  while (text_history_undo (history.history))
    steps += history.text () + "|";
  EXPECT_EQ (steps, "one two\n|one two|one ||");
  EXPECT_FALSE (text_history_undo (history.history));
}

// As GTK pastes a copy that holds a picture, or U+FFFC.
TEST (text_history_undo, takes_a_paste_in_pieces_as_one_step)
{
  History history;
  history.insert (0, "planks");
  gtk_text_buffer_begin_user_action (history.buffer);
  history.insert (6, "a");
  history.insert (7, "\uFFFC");
  history.insert (8, "b");
  gtk_text_buffer_end_user_action (history.buffer);
  text_history_undo (history.history);
  EXPECT_EQ (history.text (), "planks");
  text_history_undo (history.history);
  EXPECT_EQ (history.text (), "");
  text_history_redo (history.history);
  EXPECT_EQ (history.text (), "planks");
  text_history_redo (history.history);
  EXPECT_EQ (history.text (), "planksa\uFFFCb");
}

// Each key is a user action of its own.
TEST (text_history_undo, takes_a_word_of_keys_as_one_step)
{
  History history;
  for (int i = 0; i < 6; i++) {
    char key[] = {"planks"[i], '\0'};
    gtk_text_buffer_begin_user_action (history.buffer);
    history.insert (i, key);
    gtk_text_buffer_end_user_action (history.buffer);
  }
  text_history_undo (history.history);
  EXPECT_EQ (history.text (), "");
}

TEST (text_history_undo, leaves_the_cursor_where_the_text_changed)
{
  History history;
  history.insert (0, "one two three");
  history.remove (4, 8);
  history.insert (0, "zero ");
  text_history_undo (history.history);
  EXPECT_EQ (history.cursor (), 0);
  text_history_undo (history.history);
  EXPECT_EQ (history.text (), "one two three");
  EXPECT_EQ (history.cursor (), 8);
}

TEST (text_history_redo, is_over_when_something_new_is_typed)
{
  History history;
  history.insert (0, "one");
  text_history_undo (history.history);
  history.insert (0, "two");
  EXPECT_FALSE (text_history_redo (history.history));
  EXPECT_EQ (history.text (), "two");
}

TEST (text_history_pause, lets_the_program_edit_without_a_step)
{
  History history;
  text_history_pause (history.history);
  history.insert (0, "shown");
  text_history_resume (history.history);
  EXPECT_FALSE (text_history_undo (history.history));
  history.insert (5, "x");
  EXPECT_TRUE (text_history_undo (history.history));
  EXPECT_EQ (history.text (), "shown");
}

TEST (text_history_set_aside, has_nothing_to_undo_until_it_goes_on)
{
  History history;
  history.insert (0, "mine");
  text_history_set_aside (history.history);
  EXPECT_FALSE (text_history_undo (history.history));
  EXPECT_FALSE (text_history_redo (history.history));
  text_history_go_on (history.history);
  EXPECT_TRUE (text_history_undo (history.history));
  EXPECT_EQ (history.text (), "");
}

TEST (text_history_set_aside, begins_anew_with_typing)
{
  History history;
  history.insert (0, "mine");
  text_history_set_aside (history.history);
  history.insert (4, "x");
  EXPECT_TRUE (text_history_undo (history.history));
  EXPECT_EQ (history.text (), "mine");
  EXPECT_FALSE (text_history_undo (history.history));
}

TEST (text_history_set_text_buffer, goes_on_in_another_buffer)
{
  History history;
  history.insert (0, "one");
  GtkTextBuffer *other = gtk_text_buffer_new (NULL);
  gtk_text_buffer_set_text (other, "one", -1);
  text_history_set_text_buffer (history.history, other);
  g_object_unref (history.buffer);
  history.buffer = other;
  EXPECT_TRUE (text_history_undo (history.history));
  EXPECT_EQ (history.text (), "");
}
