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

// ---- Whether anything was decided ----

TEST (clause_comparison_decide, is_remembered_until_the_next_comparison)
{
  Shown shown ("a b", "a c");
  EXPECT_FALSE (shown.comparison.has_decisions);
  GtkTextIter start;
  ASSERT_TRUE (clause_comparison_find_next (&shown.comparison, &start));
  EXPECT_EQ (gtk_text_iter_get_offset (&start), 2);
  GtkTextIter end = start;
  ASSERT_TRUE (gtk_text_iter_forward_to_tag_toggle (&end, NULL));
  clause_comparison_show_tools (&shown.comparison, start, end, {}, 0);
  EXPECT_FALSE (shown.comparison.has_decisions);
  clause_comparison_decide (&shown.comparison, true);
  EXPECT_TRUE (shown.comparison.has_decisions);
  gtk_text_buffer_set_text (shown.buffer (), "", 0);
  clause_comparison_show (&shown.comparison, to_string ("a"), to_string ("b"));
  EXPECT_FALSE (shown.comparison.has_decisions);
}

TEST (clause_comparison_take_all, takes_the_tools_from_the_run_that_they_stand_at)
{
  Shown shown ("a b", "a c");
  GtkTextIter start;
  ASSERT_TRUE (clause_comparison_find_next (&shown.comparison, &start));
  GtkTextIter end = start;
  ASSERT_TRUE (gtk_text_iter_forward_to_tag_toggle (&end, NULL));
  clause_comparison_show_tools (&shown.comparison, start, end, {}, 0);
  EXPECT_TRUE (gtk_widget_get_visible (shown.comparison.tools));
  clause_comparison_take_all (&shown.comparison, true);
  EXPECT_FALSE (gtk_widget_get_visible (shown.comparison.tools));
  EXPECT_FALSE (shown.comparison.has_run);
}

TEST (clause_comparison_take_all, is_remembered_until_the_next_comparison)
{
  Shown shown ("a b", "a c");
  clause_comparison_take_all (&shown.comparison, false);
  EXPECT_TRUE (shown.comparison.has_decisions);
  gtk_text_buffer_set_text (shown.buffer (), "", 0);
  clause_comparison_show (&shown.comparison, to_string ("a"), to_string ("b"));
  EXPECT_FALSE (shown.comparison.has_decisions);
}
