#include "decision_buttons.h"

#include "shown_text.h"
#include "unsent_mark.h"

// How long a press on a decision button may be meant for what was shown before, in microseconds.
static const s64 HASTE_MAX = 500000;

static void
decision_buttons_pressed_handle (GtkButton *, DecisionButtons *self)
{
  self->press_time = g_get_monotonic_time ();
}

// After the click, where the press ended on the button.
static void
decision_buttons_released_handle (GtkButton *, DecisionButtons *self)
{
  self->press_time = 0;
}

void
decision_buttons_init (DecisionButtons *self, GtkButton *agree_button, GtkButton *disagree_button)
{
  self->agree_button = agree_button;
  self->disagree_button = disagree_button;
  GtkButton *buttons[] = {agree_button, disagree_button};
  for (GtkButton *button : buttons) {
    g_signal_connect (button, "pressed", G_CALLBACK (decision_buttons_pressed_handle), self);
    g_signal_connect (button, "released", G_CALLBACK (decision_buttons_released_handle), self);
  }
}

void
decision_buttons_set_sensitive (DecisionButtons *self, gboolean agree, gboolean disagree)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->agree_button), agree);
  gtk_widget_set_sensitive (GTK_WIDGET (self->disagree_button), disagree);
}

// Belongs to the caller (`g_free`). Seconds stay seconds where no calendar goes that far.
static char *
alloc_local_time (s64 time)
{
  GDateTime *date_time = g_date_time_new_from_unix_local (time);
  if (!date_time)
    return g_strdup_printf ("%ld", time);
  char *text = g_date_time_format (date_time, "%F %T");
  g_date_time_unref (date_time);
  return text;
}

void
decision_buttons_show_revision (DecisionButtons *self, ClauseRevision *revision)
{
  if (!revision) {
    gtk_widget_set_tooltip_text (GTK_WIDGET (self->agree_button), "Agree");
    gtk_widget_set_tooltip_text (GTK_WIDGET (self->disagree_button), "Disagree");
    return;
  }
  char *time = alloc_local_time (revision->time);
  char *author = alloc_shown_text (revision->author);
  char *name = g_strdup_printf ("the revision of %s, %s", author, time);
  g_free (author);
  char *agree = g_strconcat ("Agree with ", name, NULL);
  char *disagree = g_strconcat ("Disagree with ", name, NULL);
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->agree_button), agree);
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->disagree_button), disagree);
  g_free (disagree);
  g_free (agree);
  g_free (name);
  g_free (time);
}

void
decision_buttons_show_unsent (DecisionButtons *self, bool is_agree_unsent, bool is_disagree_unsent)
{
  unsent_mark_show (GTK_WIDGET (self->agree_button), is_agree_unsent);
  unsent_mark_show (GTK_WIDGET (self->disagree_button), is_disagree_unsent);
}

// ---- Haste ----

static bool
is_below_pointer (GtkButton *button)
{
  GtkWidget *widget = GTK_WIDGET (button);
  if (gtk_widget_has_focus (widget))
    return true;
  GdkWindow *gdk_window = gtk_widget_get_window (widget);
  GdkSeat *seat = gdk_display_get_default_seat (gtk_widget_get_display (widget));
  int x;
  int y;
  gdk_window_get_device_position (gdk_window, gdk_seat_get_pointer (seat), &x, &y, NULL);
  GtkAllocation place;
  gtk_widget_get_allocation (widget, &place);
  bool is_beside = x >= place.x && x < place.x + place.width;
  // Without a place yet, it is as small as a widget can be.
  return place.width > 1 && is_beside && y >= place.y && y < place.y + place.height;
}

void
decision_buttons_note_arrival (DecisionButtons *self, GtkButton *const other_buttons[2])
{
  self->was_about_to_press = false;
  if (!gtk_widget_get_mapped (GTK_WIDGET (self->agree_button)))
    return;
  self->arrival_time = g_get_monotonic_time ();
  GtkButton *buttons[] = {self->agree_button, self->disagree_button, other_buttons[0],
                          other_buttons[1]};
  for (GtkButton *button : buttons)
    self->was_about_to_press |= is_below_pointer (button);
}

bool
decision_buttons_are_hasty (DecisionButtons *self)
{
  s64 time = self->press_time ? self->press_time : g_get_monotonic_time ();
  return self->was_about_to_press && time < self->arrival_time + HASTE_MAX;
}
