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

static void
wrapped_text_class_init (WrappedTextClass *text_class)
{
  GTK_WIDGET_CLASS (text_class)->size_allocate = wrapped_text_size_allocate;
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
