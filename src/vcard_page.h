// A vCard 4 profile in eight entries: the own one, to be edited and published, or that of another
// account, read-only. There is one page a window, filled anew each time.
//
// Ownership: a widget; copies the texts given to it. Its toplevel is the `AppWindow`.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "xmpp.h"

G_DECLARE_FINAL_TYPE (VCardPage, vcard_page, MORVANE, VCARD_PAGE, GtkBin)

GtkWidget *vcard_page_new ();

void vcard_page_set_title (VCardPage *self, String title);
// `vcard` is as received: XML entities in its values are resolved here, a null value is empty.
void vcard_page_set_vcard (VCardPage *self, VCard vcard);
void vcard_page_clear_vcard (VCardPage *self);
// Whether the entries can be edited and can take the focus.
void vcard_page_set_editable (VCardPage *self, gboolean editable);
