#include "chat_text.h"

#include "morvane.h"
#include "shown_text.h"

// Of the text in a new window, in pixels.
static const int LIKELY_WIDTH = 400;
// How far all but the first line of a message is put in, in pixels.
static const int HANGING = 24;

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
  gtk_text_view_place (text_view, LIKELY_WIDTH);
  self->author_tag =
    gtk_text_buffer_create_tag (gtk_text_view_get_buffer (text_view), NULL, "scale",
                                PANGO_SCALE_SMALL, "weight", PANGO_WEIGHT_BOLD, NULL);
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (text_view);
  self->first_tag = gtk_text_buffer_create_tag (text_buffer, NULL, "indent", -HANGING, NULL);
  // On both sides: a line that is written to the left begins at the right. The text's own margins add
  // to it.
  self->continued_tag =
    gtk_text_buffer_create_tag (text_buffer, NULL, "left-margin", HANGING, "right-margin", HANGING,
                                "accumulative-margin", TRUE, NULL);
  GtkAdjustment *adjustment = gtk_scrolled_window_get_vadjustment (scrolled_window);
  g_signal_connect (adjustment, "changed", G_CALLBACK (chat_text_vadjustment_changed_handle), self);
  g_signal_connect (adjustment, "value-changed",
                    G_CALLBACK (chat_text_vadjustment_value_changed_handle), self);
  g_signal_connect (page, "map", G_CALLBACK (chat_text_page_map_handle), self);
  g_signal_connect (page, "destroy", G_CALLBACK (chat_text_page_destroy_handle), self);
}

// Only the first line of a message begins where authors do, so that no text can look like a line of
// someone else's.
static void
hang_message (ChatText *self, int start_offset)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextIter start;
  GtkTextIter continued;
  GtkTextIter end;
  gtk_text_buffer_get_iter_at_offset (text_buffer, &start, start_offset);
  gtk_text_buffer_get_end_iter (text_buffer, &end);
  continued = start;
  gtk_text_iter_forward_line (&continued);
  gtk_text_buffer_apply_tag (text_buffer, self->first_tag, &start, &continued);
  gtk_text_buffer_apply_tag (text_buffer, self->continued_tag, &continued, &end);
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
  int start_offset = gtk_text_iter_get_offset (&end);
  char *shown_author = alloc_shown_text (author);
  gtk_text_buffer_insert_with_tags (text_buffer, &end, shown_author, -1, self->author_tag, NULL);
  g_free (shown_author);
  gtk_text_buffer_insert_with_tags (text_buffer, &end, ":", 1, self->author_tag, NULL);
  gtk_text_buffer_insert (text_buffer, &end, " ", 1);
  // Only valid UTF-8 can be shown, and what comes from the network may be anything.
  char *valid = g_utf8_make_valid (text.size ? (const char *) text.data : "", (gssize) text.size);
  gtk_text_buffer_insert (text_buffer, &end, valid, -1);
  g_free (valid);
  hang_message (self, start_offset);
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
