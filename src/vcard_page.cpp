#include "vcard_page.h"

#include "app_window.h"
#include "shown_text.h"

struct _VCardPage {
  GtkBin parent_instance;
  // Template children.
  GtkLabel *title_label;
  GtkButton *save_button;
  GtkButton *close_button;
  GtkEntry *fullname_entry;
  GtkEntry *role_entry;
  GtkEntry *organization_entry;
  GtkEntry *email_entry;
  GtkEntry *telephone_entry;
  GtkEntry *url_entry;
  GtkEntry *work_street_entry;
  GtkEntry *key_entry;
};

G_DEFINE_TYPE (VCardPage, vcard_page, GTK_TYPE_BIN)

enum {
  ENTRIES_COUNT = 8
};

static void
vcard_page_get_entries (VCardPage *self, GtkEntry *entries_out[ENTRIES_COUNT])
{
  entries_out[0] = self->fullname_entry;
  entries_out[1] = self->role_entry;
  entries_out[2] = self->organization_entry;
  entries_out[3] = self->email_entry;
  entries_out[4] = self->telephone_entry;
  entries_out[5] = self->url_entry;
  entries_out[6] = self->work_street_entry;
  entries_out[7] = self->key_entry;
}

// The value as typed, without what XML forbids; never NULL.
static char *
alloc_entry_value (GtkEntry *entry)
{
  String text = alloc_sendable_text (to_string (gtk_entry_get_text (entry)));
  char *value = alloc_cstr (text);
  dealloc_string (text);
  return value;
}

static void
vcard_page_entry_changed_handle (GtkEditable *, VCardPage *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->save_button), TRUE);
}

static void
vcard_page_save_button_handle (GtkButton *, VCardPage *self)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  VCard vcard = {};
  vcard.fullname = alloc_entry_value (self->fullname_entry);
  vcard.role = alloc_entry_value (self->role_entry);
  vcard.email = alloc_entry_value (self->email_entry);
  vcard.telephone = alloc_entry_value (self->telephone_entry);
  vcard.url = alloc_entry_value (self->url_entry);
  vcard.organization = alloc_entry_value (self->organization_entry);
  vcard.work_street = alloc_entry_value (self->work_street_entry);
  vcard.key = alloc_entry_value (self->key_entry);
  gtk_widget_set_sensitive (GTK_WIDGET (self->save_button), FALSE);
  // Neither id is kept: the answer to the second request is meant to refill no page.
  xmpp_iq_set_vcard4 (window, vcard);
  xmpp_iq_get_vcard4 (window, window->account.bare_jid);
  dealloc_vcard (vcard);
}

static void
vcard_page_close_button_handle (GtkButton *, VCardPage *self)
{
  app_window_goto_prev_main_page (MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self))));
}

// A GtkBin measures its child but leaves it to its subclasses to place it.
static void
vcard_page_size_allocate (GtkWidget *widget, GtkAllocation *allocation)
{
  GTK_WIDGET_CLASS (vcard_page_parent_class)->size_allocate (widget, allocation);
  GtkWidget *child = gtk_bin_get_child (GTK_BIN (widget));
  if (child && gtk_widget_get_visible (child)) {
    gtk_widget_size_allocate (child, allocation);
  }
}

static void
vcard_page_class_init (VCardPageClass *page_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (page_class);
  widget_class->size_allocate = vcard_page_size_allocate;
  gtk_widget_class_set_template_from_resource (widget_class, "/org/halvex/morvane/vcard_page.ui");
  gtk_widget_class_bind_template_child (widget_class, VCardPage, title_label);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, save_button);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, close_button);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, fullname_entry);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, role_entry);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, organization_entry);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, email_entry);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, telephone_entry);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, url_entry);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, work_street_entry);
  gtk_widget_class_bind_template_child (widget_class, VCardPage, key_entry);
}

static void
vcard_page_init (VCardPage *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  g_signal_connect (self->save_button, "clicked", G_CALLBACK (vcard_page_save_button_handle), self);
  g_signal_connect (self->close_button, "clicked", G_CALLBACK (vcard_page_close_button_handle),
                    self);
  GtkEntry *entries[ENTRIES_COUNT];
  vcard_page_get_entries (self, entries);
  for (u32 i = 0; i < ENTRIES_COUNT; ++i) {
    g_signal_connect (entries[i], "changed", G_CALLBACK (vcard_page_entry_changed_handle), self);
  }
}

GtkWidget *
vcard_page_new ()
{
  return GTK_WIDGET (g_object_new (vcard_page_get_type (), NULL));
}

void
vcard_page_set_title (VCardPage *self, String title)
{
  label_show_text (self->title_label, title);
  // A resource may be named in any alphabet, and the words for the own card are no address.
  String bare = {title.data, title.size - find_char (title, '/').size};
  label_warn_of_address (self->title_label, find_char (bare, '@').size ? bare : (String){});
}

// A value that holds an unknown entity is shown as it came: what a peer wrote must stop nothing.
static void
set_entry_value (GtkEntry *entry, const char *value)
{
  String received = to_string (value ? value : "");
  String text = is_xml_text_unescapable (received) ? alloc_unescape_xml_text (received)
                                                   : alloc_string (received);
  char *valid = g_utf8_make_valid ((const char *) text.data, (gssize) text.size);
  gtk_entry_set_text (entry, valid);
  g_free (valid);
  dealloc_string (text);
}

void
vcard_page_set_vcard (VCardPage *self, VCard vcard)
{
  set_entry_value (self->fullname_entry, vcard.fullname);
  set_entry_value (self->role_entry, vcard.role);
  set_entry_value (self->organization_entry, vcard.organization);
  set_entry_value (self->email_entry, vcard.email);
  set_entry_value (self->telephone_entry, vcard.telephone);
  set_entry_value (self->url_entry, vcard.url);
  set_entry_value (self->work_street_entry, vcard.work_street);
  set_entry_value (self->key_entry, vcard.key);
  // The entries' handlers have switched it on.
  gtk_widget_set_sensitive (GTK_WIDGET (self->save_button), FALSE);
}

void
vcard_page_clear_vcard (VCardPage *self)
{
  vcard_page_set_vcard (self, {});
}

void
vcard_page_set_editable (VCardPage *self, gboolean editable)
{
  GtkEntry *entries[ENTRIES_COUNT];
  vcard_page_get_entries (self, entries);
  for (u32 i = 0; i < ENTRIES_COUNT; ++i) {
    gtk_widget_set_can_focus (GTK_WIDGET (entries[i]), editable);
  }
  for (u32 i = 0; i < ENTRIES_COUNT; ++i) {
    gtk_editable_set_editable (GTK_EDITABLE (entries[i]), editable);
  }
}
