// The comparison in a text view of its own; test_clause_view_comparison.cpp has it as a user sees it.

#include "clause_comparison.h"

#include "widget_test.h"

// ---- What the tests begin with ----

// A text view that shows the comparison of two texts.
struct Shown {
  ClauseComparison comparison;
  GtkWidget *toplevel;

  Shown (const char *older, const char *newer)
  {
    GtkWidget *text_view = gtk_text_view_new ();
    GtkWidget *tools = gtk_box_new (GTK_ORIENTATION_HORIZONTAL, 0);
    GtkWidget *buttons[2];
    for (GtkWidget *&button : buttons) {
      button = gtk_button_new ();
      gtk_container_add (GTK_CONTAINER (tools), button);
    }
    GtkWidget *overlay = gtk_overlay_new ();
    gtk_container_add (GTK_CONTAINER (overlay), text_view);
    gtk_overlay_add_overlay (GTK_OVERLAY (overlay), tools);
    gtk_widget_show_all (overlay);
    gtk_widget_hide (tools);
    toplevel = show_alone (overlay);
    clause_comparison_init (&comparison, GTK_TEXT_VIEW (text_view), tools, buttons[0], buttons[1]);
    clause_comparison_show (&comparison, to_string (older), to_string (newer));
  }

  ~Shown ()
  {
    gtk_widget_destroy (toplevel);
    clause_comparison_finalize (&comparison);
    pump ();
  }

  GtkTextBuffer *buffer ()
  {
    return gtk_text_view_get_buffer (comparison.text_view);
  }
};

// Decides on the nth run that is left.
static void
decide (Shown *shown, int nth, bool is_kept)
{
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (shown->buffer (), &start);
  for (int i = gtk_text_iter_starts_tag (&start, NULL) ? 0 : -1; i < nth;) {
    ASSERT_TRUE (gtk_text_iter_forward_to_tag_toggle (&start, NULL));
    i += gtk_text_iter_starts_tag (&start, NULL) ? 1 : 0;
  }
  GtkTextIter end = start;
  ASSERT_TRUE (gtk_text_iter_forward_to_tag_toggle (&end, NULL));
  clause_comparison_show_tools (&shown->comparison, start, end, {}, 0);
  clause_comparison_decide (&shown->comparison, is_kept);
}

static std::string
get_result (Shown *shown)
{
  char *text = clause_comparison_alloc_text (&shown->comparison);
  std::string result = text;
  g_free (text);
  return result;
}

// ---- What it would become ----

TEST (clause_comparison_alloc_text, is_the_newer_text_at_first)
{
  const char *texts[] = {"a b", "a\nb", "\n\n", "\u23ce\n\u23ce", "x", "\u65e5 \n\u672c a"};
  for (const char *older : texts) {
    for (const char *newer : texts) {
      Shown shown (older, newer);
      EXPECT_EQ (get_result (&shown), newer) << older;
    }
  }
}

TEST (clause_comparison_alloc_text, has_what_was_decided_and_newer_words_elsewhere)
{
  Shown shown ("x a\nb y 1", "x c y 2");
  ASSERT_EQ (get_result (&shown), "x c y 2");
  decide (&shown, 0, true);
  EXPECT_EQ (get_result (&shown), "x a\nb c y 2");
  decide (&shown, 0, false);
  EXPECT_EQ (get_result (&shown), "x a\nb y 2");
  clause_comparison_take_all (&shown.comparison, false);
  EXPECT_EQ (get_result (&shown), "x a\nb y 1");
}

TEST (clause_comparison_alloc_text, leaves_the_comparison_as_it_is)
{
  Shown shown ("a\nb", "a b");
  EXPECT_EQ (get_result (&shown), "a b");
  EXPECT_TRUE (clause_comparison_has_changes (&shown.comparison));
  EXPECT_EQ (gtk_text_buffer_get_char_count (shown.buffer ()), 6);
  clause_comparison_take_all (&shown.comparison, false);
  EXPECT_EQ (gtk_text_buffer_get_char_count (shown.buffer ()), 3);
}

// ---- Whether anything was decided ----

TEST (clause_comparison_decide, is_remembered_until_the_next_comparison)
{
  Shown shown ("a b", "a c");
  EXPECT_FALSE (shown.comparison.has_decisions);
  decide (&shown, 1, true);
  EXPECT_TRUE (shown.comparison.has_decisions);
  gtk_text_buffer_set_text (shown.buffer (), "", 0);
  clause_comparison_show (&shown.comparison, to_string ("a"), to_string ("b"));
  EXPECT_FALSE (shown.comparison.has_decisions);
  clause_comparison_take_all (&shown.comparison, false);
  EXPECT_TRUE (shown.comparison.has_decisions);
}
