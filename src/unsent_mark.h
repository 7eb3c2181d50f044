// The mark of what was committed and did not go out: the style class "not-sent", and the words "not
// sent yet" as tooltip, behind the tooltip that the widget may have, and as accessible description.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

// Sets the mark, or takes it away; either may be asked for again.
void unsent_mark_show (GtkWidget *widget, bool is_unsent);
