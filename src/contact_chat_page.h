// The one-to-one chat with a contact: what was written, and an entry for more.
//
// Ownership: a widget; borrows the contact, which outlives it. Its toplevel is the `AppWindow`.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "contacts.h"

G_DECLARE_FINAL_TYPE (ContactChatPage, contact_chat_page, MORVANE, CONTACT_CHAT_PAGE, GtkBox)

// Shows every message that the contact has.
GtkWidget *contact_chat_page_new (Contact *contact);
// Appends one line, on the screen only; a page at its end stays at its end.
void contact_chat_page_add_message (ContactChatPage *self, ContactMessage *message);
// Tells in a bar that this line did not reach the contact, and why.
void contact_chat_page_tell_undelivered (ContactChatPage *self, String text, String reason);
