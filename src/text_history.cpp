#include "text_history.h"

#include <string.h>

// One insertion or deletion.
struct TextEdit {
  bool is_insertion;
  bool continues;  // belongs to the same step as the edit before it
  int offset;      // in characters
  char *text;      // owned; what was inserted or deleted
};

struct TextHistory {
  GtkTextBuffer *text_buffer;
  GSList *done;    // of `TextEdit`, the last one first; owned like the next
  GSList *undone;  // the next one to repeat first
  bool is_aside;
  bool is_paused;
  bool is_replaying;
  int actions_depth;     // of user actions that are open in the buffer
  bool is_action_begun;  // the open action has made its first edit
};

// ---- Edits ----

static void
dealloc_text_edit (gpointer data)
{
  TextEdit *edit = (TextEdit *) data;
  g_free (edit->text);
  g_free (edit);
}

static void
text_history_drop_undone (TextHistory *self)
{
  g_slist_free_full (self->undone, dealloc_text_edit);
  self->undone = NULL;
}

// Whether `next` is one more character of the word that `last` has typed.
static bool
is_same_word (TextEdit *last, TextEdit *next)
{
  if (!last || !last->is_insertion || !next->is_insertion || g_utf8_strlen (next->text, -1) != 1)
    return false;
  if (next->offset != last->offset + g_utf8_strlen (last->text, -1))
    return false;
  const char *last_character = g_utf8_find_prev_char (last->text, last->text + strlen (last->text));
  gunichar next_character = g_utf8_get_char (next->text);
  bool begins_word =
    g_unichar_isspace (g_utf8_get_char (last_character)) && !g_unichar_isspace (next_character);
  return !begins_word && next_character != '\n';
}

// The last edit becomes one with the word that it goes on with.
static void
text_history_join (TextHistory *self)
{
  TextEdit *edit = self->done ? (TextEdit *) self->done->data : NULL;
  TextEdit *word = edit && self->done->next ? (TextEdit *) self->done->next->data : NULL;
  if (!edit || edit->continues || !is_same_word (word, edit))
    return;
  char *text = g_strconcat (word->text, edit->text, NULL);
  g_free (word->text);
  word->text = text;
  dealloc_text_edit (edit);
  self->done = g_slist_delete_link (self->done, self->done);
}

// Takes `text` over.
static void
text_history_add (TextHistory *self, bool is_insertion, int offset, char *text)
{
  if (self->is_aside)
    text_history_begin (self);
  text_history_drop_undone (self);
  TextEdit *edit = g_new0 (TextEdit, 1);
  edit->is_insertion = is_insertion;
  edit->offset = offset;
  edit->text = text;
  edit->continues = self->actions_depth > 0 && self->is_action_begun;
  self->is_action_begun = true;
  self->done = g_slist_prepend (self->done, edit);
  if (self->actions_depth == 0)
    text_history_join (self);
}

// ---- Handlers ----

static bool
text_history_is_listening (TextHistory *self)
{
  return !self->is_paused && !self->is_replaying;
}

static void
text_history_insert_text_handle (GtkTextBuffer *, GtkTextIter *place, char *text, int size,
                                 TextHistory *self)
{
  if (!text_history_is_listening (self) || size == 0)
    return;
  text_history_add (self, true, gtk_text_iter_get_offset (place),
                    g_strndup (text, (gsize) (size < 0 ? (int) strlen (text) : size)));
}

static void
text_history_delete_range_handle (GtkTextBuffer *text_buffer, GtkTextIter *start, GtkTextIter *end,
                                  TextHistory *self)
{
  if (!text_history_is_listening (self) || gtk_text_iter_equal (start, end))
    return;
  text_history_add (self, false, gtk_text_iter_get_offset (start),
                    gtk_text_buffer_get_text (text_buffer, start, end, TRUE));
}

static void
text_history_begin_user_action_handle (GtkTextBuffer *, TextHistory *self)
{
  if (self->actions_depth == 0)
    self->is_action_begun = false;
  self->actions_depth++;
}

static void
text_history_end_user_action_handle (GtkTextBuffer *, TextHistory *self)
{
  self->actions_depth--;
  // Only now it is known to be the only edit of its action: what is pasted may come in pieces.
  if (self->actions_depth == 0 && self->is_action_begun)
    text_history_join (self);
}

// ---- Making ----

TextHistory *
alloc_text_history (GtkTextBuffer *text_buffer)
{
  TextHistory *self = g_new0 (TextHistory, 1);
  text_history_set_text_buffer (self, text_buffer);
  return self;
}

static void
text_history_release_text_buffer (TextHistory *self)
{
  if (self->text_buffer)
    g_signal_handlers_disconnect_by_data (self->text_buffer, self);
  g_clear_object (&self->text_buffer);
}

void
dealloc_text_history (TextHistory *self)
{
  if (!self)
    return;
  text_history_release_text_buffer (self);
  text_history_begin (self);
  g_free (self);
}

void
text_history_set_text_buffer (TextHistory *self, GtkTextBuffer *text_buffer)
{
  text_history_release_text_buffer (self);
  self->text_buffer = GTK_TEXT_BUFFER (g_object_ref (text_buffer));
  self->actions_depth = 0;
  g_signal_connect (text_buffer, "insert-text", G_CALLBACK (text_history_insert_text_handle), self);
  g_signal_connect (text_buffer, "delete-range", G_CALLBACK (text_history_delete_range_handle),
                    self);
  g_signal_connect (text_buffer, "begin-user-action",
                    G_CALLBACK (text_history_begin_user_action_handle), self);
  g_signal_connect (text_buffer, "end-user-action",
                    G_CALLBACK (text_history_end_user_action_handle), self);
}

void
text_history_begin (TextHistory *self)
{
  text_history_drop_undone (self);
  g_slist_free_full (self->done, dealloc_text_edit);
  self->done = NULL;
  self->is_aside = false;
}

void
text_history_pause (TextHistory *self)
{
  self->is_paused = true;
}

void
text_history_resume (TextHistory *self)
{
  self->is_paused = false;
}

void
text_history_set_aside (TextHistory *self)
{
  self->is_aside = true;
}

void
text_history_go_on (TextHistory *self)
{
  self->is_aside = false;
}

// ---- Undoing ----

static void
text_history_replay (TextHistory *self, TextEdit *edit, bool is_insertion)
{
  GtkTextIter start;
  gtk_text_buffer_get_iter_at_offset (self->text_buffer, &start, edit->offset);
  if (is_insertion) {
    gtk_text_buffer_insert (self->text_buffer, &start, edit->text, -1);
  } else {
    GtkTextIter end = start;
    gtk_text_iter_forward_chars (&end, (int) g_utf8_strlen (edit->text, -1));
    gtk_text_buffer_delete (self->text_buffer, &start, &end);
  }
  gtk_text_buffer_place_cursor (self->text_buffer, &start);
}

bool
text_history_undo (TextHistory *self)
{
  if (self->is_aside || !self->done)
    return false;
  self->is_replaying = true;
  bool continues = true;
  while (continues && self->done) {
    GSList *link = self->done;
    TextEdit *edit = (TextEdit *) link->data;
    self->done = g_slist_remove_link (self->done, link);
    self->undone = g_slist_concat (link, self->undone);
    continues = edit->continues;
    text_history_replay (self, edit, !edit->is_insertion);
  }
  self->is_replaying = false;
  return true;
}

bool
text_history_redo (TextHistory *self)
{
  if (self->is_aside || !self->undone)
    return false;
  self->is_replaying = true;
  bool continues = true;
  while (continues) {
    GSList *link = self->undone;
    TextEdit *edit = (TextEdit *) link->data;
    self->undone = g_slist_remove_link (self->undone, link);
    self->done = g_slist_concat (link, self->done);
    text_history_replay (self, edit, edit->is_insertion);
    continues = self->undone && ((TextEdit *) self->undone->data)->continues;
  }
  self->is_replaying = false;
  return true;
}
