#include "contact_list_item.h"

#include "widget_test.h"

struct TestItem {
  explicit TestItem (const char *status, const char *bare_jid = "bob@beta.test");
  ~TestItem ();
  Contact *contact;
  ContactListItem *item;
  GtkWidget *toplevel;
};

TestItem::TestItem (const char *status, const char *bare_jid)
{
  contact = alloc_contact (1, 1, to_string (bare_jid), to_string (status));
  item = MORVANE_CONTACT_LIST_ITEM (contact_list_item_new (contact));
  toplevel = show_alone (GTK_WIDGET (item));
}

TestItem::~TestItem ()
{
  gtk_widget_destroy (toplevel);
  ContactStack stack = alloc_contact_stack (1);
  contact_stack_push (&stack, contact);
  dealloc_contact_stack (stack);
}

TEST (contact_list_item_new, shows_jid_status_and_icon_of_an_absent_contact)
{
  TestItem test ("unavailable");
  EXPECT_EQ (get_text (test.item, "name_label"), "bob@beta.test");
  EXPECT_EQ (get_text (test.item, "status_label"), "unavailable");
  EXPECT_EQ (get_icon (test.item, "icon_image"), "user-offline-symbolic");
  EXPECT_EQ (contact_list_item_get_contact (test.item), test.contact);
}

TEST (contact_list_item_new, shows_the_icon_of_a_present_contact)
{
  TestItem test ("available");
  EXPECT_EQ (get_text (test.item, "status_label"), "available");
  EXPECT_EQ (get_icon (test.item, "icon_image"), "user-available-symbolic");
}

TEST (contact_list_item_new, shortens_a_long_jid_instead_of_widening_its_list)
{
  std::string bare_jid (200, 'b');
  TestItem test ("available", (bare_jid + "@beta.test").c_str ());
  int width = 0;
  gtk_widget_get_preferred_width (GTK_WIDGET (test.item), &width, NULL);
  EXPECT_LT (width, 200);
}

TEST (contact_list_item_new, takes_bytes_that_are_no_text_without_a_warning)
{
  TestItem test ("available", "b\xff@beta.test");
  EXPECT_EQ (get_text (test.item, "name_label"), "b\xef\xbf\xbd@beta.test");
}

TEST (contact_list_item_set_status, changes_text_and_icon_both_ways)
{
  TestItem test ("unavailable");
  contact_list_item_set_status (test.item, to_string ("available"));
  EXPECT_EQ (get_text (test.item, "status_label"), "available");
  EXPECT_EQ (get_icon (test.item, "icon_image"), "user-available-symbolic");
  contact_list_item_set_status (test.item, to_string ("unavailable"));
  EXPECT_EQ (get_text (test.item, "status_label"), "unavailable");
  EXPECT_EQ (get_icon (test.item, "icon_image"), "user-offline-symbolic");
}

TEST (contact_list_item_set_status, shows_another_status_keeps_the_icon_and_warns)
{
  TestItem test ("available");
  testing::internal::CaptureStdout ();
  contact_list_item_set_status (test.item, to_string ("away"));
  std::string output = testing::internal::GetCapturedStdout ();
  EXPECT_EQ (output, "Warning: Unsupported contact list item status 'away' was set given.\n");
  EXPECT_EQ (get_text (test.item, "status_label"), "away");
  EXPECT_EQ (get_icon (test.item, "icon_image"), "user-available-symbolic");
}

TEST (contact_list_item_set_status, warns_about_an_empty_status_and_a_longer_word)
{
  TestItem test ("unavailable");
  testing::internal::CaptureStdout ();
  contact_list_item_set_status (test.item, String{});
  contact_list_item_set_status (test.item, to_string ("availableX"));
  std::string output = testing::internal::GetCapturedStdout ();
  EXPECT_EQ (output, "Warning: Unsupported contact list item status '(null)' was set given.\n"
                     "Warning: Unsupported contact list item status 'availableX' was set given.\n");
  EXPECT_EQ (get_icon (test.item, "icon_image"), "user-offline-symbolic");
}

TEST (contact_list_item_set_status, sets_the_icon_at_the_size_of_buttons)
{
  TestItem test ("available");
  GtkIconSize size = GTK_ICON_SIZE_INVALID;
  gtk_image_get_icon_name (GTK_IMAGE (find_widget (test.item, "icon_image")), NULL, &size);
  EXPECT_EQ (size, GTK_ICON_SIZE_BUTTON);
}

TEST (contact_list_item_new, warns_of_an_address_that_may_imitate_another)
{
  // The first letter is Cyrillic.
  TestItem imitation ("available", "\u0430nna@alpha.test");
  GtkWidget *label = find_widget (imitation.item, "name_label");
  EXPECT_TRUE (gtk_style_context_has_class (gtk_widget_get_style_context (label), "warning"));
  EXPECT_EQ (get_text (imitation.item, "name_label"), "\u0430nna@alpha.test");
  const char *warning =
    "This address mixes alphabets or holds invisible letters. It may imitate another one.";
  char *tooltip = gtk_widget_get_tooltip_text (label);
  EXPECT_STREQ (tooltip, warning);
  EXPECT_STREQ (atk_object_get_description (gtk_widget_get_accessible (label)), warning);
  g_free (tooltip);

  TestItem honest ("available", "anna@alpha.test");
  label = find_widget (honest.item, "name_label");
  EXPECT_FALSE (gtk_style_context_has_class (gtk_widget_get_style_context (label), "warning"));
  EXPECT_EQ (gtk_widget_get_tooltip_text (label), nullptr);
}

TEST (contact_list_item_new, keeps_the_controls_of_an_address_to_it)
{
  TestItem test ("available", "an\u202ena@alpha.test");
  EXPECT_EQ (get_text (test.item, "name_label"), "\u2068an\u202ena@alpha.test\u2069");
}
