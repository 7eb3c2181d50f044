#include "delivery_notice.h"

#include "shown_text.h"

// Characters of a text and of a reason that are shown; more would push the page away.
static const glong SHOWN_MAX = 120;

// What a notice has room for. A wrapped label without a limit asks for the height of one letter a line,
// and the window would grow to that.
static const int LINES_MAX = 10;

static char *
alloc_short_text (String text)
{
  char *valid = g_utf8_make_valid (text.size ? (const char *) text.data : "", (gssize) text.size);
  bool is_long = g_utf8_strlen (valid, -1) > SHOWN_MAX;
  char *start = is_long ? g_utf8_substring (valid, 0, SHOWN_MAX) : g_strdup (valid);
  char *shown = alloc_shown_text (to_string (start));
  char *shortened = g_strconcat (shown, is_long ? "\u2026" : NULL, NULL);
  g_free (shown);
  g_free (start);
  g_free (valid);
  return shortened;
}

static char *
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): their names tell.
alloc_notice (String to, const char *kind, String text, String reason)
{
  char *shown_to = alloc_short_text (to);
  char *shown_text = alloc_short_text (text);
  char *shown_reason = alloc_short_text (reason);
  char *notice = g_strdup_printf ("Not delivered to %s (%s): %s\u201c%s\u201d", shown_to,
                                  shown_reason, kind, shown_text);
  g_free (shown_reason);
  g_free (shown_text);
  g_free (shown_to);
  return notice;
}

// Hidden at once: an info bar that slides away keeps its place until the next frame.
static void
delivery_notice_response_handle (GtkInfoBar *bar, int, gpointer)
{
  gtk_widget_hide (GTK_WIDGET (bar));
}

static GtkWidget *
delivery_notice_new ()
{
  GtkWidget *bar = gtk_info_bar_new ();
  GtkWidget *button = gtk_info_bar_add_button (GTK_INFO_BAR (bar), "_Dismiss", GTK_RESPONSE_CLOSE);
  gtk_widget_set_name (bar, "delivery_notice");
  gtk_widget_set_name (button, "dismiss_button");
  gtk_info_bar_set_message_type (GTK_INFO_BAR (bar), GTK_MESSAGE_WARNING);
  GtkWidget *label = gtk_label_new (NULL);
  gtk_label_set_line_wrap (GTK_LABEL (label), TRUE);
  gtk_label_set_line_wrap_mode (GTK_LABEL (label), PANGO_WRAP_WORD_CHAR);
  gtk_label_set_lines (GTK_LABEL (label), LINES_MAX);
  gtk_label_set_ellipsize (GTK_LABEL (label), PANGO_ELLIPSIZE_END);
  gtk_label_set_xalign (GTK_LABEL (label), 0);
  gtk_widget_set_name (label, "notice_label");
  gtk_container_add (GTK_CONTAINER (gtk_info_bar_get_content_area (GTK_INFO_BAR (bar))), label);
  g_object_set_data (G_OBJECT (bar), "label", label);
  g_signal_connect (bar, "response", G_CALLBACK (delivery_notice_response_handle), NULL);
  return bar;
}

void
delivery_notice_show (GtkBox *page, String to, const char *kind, String text, String reason)
{
  GtkWidget *bar = (GtkWidget *) g_object_get_data (G_OBJECT (page), "delivery-notice");
  if (!bar) {
    bar = delivery_notice_new ();
    g_object_set_data (G_OBJECT (page), "delivery-notice", bar);
    gtk_box_pack_start (page, bar, FALSE, FALSE, 0);
    gtk_box_reorder_child (page, bar, 0);
  }
  char *notice = alloc_notice (to, kind, text, reason);
  GtkWidget *label = GTK_WIDGET (g_object_get_data (G_OBJECT (bar), "label"));
  gtk_label_set_text (GTK_LABEL (label), notice);
  gtk_widget_set_tooltip_text (label, notice);
  g_free (notice);
  gtk_widget_show_all (bar);
}
