// The popover that a clause's list of revisions is in. It joins its window when it is shown for the first
// time, leaves the window's list of popovers when it goes, and answers assistive programs after that.
//
// Ownership: a widget; the button owns it.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

// An empty popover that the button opens. The button must have none yet.
GtkPopover *revisions_popover_new (GtkMenuButton *button);
