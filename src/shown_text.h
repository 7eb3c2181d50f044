// Names, titles and addresses as labels show them. Others chose these texts: what is stored stays as
// it came, and what is shown keeps to its place and to one line, and tells when an address may pass for
// another.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

// The text as valid UTF-8 in one line: what would begin another is shown as the return symbol, U+23CE,
// and a tab as a blank, so that no text looks like two rows. Its bidirectional controls are closed off from what stands around it (UAX 9,
// U+2068 and U+2069); without such controls just the text. The caller frees it with `g_free`.
char *alloc_shown_text (String text);
void label_show_text (GtkLabel *label, String text);

// Whether an address, which is valid UTF-8, holds letters that nobody sees.
bool has_invisible_letters (String address);
// Whether an address mixes scripts, more than UTS 39 allows to a "highly restrictive" identifier, or
// holds letters that nobody sees, or is no valid UTF-8.
bool is_misleading_address (String address);
// A tooltip and the style class "warning" on a label that shows a misleading address, among other
// things perhaps; takes them away from a label that did and now does not. An empty one is harmless.
void label_warn_of_address (GtkLabel *label, String address);
// Both: the text, and the warning when it is misleading.
void label_show_address (GtkLabel *label, String address);
