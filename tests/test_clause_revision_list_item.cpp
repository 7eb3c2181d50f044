#include "clause_revision_list_item.h"

#include "widget_test.h"

static ClauseRevision *
make_revision (const char *author, s64 time)
{
  return alloc_clause_revision (1, 1, time, to_string (author), REVISION_COMMITTED,
                                to_string ("text"));
}

static GtkListBox *
make_list (GtkWidget **toplevel_out)
{
  GtkWidget *list_box = gtk_list_box_new ();
  *toplevel_out = show_alone (list_box);
  return GTK_LIST_BOX (list_box);
}

static GtkListBoxRow *
append (GtkListBox *list_box, GtkWidget *item)
{
  gtk_widget_show (item);
  gtk_container_add (GTK_CONTAINER (list_box), item);
  return GTK_LIST_BOX_ROW (gtk_widget_get_parent (item));
}

TEST (clause_revision_list_item_new, shows_author_and_time)
{
  ClauseRevision *revision = make_revision ("alice@alpha.test", 1789000000);
  GtkWidget *item = clause_revision_list_item_new (revision);
  GtkWidget *toplevel = show_alone (item);
  EXPECT_EQ (get_text (item, "label"), "alice@alpha.test:1789000000");
  EXPECT_EQ (clause_revision_list_item_get_revision (MORVANE_CLAUSE_REVISION_LIST_ITEM (item)),
             revision);
  gtk_widget_destroy (toplevel);
  dealloc_clause_revision (revision);
}

TEST (clause_revision_list_item_new, shows_an_author_that_is_no_text_without_a_warning)
{
  ClauseRevision *revision = make_revision ("a\xff", -1);
  GtkWidget *item = clause_revision_list_item_new (revision);
  GtkWidget *toplevel = show_alone (item);
  EXPECT_EQ (get_text (item, "label"), "a\xef\xbf\xbd:-1");
  gtk_widget_destroy (toplevel);
  dealloc_clause_revision (revision);
}

TEST (clause_revision_list_item_new_draft, shows_the_word_draft_and_has_no_revision)
{
  GtkWidget *item = clause_revision_list_item_new_draft ();
  GtkWidget *toplevel = show_alone (item);
  EXPECT_EQ (get_text (item, "label"), "draft");
  EXPECT_FALSE (clause_revision_list_item_get_revision (MORVANE_CLAUSE_REVISION_LIST_ITEM (item)));
  gtk_widget_destroy (toplevel);
}

TEST (clause_revision_list_item_find_row, finds_nothing_in_an_empty_list)
{
  GtkWidget *toplevel;
  GtkListBox *list_box = make_list (&toplevel);
  ClauseRevision *revision = make_revision ("alice@alpha.test", 1);
  EXPECT_FALSE (clause_revision_list_item_find_row (list_box, revision));
  EXPECT_FALSE (clause_revision_list_item_draft_find_row (list_box));
  gtk_widget_destroy (toplevel);
  dealloc_clause_revision (revision);
}

TEST (clause_revision_list_item_find_row, finds_the_row_of_each_revision_and_of_the_draft)
{
  GtkWidget *toplevel;
  GtkListBox *list_box = make_list (&toplevel);
  ClauseRevision *first = make_revision ("alice@alpha.test", 1);
  ClauseRevision *second = make_revision ("bob@beta.test", 2);
  GtkListBoxRow *first_row = append (list_box, clause_revision_list_item_new (first));
  GtkListBoxRow *second_row = append (list_box, clause_revision_list_item_new (second));
  GtkListBoxRow *draft_row = append (list_box, clause_revision_list_item_new_draft ());
  EXPECT_EQ (clause_revision_list_item_find_row (list_box, first), first_row);
  EXPECT_EQ (clause_revision_list_item_find_row (list_box, second), second_row);
  EXPECT_EQ (clause_revision_list_item_draft_find_row (list_box), draft_row);
  gtk_widget_destroy (toplevel);
  dealloc_clause_revision (first);
  dealloc_clause_revision (second);
}

static bool
warns (const char *author)
{
  ClauseRevision *revision = make_revision (author, 1);
  GtkWidget *item = clause_revision_list_item_new (revision);
  GtkWidget *toplevel = show_alone (item);
  GtkStyleContext *style = gtk_widget_get_style_context (find_widget (item, "label"));
  bool is_warning = gtk_style_context_has_class (style, "warning");
  gtk_widget_destroy (toplevel);
  dealloc_clause_revision (revision);
  return is_warning;
}

TEST (clause_revision_list_item_new, warns_of_an_author_who_may_imitate_another)
{
  EXPECT_TRUE (warns ("b\u03bfb@beta.test"));
  EXPECT_FALSE (warns ("bob@beta.test"));
}

TEST (clause_revision_list_item_find_row, goes_by_identity_not_by_author_and_time)
{
  GtkWidget *toplevel;
  GtkListBox *list_box = make_list (&toplevel);
  ClauseRevision *added = make_revision ("alice@alpha.test", 1);
  ClauseRevision *twin = make_revision ("alice@alpha.test", 1);
  append (list_box, clause_revision_list_item_new (added));
  EXPECT_FALSE (clause_revision_list_item_find_row (list_box, twin));
  EXPECT_FALSE (clause_revision_list_item_draft_find_row (list_box));
  gtk_widget_destroy (toplevel);
  dealloc_clause_revision (added);
  dealloc_clause_revision (twin);
}

TEST (clause_revision_list_item_find_row, takes_the_first_of_several_matches)
{
  GtkWidget *toplevel;
  GtkListBox *list_box = make_list (&toplevel);
  GtkListBoxRow *first = append (list_box, clause_revision_list_item_new_draft ());
  append (list_box, clause_revision_list_item_new_draft ());
  EXPECT_EQ (clause_revision_list_item_draft_find_row (list_box), first);
  gtk_widget_destroy (toplevel);
}

TEST (clause_revision_list_item_find_row, stops_the_program_at_a_foreign_row)
{
  EXPECT_DEATH (
    {
      GtkWidget *toplevel;
      GtkListBox *list_box = make_list (&toplevel);
      append (list_box, gtk_label_new ("x"));
      clause_revision_list_item_find_row (list_box, NULL);
    },
    "src/clause_revision_list_item.cpp.*Assertion `item' failed");
}

TEST (clause_revision_list_item_draft_find_row, stops_the_program_at_a_foreign_row)
{
  EXPECT_DEATH (
    {
      GtkWidget *toplevel;
      GtkListBox *list_box = make_list (&toplevel);
      append (list_box, gtk_label_new ("x"));
      clause_revision_list_item_draft_find_row (list_box);
    },
    "src/clause_revision_list_item.cpp.*Assertion `item' failed");
}
