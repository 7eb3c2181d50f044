#include "procedure_list_item.h"

#include "widget_test.h"

static GtkWidget *
make_item (Procedure *procedure, const char *contact, GtkWidget **toplevel_out)
{
  GtkWidget *item = procedure_list_item_new (procedure, to_string (contact));
  *toplevel_out = show_alone (item);
  return item;
}

static Procedure *
make_procedure (const char *title)
{
  return alloc_procedure (1, 1, 1, to_string (title), to_string ("alice@alpha.test"),
                          to_string ("bob@beta.test"));
}

TEST (procedure_list_item_new, shows_the_title_and_the_party_that_it_is_given)
{
  Procedure *procedure = make_procedure ("Oak planks");
  GtkWidget *toplevel;
  GtkWidget *item = make_item (procedure, "bob@beta.test", &toplevel);
  EXPECT_EQ (get_text (item, "title_label"), "Oak planks");
  EXPECT_EQ (get_text (item, "contact_label"), "bob@beta.test");
  EXPECT_EQ (procedure_list_item_get_procedure (MORVANE_PROCEDURE_LIST_ITEM (item)), procedure);
  gtk_widget_destroy (toplevel);
  dealloc_procedure (procedure);
}

TEST (procedure_list_item_new, shows_a_title_that_looks_like_markup_as_it_is)
{
  Procedure *procedure = make_procedure ("<b>Oak</b> & pine");
  GtkWidget *toplevel;
  GtkWidget *item = make_item (procedure, "bob@beta.test", &toplevel);
  EXPECT_EQ (get_text (item, "title_label"), "<b>Oak</b> & pine");
  gtk_widget_destroy (toplevel);
  dealloc_procedure (procedure);
}

TEST (procedure_list_item_new, shows_one_line_whatever_the_title_holds)
{
  const char *breaks[] = {"\n", "\r\n", "\v", "\f", "\xc2\x85", "\u2028", "\u2029"};
  for (const char *line_break : breaks) {
    Procedure *procedure =
      make_procedure (("Oak" + std::string (line_break) + "carol@beta.test").c_str ());
    GtkWidget *toplevel;
    GtkWidget *item = make_item (procedure, "bob@beta.test", &toplevel);
    GtkLabel *label = GTK_LABEL (find_widget (item, "title_label"));
    EXPECT_EQ (get_text (item, "title_label"), "Oak\u23cecarol@beta.test");
    EXPECT_EQ (pango_layout_get_line_count (gtk_label_get_layout (label)), 1);
    gtk_widget_destroy (toplevel);
    dealloc_procedure (procedure);
  }
}

TEST (procedure_list_item_new, takes_bytes_that_are_no_text_without_a_warning)
{
  Procedure *procedure = make_procedure ("\xc3");
  GtkWidget *toplevel;
  GtkWidget *item = make_item (procedure, "b\xff", &toplevel);
  EXPECT_EQ (get_text (item, "title_label"), "\xef\xbf\xbd");
  EXPECT_EQ (get_text (item, "contact_label"), "b\xef\xbf\xbd");
  gtk_widget_destroy (toplevel);
  dealloc_procedure (procedure);
}

TEST (procedure_list_item_new, shortens_long_texts_instead_of_widening_its_list)
{
  Procedure *procedure = make_procedure (std::string (300, 'x').c_str ());
  GtkWidget *toplevel;
  GtkWidget *item = make_item (procedure, std::string (300, 'y').c_str (), &toplevel);
  int width = 0;
  gtk_widget_get_preferred_width (item, &width, NULL);
  EXPECT_LT (width, 200);
  gtk_widget_destroy (toplevel);
  dealloc_procedure (procedure);
}

TEST (procedure_list_item_new, stands_in_the_list_for_the_other_party)
{
  TestWindow test;
  log_in (&test);
  app_window_create_new_procedure (test.window, to_string ("Mine"), to_string ("bob@beta.test"));
  Procedure *theirs =
    alloc_procedure (0, test.window->account_db_id, 5, to_string ("Theirs"),
                     to_string ("carol@beta.test"), to_string ("alice@alpha.test"));
  procedures_stack_add_procedure (&test.window->procedures, theirs);
  app_window_add_procedure (test.window, theirs);
  pump ();
  GtkListBoxRow *newest = gtk_list_box_get_row_at_index (test.window->procedures_list_box, 0);
  GtkListBoxRow *oldest = gtk_list_box_get_row_at_index (test.window->procedures_list_box, 1);
  EXPECT_EQ (get_text (newest, "contact_label"), "carol@beta.test");
  EXPECT_EQ (get_text (oldest, "contact_label"), "bob@beta.test");
}

TEST (procedure_list_item_new, warns_of_an_address_that_may_imitate_another)
{
  Procedure *procedure = make_procedure ("Oak \u202eplanks");
  GtkWidget *toplevel;
  GtkWidget *item = make_item (procedure, "b\u03bfb@beta.test", &toplevel);
  GtkStyleContext *style = gtk_widget_get_style_context (find_widget (item, "contact_label"));
  EXPECT_TRUE (gtk_style_context_has_class (style, "warning"));
  // A title may be of any letters, but its controls end with it.
  style = gtk_widget_get_style_context (find_widget (item, "title_label"));
  EXPECT_FALSE (gtk_style_context_has_class (style, "warning"));
  EXPECT_EQ (get_text (item, "title_label"), "\u2068Oak \u202eplanks\u2069");
  gtk_widget_destroy (toplevel);
  dealloc_procedure (procedure);
}
