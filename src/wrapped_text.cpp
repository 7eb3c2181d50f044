#include "wrapped_text.h"

// The width that a text asks for at least, in pixels: a short word beside the borders.
static const int LEAST_WIDTH = 80;

// ---- Texts ----

G_DEFINE_TYPE (WrappedText, wrapped_text, GTK_TYPE_TEXT_VIEW)

static void
wrapped_text_get_preferred_width (GtkWidget *widget, int *minimum, int *natural)
{
  GTK_WIDGET_CLASS (wrapped_text_parent_class)->get_preferred_width (widget, minimum, natural);
  *minimum = MIN (*minimum, LEAST_WIDTH);
}

static void
wrapped_text_class_init (WrappedTextClass *text_class)
{
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
