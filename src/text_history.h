// What the user did to a text, so that it can be undone and done again, step by step, back to where
// the history began. A step is a word that was typed, or what one key or one choice from a menu did.
//
// What the program does to the text between `text_history_pause` and `text_history_resume` is no step.
// While another text is shown the history is set aside: there is nothing to undo, and typing begins it
// anew. It goes on when its own text is back.
//
// Ownership: the record belongs to who made it, and keeps a reference on the buffer.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

struct TextHistory;

TextHistory *alloc_text_history (GtkTextBuffer *text_buffer);
void dealloc_text_history (TextHistory *self);
// The text goes on in another buffer.
void text_history_set_text_buffer (TextHistory *self, GtkTextBuffer *text_buffer);

// Forgets all steps: the text as it is now is where undoing ends.
void text_history_begin (TextHistory *self);
void text_history_pause (TextHistory *self);
void text_history_resume (TextHistory *self);
void text_history_set_aside (TextHistory *self);
// The text must be the one that the history was set aside for, unless there are no steps.
void text_history_go_on (TextHistory *self);

// Undoes or repeats the last step and leaves the cursor where that changed the text. False when there
// is none. The buffer tells its other listeners, who take this for typing.
bool text_history_undo (TextHistory *self);
bool text_history_redo (TextHistory *self);
