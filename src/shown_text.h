// Names, titles and addresses as labels show them. Others chose these texts: what is stored stays as
// it came, and what is shown keeps to its place and tells when an address may pass for another.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

// The text as valid UTF-8, its bidirectional controls closed off from what stands around it (UAX 9,
// U+2068 and U+2069); without such controls just the text. The caller frees it with `g_free`.
char *alloc_shown_text (String text);
void label_show_text (GtkLabel *label, String text);

// Whether an address mixes scripts, more than UTS 39 allows to a "highly restrictive" identifier, or
// holds letters that nobody sees, or is no valid UTF-8.
bool is_misleading_address (String address);
// The same as `label_show_text`, with a tooltip and the style class "warning" when it is misleading.
void label_show_address (GtkLabel *label, String address);
