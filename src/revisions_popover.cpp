#include "revisions_popover.h"

#include <gtk/gtk-a11y.h>

// A popover that joins its window when it is shown for the first time, and not when its button does.
// A window measures, places and moves all popovers that it has, seen or not, each time that anything
// in it gets another size or is scrolled, and a page has one popover a clause.
struct RevisionsPopover {
  GtkPopover parent_instance;
  bool is_waiting;  // not joined its window yet
};

struct RevisionsPopoverClass {
  GtkPopoverClass parent_class;
};

G_DEFINE_TYPE (RevisionsPopover, revisions_popover, GTK_TYPE_POPOVER)

// What assistive programs see of the popover. They may still ask when it is gone, and GTK's own
// accessible of popovers then asks the popover all the same.
struct RevisionsPopoverAccessible {
  GtkPopoverAccessible parent_instance;
};

struct RevisionsPopoverAccessibleClass {
  GtkPopoverAccessibleClass parent_class;
};

G_DEFINE_TYPE (RevisionsPopoverAccessible, revisions_popover_accessible,
               GTK_TYPE_POPOVER_ACCESSIBLE)

static AtkStateSet *
revisions_popover_accessible_ref_state_set (AtkObject *object)
{
  if (gtk_accessible_get_widget (GTK_ACCESSIBLE (object)))
    return ATK_OBJECT_CLASS (revisions_popover_accessible_parent_class)->ref_state_set (object);
  AtkStateSet *states = atk_state_set_new ();
  atk_state_set_add_state (states, ATK_STATE_DEFUNCT);
  return states;
}

static void
revisions_popover_accessible_class_init (RevisionsPopoverAccessibleClass *accessible_class)
{
  ATK_OBJECT_CLASS (accessible_class)->ref_state_set = revisions_popover_accessible_ref_state_set;
}

static void
revisions_popover_accessible_init (RevisionsPopoverAccessible *)
{
}

static void
revisions_popover_show (GtkWidget *widget)
{
  RevisionsPopover *self = (RevisionsPopover *) widget;
  if (self->is_waiting) {
    self->is_waiting = false;
    GtkPopover *popover = GTK_POPOVER (widget);
    GtkWidget *button = gtk_popover_get_relative_to (popover);
    // Set anew, it looks for its window, and follows the button from then on.
    g_object_ref (popover);
    gtk_popover_set_relative_to (popover, NULL);
    gtk_popover_set_relative_to (popover, button);
    g_object_unref (popover);
    // It takes a button whose page was not laid out yet for one that is scrolled out of sight.
    gtk_widget_set_child_visible (widget, TRUE);
  }
  GTK_WIDGET_CLASS (revisions_popover_parent_class)->show (widget);
}

static void
revisions_popover_class_init (RevisionsPopoverClass *popover_class)
{
  GTK_WIDGET_CLASS (popover_class)->show = revisions_popover_show;
  gtk_widget_class_set_accessible_type (GTK_WIDGET_CLASS (popover_class),
                                        revisions_popover_accessible_get_type ());
}

static void
revisions_popover_init (RevisionsPopover *self)
{
  self->is_waiting = true;
}

// A window of GTK 3 forgets to take the window of a popover out of its list when the popover leaves
// before it, as that of a removed clause does.
static void
revisions_popover_button_hierarchy_changed_handle (GtkMenuButton *button,
                                                   GtkWidget *previous_toplevel)
{
  GtkPopover *popover = gtk_menu_button_get_popover (button);
  if (!popover)
    return;
  GdkWindow *gdk_window = gtk_widget_get_parent_window (GTK_WIDGET (popover));
  gpointer owner = NULL;
  if (gdk_window)
    gdk_window_get_user_data (gdk_window, &owner);
  if (owner && owner == previous_toplevel)
    gtk_widget_unregister_window (previous_toplevel, gdk_window);
}

GtkPopover *
revisions_popover_new (GtkMenuButton *button)
{
  // Connected ahead of the popover, whose own handler gives its window up.
  g_signal_connect (button, "hierarchy-changed",
                    G_CALLBACK (revisions_popover_button_hierarchy_changed_handle), NULL);
  GtkWidget *popover =
    GTK_WIDGET (g_object_new (revisions_popover_get_type (), "relative-to", button, NULL));
  gtk_menu_button_set_popover (button, popover);
  // Its way of learning that the button came into a window.
  guint hierarchy_changed = g_signal_lookup ("hierarchy-changed", GTK_TYPE_WIDGET);
  g_signal_handlers_block_matched (button,
                                   (GSignalMatchType) (G_SIGNAL_MATCH_ID | G_SIGNAL_MATCH_DATA),
                                   hierarchy_changed, 0, NULL, NULL, popover);
  return GTK_POPOVER (popover);
}
