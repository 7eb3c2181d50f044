#include "wrapped_text.h"

#include <string.h>

// The width that a text asks for at least, in pixels: a short word beside the borders.
static const int LEAST_WIDTH = 80;

// What a line holds at most, in characters of usual width. The eye loses its way back from the end of a
// longer one.
static const int LINE_CHARS = 90;

// From how many bytes on a word is too long to be wrapped as one. Pango takes a tenth of a second for
// 3,000 letters, and three seconds for 30,000.
static const int LONG_WORD_SIZE = 2000;

static bool
has_long_word (const char *text, int size)
{
  int word_size = 0;
  for (int i = 0; i < size && word_size < LONG_WORD_SIZE; i++)
    word_size = g_ascii_isspace (text[i]) ? 0 : word_size + 1;
  return word_size == LONG_WORD_SIZE;
}

// ---- Texts ----

G_DEFINE_TYPE (WrappedText, wrapped_text, GTK_TYPE_TEXT_VIEW)

static void
wrapped_text_get_preferred_width (GtkWidget *widget, int *minimum, int *natural)
{
  GTK_WIDGET_CLASS (wrapped_text_parent_class)->get_preferred_width (widget, minimum, natural);
  *minimum = MIN (*minimum, LEAST_WIDTH);
}

static int
wrapped_text_get_line_width (GtkWidget *widget)
{
  PangoFontMetrics *metrics =
    pango_context_get_metrics (gtk_widget_get_pango_context (widget), NULL, NULL);
  int width = LINE_CHARS * pango_font_metrics_get_approximate_char_width (metrics);
  pango_font_metrics_unref (metrics);
  return PANGO_PIXELS (width);
}

// A log breaks at any letter by its template.
static bool
wrapped_text_is_log (WrappedText *self)
{
  return gtk_text_view_get_wrap_mode (GTK_TEXT_VIEW (self)) == GTK_WRAP_CHAR &&
         !self->has_long_word;
}

// Lines begin where they would without the margin, below the labels of their text. A log takes all the
// room.
static void
wrapped_text_size_allocate (GtkWidget *widget, GtkAllocation *allocation)
{
  GtkTextView *text_view = GTK_TEXT_VIEW (widget);
  int border_width = (int) gtk_container_get_border_width (GTK_CONTAINER (widget));
  int room = allocation->width - 2 * border_width;
  int margin = 0;
  if (!wrapped_text_is_log ((WrappedText *) widget))
    margin = MAX (0, room - wrapped_text_get_line_width (widget));
  bool is_rtl = gtk_widget_get_direction (widget) == GTK_TEXT_DIR_RTL;
  gtk_text_view_set_left_margin (text_view, is_rtl ? margin : 0);
  gtk_text_view_set_right_margin (text_view, is_rtl ? 0 : margin);
  GTK_WIDGET_CLASS (wrapped_text_parent_class)->size_allocate (widget, allocation);
}

// Whether the text scrolls by itself, as a chat does. A clause's text is as high as all its lines, and
// its page scrolls.
static bool
wrapped_text_scrolls (GtkWidget *widget)
{
  GtkWidget *parent = gtk_widget_get_parent (widget);
  if (!GTK_IS_SCROLLED_WINDOW (parent))
    return false;
  GtkPolicyType policy;
  gtk_scrolled_window_get_policy (GTK_SCROLLED_WINDOW (parent), NULL, &policy);
  return policy != GTK_POLICY_NEVER;
}

// GtkTextView draws a text that is larger than its window by way of a picture up to half as high again
// as that window. X refuses one of more than 32,767 pixels, and that ends the program. A text that its
// page scrolls has a window of its own size, but for the moment in which it wraps anew. The window grows
// ahead of its allocation then; the widget's own window around it clips what has no room yet.
static void
wrapped_text_make_window_fit (GtkScrollable *scrollable)
{
  GdkWindow *window = gtk_text_view_get_window (GTK_TEXT_VIEW (scrollable), GTK_TEXT_WINDOW_TEXT);
  int text_width = (int) gtk_adjustment_get_upper (gtk_scrollable_get_hadjustment (scrollable));
  int text_height = (int) gtk_adjustment_get_upper (gtk_scrollable_get_vadjustment (scrollable));
  int width = gdk_window_get_width (window), height = gdk_window_get_height (window);
  if (width < text_width || height < text_height)
    gdk_window_resize (window, MAX (width, text_width), MAX (height, text_height));
}

static gboolean
wrapped_text_draw (GtkWidget *widget, cairo_t *cr)
{
  if (!wrapped_text_scrolls (widget))
    wrapped_text_make_window_fit (GTK_SCROLLABLE (widget));
  return GTK_WIDGET_CLASS (wrapped_text_parent_class)->draw (widget, cr);
}

static void
wrapped_text_note_long_word (WrappedText *self, bool has_long_word)
{
  if (self->has_long_word == has_long_word)
    return;
  self->has_long_word = has_long_word;
  gtk_text_view_set_wrap_mode (GTK_TEXT_VIEW (self),
                               has_long_word ? GTK_WRAP_CHAR : GTK_WRAP_WORD_CHAR);
}

// Comes ahead of the insertion, and so of the layout. A long word that is deleted is forgotten with the
// rest of the text.
static void
wrapped_text_insert_text_handle (GtkTextBuffer *text_buffer, GtkTextIter *, char *text, int size,
                                 WrappedText *self)
{
  if (wrapped_text_is_log (self) || text_buffer != gtk_text_view_get_buffer (GTK_TEXT_VIEW (self)))
    return;
  bool had_one = self->has_long_word && gtk_text_buffer_get_char_count (text_buffer);
  wrapped_text_note_long_word (self, had_one || has_long_word (text, size));
}

static void
wrapped_text_buffer_handle (WrappedText *self)
{
  if (wrapped_text_is_log (self))
    return;
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (GTK_TEXT_VIEW (self));
  GtkTextIter start, end;
  gtk_text_buffer_get_bounds (text_buffer, &start, &end);
  char *text = gtk_text_buffer_get_slice (text_buffer, &start, &end, TRUE);
  wrapped_text_note_long_word (self, has_long_word (text, (int) strlen (text)));
  g_free (text);
  // It may have been shown before.
  g_signal_handlers_disconnect_by_func (text_buffer, (gpointer) wrapped_text_insert_text_handle,
                                        self);
  g_signal_connect_object (text_buffer, "insert-text", G_CALLBACK (wrapped_text_insert_text_handle),
                           self, (GConnectFlags) 0);
}

static void
wrapped_text_class_init (WrappedTextClass *text_class)
{
  GTK_WIDGET_CLASS (text_class)->size_allocate = wrapped_text_size_allocate;
  GTK_WIDGET_CLASS (text_class)->draw = wrapped_text_draw;
  GTK_WIDGET_CLASS (text_class)->get_preferred_width = wrapped_text_get_preferred_width;
}

static void
wrapped_text_init (WrappedText *self)
{
  g_signal_connect (self, "notify::buffer", G_CALLBACK (wrapped_text_buffer_handle), NULL);
}

// ---- Labels ----

G_DEFINE_TYPE (WrappedLabel, wrapped_label, GTK_TYPE_LABEL)

static void
wrapped_label_get_preferred_width (GtkWidget *widget, int *minimum, int *natural)
{
  GTK_WIDGET_CLASS (wrapped_label_parent_class)->get_preferred_width (widget, minimum, natural);
  *minimum = MIN (*minimum, LEAST_WIDTH);
}

static void
wrapped_label_label_handle (GtkLabel *label)
{
  const char *text = gtk_label_get_text (label);
  bool is_long = has_long_word (text, (int) strlen (text));
  gtk_label_set_line_wrap_mode (label, is_long ? PANGO_WRAP_CHAR : PANGO_WRAP_WORD_CHAR);
}

static void
wrapped_label_class_init (WrappedLabelClass *label_class)
{
  GTK_WIDGET_CLASS (label_class)->get_preferred_width = wrapped_label_get_preferred_width;
}

static void
wrapped_label_init (WrappedLabel *self)
{
  g_signal_connect (self, "notify::label", G_CALLBACK (wrapped_label_label_handle), NULL);
}
