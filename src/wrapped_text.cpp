#include "wrapped_text.h"

// The width that a text asks for at least, in pixels: a short word beside the borders.
static const int LEAST_WIDTH = 80;

// What a line holds at most, in characters of usual width. The eye loses its way back from the end of a
// longer one.
static const int LINE_CHARS = 90;

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

// Lines begin where they would without the margin, below the labels of their text. What breaks at any
// letter is a log, and takes all the room.
static void
wrapped_text_size_allocate (GtkWidget *widget, GtkAllocation *allocation)
{
  GtkTextView *text_view = GTK_TEXT_VIEW (widget);
  int border_width = (int) gtk_container_get_border_width (GTK_CONTAINER (widget));
  int room = allocation->width - 2 * border_width;
  int margin = 0;
  if (gtk_text_view_get_wrap_mode (text_view) != GTK_WRAP_CHAR)
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

// GtkTextView draws a text that is larger than its window by way of a picture up to half as high again as
// that window. X refuses one of more than 32,767 pixels, and that ends the program. A text that its page
// scrolls has a window of its own size, but for the moment in which it wraps anew. The window grows ahead
// of its allocation then; what has no room yet is clipped by the widget's own window around it.
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
wrapped_text_class_init (WrappedTextClass *text_class)
{
  GTK_WIDGET_CLASS (text_class)->size_allocate = wrapped_text_size_allocate;
  GTK_WIDGET_CLASS (text_class)->draw = wrapped_text_draw;
  GTK_WIDGET_CLASS (text_class)->get_preferred_width = wrapped_text_get_preferred_width;
}

static void
wrapped_text_init (WrappedText *)
{
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
wrapped_label_class_init (WrappedLabelClass *label_class)
{
  GTK_WIDGET_CLASS (label_class)->get_preferred_width = wrapped_label_get_preferred_width;
}

static void
wrapped_label_init (WrappedLabel *)
{
}
