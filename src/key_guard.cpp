#include "key_guard.h"

// How long no key may come before keys are meant for what is shown, in milliseconds.
static const guint KEY_PAUSE = 1000;

static const char DATA_KEY[] = "morvane-key-guard";

struct KeyGuard {
  GtkWindow *window;  // borrowed; has the guard as its data
  gulong key_handler;
  gulong destroy_handler;
  GtkGesture *clicks;  // owned; sees each press in the window before any widget does
  guint pause_source;
};

static void
dealloc_key_guard (gpointer data)
{
  KeyGuard *self = (KeyGuard *) data;
  g_source_remove (self->pause_source);
  g_signal_handler_disconnect (self->window, self->key_handler);
  g_signal_handler_disconnect (self->window, self->destroy_handler);
  g_object_unref (self->clicks);
  g_free (self);
}

static gboolean
key_guard_pause_handle (gpointer window)
{
  key_guard_end (GTK_WINDOW (window));
  return G_SOURCE_REMOVE;
}

// The source comes after all events, so that keys which wait while the program is busy are no pause.
static void
key_guard_begin_pause (KeyGuard *self)
{
  if (self->pause_source)
    g_source_remove (self->pause_source);
  self->pause_source =
    g_timeout_add_full (G_PRIORITY_LOW, KEY_PAUSE, key_guard_pause_handle, self->window, NULL);
}

static gboolean
key_guard_key_press_handle (GtkWindow *window, GdkEventKey *event, KeyGuard *self)
{
  if (event->keyval == GDK_KEY_Escape) {
    key_guard_end (window);
    return FALSE;
  }
  key_guard_begin_pause (self);
  return TRUE;
}

static void
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): as GTK calls it.
key_guard_pressed_handle (GtkGestureMultiPress *, int, double, double, GtkWindow *window)
{
  key_guard_end (window);
}

void
key_guard_begin (GtkWindow *window)
{
  KeyGuard *self = (KeyGuard *) g_object_get_data (G_OBJECT (window), DATA_KEY);
  if (!self) {
    self = g_new0 (KeyGuard, 1);
    self->window = window;
    self->key_handler =
      g_signal_connect (window, "key-press-event", G_CALLBACK (key_guard_key_press_handle), self);
    self->destroy_handler = g_signal_connect (window, "destroy", G_CALLBACK (key_guard_end), NULL);
    self->clicks = gtk_gesture_multi_press_new (GTK_WIDGET (window));
    gtk_gesture_single_set_button (GTK_GESTURE_SINGLE (self->clicks), 0);
    gtk_event_controller_set_propagation_phase (GTK_EVENT_CONTROLLER (self->clicks),
                                                GTK_PHASE_CAPTURE);
    g_signal_connect (self->clicks, "pressed", G_CALLBACK (key_guard_pressed_handle), window);
    g_object_set_data_full (G_OBJECT (window), DATA_KEY, self, dealloc_key_guard);
  }
  key_guard_begin_pause (self);
}

void
key_guard_end (GtkWindow *window)
{
  g_object_set_data (G_OBJECT (window), DATA_KEY, NULL);
}

bool
key_guard_is_active (GtkWindow *window)
{
  return g_object_get_data (G_OBJECT (window), DATA_KEY) != NULL;
}
