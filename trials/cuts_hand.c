// Preloaded into the program: presses the buttons of its windows and writes into its entries at the
// word of a trial, which so does in a millisecond what takes a second with a mouse.
//
// Standard input brings commands, one a line, and the descriptor that MORVANE_HAND names takes one
// line of answer to each. An empty line ends an act: its commands are done before the program's loop
// goes on, so that nothing is received between them.
//
//   press NTH NAME         presses the button of that accessible name, as a click does
//   write NTH NAME|TEXT    puts the text in the place of what the entry or text holds
//   read NTH NAME          "text ..." of the entry or text
//   count NAME             how many widgets of the name can be seen
//   ready NTH NAME         whether the button of the name can be pressed
//   row TEXT               activates the row of a list with a label of that text
//   labels                 "text ..." of every label that can be seen, one after the other
//   title                  "text ..." of the window's title
//   do NAME                the window's action of that name
//   key NAME               presses the key of that name
//   close                  closes the window
//
// Widgets are counted in the order in which they stand, from 0. The answer is "ok", a number,
// "text ...", "none" where there is no such widget and "off" where it is not sensitive. In texts a
// line feed is "\n" and a backslash "\\".
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <glib-unix.h>
#include <gtk/gtk.h>

typedef int ApplicationRun (GApplication *application, int count, char **arguments);

// What is looked for, and what was found so far.
typedef struct {
  const char *name;  // NULL for any
  GType type;        // of the widget
  int skip;          // widgets to pass over, -1 to only count
  int count;
  GtkWidget *found;
} Search;

static GtkApplication *application;
static int answers = -1;
static GString *input;

// ---- Texts ----

static void
append_escaped (GString *line, const char *text)
{
  for (; *text; text++) {
    if (*text == '\\' || *text == '\n')
      g_string_append_c (line, '\\');
    g_string_append_c (line, *text == '\n' ? 'n' : *text);
  }
}

// Undoes the escapes in place.
static void
unescape (char *text)
{
  char *to = text;
  for (; *text; text++) {
    if (*text == '\\' && text[1]) {
      text++;
      *to++ = *text == 'n' ? '\n' : *text;
    } else {
      *to++ = *text;
    }
  }
  *to = '\0';
}

static void
answer (const char *kind, const char *text)
{
  GString *line = g_string_new (kind);
  if (text)
    append_escaped (line, text);
  g_string_append_c (line, '\n');
  for (gsize at = 0; at < line->len;) {
    ssize_t size = write (answers, line->str + at, line->len - at);
    if (size < 0 && errno != EINTR)
      abort ();
    at += size > 0 ? (gsize) size : 0;
  }
  g_string_free (line, TRUE);
}

static void
answer_number (int number)
{
  char text[16];
  g_snprintf (text, sizeof (text), "%d", number);
  answer (text, NULL);
}

// ---- Widgets ----

static gboolean
is_wanted (GtkWidget *widget, const Search *search)
{
  if (!G_TYPE_CHECK_INSTANCE_TYPE (widget, search->type) &&
      !(search->type == GTK_TYPE_TEXT_VIEW && GTK_IS_ENTRY (widget)))
    return FALSE;
  const char *name = atk_object_get_name (gtk_widget_get_accessible (widget));
  return !search->name || (name && !strcmp (name, search->name));
}

static void
look_at (GtkWidget *widget, gpointer data)
{
  Search *search = (Search *) data;
  if (search->found || !gtk_widget_get_mapped (widget) || !gtk_widget_get_child_visible (widget))
    return;
  if (is_wanted (widget, search)) {
    search->count++;
    if (search->skip-- == 0)
      search->found = widget;
  }
  // What is inside of a button or an entry is a part of it.
  if (GTK_IS_CONTAINER (widget) && !GTK_IS_BUTTON (widget))
    gtk_container_forall (GTK_CONTAINER (widget), look_at, search);
}

static GtkWindow *
get_window (void)
{
  GList *windows = application ? gtk_application_get_windows (application) : NULL;
  return windows ? GTK_WINDOW (windows->data) : NULL;
}

static Search
search_window (const char *name, GType type, int skip)
{
  Search search = {name, type, skip, 0, NULL};
  GtkWindow *window = get_window ();
  if (window)
    look_at (GTK_WIDGET (window), &search);
  return search;
}

// ---- Commands ----

static void
press (int nth, const char *name, gboolean is_question)
{
  GtkWidget *button = search_window (name, GTK_TYPE_BUTTON, nth).found;
  if (!button || !gtk_widget_is_sensitive (button)) {
    answer (button ? "off" : "none", NULL);
    return;
  }
  if (!is_question)
    gtk_button_clicked (GTK_BUTTON (button));
  answer ("ok", NULL);
}

static void
write_text (int nth, char *name)
{
  char *text = strchr (name, '|');
  if (!text)
    abort ();
  *text++ = '\0';
  unescape (text);
  GtkWidget *widget = search_window (name, GTK_TYPE_TEXT_VIEW, nth).found;
  if (!widget || !gtk_widget_is_sensitive (widget)) {
    answer (widget ? "off" : "none", NULL);
    return;
  }
  gtk_widget_grab_focus (widget);
  if (GTK_IS_ENTRY (widget)) {
    gtk_entry_set_text (GTK_ENTRY (widget), text);
  } else {
    GtkTextBuffer *buffer = gtk_text_view_get_buffer (GTK_TEXT_VIEW (widget));
    GtkTextIter start, end;
    gtk_text_buffer_get_bounds (buffer, &start, &end);
    gtk_text_buffer_delete_interactive (buffer, &start, &end, TRUE);
    g_signal_emit_by_name (widget, "insert-at-cursor", text);
  }
  answer ("ok", NULL);
}

static void
read_text (int nth, const char *name)
{
  GtkWidget *widget = search_window (name, GTK_TYPE_TEXT_VIEW, nth).found;
  if (!widget) {
    answer ("none", NULL);
  } else if (GTK_IS_ENTRY (widget)) {
    answer ("text ", gtk_entry_get_text (GTK_ENTRY (widget)));
  } else {
    GtkTextBuffer *buffer = gtk_text_view_get_buffer (GTK_TEXT_VIEW (widget));
    GtkTextIter start, end;
    gtk_text_buffer_get_bounds (buffer, &start, &end);
    char *text = gtk_text_buffer_get_text (buffer, &start, &end, TRUE);
    answer ("text ", text);
    g_free (text);
  }
}

static void
activate_row (const char *text)
{
  GtkWidget *label = search_window (text, GTK_TYPE_LABEL, 0).found;
  GtkWidget *row = label ? gtk_widget_get_ancestor (label, GTK_TYPE_LIST_BOX_ROW) : NULL;
  if (row)
    g_signal_emit_by_name (gtk_widget_get_parent (row), "row-activated", row);
  answer (row ? "ok" : "none", NULL);
}

static void
tell_labels (void)
{
  GString *texts = g_string_new (NULL);
  for (int nth = 0;; nth++) {
    GtkWidget *label = search_window (NULL, GTK_TYPE_LABEL, nth).found;
    if (!label)
      break;
    g_string_append_printf (texts, "%s\n", gtk_label_get_text (GTK_LABEL (label)));
  }
  answer ("text ", texts->str);
  g_string_free (texts, TRUE);
}

static void
activate_action (const char *name)
{
  GtkWindow *window = get_window ();
  gboolean is_there = window && g_action_group_has_action (G_ACTION_GROUP (window), name);
  if (is_there)
    g_action_group_activate_action (G_ACTION_GROUP (window), name, NULL);
  answer (is_there ? "ok" : "none", NULL);
}

static void
press_key (const char *name)
{
  GtkWindow *window = get_window ();
  if (window) {
    GdkEvent *event = gdk_event_new (GDK_KEY_PRESS);
    event->key.window = g_object_ref (gtk_widget_get_window (GTK_WIDGET (window)));
    event->key.keyval = gdk_keyval_from_name (name);
    GdkDisplay *display = gtk_widget_get_display (GTK_WIDGET (window));
    gdk_event_set_device (event, gdk_seat_get_keyboard (gdk_display_get_default_seat (display)));
    gtk_widget_event (GTK_WIDGET (window), event);
    gdk_event_free (event);
  }
  answer (window ? "ok" : "none", NULL);
}

static void
close_window (void)
{
  GtkWindow *window = get_window ();
  answer (window ? "ok" : "none", NULL);
  if (window)
    gtk_window_close (window);
}

static void
tell_title (void)
{
  GtkWindow *window = get_window ();
  answer (window ? "text " : "none", window ? gtk_window_get_title (window) : NULL);
}

static void
obey (char *line)
{
  char *rest = strchr (line, ' ');
  if (rest)
    *rest++ = '\0';
  if (!rest)
    rest = line + strlen (line);
  char *name = rest;
  int nth = (int) strtol (rest, &name, 10);
  name += *name == ' ';
  if (!strcmp (line, "press") || !strcmp (line, "ready"))
    press (nth, name, *line == 'r');
  else if (!strcmp (line, "write"))
    write_text (nth, name);
  else if (!strcmp (line, "read"))
    read_text (nth, name);
  else if (!strcmp (line, "count"))
    answer_number (search_window (rest, GTK_TYPE_WIDGET, -1).count);
  else if (!strcmp (line, "row"))
    activate_row (rest);
  else if (!strcmp (line, "labels"))
    tell_labels ();
  else if (!strcmp (line, "title"))
    tell_title ();
  else if (!strcmp (line, "do"))
    activate_action (rest);
  else if (!strcmp (line, "key"))
    press_key (rest);
  else if (!strcmp (line, "close"))
    close_window ();
  else
    abort ();
}

// ---- The line ----

// The trial that is gone needs no program any more.
static gboolean
take_input (gint file, GIOCondition condition, gpointer data)
{
  (void) condition;
  (void) data;
  char bytes[4096];
  ssize_t size;
  while ((size = read (file, bytes, sizeof (bytes))) > 0)
    g_string_append_len (input, bytes, size);
  if (!size)
    _exit (0);
  char *end;
  while ((end = strstr (input->str, "\n\n"))) {
    char *act = g_strndup (input->str, (gsize) (end - input->str));
    g_string_erase (input, 0, end + 2 - input->str);
    char **lines = g_strsplit (act, "\n", -1);
    for (char **line = lines; *line; line++)
      obey (*line);
    g_strfreev (lines);
    g_free (act);
  }
  return G_SOURCE_CONTINUE;
}

// The program calls this once, ahead of its loop.
int
g_application_run (GApplication *run_application, int count, char **arguments)
{
  ApplicationRun *run = (ApplicationRun *) dlsym (RTLD_NEXT, "g_application_run");
  const char *number = getenv ("MORVANE_HAND");
  if (number) {
    answers = (int) strtol (number, NULL, 10);
    fcntl (answers, F_SETFD, FD_CLOEXEC);
    application = GTK_APPLICATION (run_application);
    input = g_string_new (NULL);
    fcntl (STDIN_FILENO, F_SETFL, fcntl (STDIN_FILENO, F_GETFL) | O_NONBLOCK);
    g_unix_fd_add (STDIN_FILENO, G_IO_IN | G_IO_HUP, take_input, NULL);
  }
  return run (run_application, count, arguments);
}
