#include "window_state.h"

#include <errno.h>
#include <stdlib.h>

#include "morvane.h"

static const char GROUP[] = "Window";
static const char DIRECTORY_KEY[] = "Directory";
static const char WIDTH_KEY[] = "Width";
static const char HEIGHT_KEY[] = "Height";
static const char MAXIMIZED_KEY[] = "Maximized";
static const char PANE_KEY[] = "Lists";

// A window smaller than this shows nothing of use; in pixels.
static const int SIZE_MIN = 200;
static const int PANE_MIN = 80;

// ---- The file ----

char *
alloc_window_state_path ()
{
  // By whatever way a directory is reached, it has one file.
  char *directory = realpath (".", NULL);
  char *name = g_compute_checksum_for_string (G_CHECKSUM_SHA256, directory ? directory : ".", -1);
  free (directory);
  char *file_name = g_strconcat (name, ".ini", NULL);
  char *path = g_build_filename (g_get_user_state_dir (), "morvane", file_name, NULL);
  g_free (file_name);
  g_free (name);
  return path;
}

// A file that is not there yet leaves the key file empty, and is no failure.
static void
load_key_file (GKeyFile *key_file, const char *path, GError **error_out)
{
  GKeyFileFlags flags = (GKeyFileFlags) (G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
  (void) g_key_file_load_from_file (key_file, path, flags, error_out);
  if (g_error_matches (*error_out, G_FILE_ERROR, G_FILE_ERROR_NOENT))
    g_clear_error (error_out);
}

// Goes on with `state` only where all that went before is as it should be.
static void
read_number (GKeyFile *key_file, const char *key, int *number, GError **error)
{
  if (!*error)
    *number = g_key_file_get_integer (key_file, GROUP, key, error);
}

bool
read_window_state (const char *path, WindowState *state)
{
  GKeyFile *key_file = g_key_file_new ();
  GError *error = NULL;
  load_key_file (key_file, path, &error);
  if (!error && !g_key_file_has_group (key_file, GROUP)) {
    g_key_file_free (key_file);
    return false;
  }
  WindowState read = {};
  read_number (key_file, WIDTH_KEY, &read.width, &error);
  read_number (key_file, HEIGHT_KEY, &read.height, &error);
  read_number (key_file, PANE_KEY, &read.pane, &error);
  if (!error)
    read.is_maximized = g_key_file_get_boolean (key_file, GROUP, MAXIMIZED_KEY, &error);
  g_key_file_free (key_file);
  if (error) {
    console_log ("Warning: The looks of the window cannot be read: %s: %s\n", path, error->message);
    g_error_free (error);
    return false;
  }
  *state = read;
  return true;
}

void
write_window_state (const char *path, WindowState state)
{
  GKeyFile *key_file = g_key_file_new ();
  GError *error = NULL;
  // What cannot be read is written anew.
  load_key_file (key_file, path, &error);
  g_clear_error (&error);
  char *current = g_get_current_dir ();
  char *shown = g_filename_display_name (current);
  g_key_file_set_string (key_file, GROUP, DIRECTORY_KEY, shown);
  g_free (shown);
  g_free (current);
  g_key_file_set_integer (key_file, GROUP, WIDTH_KEY, state.width);
  g_key_file_set_integer (key_file, GROUP, HEIGHT_KEY, state.height);
  g_key_file_set_integer (key_file, GROUP, PANE_KEY, state.pane);
  g_key_file_set_boolean (key_file, GROUP, MAXIMIZED_KEY, state.is_maximized);
  char *directory = g_path_get_dirname (path);
  if (g_mkdir_with_parents (directory, 0700) < 0) {
    console_log ("Warning: The looks of the window cannot be kept: %s: %s\n", directory,
                 g_strerror (errno));
  } else if (!g_key_file_save_to_file (key_file, path, &error)) {
    console_log ("Warning: The looks of the window cannot be kept: %s\n", error->message);
    g_error_free (error);
  }
  g_free (directory);
  g_key_file_free (key_file);
}

WindowState
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): their names tell.
clamp_window_state (WindowState state, int screen_width, int screen_height)
{
  state.width = CLAMP (state.width, MIN (SIZE_MIN, screen_width), screen_width);
  state.height = CLAMP (state.height, MIN (SIZE_MIN, screen_height), screen_height);
  // What a maximized window has for the lists may be more than the other has.
  int width = state.is_maximized ? screen_width : state.width;
  state.pane = CLAMP (state.pane, PANE_MIN, MAX (PANE_MIN, width));
  return state;
}

// ---- A window ----

// How long the looks have to last before they are kept, in milliseconds: a window manager that maximizes
// a window may tell the size first.
static const guint SETTLING = 300;

// What follows a window; goes with it.
struct Follower {
  char *path;         // owned; of the directory in which the window was made
  WindowState state;  // of the window as it was last
  WindowState kept;   // what is in the file, or what a window looks like without one
  GtkWindow *window;  // borrowed, like `pane`
  GtkPaned *pane;
  guint settling_source;  // looks at the window once its looks have lasted; 0 for none
};

static void
follower_stop_settling (Follower *self)
{
  if (self->settling_source)
    g_source_remove (self->settling_source);
  self->settling_source = 0;
}

static void
dealloc_follower (gpointer data, GClosure *)
{
  Follower *self = (Follower *) data;
  follower_stop_settling (self);
  g_free (self->path);
  g_free (self);
}

// The size that a window gets by being maximized is not one that it goes back to.
static void
follower_look (Follower *self)
{
  GdkWindow *gdk_window = gtk_widget_get_window (GTK_WIDGET (self->window));
  if (!gdk_window)
    return;
  GdkWindowState state = gdk_window_get_state (gdk_window);
  self->state.is_maximized = state & GDK_WINDOW_STATE_MAXIMIZED;
  if (!(state &
        (GDK_WINDOW_STATE_MAXIMIZED | GDK_WINDOW_STATE_FULLSCREEN | GDK_WINDOW_STATE_TILED)))
    gtk_window_get_size (self->window, &self->state.width, &self->state.height);
  self->state.pane = gtk_paned_get_position (self->pane);
}

static void
follower_keep (Follower *self)
{
  follower_stop_settling (self);
  follower_look (self);
  const WindowState *a = &self->state;
  const WindowState *b = &self->kept;
  if (a->width == b->width && a->height == b->height && a->is_maximized == b->is_maximized &&
      a->pane == b->pane)
    return;
  self->kept = self->state;
  write_window_state (self->path, self->state);
}

static gboolean
follower_settle (gpointer data)
{
  Follower *self = (Follower *) data;
  self->settling_source = 0;
  follower_keep (self);
  return G_SOURCE_REMOVE;
}

static void
follower_begin_settling (Follower *self)
{
  follower_stop_settling (self);
  self->settling_source = gdk_threads_add_timeout (SETTLING, follower_settle, self);
}

static gboolean
follower_event_handle (GtkWidget *, GdkEvent *, Follower *self)
{
  follower_begin_settling (self);
  return FALSE;
}

// The part of a screen that panels leave free, where a new window is likely to come up.
static GdkRectangle
get_workarea (GtkWidget *widget)
{
  GdkRectangle workarea = {0, 0, G_MAXSHORT, G_MAXSHORT};
  GdkDisplay *display = gtk_widget_get_display (widget);
  GdkMonitor *monitor = gdk_display_get_primary_monitor (display);
  if (!monitor)
    monitor = gdk_display_get_monitor (display, 0);
  if (monitor)
    gdk_monitor_get_workarea (monitor, &workarea);
  return workarea;
}

void
window_state_follow (GtkWindow *window, GtkPaned *pane)
{
  Follower *self = g_new0 (Follower, 1);
  self->path = alloc_window_state_path ();
  self->window = window;
  self->pane = pane;
  gtk_window_get_default_size (window, &self->state.width, &self->state.height);
  self->state.pane = gtk_paned_get_position (pane);
  if (read_window_state (self->path, &self->state)) {
    GdkRectangle workarea = get_workarea (GTK_WIDGET (window));
    self->state = clamp_window_state (self->state, workarea.width, workarea.height);
    gtk_window_set_default_size (window, self->state.width, self->state.height);
    gtk_paned_set_position (pane, self->state.pane);
    if (self->state.is_maximized)
      gtk_window_maximize (window);
  }
  self->kept = self->state;
  g_signal_connect (window, "configure-event", G_CALLBACK (follower_event_handle), self);
  g_signal_connect (window, "window-state-event", G_CALLBACK (follower_event_handle), self);
  g_signal_connect_swapped (pane, "notify::position", G_CALLBACK (follower_begin_settling), self);
  // Hidden is what a window is first when it goes, while all of it is still there.
  g_signal_connect_data (window, "unmap", G_CALLBACK (follower_keep), self, dealloc_follower,
                         G_CONNECT_SWAPPED);
}
