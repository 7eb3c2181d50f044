#include "clause_chat_page.h"

#include "app_window.h"
#include "db.h"
#include "morvane.h"
#include "procedure_view.h"

struct _ClauseChatPage {
  GtkBox parent_instance;
  Procedure *procedure;    // borrowed
  Clause *clause;          // borrowed
  bool is_at_end;          // the newest line is in sight, and stays so when the text grows
  GtkTextTag *author_tag;  // belongs to the text
  // Template children.
  GtkButton *send_button;
  GtkButton *close_button;
  GtkEntry *chat_entry;
  GtkTextView *chat_text_view;
  GtkScrolledWindow *chat_scrolled_window;
};

G_DEFINE_TYPE (ClauseChatPage, clause_chat_page, GTK_TYPE_BOX)

static void
clause_chat_page_scroll_to_end (ClauseChatPage *self)
{
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (self->chat_scrolled_window);
  gtk_adjustment_set_value (adjustment, gtk_adjustment_get_upper (adjustment) -
                                          gtk_adjustment_get_page_size (adjustment));
}

// The text gets its height bit by bit, long after it was set, so that its end is followed rather
// than scrolled to once.
static void
clause_chat_page_vadjustment_changed_handle (GtkAdjustment *, ClauseChatPage *self)
{
  if (self->is_at_end) {
    clause_chat_page_scroll_to_end (self);
  }
}

static void
clause_chat_page_vadjustment_value_changed_handle (GtkAdjustment *adjustment, ClauseChatPage *self)
{
  double end = gtk_adjustment_get_upper (adjustment) - gtk_adjustment_get_page_size (adjustment);
  self->is_at_end = gtk_adjustment_get_value (adjustment) >= end - 1;
}

// A page opens at its end.
static void
clause_chat_page_map_handle (GtkWidget *, ClauseChatPage *self)
{
  self->is_at_end = true;
  clause_chat_page_scroll_to_end (self);
}

static void
clause_chat_page_send (ClauseChatPage *self, String text)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  // The lines of this chat are signed with the user name, unlike revisions and decisions.
  ClauseMessage *message = alloc_clause_message (0, self->clause->db_id, get_posix_time (),
                                                 window->account.username, text);
  db_insert_clause_message (window->db, message);
  clause_chat_page_add_message (self, message);
  clause_add_message (self->clause, message);
  xmpp_send_clause_message (window, self->procedure, self->clause, message);
}

// Moves the cursor to the end first: a click into the text may have taken it elsewhere.
static void
clause_chat_page_show_last_line (ClauseChatPage *self)
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
clause_chat_page_send_button_clicked_handle (GtkButton *, ClauseChatPage *self)
{
  String text = alloc_sendable_text (to_string (gtk_entry_get_text (self->chat_entry)));
  // What XML forbids is not sent, and of a text that had nothing else nothing is left.
  if (text.size) {
    clause_chat_page_send (self, text);
  }
  dealloc_string (text);
  gtk_entry_set_text (self->chat_entry, "");
  clause_chat_page_show_last_line (self);
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
  self->author_tag =
    gtk_text_buffer_create_tag (gtk_text_view_get_buffer (self->chat_text_view), NULL, "scale",
                                PANGO_SCALE_SMALL, "weight", PANGO_WEIGHT_BOLD, NULL);
  gtk_widget_grab_focus (GTK_WIDGET (self->chat_entry));
  g_signal_connect (self->send_button, "clicked",
                    G_CALLBACK (clause_chat_page_send_button_clicked_handle), self);
  g_signal_connect (self->close_button, "clicked",
                    G_CALLBACK (clause_chat_page_close_button_clicked_handle), self);
  g_signal_connect (self->chat_entry, "changed",
                    G_CALLBACK (clause_chat_page_chat_entry_changed_handle), self);
  g_signal_connect (self->chat_entry, "focus-in-event",
                    G_CALLBACK (clause_chat_page_chat_entry_focus_in_handle), self);
  g_signal_connect (self, "map", G_CALLBACK (clause_chat_page_map_handle), self);
  GtkAdjustment *vadjustment = gtk_scrolled_window_get_vadjustment (self->chat_scrolled_window);
  g_signal_connect_object (vadjustment, "changed",
                           G_CALLBACK (clause_chat_page_vadjustment_changed_handle), self,
                           (GConnectFlags) 0);
  g_signal_connect_object (vadjustment, "value-changed",
                           G_CALLBACK (clause_chat_page_vadjustment_value_changed_handle), self,
                           (GConnectFlags) 0);
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
clause_chat_page_add_message (ClauseChatPage *self, ClauseMessage *message)
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
  insert_text (text_buffer, &end, message->text, NULL);
}
