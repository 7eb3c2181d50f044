#include "clause_text.h"

#include "morvane.h"
#include "xml.h"

// Of a text in a new window, in pixels.
static const int LIKELY_TEXT_WIDTH = 400;

// ---- The page ----

// A text that wraps is never scrolled sideways: room for the cursor behind a full line would cost
// the first column a pixel.
static void
clause_text_hadjustment_value_changed_handle (GtkAdjustment *adjustment, gpointer)
{
  gtk_adjustment_set_value (adjustment, 0);
}

static gboolean
clause_text_resize (gpointer text_view)
{
  gtk_widget_queue_resize (GTK_WIDGET (text_view));
  return G_SOURCE_REMOVE;
}

// A text that gets another width is laid out anew while it is placed, too late to ask for the height
// that it now has: below a long one there would be pages of nothing. So it is asked once more.
static void
clause_text_size_allocate_handle (GtkWidget *text_view, GdkRectangle *place, ClauseText *self)
{
  if (place->width == self->width)
    return;
  self->width = place->width;
  gdk_threads_add_idle_full (G_PRIORITY_DEFAULT_IDLE, clause_text_resize, g_object_ref (text_view),
                             g_object_unref);
}

// Once the text has its new size.
static gboolean
clause_text_scroll_to_cursor (gpointer data)
{
  GtkTextView *text_view = GTK_TEXT_VIEW (data);
  GtkWidget *widget = GTK_WIDGET (text_view);
  GtkWidget *viewport = gtk_widget_get_ancestor (widget, GTK_TYPE_VIEWPORT);
  if (!viewport || !gtk_widget_get_mapped (widget) || !gtk_widget_has_focus (widget))
    return G_SOURCE_REMOVE;
  GdkRectangle cursor;
  gtk_text_view_get_cursor_locations (text_view, NULL, &cursor, NULL);
  gtk_text_view_buffer_to_window_coords (text_view, GTK_TEXT_WINDOW_WIDGET, 0, cursor.y, NULL,
                                         &cursor.y);
  int y = 0;
  gtk_widget_translate_coordinates (widget, gtk_bin_get_child (GTK_BIN (viewport)), 0, cursor.y,
                                    NULL, &y);
  gtk_adjustment_clamp_page (gtk_scrollable_get_vadjustment (GTK_SCROLLABLE (viewport)), y,
                             y + cursor.height);
  return G_SOURCE_REMOVE;
}

static void
clause_text_cursor_moved_handle (GtkTextBuffer *, GParamSpec *, ClauseText *self)
{
  if (gtk_widget_has_focus (GTK_WIDGET (self->text_view)))
    gdk_threads_add_idle_full (G_PRIORITY_DEFAULT_IDLE, clause_text_scroll_to_cursor,
                               g_object_ref (self->text_view), g_object_unref);
}

void
clause_text_place (ClauseText *self)
{
  // It is measured here, and need not be asked once more.
  self->width = LIKELY_TEXT_WIDTH;
  gtk_text_view_place (self->text_view, LIKELY_TEXT_WIDTH);
}

// ---- Following ----

static void
clause_text_connect_buffer (ClauseText *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  g_signal_connect (text_buffer, "changed", self->changed_handler, self->owner);
  g_signal_connect (text_buffer, "notify::cursor-position", self->cursor_handler, self->owner);
  g_signal_connect (text_buffer, "notify::cursor-position",
                    G_CALLBACK (clause_text_cursor_moved_handle), self);
}

void
clause_text_init (ClauseText *self, GtkTextView *text_view)
{
  self->text_view = text_view;
  g_signal_connect (gtk_scrollable_get_hadjustment (GTK_SCROLLABLE (text_view)), "value-changed",
                    G_CALLBACK (clause_text_hadjustment_value_changed_handle), NULL);
  g_signal_connect (text_view, "size-allocate", G_CALLBACK (clause_text_size_allocate_handle),
                    self);
}

void
clause_text_finalize (ClauseText *self)
{
  dealloc_text_history (self->history);
}

void
clause_text_follow (ClauseText *self)
{
  self->history = alloc_text_history (gtk_text_view_get_buffer (self->text_view));
  clause_text_connect_buffer (self);
}

void
clause_text_look_away (ClauseText *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  g_signal_handlers_disconnect_by_func (text_buffer, (gpointer) self->changed_handler, self->owner);
  text_history_pause (self->history);
  g_signal_handlers_block_by_func (text_buffer, (gpointer) clause_text_cursor_moved_handle, self);
  g_signal_handlers_block_by_func (text_buffer, (gpointer) self->cursor_handler, self->owner);
}

void
clause_text_look_back (ClauseText *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  g_signal_connect (text_buffer, "changed", self->changed_handler, self->owner);
  text_history_resume (self->history);
  g_signal_handlers_unblock_by_func (text_buffer, (gpointer) clause_text_cursor_moved_handle, self);
  g_signal_handlers_unblock_by_func (text_buffer, (gpointer) self->cursor_handler, self->owner);
}

void
clause_text_change_buffer (ClauseText *self, GtkTextBuffer *text_buffer)
{
  GtkTextBuffer *previous_text_buffer = gtk_text_view_get_buffer (self->text_view);
  g_signal_handlers_disconnect_by_data (previous_text_buffer, self->owner);
  g_signal_handlers_disconnect_by_data (previous_text_buffer, self);
  gtk_text_view_set_buffer (self->text_view, text_buffer);
  text_history_set_text_buffer (self->history, text_buffer);
  clause_text_connect_buffer (self);
}

// ---- The text ----

void
clause_text_set (ClauseText *self, String text)
{
  clause_text_look_away (self);
  gtk_text_buffer_set_text (gtk_text_view_get_buffer (self->text_view),
                            text.size ? (const char *) text.data : "", (gint) text.size);
  clause_text_look_back (self);
}

String
clause_text_alloc (ClauseText *self)
{
  char *text = gtk_text_buffer_get_all_text (gtk_text_view_get_buffer (self->text_view));
  String sendable = alloc_sendable_text (to_string (text));
  g_free (text);
  return sendable;
}

int
clause_text_get_cursor (ClauseText *self)
{
  int cursor;
  g_object_get (gtk_text_view_get_buffer (self->text_view), "cursor-position", &cursor, NULL);
  return cursor;
}

void
clause_text_place_cursor (ClauseText *self, int cursor)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (text_buffer, &iter, cursor);
  clause_text_look_away (self);
  gtk_text_buffer_place_cursor (text_buffer, &iter);
  clause_text_look_back (self);
}
