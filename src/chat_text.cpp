#include "chat_text.h"

#include "morvane.h"

// Of the text in a new window, in pixels.
static const int LIKELY_WIDTH = 400;

static void
chat_text_scroll_to_end (ChatText *self)
{
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (self->scrolled_window);
  gtk_adjustment_set_value (adjustment, gtk_adjustment_get_upper (adjustment) -
                                          gtk_adjustment_get_page_size (adjustment));
}

// The text gets its height bit by bit, long after it was set, so that its end is followed rather
// than scrolled to once.
static void
chat_text_vadjustment_changed_handle (GtkAdjustment *, ChatText *self)
{
  if (self->is_at_end)
    chat_text_scroll_to_end (self);
}

static void
chat_text_vadjustment_value_changed_handle (GtkAdjustment *adjustment, ChatText *self)
{
  double end = gtk_adjustment_get_upper (adjustment) - gtk_adjustment_get_page_size (adjustment);
  self->is_at_end = gtk_adjustment_get_value (adjustment) >= end - 1;
}

static void
chat_text_page_map_handle (GtkWidget *, ChatText *self)
{
  self->is_at_end = true;
  chat_text_scroll_to_end (self);
}

// The adjustment may outlive the page, and the record goes with it.
static void
chat_text_page_destroy_handle (GtkWidget *, ChatText *self)
{
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (self->scrolled_window);
  g_signal_handlers_disconnect_by_data (adjustment, self);
}

void
chat_text_init (ChatText *self, GtkWidget *page, GtkTextView *text_view,
                GtkScrolledWindow *scrolled_window)
{
  self->text_view = text_view;
  self->scrolled_window = scrolled_window;
  self->is_at_end = false;
  gtk_text_view_place (text_view, LIKELY_WIDTH);
  self->author_tag =
    gtk_text_buffer_create_tag (gtk_text_view_get_buffer (text_view), NULL, "scale",
                                PANGO_SCALE_SMALL, "weight", PANGO_WEIGHT_BOLD, NULL);
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (scrolled_window);
  g_signal_connect (adjustment, "changed", G_CALLBACK (chat_text_vadjustment_changed_handle), self);
  g_signal_connect (adjustment, "value-changed",
                    G_CALLBACK (chat_text_vadjustment_value_changed_handle), self);
  g_signal_connect (page, "map", G_CALLBACK (chat_text_page_map_handle), self);
  g_signal_connect (page, "destroy", G_CALLBACK (chat_text_page_destroy_handle), self);
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
chat_text_add_line (ChatText *self, String author, String text)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextIter end;
  gtk_text_buffer_get_end_iter (text_buffer, &end);
  if (gtk_text_buffer_get_char_count (text_buffer))
    gtk_text_buffer_insert (text_buffer, &end, "\n", 1);
  insert_text (text_buffer, &end, author, self->author_tag);
  insert_text (text_buffer, &end, to_string (":"), self->author_tag);
  insert_text (text_buffer, &end, to_string (" "), NULL);
  insert_text (text_buffer, &end, text, NULL);
}

// The cursor is moved first: a click into the text may have taken it elsewhere.
void
chat_text_show_last_line (ChatText *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextIter end;
  gtk_text_buffer_get_end_iter (text_buffer, &end);
  gtk_text_buffer_place_cursor (text_buffer, &end);
  self->is_at_end = true;
  gtk_text_view_scroll_mark_onscreen (self->text_view, gtk_text_buffer_get_insert (text_buffer));
}
