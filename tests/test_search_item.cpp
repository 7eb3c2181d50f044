#include "search_item.h"

#include <string>
#include <vector>

#include "widget_test.h"

// `count` tags "tag 0", "tag 1" and so on.
struct TestItem {
  explicit TestItem (u32 count);
  ~TestItem ();
  std::vector<std::string> texts;
  std::vector<char *> tags;
  SearchItem *item;
  GtkWidget *toplevel;
};

TestItem::TestItem (u32 count)
{
  for (u32 i = 0; i < count; ++i) {
    texts.push_back ("tag " + std::to_string (i));
  }
  for (std::string &text : texts) {
    tags.push_back (text.data ());
  }
  item = search_item_new ("carol@alpha.test", NULL, tags.data (), count);
  toplevel = show_alone (GTK_WIDGET (item));
}

TestItem::~TestItem ()
{
  gtk_widget_destroy (toplevel);
}

static std::string
list_shown_tags (SearchItem *item)
{
  std::string shown;
  GList *frames = gtk_container_get_children (GTK_CONTAINER (find_widget (item, "tags_box")));
  for (GList *link = frames; link; link = link->next) {
    GtkWidget *label = gtk_bin_get_child (GTK_BIN (link->data));
    EXPECT_TRUE (gtk_widget_get_mapped (label));
    EXPECT_EQ (gtk_widget_get_margin_start (label), 10);
    EXPECT_EQ (gtk_widget_get_margin_end (label), 10);
    EXPECT_FALSE (gtk_frame_get_label (GTK_FRAME (link->data)));
    shown += std::string (gtk_label_get_text (GTK_LABEL (label))) + ",";
  }
  g_list_free (frames);
  return shown;
}

TEST (search_item_new, shows_the_account_and_two_insensitive_buttons)
{
  TestItem test (0);
  EXPECT_EQ (get_text (test.item, "account_label"), "carol@alpha.test");
  EXPECT_FALSE (is_sensitive (test.item, "add_button"));
  EXPECT_FALSE (is_sensitive (test.item, "del_button"));
  EXPECT_EQ (list_unnamed_widgets (test.item), "");
}

TEST (search_item_new, shows_and_keeps_its_tags_in_order)
{
  TestItem test (3);
  EXPECT_EQ (list_shown_tags (test.item), "tag 0,tag 1,tag 2,");
  EXPECT_EQ (search_item_get_tags_count (test.item), 3u);
  EXPECT_EQ (search_item_get_tag (test.item, 2), test.tags[2]);
}

TEST (search_item_new, has_no_tags_when_none_are_given)
{
  TestItem test (0);
  EXPECT_EQ (list_shown_tags (test.item), "");
  EXPECT_EQ (search_item_get_tags_count (test.item), 0u);
  EXPECT_FALSE (search_item_get_tag (test.item, 0));
}

class SearchItemTags : public testing::TestWithParam<u32> {};

TEST_P (SearchItemTags, are_kept_up_to_thirty_two)
{
  TestItem test (GetParam ());
  u32 expected = GetParam () < 32 ? GetParam () : 32;
  std::string shown;
  for (u32 i = 0; i < expected; ++i) {
    shown += test.texts[i] + ",";
    EXPECT_EQ (search_item_get_tag (test.item, i), test.tags[i]);
  }
  EXPECT_EQ (search_item_get_tags_count (test.item), expected);
  EXPECT_EQ (list_shown_tags (test.item), shown);
  EXPECT_FALSE (search_item_get_tag (test.item, expected));
}

INSTANTIATE_TEST_SUITE_P (search_item_new, SearchItemTags, testing::Values (31, 32, 33, 40));

TEST (search_item_handle_add_button, switches_the_buttons)
{
  TestItem test (0);
  g_signal_emit_by_name (find_widget (test.item, "add_button"), "clicked");
  EXPECT_FALSE (is_sensitive (test.item, "add_button"));
  EXPECT_TRUE (is_sensitive (test.item, "del_button"));
}

TEST (search_item_handle_del_button, switches_the_buttons_back)
{
  TestItem test (0);
  g_signal_emit_by_name (find_widget (test.item, "add_button"), "clicked");
  press (test.item, "del_button");
  EXPECT_TRUE (is_sensitive (test.item, "add_button"));
  EXPECT_FALSE (is_sensitive (test.item, "del_button"));
  press (test.item, "add_button");
  EXPECT_FALSE (is_sensitive (test.item, "add_button"));
}

TEST (search_item_new, shows_names_of_others_in_one_line_and_warns_of_addresses)
{
  std::string tag = "rye\nflour";
  char *tags[] = {tag.data ()};
  SearchItem *item = search_item_new ("c\u0430rol@alpha.test\u202e", NULL, tags, 1);
  GtkWidget *toplevel = show_alone (GTK_WIDGET (item));
  GtkWidget *label = find_widget (item, "account_label");
  EXPECT_EQ (get_text (item, "account_label"), "\u2068c\u0430rol@alpha.test\u202e\u2069");
  EXPECT_TRUE (gtk_style_context_has_class (gtk_widget_get_style_context (label), "warning"));
  EXPECT_TRUE (gtk_widget_get_has_tooltip (label));
  EXPECT_EQ (list_shown_tags (item), "rye\u23ceflour,");
  EXPECT_STREQ (search_item_get_tag (item, 0), "rye\nflour");
  gtk_widget_destroy (toplevel);
}
