#include "vcard_page.h"

#include "widget_test.h"

static const char *const ENTRIES[] = {"fullname_entry",    "role_entry",      "organization_entry",
                                      "email_entry",       "telephone_entry", "url_entry",
                                      "work_street_entry", "key_entry"};

// A page that is shown, of a window that is logged in.
static VCardPage *
show_page (TestWindow *test)
{
  log_in (test);
  VCardPage *page = test->window->vcard_page;
  gtk_stack_set_visible_child (test->window->main_page_stack, GTK_WIDGET (page));
  pump ();
  return page;
}

static VCard
make_vcard ()
{
  VCard vcard = {};
  vcard.fullname = (char *) "Bob";
  vcard.role = (char *) "Joiner";
  vcard.email = (char *) "bob@mail.test";
  vcard.telephone = (char *) "tel:+1-555";
  vcard.url = (char *) "http://bob.test";
  vcard.organization = (char *) "Planks";
  vcard.work_street = (char *) "Mill Lane 1";
  vcard.key = (char *) "KEY";
  return vcard;
}

static std::string
list_texts (VCardPage *page)
{
  std::string texts;
  for (const char *name : ENTRIES) {
    texts += get_text (page, name) + "|";
  }
  return texts;
}

// ---- Looks ----

TEST (vcard_page_init, shows_eight_labelled_entries_and_an_insensitive_save_button)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  EXPECT_EQ (list_texts (page), "||||||||");
  EXPECT_FALSE (is_sensitive (page, "save_button"));
  EXPECT_TRUE (is_sensitive (page, "close_button"));
  EXPECT_EQ (get_text (page, "save_button"), "_Save");
  EXPECT_EQ (get_text (page, "close_button"), "_Close");
  EXPECT_EQ (list_unnamed_widgets (page), "");
  for (const char *text : {"Name:", "Occupation:", "Organization:", "Email:", "Telephone:", "URL:",
                           "Address:", "Public key:"}) {
    GtkWidget *label = find_accessible (page, text);
    ASSERT_TRUE (GTK_IS_LABEL (label)) << text;
    EXPECT_EQ (gtk_widget_get_halign (label), GTK_ALIGN_END);
  }
}

static bool
is_laid_out (void *data)
{
  return gtk_widget_get_allocated_width (find_widget (data, "key_entry")) > 1;
}

TEST (vcard_page_size_allocate, gives_its_widgets_their_place)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  EXPECT_TRUE (pump_until (is_laid_out, page));
  int previous = -1;
  for (const char *name : ENTRIES) {
    GtkWidget *entry = find_widget (page, name);
    int x = 0, y = 0;
    ASSERT_TRUE (gtk_widget_translate_coordinates (entry, GTK_WIDGET (page), 0, 0, &x, &y));
    EXPECT_GT (y, previous) << name;
    EXPECT_GT (gtk_widget_get_allocated_width (entry), 100) << name;
    EXPECT_LE (y + gtk_widget_get_allocated_height (entry),
               gtk_widget_get_allocated_height (GTK_WIDGET (page)));
    previous = y;
  }
}

TEST (vcard_page_init, has_entries_for_their_kinds_of_text)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  struct {
    const char *name;
    GtkInputPurpose purpose;
  } purposes[] = {{"fullname_entry", GTK_INPUT_PURPOSE_NAME},
                  {"email_entry", GTK_INPUT_PURPOSE_EMAIL},
                  {"telephone_entry", GTK_INPUT_PURPOSE_NUMBER},
                  {"url_entry", GTK_INPUT_PURPOSE_URL},
                  {"role_entry", GTK_INPUT_PURPOSE_FREE_FORM}};
  for (auto &row : purposes) {
    EXPECT_EQ (gtk_entry_get_input_purpose (GTK_ENTRY (find_widget (page, row.name))), row.purpose)
      << row.name;
  }
}

// ---- Title ----

TEST (vcard_page_set_title, shows_the_text_as_it_is)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_title (page, to_string ("bob@beta.test/<b>"));
  EXPECT_EQ (get_text (page, "title_label"), "bob@beta.test/<b>");
  vcard_page_set_title (page, String{});
  EXPECT_EQ (get_text (page, "title_label"), "");
  vcard_page_set_title (page, to_string ("b\xff"));
  EXPECT_EQ (get_text (page, "title_label"), "b\xef\xbf\xbd");
}

TEST (vcard_page_set_title, warns_of_an_address_that_misleads_while_it_is_shown)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  GtkStyleContext *style = gtk_widget_get_style_context (find_widget (page, "title_label"));
  vcard_page_set_title (page, to_string ("b\u043eb@beta.test\n\u202e/desk"));
  EXPECT_EQ (get_text (page, "title_label"), "\u2068b\u043eb@beta.test\u23ce\u202e/desk\u2069");
  EXPECT_TRUE (gtk_style_context_has_class (style, "warning"));
  vcard_page_set_title (page, to_string ("bob@beta.test/\u0434\u043e\u043c 1"));
  EXPECT_FALSE (gtk_style_context_has_class (style, "warning"));
  EXPECT_FALSE (gtk_widget_get_has_tooltip (find_widget (page, "title_label")));
  vcard_page_set_title (page, to_string ("Your Public Profile"));
  EXPECT_FALSE (gtk_style_context_has_class (style, "warning"));
}

TEST (vcard_page_set_title, wraps_a_long_address_instead_of_widening_the_window)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_title (page, to_string (std::string (300, 'b').c_str ()));
  pump ();
  int width = 0;
  gtk_window_get_size (GTK_WINDOW (test.window), &width, NULL);
  EXPECT_EQ (width, 640);
}

// ---- Texts ----

TEST (vcard_page_set_vcard, puts_each_field_into_its_entry)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_vcard (page, make_vcard ());
  EXPECT_EQ (list_texts (page),
             "Bob|Joiner|Planks|bob@mail.test|tel:+1-555|http://bob.test|Mill Lane 1|KEY|");
  EXPECT_FALSE (is_sensitive (page, "save_button"));
}

TEST (vcard_page_set_vcard, shows_null_fields_as_empty_texts)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_vcard (page, make_vcard ());
  VCard vcard = {};
  vcard.role = (char *) "Miller";
  vcard_page_set_vcard (page, vcard);
  EXPECT_EQ (list_texts (page), "|Miller|||||||");
  EXPECT_FALSE (is_sensitive (page, "save_button"));
}

struct Value {
  const char *received;
  const char *shown;
};

class VCardPageValue : public testing::TestWithParam<Value> {};

TEST_P (VCardPageValue, is_shown)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  VCard vcard = {};
  vcard.key = (char *) GetParam ().received;
  vcard_page_set_vcard (page, vcard);
  EXPECT_EQ (get_text (page, "key_entry"), GetParam ().shown);
}

INSTANTIATE_TEST_SUITE_P (
  vcard_page_set_vcard, VCardPageValue,
  testing::Values (Value{"&quot;a&quot; &amp; &apos;b&apos; &lt;c&gt;", "\"a\" & 'b' <c>"},
                   Value{"&amp;lt;", "&lt;"}, Value{"a & b", "a & b"}, Value{"&", "&"},
                   Value{"&nbsp;", "&nbsp;"}, Value{"&amp", "&amp"}, Value{"&#10;", "&#10;"},
                   Value{"", ""}, Value{"\u00e4\U0001f600", "\u00e4\U0001f600"},
                   Value{"b\xff", "b\xef\xbf\xbd"}));

TEST (vcard_page_clear_vcard, empties_the_entries_and_switches_save_off)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_vcard (page, make_vcard ());
  type (page, "role_entry", "Miller");
  EXPECT_TRUE (is_sensitive (page, "save_button"));
  vcard_page_clear_vcard (page);
  EXPECT_EQ (list_texts (page), "||||||||");
  EXPECT_FALSE (is_sensitive (page, "save_button"));
}

// ---- Editing ----

class VCardPageEntry : public testing::TestWithParam<const char *> {};

TEST_P (VCardPageEntry, switches_save_on_when_it_changes)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_editable (page, TRUE);
  type (page, GetParam (), "x");
  EXPECT_TRUE (is_sensitive (page, "save_button"));
}

TEST_P (VCardPageEntry, can_be_made_read_only_and_editable_again)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  GtkWidget *entry = find_widget (page, GetParam ());
  vcard_page_set_editable (page, FALSE);
  EXPECT_FALSE (gtk_widget_get_can_focus (entry));
  EXPECT_FALSE (gtk_editable_get_editable (GTK_EDITABLE (entry)));
  vcard_page_set_editable (page, TRUE);
  EXPECT_TRUE (gtk_widget_get_can_focus (entry));
  EXPECT_TRUE (gtk_editable_get_editable (GTK_EDITABLE (entry)));
}

INSTANTIATE_TEST_SUITE_P (vcard_page_set_editable, VCardPageEntry, testing::ValuesIn (ENTRIES));

TEST (vcard_page_set_editable, leaves_another_accounts_profile_read_only_after_the_own_one)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_clear_vcard (page);
  vcard_page_set_editable (page, TRUE);
  type (page, "role_entry", "Miller");
  vcard_page_set_title (page, to_string ("bob@beta.test"));
  vcard_page_set_vcard (page, make_vcard ());
  vcard_page_set_editable (page, FALSE);
  EXPECT_FALSE (is_sensitive (page, "save_button"));
  EXPECT_FALSE (gtk_editable_get_editable (GTK_EDITABLE (find_widget (page, "role_entry"))));
}

// ---- Buttons ----

#define VCARD_REQUEST                                                                              \
  "<iq type='get' id='2' from='alice@alpha.test/morvane' to='alice@alpha.test'>"                   \
  "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>"

TEST (vcard_page_save_button, publishes_the_texts_and_requests_them_again)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_editable (page, TRUE);
  type (page, "fullname_entry", "Alice & Co");
  type (page, "key_entry", "K\x01");
  press (page, "save_button");
  EXPECT_EQ (
    take_sent (&test),
    "<iq type='set' id='1' from='alice@alpha.test/morvane'>"
    "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'>"
    "<fn><text>Alice &amp; Co</text></fn><key><text>K</text></key></vcard></iq>" VCARD_REQUEST);
  EXPECT_FALSE (is_sensitive (page, "save_button"));
  EXPECT_EQ (test.window->get_vcard_id, 0u);
  EXPECT_EQ (test.window->get_own_vcard_id, 0u);
}

TEST (vcard_page_save_button, publishes_every_field)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  vcard_page_set_vcard (page, make_vcard ());
  type (page, "fullname_entry", "Robert");
  press (page, "save_button");
  const char *work = "<parameters><type><text>work</text></type></parameters>";
  std::string vcard = "<fn><text>Robert</text></fn><email>" + std::string (work) +
                      "<text>bob@mail.test</text></email><role>" + work +
                      "<text>Joiner</text></role><tel>" + work +
                      "<uri>tel:+1-555</uri></tel><url><uri>http://bob.test</uri></url><org>" +
                      work + "<text>Planks</text></org><adr>" + work +
                      "<street>Mill Lane 1</street></adr><key><text>KEY</text></key>";
  EXPECT_EQ (take_sent (&test), "<iq type='set' id='1' from='alice@alpha.test/morvane'>"
                                "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'>" +
                                  vcard + "</vcard></iq>" VCARD_REQUEST);
}

TEST (vcard_page_save_button, publishes_a_vcard_without_properties_from_empty_entries)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  type (page, "fullname_entry", "x");
  type (page, "fullname_entry", "");
  press (page, "save_button");
  EXPECT_EQ (take_sent (&test),
             "<iq type='set' id='1' from='alice@alpha.test/morvane'>"
             "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'></vcard></iq>" VCARD_REQUEST);
}

TEST (vcard_page_close_button, returns_to_the_creation_page)
{
  TestWindow test;
  VCardPage *page = show_page (&test);
  press (page, "close_button");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

// ---- A page ----

TEST (vcard_page_new, makes_a_page_of_its_own_that_is_empty)
{
  TestWindow test;
  GtkWidget *page = vcard_page_new ();
  EXPECT_TRUE (g_object_is_floating (page));
  GtkWidget *toplevel = show_alone (page);
  EXPECT_EQ (list_texts (MORVANE_VCARD_PAGE (page)), "||||||||");
  gtk_widget_destroy (toplevel);
}
