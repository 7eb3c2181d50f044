#include "clause_view_drafts.h"

#include "clause_view_comparison.h"
#include "key_guard.h"
#include "morvane.h"

// How long after the last key the typing is stored.
static const guint SAVE_SECONDS = 10;

// A place of the cursor, in characters.
static const int TEXT_END = -1;

// ---- The draft ----

void
clause_view_keep_draft (ClauseView *self)
{
  if (!self->clause->draft)
    return;
  kept_drafts_add (self->kept_drafts, self->clause->draft->text);
  revision_list_show_kept_drafts (&self->revision_list);
}

void
clause_view_replace_draft (ClauseView *self)
{
  if (self->is_on_draft)
    return;
  clause_view_keep_draft (self);
  self->is_on_draft = true;
  self->was_draft_left = false;
  clause_status_hide_note (&self->status);
}

void
clause_view_drop_save_source (ClauseView *self)
{
  if (self->save_source)
    g_source_remove (self->save_source);
  self->save_source = 0;
}

static gboolean
clause_view_save_handle (gpointer data)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (data);
  self->save_source = 0;
  clause_view_save_draft (self);
  return G_SOURCE_REMOVE;
}

void
clause_view_save_soon (ClauseView *self)
{
  clause_view_drop_save_source (self);
  self->save_source = g_timeout_add_seconds (SAVE_SECONDS, clause_view_save_handle, self);
}

void
clause_view_leave_text (ClauseView *self)
{
  clause_view_save_draft (self);
  if (self->is_on_draft && self->clause->draft) {
    self->draft_cursor = clause_text_get_cursor (&self->text);
    char *text = gtk_text_buffer_get_all_text (gtk_text_view_get_buffer (self->text_view));
    // What was cleaned for the store is another text.
    if (to_string (text) != self->clause->draft->text)
      text_history_begin (self->text.history);
    g_free (text);
  } else if (self->is_on_draft) {
    text_history_begin (self->text.history);
  }
  text_history_set_aside (self->text.history);
  self->is_on_draft = false;
  self->is_as_arrived = false;
}

// The key without its modifiers. On a keyboard with other letters than Latin ones it is what its place
// has on the first of the user's keyboards, as in GTK's own key bindings.
static guint
get_plain_key (GdkEventKey *event)
{
  guint key = event->keyval;
  GdkKeymap *keymap = gdk_keymap_get_for_display (gdk_window_get_display (event->window));
  if (gdk_keyval_to_unicode (key) > 0x7f)
    gdk_keymap_translate_keyboard_state (keymap, event->hardware_keycode, (GdkModifierType) 0, 0,
                                         &key, NULL, NULL, NULL);
  return gdk_keyval_to_lower (key);
}

bool
clause_view_edit_key (ClauseView *self, GdkEventKey *event)
{
  if (!(event->state & GDK_CONTROL_MASK))
    return false;
  guint key = get_plain_key (event);
  if (key == GDK_KEY_Return || key == GDK_KEY_KP_Enter) {
    if (gtk_widget_is_sensitive (GTK_WIDGET (self->commit_button)))
      gtk_button_clicked (self->commit_button);
    return true;
  }
  if (key != GDK_KEY_z)
    return false;
  if (event->state & GDK_SHIFT_MASK) {
    text_history_redo (self->text.history);
  } else {
    text_history_undo (self->text.history);
  }
  return true;
}

void
clause_view_bring_back (gpointer data, u32 index)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (data);
  clause_view_leave_text (self);
  char *text = kept_drafts_take (self->kept_drafts, index);
  // A view of the same clause in a procedure that came twice may have taken it.
  if (!text)
    return;
  clause_view_keep_draft (self);
  negotiation_save_draft (clause_view_get_negotiation (self), self->clause, to_string (text));
  g_free (text);
  revision_list_show_kept_drafts (&self->revision_list);
  text_history_begin (self->text.history);
  self->draft_cursor = TEXT_END;
  clause_view_select_draft_row (self);
  clause_view_show_draft (self);
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
}

// ---- The way back ----

static bool
clause_view_holds_focus (ClauseView *self)
{
  GtkWidget *window = gtk_widget_get_toplevel (GTK_WIDGET (self));
  GtkWidget *focus = GTK_IS_WINDOW (window) ? gtk_window_get_focus (GTK_WINDOW (window)) : NULL;
  return focus && gtk_widget_is_ancestor (focus, GTK_WIDGET (self));
}

void
clause_view_make_room (ClauseView *self)
{
  bool is_busy = self->is_draft || self->comparison.is_shown;
  if (is_busy && clause_view_holds_focus (self)) {
    clause_view_focus_in_place (self, GTK_WIDGET (self->revision_select_menu_button));
    key_guard_begin (GTK_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self))));
  }
  clause_view_save_draft (self);
  if (self->comparison.is_shown && self->comparison.has_decisions) {
    clause_view_put_comparison_aside (self);
    self->is_draft_newer = false;
    clause_status_show_note (&self->status, "Your comparison is kept: Escape goes back to it.");
  } else if (self->is_draft && self->is_on_draft && self->clause->draft) {
    self->was_draft_left = true;
    self->is_draft_newer = true;
    clause_status_show_note (&self->status, "Your text is kept: Escape goes back to it.");
  }
  GtkButton *const other_buttons[] = {self->commit_button, self->cancel_button};
  decision_buttons_note_arrival (&self->decision_buttons, other_buttons);
}

static void
clause_view_go_back_to_draft (ClauseView *self)
{
  clause_view_show_draft (self);
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
}

// Back to what a revision took the place of last, as the note says. What else is kept is in the text's
// menu.
static void
clause_view_go_back (ClauseView *self)
{
  bool is_draft_next = self->was_draft_left && self->clause->draft && self->is_draft_newer;
  if (self->aside.text_buffer && !is_draft_next) {
    clause_view_go_back_to_comparison (self);
  } else {
    clause_view_go_back_to_draft (self);
  }
}

void
clause_view_add_ways_back (ClauseView *self, GtkWidget *menu)
{
  if (self->aside.text_buffer)
    clause_view_append_menu_item (self, menu, "Go back to your comparison", true,
                                  clause_view_go_back_to_comparison);
  if (self->was_draft_left && self->clause->draft)
    clause_view_append_menu_item (self, menu, "Go back to your text", true,
                                  clause_view_go_back_to_draft);
}

// ---- Handlers ----

// Wherever in the view the focus is.
static gboolean
clause_view_key_press_handle (GtkWidget *, GdkEventKey *event, ClauseView *self)
{
  if (event->keyval != GDK_KEY_Escape || !clause_status_has_note (&self->status))
    return FALSE;
  clause_view_go_back (self);
  return TRUE;
}

// A clause that is only a draft so far is begun without it, and must not be taken for empty.
static void
clause_view_map_handle (ClauseView *self)
{
  bool is_untouched = self->is_draft && !self->is_on_draft;
  if (!self->clause->draft || self->clause->revisions_count || !is_untouched)
    return;
  clause_view_select_draft_row (self);
  clause_view_show_draft (self);
}

void
clause_view_connect_drafts (ClauseView *self)
{
  g_signal_connect (self, "map", G_CALLBACK (clause_view_map_handle), NULL);
  g_signal_connect (self, "key-press-event", G_CALLBACK (clause_view_key_press_handle), self);
}
