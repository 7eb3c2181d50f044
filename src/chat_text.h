// The lines of a chat in a text view, and the view's way of keeping the newest in sight: what the
// chat with a contact and the chat about a clause share.
//
// Ownership: a field of the page that shows the chat; borrows the page's widgets.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

struct ChatText {
  GtkTextView *text_view;              // borrowed
  GtkScrolledWindow *scrolled_window;  // borrowed; holds the text view
  GtkTextTag *author_tag;              // these belong to the text
  GtkTextTag *first_tag;               // of the first paragraph of a message
  GtkTextTag *continued_tag;           // of the others
  bool is_at_end;  // the newest line is in sight, and stays so as the text grows
};

// `self` is all zero. `page` is the widget that holds it and both others: each time it appears, the
// chat is at its end.
void chat_text_init (ChatText *self, GtkWidget *page, GtkTextView *text_view,
                     GtkScrolledWindow *scrolled_window);
// Appends a message: the author small and bold, then the text as it is, whose lines all hang under
// the first one. A text at its end stays there.
void chat_text_add_line (ChatText *self, String author, String text);
// Puts the cursor behind the last line and brings that into sight.
void chat_text_show_last_line (ChatText *self);
