// The row of a contact in the main window's list: its JID, its presence as a word and an icon.
//
// Ownership: a widget; borrows the contact, which outlives it.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "contacts.h"

G_DECLARE_FINAL_TYPE (ContactListItem, contact_list_item, MORVANE, CONTACT_LIST_ITEM, GtkBox)

GtkWidget *contact_list_item_new (Contact *contact);
// A status other than "available" and "unavailable" is shown, keeps the icon and is warned about.
void contact_list_item_set_status (ContactListItem *self, String status);
// The contact that the row stands for.
Contact *contact_list_item_get_contact (ContactListItem *self);
