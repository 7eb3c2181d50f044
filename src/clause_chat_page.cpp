#include "clause_chat_page.h"

#include <assert.h>

#include "app_window.h"
#include "chat_text.h"
#include "delivery.h"
#include "morvane.h"
#include "procedure_view.h"
#include "unsent_mark.h"

struct _ClauseChatPage {
  GtkBox parent_instance;
  Procedure *procedure;  // borrowed
  Clause *clause;        // borrowed
  ChatText chat_text;    // over the widgets below
  u32 unsent_count;      // lines that did not go out
  // Template children.
  GtkButton *send_button;
  GtkButton *close_button;
  GtkEntry *chat_entry;
  GtkTextView *chat_text_view;
  GtkScrolledWindow *chat_scrolled_window;
};

G_DEFINE_TYPE (ClauseChatPage, clause_chat_page, GTK_TYPE_BOX)

static void
clause_chat_page_send (ClauseChatPage *self, String text)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  ClauseMessage *message =
    negotiation_say (app_window_get_negotiation (window), self->clause, text);
  clause_chat_page_add_message (self, message);
  delivery_send (window);
}

static void
clause_chat_page_send_button_clicked_handle (GtkButton *, ClauseChatPage *self)
{
  String text = alloc_sendable_text (to_string (gtk_entry_get_text (self->chat_entry)));
  // What XML forbids is not sent, and of a text that had nothing else nothing is left.
  if (text.size) {
    clause_chat_page_send (self, text);
  }
  dealloc_string (text);
  gtk_entry_set_text (self->chat_entry, "");
  chat_text_show_last_line (&self->chat_text);
}

static void
clause_chat_page_close_button_clicked_handle (GtkButton *, ClauseChatPage *self)
{
  procedure_view_show_clause (self->procedure->view);
}

static void
clause_chat_page_chat_entry_changed_handle (GtkEditable *, ClauseChatPage *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->send_button),
                            cstr_has_non_whitespace (gtk_entry_get_text (self->chat_entry)));
}

// TRUE ends the handling of the event here, which is meant.
static gboolean
clause_chat_page_chat_entry_focus_in_handle (GtkWidget *, GdkEvent *, ClauseChatPage *self)
{
  gtk_widget_grab_default (GTK_WIDGET (self->send_button));
  return TRUE;
}

static void
clause_chat_page_class_init (ClauseChatPageClass *page_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (page_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/clause_chat_page.ui");
  gtk_widget_class_bind_template_child (widget_class, ClauseChatPage, send_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseChatPage, close_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseChatPage, chat_entry);
  gtk_widget_class_bind_template_child (widget_class, ClauseChatPage, chat_text_view);
  gtk_widget_class_bind_template_child (widget_class, ClauseChatPage, chat_scrolled_window);
}

static void
clause_chat_page_init (ClauseChatPage *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  chat_text_init (&self->chat_text, GTK_WIDGET (self), self->chat_text_view,
                  self->chat_scrolled_window);
  gtk_widget_grab_focus (GTK_WIDGET (self->chat_entry));
  g_signal_connect (self->send_button, "clicked",
                    G_CALLBACK (clause_chat_page_send_button_clicked_handle), self);
  g_signal_connect (self->close_button, "clicked",
                    G_CALLBACK (clause_chat_page_close_button_clicked_handle), self);
  g_signal_connect (self->chat_entry, "changed",
                    G_CALLBACK (clause_chat_page_chat_entry_changed_handle), self);
  g_signal_connect (self->chat_entry, "focus-in-event",
                    G_CALLBACK (clause_chat_page_chat_entry_focus_in_handle), self);
}

GtkWidget *
clause_chat_page_new (Procedure *procedure, Clause *clause)
{
  ClauseChatPage *self =
    MORVANE_CLAUSE_CHAT_PAGE (g_object_new (clause_chat_page_get_type (), NULL));
  self->procedure = procedure;
  self->clause = clause;
  for (u32 i = 0; i < clause->messages_count; ++i) {
    clause_chat_page_add_message (self, clause->messages[i]);
    if (!pause_long_work ())
      break;
  }
  return GTK_WIDGET (self);
}

void
clause_chat_page_add_message (ClauseChatPage *self, ClauseMessage *message)
{
  chat_text_add_line (&self->chat_text, message->author, message->text);
}

void
clause_chat_page_count_unsent (ClauseChatPage *self, bool is_unsent)
{
  assert (is_unsent || self->unsent_count);
  self->unsent_count += is_unsent ? 1 : -1;
  unsent_mark_show (GTK_WIDGET (self->chat_text_view), self->unsent_count != 0);
}
