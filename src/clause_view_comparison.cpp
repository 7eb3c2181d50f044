#include "clause_view_comparison.h"

#include "clause_view_drafts.h"
#include "morvane.h"
#include "unsent_mark.h"

// ---- Aside ----

void
clause_view_keep_decisions (ClauseView *self, ClauseComparison *comparison,
                            GtkTextBuffer *text_buffer)
{
  char *text = clause_comparison_alloc_text (comparison, text_buffer);
  String sendable = alloc_sendable_text (to_string (text));
  kept_drafts_add (self->kept_drafts, sendable);
  dealloc_string (sendable);
  g_free (text);
}

void
clause_view_drop_aside (ClauseView *self)
{
  if (!self->aside.text_buffer)
    return;
  clause_comparison_finalize (&self->aside.comparison);
  g_clear_object (&self->aside.text_buffer);
  g_clear_pointer (&self->aside.status, g_free);
}

void
clause_view_put_comparison_aside (ClauseView *self)
{
  clause_view_drop_aside (self);
  clause_comparison_hide_tools (&self->comparison);
  ComparisonAside *aside = &self->aside;
  aside->text_buffer = GTK_TEXT_BUFFER (g_object_ref (gtk_text_view_get_buffer (self->text_view)));
  aside->comparison = self->comparison;
  aside->status = g_strdup (clause_status_get (&self->status));
  aside->was_draft_shown = self->was_draft_shown;
  GtkTextBuffer *text_buffer = gtk_text_buffer_new (NULL);
  clause_text_change_buffer (&self->text, text_buffer);
  g_object_unref (text_buffer);
  clause_comparison_init (&self->comparison, self->text_view, aside->comparison.tools,
                          aside->comparison.keep_button, aside->comparison.remove_button);
  gtk_text_view_set_bottom_margin (self->text_view, 0);
  gtk_text_view_set_editable (self->text_view, TRUE);
}

void
clause_view_go_back_to_comparison (ClauseView *self)
{
  clause_status_hide_note (&self->status);
  ComparisonAside *aside = &self->aside;
  clause_view_leave_text (self);
  clause_comparison_end (&self->comparison);
  clause_text_change_buffer (&self->text, aside->text_buffer);
  self->comparison = aside->comparison;
  clause_view_show_comparison_state (self, aside->status);
  self->was_draft_shown = aside->was_draft_shown;
  clause_comparison_restore (&self->comparison);
  g_clear_object (&aside->text_buffer);
  g_clear_pointer (&aside->status, g_free);
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
}

// ---- Comparing ----

void
clause_view_show_comparison_state (ClauseView *self, const char *status)
{
  self->is_text_changed = false;
  self->is_draft = false;
  clause_view_set_edit_buttons_sensitive (self, FALSE, FALSE);
  clause_status_set (&self->status, status);
  unsent_mark_show (GTK_WIDGET (self->revision_status_label), false);
  clause_view_show_waiting_draft (self);
}

void
clause_view_compare (ClauseView *self, ClauseRevision *revision, ClauseRevision *other_revision)
{
  clause_view_save_draft (self);
  const char *refusal = get_comparison_refusal (revision, other_revision);
  if (refusal) {
    console_log ("Info: %s\n", refusal);
    clause_status_show_refusal (&self->status, refusal);
    return;
  }
  Clause *clause = self->clause;
  bool is_newer =
    revision == clause->draft ||
    (other_revision != clause->draft && get_revision_index_reversed (clause, revision) >
                                          get_revision_index_reversed (clause, other_revision));
  clause_view_leave_text (self);
  clause_view_set_text (self, {});
  clause_view_show_diff (self, is_newer ? other_revision : revision,
                         is_newer ? revision : other_revision);
  // Where Escape leaves it again.
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
}

// What the user looks at, as the one end of a comparison; the draft must be stored. The draft of a
// comparison that the user went back to may be gone.
static ClauseRevision *
clause_view_get_shown_revision (ClauseView *self)
{
  if ((self->is_draft || self->was_draft_shown) && self->clause->draft)
    return self->clause->draft;
  return self->revision ? self->revision : self->base_revision;
}

void
clause_view_compare_with_shown (gpointer data, ClauseRevision *revision)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (data);
  clause_view_save_draft (self);
  clause_view_compare (self, revision ? revision : self->clause->draft,
                       clause_view_get_shown_revision (self));
}

// The committed revision ahead of the one shown; none ahead of the first.
static ClauseRevision *
clause_view_get_previous_revision (ClauseView *self)
{
  s64 index = get_revision_index_reversed (self->clause, self->revision);
  return index > 0 ? self->clause->revisions[index - 1] : NULL;
}

static void
clause_view_compare_with_previous (ClauseView *self)
{
  ClauseRevision *previous = clause_view_get_previous_revision (self);
  if (previous)
    clause_view_compare (self, previous, self->revision);
}

// Back to what was shown before the comparison.
static void
clause_view_leave_diff (ClauseView *self)
{
  clause_view_hide_diff_tools (self);
  bool is_draft_next = self->was_draft_shown || !self->base_revision;
  if (is_draft_next && self->clause->draft) {
    clause_view_show_draft (self);
  } else if (self->base_revision) {
    clause_view_go_to_revision (self, self->base_revision,
                                clause_view_get_window (self)->account.bare_jid);
  }
}

// What is left of a comparison becomes a draft, stored at once, so that its row leads somewhere.
static void
clause_view_use_as_draft (ClauseView *self)
{
  // The menu may have been open when a revision took the comparison's place.
  if (!self->comparison.is_shown)
    return;
  self->revision = NULL;
  clause_view_replace_draft (self);
  text_history_begin (self->text.history);
  clause_view_begin_draft (self);
  self->is_text_changed = true;
  clause_view_save_draft (self);
}

// ---- Changes ----

void
clause_view_hide_diff_tools (ClauseView *self)
{
  if (clause_comparison_has_focus_in_tools (&self->comparison))
    clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
  clause_comparison_hide_tools (&self->comparison);
}

void
clause_view_decide_change (ClauseView *self, bool is_kept)
{
  if (!self->comparison.has_run)
    return;
  clause_text_look_away (&self->text);
  clause_comparison_decide (&self->comparison, is_kept);
  clause_text_look_back (&self->text);
  if (!is_kept && !clause_comparison_has_changes (&self->comparison))
    clause_view_use_as_draft (self);
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
}

static void
clause_view_take_all (ClauseView *self, bool is_newer)
{
  clause_text_look_away (&self->text);
  clause_comparison_take_all (&self->comparison, is_newer);
  clause_text_look_back (&self->text);
}

static void
clause_view_take_newer (ClauseView *self)
{
  clause_view_take_all (self, true);
}

static void
clause_view_take_older (ClauseView *self)
{
  clause_view_take_all (self, false);
}

// Moves cursor and tools to the next change or the previous one.
static void
clause_view_go_to_change (ClauseView *self, bool is_next)
{
  GtkTextIter start;
  bool is_found = is_next ? clause_comparison_find_next (&self->comparison, &start)
                          : clause_comparison_find_previous (&self->comparison, &start);
  if (!is_found)
    return;
  gtk_widget_grab_focus (GTK_WIDGET (self->text_view));
  gtk_text_buffer_place_cursor (gtk_text_view_get_buffer (self->text_view), &start);
}

void
clause_view_add_comparison_items (ClauseView *self, GtkWidget *menu)
{
  if (self->comparison.is_shown) {
    bool has_changes = clause_comparison_has_changes (&self->comparison);
    clause_view_append_menu_item (self, menu, "Take all of the newer text", has_changes,
                                  clause_view_take_newer);
    clause_view_append_menu_item (self, menu, "Take all of the older text", has_changes,
                                  clause_view_take_older);
    clause_view_append_menu_item (self, menu, "Use this text as draft", !has_changes,
                                  clause_view_use_as_draft);
    clause_view_append_menu_item (self, menu, "Leave the comparison", true, clause_view_leave_diff);
  } else if (self->revision && !self->is_draft) {
    clause_view_append_menu_item (self, menu, "Compare with the previous revision",
                                  clause_view_get_previous_revision (self) != NULL,
                                  clause_view_compare_with_previous);
  }
}

// ---- Handlers ----

// From the text, the pointer may go on to the tools, and back. A text that gets shorter, or is scrolled,
// leaves a pointer that rests behind: tools that the cursor has brought stay, or a key that is on its
// way to one of them would be lost.
static gboolean
clause_view_diff_leave_notify_handle (GtkWidget *, GdkEventCrossing *event, ClauseView *self)
{
  int x_root = (int) event->x_root;
  int y_root = (int) event->y_root;
  bool has_left = !clause_comparison_is_at (&self->comparison, x_root, y_root) &&
                  !clause_comparison_is_at_rest (&self->comparison, x_root, y_root);
  if (self->comparison.has_run && has_left)
    clause_view_hide_diff_tools (self);
  return FALSE;
}

void
clause_view_cursor_position_handle (GtkTextBuffer *text_buffer, GParamSpec *, ClauseView *self)
{
  if (!self->comparison.is_shown || !gtk_widget_has_focus (GTK_WIDGET (self->text_view)))
    return;
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_mark (text_buffer, &iter, gtk_text_buffer_get_insert (text_buffer));
  GdkRectangle location;
  gtk_text_view_get_iter_location (self->text_view, &iter, &location);
  clause_comparison_note_rest (&self->comparison);
  clause_view_show_diff_tools (self, iter, location.x);
}

// In a comparison, Escape leaves it, F8 goes from change to change, and Tab goes from the text to the
// tools, wherever these stand.
static gboolean
clause_view_diff_key_press_handle (GtkWidget *widget, GdkEventKey *event, ClauseView *self)
{
  if (!self->comparison.is_shown)
    return clause_view_edit_key (self, event);
  if (event->keyval == GDK_KEY_Escape) {
    clause_view_leave_diff (self);
    return TRUE;
  }
  if (event->keyval == GDK_KEY_F8) {
    clause_view_go_to_change (self, !(event->state & GDK_SHIFT_MASK));
    return TRUE;
  }
  if (event->keyval == GDK_KEY_Tab && self->comparison.has_run &&
      widget == GTK_WIDGET (self->text_view)) {
    gtk_widget_grab_focus (GTK_WIDGET (self->diff_add_button));
    return TRUE;
  }
  // Where all is decided the text takes keys again, and GTK's own meaning of Ctrl+Return is a line break.
  return clause_view_edit_key (self, event);
}

void
clause_view_connect_comparison (ClauseView *self)
{
  GtkWidget *places[] = {GTK_WIDGET (self->text_view), GTK_WIDGET (self->diff_add_button),
                         GTK_WIDGET (self->diff_del_button)};
  for (u32 i = 0; i < G_N_ELEMENTS (places); i++) {
    gtk_widget_add_events (places[i], GDK_LEAVE_NOTIFY_MASK);
    g_signal_connect (places[i], "leave-notify-event",
                      G_CALLBACK (clause_view_diff_leave_notify_handle), self);
    g_signal_connect (places[i], "key-press-event", G_CALLBACK (clause_view_diff_key_press_handle),
                      self);
  }
}
