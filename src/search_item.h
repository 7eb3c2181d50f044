// A row for an account found by a search: its name, its tags, and a pair of buttons that take it or
// leave it.
//
// Ownership: a widget; borrows the window, the account name and the tags, which outlive it.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

typedef struct _AppWindow AppWindow;

G_DECLARE_FINAL_TYPE (SearchItem, search_item, MORVANE, SEARCH_ITEM, GtkBox)

// Tags that a row keeps and shows; further ones are dropped.
enum {
  SEARCH_ITEM_TAGS_MAX = 32
};

SearchItem *search_item_new (const char *account, AppWindow *window, char **tags, unsigned count);
u32 search_item_get_tags_count (SearchItem *self);
// One of the tags kept, in the order given; the caller's own pointer. NULL past the last one.
const char *search_item_get_tag (SearchItem *self, u32 index);
