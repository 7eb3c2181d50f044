#include "unsent_mark.h"

#include <string.h>

static const char UNSENT_CLASS[] = "not-sent";
static const char UNSENT_TEXT[] = "not sent yet";
static const char UNSENT_SUFFIX[] = " (not sent yet)";

static void
show_in_tooltip (GtkWidget *widget, bool is_unsent)
{
  char *old = gtk_widget_get_tooltip_text (widget);
  bool is_alone = !g_strcmp0 (old, UNSENT_TEXT);
  bool has_suffix = old && g_str_has_suffix (old, UNSENT_SUFFIX);
  if (is_unsent && !old) {
    gtk_widget_set_tooltip_text (widget, UNSENT_TEXT);
  } else if (is_unsent && !is_alone && !has_suffix) {
    char *text = g_strconcat (old, UNSENT_SUFFIX, NULL);
    gtk_widget_set_tooltip_text (widget, text);
    g_free (text);
  } else if (!is_unsent && is_alone) {
    gtk_widget_set_tooltip_text (widget, NULL);
  } else if (!is_unsent && has_suffix) {
    old[strlen (old) - strlen (UNSENT_SUFFIX)] = '\0';
    gtk_widget_set_tooltip_text (widget, old);
  }
  g_free (old);
}

void
unsent_mark_show (GtkWidget *widget, bool is_unsent)
{
  GtkStyleContext *style = gtk_widget_get_style_context (widget);
  // Nearly every widget is asked about something that left long ago.
  if (!is_unsent && !gtk_style_context_has_class (style, UNSENT_CLASS))
    return;
  show_in_tooltip (widget, is_unsent);
  atk_object_set_description (gtk_widget_get_accessible (widget), is_unsent ? UNSENT_TEXT : "");
  if (is_unsent) {
    gtk_style_context_add_class (style, UNSENT_CLASS);
  } else {
    gtk_style_context_remove_class (style, UNSENT_CLASS);
  }
}
