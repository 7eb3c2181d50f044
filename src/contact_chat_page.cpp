#include "contact_chat_page.h"

#include "app_window.h"
#include "db.h"
#include "morvane.h"

struct _ContactChatPage {
  GtkBox parent_instance;
  Contact *contact;        // borrowed
  bool is_at_end;          // the newest line is in sight, and stays so when the text grows
  GtkTextTag *author_tag;  // belongs to the text
  // Template children.
  GtkButton *send_button;
  GtkButton *close_button;
  GtkEntry *chat_entry;
  GtkTextView *chat_text_view;
  GtkScrolledWindow *chat_scrolled_window;
};

G_DEFINE_TYPE (ContactChatPage, contact_chat_page, GTK_TYPE_BOX)

static void
contact_chat_page_scroll_to_end (ContactChatPage *self)
{
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (self->chat_scrolled_window);
  gtk_adjustment_set_value (adjustment, gtk_adjustment_get_upper (adjustment) -
                                          gtk_adjustment_get_page_size (adjustment));
}

// The text gets its height bit by bit, long after it was set, so that its end is followed rather
// than scrolled to once.
static void
contact_chat_page_vadjustment_changed_handle (GtkAdjustment *, ContactChatPage *self)
{
  if (self->is_at_end) {
    contact_chat_page_scroll_to_end (self);
  }
}

static void
contact_chat_page_vadjustment_value_changed_handle (GtkAdjustment *adjustment,
                                                    ContactChatPage *self)
{
  double end = gtk_adjustment_get_upper (adjustment) - gtk_adjustment_get_page_size (adjustment);
  self->is_at_end = gtk_adjustment_get_value (adjustment) >= end - 1;
}

// A page opens at its end.
static void
contact_chat_page_map_handle (GtkWidget *, ContactChatPage *self)
{
  self->is_at_end = true;
  contact_chat_page_scroll_to_end (self);
}

static void
contact_chat_page_send (ContactChatPage *self, String text)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  ContactMessage *message = alloc_contact_message (0, self->contact->db_id, get_posix_time (),
                                                   window->account.bare_jid, text);
  db_insert_contact_message (window->db, message);
  contact_chat_page_add_message (self, message);
  contact_add_message (self->contact, message);
  xmpp_send_message (window, self->contact->bare_jid, text);
}

// Moves the cursor to the end first: a click into the text may have taken it elsewhere.
static void
contact_chat_page_show_last_line (ContactChatPage *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->chat_text_view);
  GtkTextIter end;
  gtk_text_buffer_get_end_iter (text_buffer, &end);
  gtk_text_buffer_place_cursor (text_buffer, &end);
  self->is_at_end = true;
  gtk_text_view_scroll_mark_onscreen (self->chat_text_view,
                                      gtk_text_buffer_get_insert (text_buffer));
}

static void
contact_chat_page_send_button_clicked_handle (GtkButton *, ContactChatPage *self)
{
  String text = alloc_sendable_text (to_string (gtk_entry_get_text (self->chat_entry)));
  // What XML forbids is not sent, and of a text that had nothing else nothing is left.
  if (text.size) {
    contact_chat_page_send (self, text);
  }
  dealloc_string (text);
  gtk_entry_set_text (self->chat_entry, "");
  contact_chat_page_show_last_line (self);
}

static void
contact_chat_page_close_button_clicked_handle (GtkButton *, ContactChatPage *self)
{
  app_window_goto_prev_main_page (MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self))));
}

static void
contact_chat_page_chat_entry_changed_handle (GtkEditable *, ContactChatPage *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->send_button),
                            cstr_has_non_whitespace (gtk_entry_get_text (self->chat_entry)));
}

// TRUE ends the handling of the event here, which is meant.
static gboolean
contact_chat_page_chat_entry_focus_in_handle (GtkWidget *, GdkEvent *, ContactChatPage *self)
{
  gtk_widget_grab_default (GTK_WIDGET (self->send_button));
  return TRUE;
}

static void
contact_chat_page_class_init (ContactChatPageClass *page_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (page_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/contact_chat_page.ui");
  gtk_widget_class_bind_template_child (widget_class, ContactChatPage, send_button);
  gtk_widget_class_bind_template_child (widget_class, ContactChatPage, close_button);
  gtk_widget_class_bind_template_child (widget_class, ContactChatPage, chat_entry);
  gtk_widget_class_bind_template_child (widget_class, ContactChatPage, chat_text_view);
  gtk_widget_class_bind_template_child (widget_class, ContactChatPage, chat_scrolled_window);
}

static void
contact_chat_page_init (ContactChatPage *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  self->author_tag =
    gtk_text_buffer_create_tag (gtk_text_view_get_buffer (self->chat_text_view), NULL, "scale",
                                PANGO_SCALE_SMALL, "weight", PANGO_WEIGHT_BOLD, NULL);
  gtk_widget_grab_focus (GTK_WIDGET (self->chat_entry));
  g_signal_connect (self->send_button, "clicked",
                    G_CALLBACK (contact_chat_page_send_button_clicked_handle), self);
  g_signal_connect (self->close_button, "clicked",
                    G_CALLBACK (contact_chat_page_close_button_clicked_handle), self);
  g_signal_connect (self->chat_entry, "changed",
                    G_CALLBACK (contact_chat_page_chat_entry_changed_handle), self);
  g_signal_connect (self->chat_entry, "focus-in-event",
                    G_CALLBACK (contact_chat_page_chat_entry_focus_in_handle), self);
  g_signal_connect (self, "map", G_CALLBACK (contact_chat_page_map_handle), self);
  GtkAdjustment *vadjustment = gtk_scrolled_window_get_vadjustment (self->chat_scrolled_window);
  g_signal_connect_object (vadjustment, "changed",
                           G_CALLBACK (contact_chat_page_vadjustment_changed_handle), self,
                           (GConnectFlags) 0);
  g_signal_connect_object (vadjustment, "value-changed",
                           G_CALLBACK (contact_chat_page_vadjustment_value_changed_handle), self,
                           (GConnectFlags) 0);
}

GtkWidget *
contact_chat_page_new (Contact *contact)
{
  ContactChatPage *self =
    MORVANE_CONTACT_CHAT_PAGE (g_object_new (contact_chat_page_get_type (), NULL));
  self->contact = contact;
  for (u32 i = 0; i < contact->messages_count; ++i) {
    contact_chat_page_add_message (self, contact->messages[i]);
  }
  return GTK_WIDGET (self);
}

// Only valid UTF-8 can be shown, and what comes from the network may be anything.
static void
insert_text (GtkTextBuffer *text_buffer, GtkTextIter *iter, String text, GtkTextTag *tag)
{
  char *valid = g_utf8_make_valid ((const char *) text.data, (gssize) text.size);
  gtk_text_buffer_insert_with_tags (text_buffer, iter, valid, -1, tag, NULL);
  g_free (valid);
}

// The author looks as the markup "<small><b>author:</b></small> " does. It is written with one tag
// for all lines, because GTK leaks what it makes for each piece of markup, and so no name can be
// taken for markup.
void
contact_chat_page_add_message (ContactChatPage *self, ContactMessage *message)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->chat_text_view);
  GtkTextIter end;
  gtk_text_buffer_get_end_iter (text_buffer, &end);
  if (gtk_text_buffer_get_char_count (text_buffer)) {
    gtk_text_buffer_insert (text_buffer, &end, "\n", 1);
  }
  insert_text (text_buffer, &end, message->author, self->author_tag);
  insert_text (text_buffer, &end, to_string (":"), self->author_tag);
  insert_text (text_buffer, &end, to_string (" "), NULL);
  insert_text (text_buffer, &end, message->body, NULL);
}
