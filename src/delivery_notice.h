// The bar at the top of a page that tells what came back undelivered. Made when there is something to
// tell; one that the user dismissed appears again with the next news.
//
// Ownership: the page owns the bar.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

// `page` is a vertical box. `kind`, which may be "", stands in front of the text of what was not
// delivered, as "the revision "; the text is shown shortened. `reason` is the server's,
// or our own.
void delivery_notice_show (GtkBox *page, String to, const char *kind, String text, String reason);
