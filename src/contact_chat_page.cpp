#include "contact_chat_page.h"

#include "app_window.h"
#include "chat_text.h"
#include "db.h"
#include "delivery_notice.h"
#include "morvane.h"

struct _ContactChatPage {
  GtkBox parent_instance;
  Contact *contact;    // borrowed
  ChatText chat_text;  // over the widgets below
  // Template children.
  GtkButton *send_button;
  GtkButton *close_button;
  GtkEntry *chat_entry;
  GtkTextView *chat_text_view;
  GtkScrolledWindow *chat_scrolled_window;
};

G_DEFINE_TYPE (ContactChatPage, contact_chat_page, GTK_TYPE_BOX)

static void
contact_chat_page_send (ContactChatPage *self, String text)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  ContactMessage *message = alloc_contact_message (0, self->contact->db_id, get_posix_time (),
                                                   window->account.bare_jid, text);
  db_insert_contact_message (window->db, message);
  contact_chat_page_add_message (self, message);
  contact_add_message (self->contact, message);
  bool is_sent = xmpp_send_message (window, self->contact->bare_jid, text);
  // Ids are drawn on this thread alone once the login is over: the last one went with this line.
  message->request_id = window->last_xmpp_id;
  if (!is_sent)
    contact_chat_page_tell_undelivered (self, text, to_string ("not connected"));
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
  chat_text_show_last_line (&self->chat_text);
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
  chat_text_init (&self->chat_text, GTK_WIDGET (self), self->chat_text_view,
                  self->chat_scrolled_window);
  gtk_widget_grab_focus (GTK_WIDGET (self->chat_entry));
  g_signal_connect (self->send_button, "clicked",
                    G_CALLBACK (contact_chat_page_send_button_clicked_handle), self);
  g_signal_connect (self->close_button, "clicked",
                    G_CALLBACK (contact_chat_page_close_button_clicked_handle), self);
  g_signal_connect (self->chat_entry, "changed",
                    G_CALLBACK (contact_chat_page_chat_entry_changed_handle), self);
  g_signal_connect (self->chat_entry, "focus-in-event",
                    G_CALLBACK (contact_chat_page_chat_entry_focus_in_handle), self);
}

GtkWidget *
contact_chat_page_new (Contact *contact)
{
  ContactChatPage *self =
    MORVANE_CONTACT_CHAT_PAGE (g_object_new (contact_chat_page_get_type (), NULL));
  self->contact = contact;
  for (u32 i = 0; i < contact->messages_count; ++i) {
    contact_chat_page_add_message (self, contact->messages[i]);
    if (!pause_long_work ())
      break;
  }
  return GTK_WIDGET (self);
}

void
contact_chat_page_add_message (ContactChatPage *self, ContactMessage *message)
{
  chat_text_add_line (&self->chat_text, message->author, message->body);
}

void
contact_chat_page_tell_undelivered (ContactChatPage *self, String text, String reason)
{
  delivery_notice_show (GTK_BOX (self), self->contact->bare_jid, "", text, reason);
}
