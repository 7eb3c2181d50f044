#include "clause_view.h"

#include <assert.h>

#include "app_window.h"
#include "clause_chat_page.h"
#include "clause_comparison.h"
#include "clause_revision_list_item.h"
#include "deletion.h"
#include "delivery.h"
#include "kept_drafts.h"
#include "key_guard.h"
#include "morvane.h"
#include "procedure_view.h"
#include "revision_list.h"
#include "shown_text.h"
#include "text_history.h"
#include "unsent_mark.h"
#include "wrapped_text.h"

// How long the user is told why something cannot be compared.
static const guint REFUSAL_SECONDS = 5;

// How long after the last key the typing is stored.
static const guint SAVE_SECONDS = 10;

// How long a press on a decision button may be meant for what was shown before, in microseconds.
static const s64 HASTE_MAX = 500000;

// Of a text in a new window, in pixels.
static const int LIKELY_TEXT_WIDTH = 400;

// A comparison that a revision took the place of.
struct ComparisonAside {
  GtkTextBuffer *text_buffer;   // owned; NULL for none
  ClauseComparison comparison;  // of this buffer
  char *status;                 // owned; the label's text
  bool was_draft_shown;
};

struct _ClauseView {
  GtkBox parent_instance;
  Procedure *procedure;  // borrowed, like all records here
  Clause *clause;
  ClauseRevision *revision;       // shown and decided on; NULL while the user edits
  ClauseRevision *base_revision;  // shown last; where Cancel returns to
  bool is_text_changed;           // since the draft was saved
  bool is_draft;                  // in draft mode
  bool is_on_draft;               // the text is the clause's draft or was typed on top of it
  int text_width;                 // that the text was laid out for last, in pixels
  RevisionList revision_list;     // behind `revision_select_menu_button`
  // Template children.
  GtkButton *chat_button;
  GtkTextView *text_view;
  GtkMenuButton *revision_select_menu_button;
  GtkLabel *revision_status_label;
  GtkLabel *decision_status_label;
  GtkButton *agree_button;
  GtkButton *disagree_button;
  GtkButton *commit_button;
  GtkButton *cancel_button;
  GtkBox *diff_overlay_tools;
  GtkButton *diff_add_button;
  GtkButton *diff_del_button;
  ClauseComparison comparison;
  bool was_draft_shown;  // when the comparison began
  guint refusal_source;  // ends the showing of a refusal; 0 while none is shown
  char *status_before;   // in whose place a refusal is shown; owned, NULL while none is
  // The draft.
  KeptDrafts *kept_drafts;  // borrowed, as all that stays when the view goes
  TextHistory *history;     // owned; of the draft
  int draft_cursor;         // where the cursor was when the draft was left, in characters
  guint save_source;        // stores the typing; 0 when there is none to be stored
  // What a revision that arrived took the place of.
  bool was_draft_left;      // the user was at the draft
  ComparisonAside aside;    // the user was at a comparison
  bool is_draft_newer;      // the user was at the draft after the comparison
  GtkLabel *note_label;     // says so; NULL until there is something to say
  s64 arrival_time;         // of the monotonic clock, in microseconds; 0 before the first
  s64 press_time;           // of a decision button, likewise; 0 when none is pressed
  bool was_about_to_press;  // a button, when the revision arrived
  bool is_as_arrived;  // a revision took its place in sight, and the user has chosen nothing since
};

G_DEFINE_TYPE (ClauseView, clause_view, GTK_TYPE_BOX)

static void clause_view_text_changed_handle (GtkTextBuffer *text_buffer, ClauseView *self);
static void clause_view_cursor_position_handle (GtkTextBuffer *text_buffer, GParamSpec *property,
                                                ClauseView *self);
static void clause_view_cursor_moved_handle (GtkTextBuffer *text_buffer, GParamSpec *property,
                                             ClauseView *self);
static void clause_view_compare (ClauseView *self, ClauseRevision *revision,
                                 ClauseRevision *other_revision);
static void clause_view_leave_diff (ClauseView *self);
static void clause_view_decide_change (ClauseView *self, bool is_kept);
static void clause_view_focus_in_place (ClauseView *self, GtkWidget *widget);
static void clause_view_take_newer (ClauseView *self);
static void clause_view_take_older (ClauseView *self);
static void clause_view_use_as_draft (ClauseView *self);
static void clause_view_go_to_revision (ClauseView *self, ClauseRevision *revision, String own);
static void clause_view_select_draft_row (ClauseView *self);
static void clause_view_go_back (ClauseView *self);
static void clause_view_go_back_to_comparison (ClauseView *self);
static void clause_view_go_back_to_draft (ClauseView *self);
static void clause_view_bring_back (gpointer data, u32 index);

// ---- Helpers ----

static AppWindow *
clause_view_get_window (ClauseView *self)
{
  return MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
}

static Negotiation *
clause_view_get_negotiation (ClauseView *self)
{
  return app_window_get_negotiation (clause_view_get_window (self));
}

static void
clause_view_set_decision_buttons_sensitive (ClauseView *self, gboolean agree, gboolean disagree)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->agree_button), agree);
  gtk_widget_set_sensitive (GTK_WIDGET (self->disagree_button), disagree);
}

static void
clause_view_set_edit_buttons_sensitive (ClauseView *self, gboolean commit, gboolean cancel)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->commit_button), commit);
  gtk_widget_set_sensitive (GTK_WIDGET (self->cancel_button), cancel);
}

static void
clause_view_drop_refusal (ClauseView *self)
{
  if (self->refusal_source)
    g_source_remove (self->refusal_source);
  self->refusal_source = 0;
  g_clear_pointer (&self->status_before, g_free);
}

// All that the label says comes from here, so that no refusal outlasts what it was said about.
static void
clause_view_set_status (ClauseView *self, const char *status)
{
  clause_view_drop_refusal (self);
  gtk_label_set_text (self->revision_status_label, status);
}

static gboolean
clause_view_end_refusal (gpointer data)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (data);
  self->refusal_source = 0;
  gtk_label_set_text (self->revision_status_label, self->status_before);
  clause_view_drop_refusal (self);
  return G_SOURCE_REMOVE;
}

// Tells the user for a few seconds, in the place of the revision's name, why nothing happened.
static void
clause_view_show_refusal (ClauseView *self, const char *refusal)
{
  char *status = g_strdup (self->status_before ? self->status_before
                                               : gtk_label_get_text (self->revision_status_label));
  clause_view_set_status (self, refusal);
  self->status_before = status;
  self->refusal_source = g_timeout_add_seconds (REFUSAL_SECONDS, clause_view_end_refusal, self);
}

static void
clause_view_connect_text_changed (ClauseView *self)
{
  g_signal_connect (gtk_text_view_get_buffer (self->text_view), "changed",
                    G_CALLBACK (clause_view_text_changed_handle), self);
}

static void
clause_view_disconnect_text_changed (ClauseView *self)
{
  g_signal_handlers_disconnect_by_func (gtk_text_view_get_buffer (self->text_view),
                                        (gpointer) clause_view_text_changed_handle, self);
}

// What follows the user's typing and cursor looks away while the program edits the text.
static void
clause_view_look_away (ClauseView *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_view_disconnect_text_changed (self);
  text_history_pause (self->history);
  g_signal_handlers_block_by_func (text_buffer, (gpointer) clause_view_cursor_moved_handle, self);
  g_signal_handlers_block_by_func (text_buffer, (gpointer) clause_view_cursor_position_handle,
                                   self);
}

static void
clause_view_look_back (ClauseView *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_view_connect_text_changed (self);
  text_history_resume (self->history);
  g_signal_handlers_unblock_by_func (text_buffer, (gpointer) clause_view_cursor_moved_handle, self);
  g_signal_handlers_unblock_by_func (text_buffer, (gpointer) clause_view_cursor_position_handle,
                                     self);
}

// The text as it can be kept and sent. Belongs to the caller (`dealloc_string`).
static String
clause_view_alloc_text (ClauseView *self)
{
  char *text = gtk_text_buffer_get_all_text (gtk_text_view_get_buffer (self->text_view));
  String sendable = alloc_sendable_text (to_string (text));
  g_free (text);
  return sendable;
}

// ---- The draft that is not shown ----

// A draft that nobody sees is forgotten easily.
static void
clause_view_show_waiting_draft (ClauseView *self)
{
  revision_list_show_waiting_draft (&self->revision_list,
                                    self->clause->draft && !self->is_on_draft);
}

static void
clause_view_keep_draft (ClauseView *self)
{
  if (!self->clause->draft)
    return;
  kept_drafts_add (self->kept_drafts, self->clause->draft->text);
  revision_list_show_kept_drafts (&self->revision_list);
}

// The text is to become the draft. A draft that it did not grow from stays at hand.
static void
clause_view_replace_draft (ClauseView *self)
{
  if (self->is_on_draft)
    return;
  clause_view_keep_draft (self);
  self->is_on_draft = true;
  self->was_draft_left = false;
  if (self->note_label)
    gtk_widget_hide (GTK_WIDGET (self->note_label));
}

// Something else is going to be shown. The draft is stored, and can be gone on with where it was left.
static void
clause_view_leave_text (ClauseView *self)
{
  clause_view_save_draft (self);
  if (self->is_on_draft && self->clause->draft) {
    GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
    g_object_get (text_buffer, "cursor-position", &self->draft_cursor, NULL);
    char *text = gtk_text_buffer_get_all_text (text_buffer);
    // What was cleaned for the store is another text.
    if (to_string (text) != self->clause->draft->text)
      text_history_begin (self->history);
    g_free (text);
  } else if (self->is_on_draft) {
    text_history_begin (self->history);
  }
  text_history_set_aside (self->history);
  self->is_on_draft = false;
  self->is_as_arrived = false;
}

static gboolean
clause_view_save_handle (gpointer data)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (data);
  self->save_source = 0;
  clause_view_save_draft (self);
  return G_SOURCE_REMOVE;
}

static void
clause_view_drop_save_source (ClauseView *self)
{
  if (self->save_source)
    g_source_remove (self->save_source);
  self->save_source = 0;
}

// ---- Handlers: the text ----

static void
clause_view_text_changed_handle (GtkTextBuffer *text_buffer, ClauseView *self)
{
  CONSOLE_DUMP ("CLAUSE CHANGE");
  self->revision = NULL;
  self->is_text_changed = true;
  self->is_as_arrived = false;
  clause_view_replace_draft (self);
  if (!self->is_draft)
    clause_view_begin_draft (self);
  // The day may come when the display dies, and nobody is told.
  clause_view_drop_save_source (self);
  self->save_source = g_timeout_add_seconds (SAVE_SECONDS, clause_view_save_handle, self);
  gtk_widget_set_sensitive (GTK_WIDGET (self->commit_button),
                            gtk_text_buffer_get_char_count (text_buffer) != 0);
}

static gboolean
clause_view_focus_out_handle (GtkWidget *, GdkEvent *, ClauseView *self)
{
  CONSOLE_DUMP ("FOCUSE OUT");
  clause_view_save_draft (self);
  return FALSE;
}

static gboolean
clause_view_resize_text (gpointer text_view)
{
  gtk_widget_queue_resize (GTK_WIDGET (text_view));
  return G_SOURCE_REMOVE;
}

// A text that gets another width is laid out anew while it is placed, too late to ask for the height
// that it now has: below a long one there would be pages of nothing. So it is asked once more.
static void
clause_view_text_view_size_allocate_handle (GtkWidget *text_view, GdkRectangle *place,
                                            ClauseView *self)
{
  if (place->width == self->text_width)
    return;
  self->text_width = place->width;
  gdk_threads_add_idle_full (G_PRIORITY_DEFAULT_IDLE, clause_view_resize_text,
                             g_object_ref (text_view), g_object_unref);
}

// A widget that is hidden loses the focus, and keys would go nowhere.
static void
clause_view_hide_diff_tools (ClauseView *self)
{
  if (clause_comparison_has_focus_in_tools (&self->comparison))
    clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
  clause_comparison_hide_tools (&self->comparison);
}

// Gives the tagged run at `iter` the comparison's tools, at `x` (buffer coordinates); elsewhere there
// are none.
static void
clause_view_show_diff_tools (ClauseView *self, GtkTextIter iter, int x)
{
  GSList *tags = gtk_text_iter_get_tags (&iter);
  if (!tags) {
    clause_view_hide_diff_tools (self);
    return;
  }
  g_slist_free (tags);

  GtkTextIter start = iter;
  if (!gtk_text_iter_starts_tag (&start, NULL)) {
    [[maybe_unused]] bool found = gtk_text_iter_backward_to_tag_toggle (&start, NULL);
    assert (found);
  }
  GtkTextIter end = iter;
  [[maybe_unused]] bool found = gtk_text_iter_forward_to_tag_toggle (&end, NULL);
  assert (found);

  GdkRectangle location;
  gtk_text_view_get_iter_location (self->text_view, &iter, &location);
  clause_comparison_show_tools (&self->comparison, start, end, location, x);
}

static gboolean
clause_view_text_view_motion_notify_handle (GtkWidget *widget, GdkEventMotion *event,
                                            ClauseView *self)
{
  GtkTextView *text_view = GTK_TEXT_VIEW (widget);
  int border_width = (int) gtk_container_get_border_width (GTK_CONTAINER (text_view));
  int x;
  int y;
  gtk_text_view_window_to_buffer_coords (text_view, GTK_TEXT_WINDOW_WIDGET, (int) event->x,
                                         (int) event->y, &x, &y);
  x += border_width;
  y += border_width;
  GtkTextIter iter;
  gtk_text_view_get_iter_at_location (text_view, &iter, x, y);
  self->comparison.has_rest = false;
  clause_view_show_diff_tools (self, iter, x);
  return FALSE;
}

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

// The keyboard's way to a change: the tools follow the cursor too, and Tab leads to them.
static void
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

// Ctrl+Return commits, Ctrl+Z undoes, Ctrl+Shift+Z does it again.
static bool
clause_view_edit_key (ClauseView *self, GdkEventKey *event)
{
  if (!(event->state & GDK_CONTROL_MASK))
    return false;
  guint key = gdk_keyval_to_lower (event->keyval);
  if (key == GDK_KEY_Return || key == GDK_KEY_KP_Enter) {
    if (gtk_widget_is_sensitive (GTK_WIDGET (self->commit_button)))
      gtk_button_clicked (self->commit_button);
    return true;
  }
  if (key != GDK_KEY_z)
    return false;
  if (event->state & GDK_SHIFT_MASK) {
    text_history_redo (self->history);
  } else {
    text_history_undo (self->history);
  }
  return true;
}

// Wherever in the view the focus is.
static gboolean
clause_view_key_press_handle (GtkWidget *, GdkEventKey *event, ClauseView *self)
{
  bool can_go_back = self->note_label && gtk_widget_get_visible (GTK_WIDGET (self->note_label));
  if (event->keyval != GDK_KEY_Escape || !can_go_back)
    return FALSE;
  clause_view_go_back (self);
  return TRUE;
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

// ---- Handlers: the text's menu ----

static void
clause_view_append_menu_item (ClauseView *self, GtkWidget *menu, const char *label,
                              bool is_sensitive, void (*handler) (ClauseView *))
{
  GtkWidget *item = gtk_menu_item_new_with_label (label);
  gtk_widget_set_sensitive (item, is_sensitive);
  g_signal_connect_swapped (item, "activate", G_CALLBACK (handler), self);
  gtk_widget_show (item);
  gtk_menu_shell_append (GTK_MENU_SHELL (menu), item);
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

static void
clause_view_populate_popup_handle (GtkTextView *, GtkWidget *popup, ClauseView *self)
{
  if (!GTK_IS_MENU (popup))
    return;
  revision_list_fill_menu (&self->revision_list, GTK_MENU_SHELL (popup));
  if (self->aside.text_buffer)
    clause_view_append_menu_item (self, popup, "Go back to your comparison", true,
                                  clause_view_go_back_to_comparison);
  if (self->was_draft_left && self->clause->draft)
    clause_view_append_menu_item (self, popup, "Go back to your text", true,
                                  clause_view_go_back_to_draft);
  if (self->comparison.is_shown) {
    bool has_changes = clause_comparison_has_changes (&self->comparison);
    clause_view_append_menu_item (self, popup, "Take all of the newer text", has_changes,
                                  clause_view_take_newer);
    clause_view_append_menu_item (self, popup, "Take all of the older text", has_changes,
                                  clause_view_take_older);
    clause_view_append_menu_item (self, popup, "Use this text as draft", !has_changes,
                                  clause_view_use_as_draft);
    clause_view_append_menu_item (self, popup, "Leave the comparison", true,
                                  clause_view_leave_diff);
  } else if (self->revision && !self->is_draft) {
    clause_view_append_menu_item (self, popup, "Compare with the previous revision",
                                  clause_view_get_previous_revision (self) != NULL,
                                  clause_view_compare_with_previous);
  }
}

// ---- Handlers: the revisions list and the buttons ----

static void
clause_view_revision_select_list_box_row_activate_handle (GtkListBox *, GtkListBoxRow *row,
                                                          ClauseView *self)
{
  ClauseRevision *revision = revision_list_get_revision (row);
  gtk_popover_popdown (self->revision_list.popover);
  // Only the draft's row is without a revision.
  if (!revision || revision->status == REVISION_DRAFT) {
    clause_view_show_draft (self);
  } else if (revision->status == REVISION_COMMITTED) {
    clause_view_go_to_revision (self, revision, clause_view_get_window (self)->account.bare_jid);
  }
}

// What the user looks at, as the one end of a comparison; the draft must be stored.
static ClauseRevision *
clause_view_get_shown_revision (ClauseView *self)
{
  if (self->is_draft || self->was_draft_shown)
    return self->clause->draft;
  return self->revision ? self->revision : self->base_revision;
}

static void
clause_view_compare_with_shown (gpointer data, ClauseRevision *revision)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (data);
  clause_view_save_draft (self);
  clause_view_compare (self, revision ? revision : self->clause->draft,
                       clause_view_get_shown_revision (self));
}

// A comparison can look like any text, so it gives way to the revision that is decided on.
static void
clause_view_leave_diff_for_decision (ClauseView *self)
{
  if (self->comparison.is_shown)
    clause_view_go_to_revision (self, self->revision,
                                clause_view_get_window (self)->account.bare_jid);
}

static void
clause_view_decision_button_pressed_handle (GtkButton *, ClauseView *self)
{
  self->press_time = g_get_monotonic_time ();
}

// After the click, where the press ended on the button.
static void
clause_view_decision_button_released_handle (GtkButton *, ClauseView *self)
{
  self->press_time = 0;
}

// Whether a press was on its way when a revision arrived below it, which the user has not seen yet.
static bool
clause_view_is_hasty (ClauseView *self)
{
  s64 time = self->press_time ? self->press_time : g_get_monotonic_time ();
  return self->was_about_to_press && time < self->arrival_time + HASTE_MAX;
}

// The focus goes where a stray key neither types nor decides.
static void
clause_view_focus_revisions_button (ClauseView *self)
{
  clause_view_focus_in_place (self, GTK_WIDGET (self->revision_select_menu_button));
}

static void
clause_view_agree_button_handle (GtkButton *, ClauseView *self)
{
  assert (self->revision);
  if (clause_view_is_hasty (self))
    return;
  clause_view_leave_diff_for_decision (self);
  clause_view_make_new_decision (self, clause_view_get_window (self)->account.bare_jid,
                                 DECISION_AGREE);
  clause_view_set_decision_buttons_sensitive (self, FALSE, TRUE);
  clause_view_focus_revisions_button (self);
}

static void
clause_view_disagree_button_handle (GtkButton *, ClauseView *self)
{
  assert (self->revision);
  if (clause_view_is_hasty (self))
    return;
  clause_view_leave_diff_for_decision (self);
  clause_view_make_new_decision (self, clause_view_get_window (self)->account.bare_jid,
                                 DECISION_DISAGREE);
  clause_view_set_decision_buttons_sensitive (self, TRUE, FALSE);
  clause_view_focus_revisions_button (self);
}

static bool
is_blank (String text)
{
  const char *end = (const char *) text.data + text.size;
  for (const char *c = (const char *) text.data; c < end; c = g_utf8_next_char (c)) {
    if (!g_unichar_isspace (g_utf8_get_char (c)))
      return false;
  }
  return true;
}

static void
clause_view_commit_button_handle (GtkButton *, ClauseView *self)
{
  assert (self->is_draft);
  [[maybe_unused]] GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  assert (gtk_text_buffer_get_char_count (text_buffer));
  String text = clause_view_alloc_text (self);
  if (is_blank (text)) {
    dealloc_string (text);
    clause_view_show_refusal (self, "A text of blanks can't be committed.");
    return;
  }
  clause_view_replace_draft (self);
  clause_view_remove_draft_from_revisions_select_list (self);
  ClauseRevision *revision =
    negotiation_commit (clause_view_get_negotiation (self), self->clause, text);
  dealloc_string (text);
  // It is the revision now, and no draft to be kept.
  self->is_text_changed = false;

  clause_view_add_revision (self, revision);
  clause_view_go_to_revision (self, revision, clause_view_get_window (self)->account.bare_jid);
  clause_view_order_revision (self, revision);
  clause_view_focus_revisions_button (self);
  // The other party gets the clause with it, whoever has put a revision in before.
  clause_view_enable_chat (self);
  delivery_send (clause_view_get_window (self));
}

// Deletes an own clause that nobody else knows. This view goes with it when that cannot be undone any
// more.
static void
clause_view_remove_clause (ClauseView *self)
{
  AppWindow *window = clause_view_get_window (self);
  // What is typed is there again after an undo.
  clause_view_save_draft (self);
  deletion_end (window);
  negotiation_delete_clause (app_window_get_negotiation (window), self->procedure, self->clause);
  ProcedureView *procedure_view = self->procedure->view;
  procedure_view_put_clause_away (procedure_view, self->clause);
  procedure_view_focus_add_clause_button (procedure_view);
  deletion_offer_undo (window, "Clause deleted.");
}

static void
clause_view_cancel_button_handle (GtkButton *, ClauseView *self)
{
  assert (self->is_draft);
  String own = clause_view_get_window (self)->account.bare_jid;
  Clause *clause = self->clause;
  if (!clause->revisions_count && clause->initiator == own) {
    clause_view_remove_clause (self);
    return;
  }
  clause_view_replace_draft (self);
  self->is_text_changed = false;
  if (clause->revisions_count) {
    clause_view_remove_draft_from_revisions_select_list (self);
    ClauseRevision *target = self->base_revision;
    if (!target)
      target = clause->revisions[clause->revisions_count - 1];
    negotiation_discard_draft (clause_view_get_negotiation (self), clause);
    clause_view_go_to_revision (self, target, own);
  } else {
    // The other party's clause, whose first revision is still to come.
    if (self->revision_list.has_draft_row)
      clause_view_remove_draft_from_revisions_select_list (self);
    negotiation_discard_draft (clause_view_get_negotiation (self), clause);
    clause_view_leave_text (self);
    clause_view_set_text (self, {});
    clause_view_set_draft_mode (self);
  }
  clause_view_focus_revisions_button (self);
}

static void
clause_view_chat_button_handle (GtkButton *, ClauseView *self)
{
  procedure_view_show_clause_chat_page (self->procedure->view, self->clause->chat_page);
}

static void
clause_view_diff_add_button_handle (GtkButton *, ClauseView *self)
{
  clause_view_decide_change (self, true);
}

static void
clause_view_diff_del_button_handle (GtkButton *, ClauseView *self)
{
  clause_view_decide_change (self, false);
}

static void
clause_view_drop_aside (ClauseView *self)
{
  if (!self->aside.text_buffer)
    return;
  clause_comparison_finalize (&self->aside.comparison);
  g_clear_object (&self->aside.text_buffer);
  g_clear_pointer (&self->aside.status, g_free);
}

// What the user has decided in a comparison is at hand afterwards, as a replaced draft is.
static void
clause_view_keep_decisions (ClauseView *self, ClauseComparison *comparison,
                            GtkTextBuffer *text_buffer)
{
  char *text = clause_comparison_alloc_text (comparison, text_buffer);
  String sendable = alloc_sendable_text (to_string (text));
  kept_drafts_add (self->kept_drafts, sendable);
  dealloc_string (sendable);
  g_free (text);
}

// A view may go without its user's doing.
static void
clause_view_dispose (GObject *object)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (object);
  clause_view_drop_save_source (self);
  if (self->aside.text_buffer)
    clause_view_keep_decisions (self, &self->aside.comparison, self->aside.text_buffer);
  clause_view_drop_aside (self);
  if (self->comparison.is_shown && self->comparison.has_decisions)
    clause_view_keep_decisions (self, &self->comparison,
                                gtk_text_view_get_buffer (self->text_view));
  // Once: the text is gone when the view is disposed again.
  self->comparison.has_decisions = false;
  G_OBJECT_CLASS (clause_view_parent_class)->dispose (object);
}

static void
clause_view_finalize (GObject *object)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (object);
  clause_view_drop_refusal (self);
  dealloc_text_history (self->history);
  clause_comparison_finalize (&self->comparison);
  G_OBJECT_CLASS (clause_view_parent_class)->finalize (object);
}

static void
clause_view_class_init (ClauseViewClass *view_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (view_class);
  G_OBJECT_CLASS (view_class)->dispose = clause_view_dispose;
  G_OBJECT_CLASS (view_class)->finalize = clause_view_finalize;
  // The template names it.
  g_type_ensure (wrapped_text_get_type ());
  gtk_widget_class_set_template_from_resource (widget_class, "/org/halvex/morvane/clause_view.ui");
  gtk_widget_class_bind_template_child (widget_class, ClauseView, chat_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, text_view);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, revision_select_menu_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, revision_status_label);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, decision_status_label);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, agree_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, disagree_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, commit_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, cancel_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, diff_overlay_tools);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, diff_add_button);
  gtk_widget_class_bind_template_child (widget_class, ClauseView, diff_del_button);
}

// A text that wraps is never scrolled sideways: room for the cursor behind a full line would cost
// the first column a pixel.
static void
clause_view_hadjustment_value_changed_handle (GtkAdjustment *adjustment, gpointer)
{
  gtk_adjustment_set_value (adjustment, 0);
}

static void
clause_view_init (ClauseView *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  clause_comparison_init (&self->comparison, self->text_view, GTK_WIDGET (self->diff_overlay_tools),
                          GTK_WIDGET (self->diff_add_button), GTK_WIDGET (self->diff_del_button));
  g_signal_connect (gtk_scrollable_get_hadjustment (GTK_SCROLLABLE (self->text_view)),
                    "value-changed", G_CALLBACK (clause_view_hadjustment_value_changed_handle),
                    NULL);
  g_signal_connect (self->chat_button, "clicked", G_CALLBACK (clause_view_chat_button_handle),
                    self);
  clause_view_set_decision_buttons_sensitive (self, FALSE, FALSE);
  clause_view_set_edit_buttons_sensitive (self, FALSE, FALSE);
}

// Once the text has its new size.
static gboolean
clause_view_scroll_to_cursor (gpointer data)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (data);
  GtkWidget *text_view = GTK_WIDGET (self->text_view);
  GtkWidget *viewport = gtk_widget_get_ancestor (GTK_WIDGET (self), GTK_TYPE_VIEWPORT);
  if (!viewport || !gtk_widget_get_mapped (text_view) || !gtk_widget_has_focus (text_view))
    return G_SOURCE_REMOVE;
  GdkRectangle cursor;
  gtk_text_view_get_cursor_locations (self->text_view, NULL, &cursor, NULL);
  gtk_text_view_buffer_to_window_coords (self->text_view, GTK_TEXT_WINDOW_WIDGET, 0, cursor.y, NULL,
                                         &cursor.y);
  int y = 0;
  gtk_widget_translate_coordinates (text_view, gtk_bin_get_child (GTK_BIN (viewport)), 0, cursor.y,
                                    NULL, &y);
  gtk_adjustment_clamp_page (gtk_scrollable_get_vadjustment (GTK_SCROLLABLE (viewport)), y,
                             y + cursor.height);
  return G_SOURCE_REMOVE;
}

static void
clause_view_cursor_moved_handle (GtkTextBuffer *, GParamSpec *, ClauseView *self)
{
  if (gtk_widget_has_focus (GTK_WIDGET (self->text_view)))
    gdk_threads_add_idle_full (G_PRIORITY_DEFAULT_IDLE, clause_view_scroll_to_cursor,
                               g_object_ref (self), g_object_unref);
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

static void
clause_view_connect_text_buffer (ClauseView *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_view_connect_text_changed (self);
  g_signal_connect (text_buffer, "notify::cursor-position",
                    G_CALLBACK (clause_view_cursor_position_handle), self);
  g_signal_connect (text_buffer, "notify::cursor-position",
                    G_CALLBACK (clause_view_cursor_moved_handle), self);
}

static void
clause_view_connect_handlers (ClauseView *self)
{
  self->history = alloc_text_history (gtk_text_view_get_buffer (self->text_view));
  clause_view_connect_text_buffer (self);
  g_signal_connect (self, "map", G_CALLBACK (clause_view_map_handle), NULL);
  g_signal_connect (self, "key-press-event", G_CALLBACK (clause_view_key_press_handle), self);
  GtkButton *decision_buttons[] = {self->agree_button, self->disagree_button};
  for (GtkButton *button : decision_buttons) {
    g_signal_connect (button, "pressed", G_CALLBACK (clause_view_decision_button_pressed_handle),
                      self);
    g_signal_connect (button, "released", G_CALLBACK (clause_view_decision_button_released_handle),
                      self);
  }
  g_signal_connect (self->agree_button, "clicked", G_CALLBACK (clause_view_agree_button_handle),
                    self);
  g_signal_connect (self->disagree_button, "clicked",
                    G_CALLBACK (clause_view_disagree_button_handle), self);
  g_signal_connect (self->commit_button, "clicked", G_CALLBACK (clause_view_commit_button_handle),
                    self);
  g_signal_connect (self->cancel_button, "clicked", G_CALLBACK (clause_view_cancel_button_handle),
                    self);
  g_signal_connect (self->text_view, "focus-out-event", G_CALLBACK (clause_view_focus_out_handle),
                    self);
  g_signal_connect (self->text_view, "size-allocate",
                    G_CALLBACK (clause_view_text_view_size_allocate_handle), self);
  g_signal_connect (self->text_view, "motion-notify-event",
                    G_CALLBACK (clause_view_text_view_motion_notify_handle), self);
  g_signal_connect (self->text_view, "populate-popup",
                    G_CALLBACK (clause_view_populate_popup_handle), self);
  g_signal_connect (self->revision_list.list_box, "row-activated",
                    G_CALLBACK (clause_view_revision_select_list_box_row_activate_handle), self);
  GtkWidget *places[] = {GTK_WIDGET (self->text_view), GTK_WIDGET (self->diff_add_button),
                         GTK_WIDGET (self->diff_del_button)};
  for (u32 i = 0; i < G_N_ELEMENTS (places); i++) {
    gtk_widget_add_events (places[i], GDK_LEAVE_NOTIFY_MASK);
    g_signal_connect (places[i], "leave-notify-event",
                      G_CALLBACK (clause_view_diff_leave_notify_handle), self);
    g_signal_connect (places[i], "key-press-event", G_CALLBACK (clause_view_diff_key_press_handle),
                      self);
  }
  g_signal_connect (self->diff_add_button, "clicked",
                    G_CALLBACK (clause_view_diff_add_button_handle), self);
  g_signal_connect (self->diff_del_button, "clicked",
                    G_CALLBACK (clause_view_diff_del_button_handle), self);
}

GtkWidget *
clause_view_new (Procedure *procedure, Clause *clause)
{
  ClauseView *self = MORVANE_CLAUSE_VIEW (g_object_new (clause_view_get_type (), NULL));
  self->procedure = procedure;
  self->clause = clause;
  self->kept_drafts = get_kept_drafts (procedure->account_db_id, procedure->initiator,
                                       procedure->time, clause->initiator, clause->time);
  revision_list_init (&self->revision_list, self->revision_select_menu_button, clause,
                      self->kept_drafts);
  self->revision_list.owner = self;
  self->revision_list.compare = clause_view_compare_with_shown;
  self->revision_list.bring_back = clause_view_bring_back;
  if (clause->revisions_count)
    clause_view_enable_chat (self);
  for (u32 i = 0; i < clause->revisions_count; i++) {
    clause_view_add_revision (self, clause->revisions[i]);
    if (!pause_long_work ())
      break;
  }
  if (clause->draft)
    revision_list_add_draft_row (&self->revision_list);
  clause_view_show_waiting_draft (self);
  if (kept_drafts_count (self->kept_drafts))
    revision_list_show_kept_drafts (&self->revision_list);
  clause_view_connect_handlers (self);
  return GTK_WIDGET (self);
}

// ---- Revisions and the draft ----

void
clause_view_add_revision (ClauseView *self, ClauseRevision *revision)
{
  revision_list_add (&self->revision_list, revision);
}

void
clause_view_order_revision (ClauseView *self, ClauseRevision *revision)
{
  revision_list_order (&self->revision_list, revision);
}

static void
clause_view_show_own_decision (ClauseView *self, ClauseRevision *revision, String own)
{
  ClauseRevisionDecision *decision = get_revision_decision_by_author (revision, own);
  if (!decision) {
    clause_view_set_decision_buttons_sensitive (self, TRUE, TRUE);
  } else if (decision->status == DECISION_AGREE) {
    clause_view_set_decision_buttons_sensitive (self, FALSE, TRUE);
  } else if (decision->status == DECISION_DISAGREE) {
    clause_view_set_decision_buttons_sensitive (self, TRUE, FALSE);
  } else {
    assert (!"Unhandled decision case.");
  }
}

static void
clause_view_show_others_decision (ClauseView *self, DecisionStatus status)
{
  if (status == DECISION_AGREE) {
    clause_view_set_others_decision_to_agree (self);
  } else if (status == DECISION_DISAGREE) {
    clause_view_set_others_decision_to_disagree (self);
  } else {
    assert (!"Unhandled decision case.");
  }
}

// Belongs to the caller (`g_free`). Seconds stay seconds where no calendar goes that far.
static char *
alloc_local_time (s64 time)
{
  GDateTime *date_time = g_date_time_new_from_unix_local (time);
  if (!date_time)
    return g_strdup_printf ("%ld", time);
  char *text = g_date_time_format (date_time, "%F %T");
  g_date_time_unref (date_time);
  return text;
}

static void
clause_view_show_revision_status (ClauseView *self, ClauseRevision *revision)
{
  char *status = alloc_shown_revision_name (revision);
  clause_view_set_status (self, status);
  g_free (status);
  label_warn_of_address (self->revision_status_label, revision->author);
}

// Says which revision the decision buttons decide on, as the text beside them may be a comparison.
static void
clause_view_show_decided_revision (ClauseView *self, ClauseRevision *revision)
{
  char *time = alloc_local_time (revision->time);
  char *author = alloc_shown_text (revision->author);
  char *name = g_strdup_printf ("the revision of %s, %s", author, time);
  g_free (author);
  char *agree = g_strconcat ("Agree with ", name, NULL);
  char *disagree = g_strconcat ("Disagree with ", name, NULL);
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->agree_button), agree);
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->disagree_button), disagree);
  g_free (disagree);
  g_free (agree);
  g_free (name);
  g_free (time);
}

// The page stays where it is: the user may be reading elsewhere.
static void
clause_view_focus_in_place (ClauseView *self, GtkWidget *widget)
{
  GtkAdjustment *page = procedure_view_get_page (GTK_WIDGET (self));
  double place = page ? gtk_adjustment_get_value (page) : 0;
  gtk_widget_grab_focus (widget);
  if (page)
    gtk_adjustment_set_value (page, place);
}

// Whether labels and buttons beside the text speak of this revision. Beside a draft, and a comparison
// begun at a draft, they speak of none.
static bool
clause_view_is_decided_on (ClauseView *self, ClauseRevision *revision)
{
  return !self->is_draft && !self->was_draft_shown && revision == self->revision;
}

void
clause_view_show_unsent (ClauseView *self, ClauseRevision *revision)
{
  GtkWidget *toplevel = gtk_widget_get_toplevel (GTK_WIDGET (self));
  // While the account is loaded the view has no window yet.
  if (!MORVANE_IS_APP_WINDOW (toplevel))
    return;
  AppWindow *window = MORVANE_APP_WINDOW (toplevel);
  bool is_unsent = delivery_is_unsent (window, OUTBOX_REVISION, revision->db_id);
  GtkListBoxRow *row = revision_list_find_row (&self->revision_list, revision);
  if (row)
    unsent_mark_show (GTK_WIDGET (row), is_unsent);
  if (!clause_view_is_decided_on (self, revision))
    return;
  // In a comparison the label names two revisions, or a draft.
  unsent_mark_show (GTK_WIDGET (self->revision_status_label),
                    is_unsent && !self->comparison.is_shown);
  ClauseRevisionDecision *decision =
    get_revision_decision_by_author (revision, window->account.bare_jid);
  bool is_owed = decision && delivery_is_unsent (window, OUTBOX_DECISION, decision->db_id);
  unsent_mark_show (GTK_WIDGET (self->agree_button), is_owed && decision->status == DECISION_AGREE);
  unsent_mark_show (GTK_WIDGET (self->disagree_button),
                    is_owed && decision->status == DECISION_DISAGREE);
}

static void
clause_view_show_comparison_state (ClauseView *self, const char *status)
{
  self->is_text_changed = false;
  self->is_draft = false;
  clause_view_set_edit_buttons_sensitive (self, FALSE, FALSE);
  clause_view_set_status (self, status);
  unsent_mark_show (GTK_WIDGET (self->revision_status_label), false);
  clause_view_show_waiting_draft (self);
}

// What the user asked for.
static void
clause_view_go_to_revision (ClauseView *self, ClauseRevision *revision, String own)
{
  clause_view_leave_text (self);
  if (clause_comparison_has_focus_in_tools (&self->comparison))
    clause_view_focus_in_place (self, GTK_WIDGET (self->revision_select_menu_button));
  clause_comparison_end (&self->comparison);
  GtkListBoxRow *row = revision_list_find_row (&self->revision_list, revision);
  assert (row);
  gtk_list_box_select_row (self->revision_list.list_box, row);
  self->revision = revision;
  self->base_revision = revision;
  self->is_text_changed = false;
  self->is_draft = false;
  self->was_draft_shown = false;
  clause_view_set_edit_buttons_sensitive (self, FALSE, FALSE);
  clause_view_set_text (self, revision->text);
  clause_view_show_revision_status (self, revision);
  clause_view_show_decided_revision (self, revision);
  clause_view_show_own_decision (self, revision, own);

  String other = procedure_get_other_party (self->procedure, own);
  ClauseRevisionDecision *decision = get_revision_decision_by_party (revision, other);
  if (decision) {
    clause_view_show_others_decision (self, decision->status);
  } else {
    gtk_label_set_markup (self->decision_status_label, " ");
  }
  clause_view_show_waiting_draft (self);
  clause_view_show_unsent (self, revision);
}

static void
clause_view_show_note (ClauseView *self, const char *text)
{
  if (!self->note_label) {
    self->note_label = GTK_LABEL (gtk_label_new (NULL));
    gtk_label_set_xalign (self->note_label, 0);
    gtk_label_set_line_wrap (self->note_label, TRUE);
    gtk_style_context_add_class (gtk_widget_get_style_context (GTK_WIDGET (self->note_label)),
                                 "note");
    gtk_box_pack_start (GTK_BOX (self), GTK_WIDGET (self->note_label), FALSE, FALSE, 0);
    // Just above the text.
    gtk_box_reorder_child (GTK_BOX (self), GTK_WIDGET (self->note_label), 1);
  }
  char *markup = g_markup_printf_escaped ("<b>%s</b>", text);
  gtk_label_set_markup (self->note_label, markup);
  g_free (markup);
  gtk_widget_show (GTK_WIDGET (self->note_label));
}

// Whether it begins above what is in sight of the page.
static bool
clause_view_is_above_page (ClauseView *self, GtkWidget *widget)
{
  GtkWidget *viewport = gtk_widget_get_ancestor (GTK_WIDGET (self), GTK_TYPE_VIEWPORT);
  int y = 0;
  return viewport &&
         gtk_widget_translate_coordinates (widget, gtk_bin_get_child (GTK_BIN (viewport)), 0, 0,
                                           NULL, &y) &&
         y < gtk_adjustment_get_value (procedure_view_get_page (GTK_WIDGET (self)));
}

const char *
clause_view_get_unseen_note (ClauseView *self)
{
  GtkWidget *status = GTK_WIDGET (self->revision_status_label);
  if (self->status_before && clause_view_is_above_page (self, status))
    return gtk_label_get_text (self->revision_status_label);
  GtkWidget *note = GTK_WIDGET (self->note_label);
  if (note && gtk_widget_get_visible (note) && clause_view_is_above_page (self, note))
    return gtk_label_get_text (self->note_label);
  return NULL;
}

static bool
clause_view_is_below_pointer (GtkButton *button)
{
  GtkWidget *widget = GTK_WIDGET (button);
  if (gtk_widget_has_focus (widget))
    return true;
  GdkWindow *gdk_window = gtk_widget_get_window (widget);
  GdkSeat *seat = gdk_display_get_default_seat (gtk_widget_get_display (widget));
  int x;
  int y;
  gdk_window_get_device_position (gdk_window, gdk_seat_get_pointer (seat), &x, &y, NULL);
  GtkAllocation place;
  gtk_widget_get_allocation (widget, &place);
  bool is_beside = x >= place.x && x < place.x + place.width;
  // Without a place yet, it is as small as a widget can be.
  return place.width > 1 && is_beside && y >= place.y && y < place.y + place.height;
}

// Another buffer takes over what the user sees and does in the text.
static void
clause_view_change_text_buffer (ClauseView *self, GtkTextBuffer *text_buffer)
{
  g_signal_handlers_disconnect_by_data (gtk_text_view_get_buffer (self->text_view), self);
  gtk_text_view_set_buffer (self->text_view, text_buffer);
  text_history_set_text_buffer (self->history, text_buffer);
  clause_view_connect_text_buffer (self);
}

// The comparison leaves the view as it is, decisions included.
static void
clause_view_put_comparison_aside (ClauseView *self)
{
  clause_view_drop_aside (self);
  clause_comparison_hide_tools (&self->comparison);
  ComparisonAside *aside = &self->aside;
  aside->text_buffer = GTK_TEXT_BUFFER (g_object_ref (gtk_text_view_get_buffer (self->text_view)));
  aside->comparison = self->comparison;
  aside->status = g_strdup (gtk_label_get_text (self->revision_status_label));
  aside->was_draft_shown = self->was_draft_shown;
  GtkTextBuffer *text_buffer = gtk_text_buffer_new (NULL);
  clause_view_change_text_buffer (self, text_buffer);
  g_object_unref (text_buffer);
  clause_comparison_init (&self->comparison, self->text_view, aside->comparison.tools,
                          aside->comparison.keep_button, aside->comparison.remove_button);
  gtk_text_view_set_bottom_margin (self->text_view, 0);
  gtk_text_view_set_editable (self->text_view, TRUE);
}

static bool
clause_view_holds_focus (ClauseView *self)
{
  GtkWidget *window = gtk_widget_get_toplevel (GTK_WIDGET (self));
  GtkWidget *focus = GTK_IS_WINDOW (window) ? gtk_window_get_focus (GTK_WINDOW (window)) : NULL;
  return focus && gtk_widget_is_ancestor (focus, GTK_WIDGET (self));
}

// Keeps what the user is at, as a revision is going to take its place. Keys that were on their way
// there are swallowed.
static void
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
    clause_view_show_note (self, "Your comparison is kept: Escape goes back to it.");
  } else if (self->is_draft && self->is_on_draft && self->clause->draft) {
    self->was_draft_left = true;
    self->is_draft_newer = true;
    clause_view_show_note (self, "Your text is kept: Escape goes back to it.");
  }
  self->was_about_to_press = false;
  if (!gtk_widget_get_mapped (GTK_WIDGET (self)))
    return;
  self->arrival_time = g_get_monotonic_time ();
  // The decision buttons may move to where the others are now.
  GtkButton *buttons[] = {self->agree_button, self->disagree_button, self->commit_button,
                          self->cancel_button};
  for (GtkButton *button : buttons)
    self->was_about_to_press |= clause_view_is_below_pointer (button);
}

void
clause_view_show_revision (ClauseView *self, ClauseRevision *revision, String own)
{
  clause_view_make_room (self);
  clause_view_go_to_revision (self, revision, own);
  self->is_as_arrived = gtk_widget_get_mapped (GTK_WIDGET (self));
}

bool
clause_view_is_as_arrived (ClauseView *self)
{
  return self->is_as_arrived;
}

static void
clause_view_go_back_to_comparison (ClauseView *self)
{
  gtk_widget_hide (GTK_WIDGET (self->note_label));
  ComparisonAside *aside = &self->aside;
  clause_view_leave_text (self);
  clause_comparison_end (&self->comparison);
  clause_view_change_text_buffer (self, aside->text_buffer);
  self->comparison = aside->comparison;
  clause_view_show_comparison_state (self, aside->status);
  self->was_draft_shown = aside->was_draft_shown;
  clause_comparison_restore (&self->comparison);
  g_clear_object (&aside->text_buffer);
  g_clear_pointer (&aside->status, g_free);
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
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
clause_view_show_draft (ClauseView *self)
{
  clause_view_leave_text (self);
  assert (self->clause->draft);
  clause_comparison_end (&self->comparison);
  clause_view_set_text (self, self->clause->draft->text);
  self->is_on_draft = true;
  self->was_draft_left = false;
  text_history_go_on (self->history);
  clause_view_look_away (self);
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextIter cursor;
  gtk_text_buffer_get_iter_at_offset (text_buffer, &cursor, self->draft_cursor);
  gtk_text_buffer_place_cursor (text_buffer, &cursor);
  clause_view_look_back (self);
  clause_view_set_draft_mode (self);
}

// Takes the place of the present draft, which is at hand then.
static void
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
  text_history_begin (self->history);
  self->draft_cursor = -1;
  clause_view_select_draft_row (self);
  clause_view_show_draft (self);
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
}

void
clause_view_set_draft_mode (ClauseView *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_comparison_end (&self->comparison);
  self->is_draft = true;
  self->was_draft_shown = false;
  clause_view_set_status (self, "draft");
  label_warn_of_address (self->revision_status_label, {});
  gtk_label_set_text (self->decision_status_label, " ");
  clause_view_set_decision_buttons_sensitive (self, FALSE, FALSE);
  unsent_mark_show (GTK_WIDGET (self->revision_status_label), false);
  unsent_mark_show (GTK_WIDGET (self->agree_button), false);
  unsent_mark_show (GTK_WIDGET (self->disagree_button), false);
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->agree_button), "Agree");
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->disagree_button), "Disagree");
  clause_view_set_edit_buttons_sensitive (self, gtk_text_buffer_get_char_count (text_buffer) != 0,
                                          TRUE);
  if (self->note_label)
    gtk_widget_hide (GTK_WIDGET (self->note_label));
  clause_view_show_waiting_draft (self);
}

static void
clause_view_select_draft_row (ClauseView *self)
{
  revision_list_add_draft_row (&self->revision_list);
  GtkListBoxRow *row = clause_revision_list_item_draft_find_row (self->revision_list.list_box);
  assert (row);
  gtk_list_box_select_row (self->revision_list.list_box, row);
}

void
clause_view_begin_draft (ClauseView *self)
{
  clause_view_select_draft_row (self);
  clause_view_set_draft_mode (self);
}

void
clause_view_save_draft (ClauseView *self)
{
  if (!self->is_text_changed)
    return;
  String text = clause_view_alloc_text (self);
  negotiation_save_draft (clause_view_get_negotiation (self), self->clause, text);
  dealloc_string (text);
  self->is_text_changed = false;
  clause_view_drop_save_source (self);
  // Without its row it could not be reached once something else is shown.
  clause_view_select_draft_row (self);
}

void
clause_view_remove_draft_from_revisions_select_list (ClauseView *self)
{
  GtkListBoxRow *row = clause_revision_list_item_draft_find_row (self->revision_list.list_box);
  if (row) {
    gtk_container_remove (GTK_CONTAINER (self->revision_list.list_box), GTK_WIDGET (row));
  } else {
    console_put ("Warning: Trying to remove draft row from revisions list, but there's no draft "
                 "there.\n");
  }
  self->revision_list.has_draft_row = false;
}

void
clause_view_set_text (ClauseView *self, String text)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_view_look_away (self);
  gtk_text_buffer_set_text (text_buffer, text.size ? (const char *) text.data : "",
                            (gint) text.size);
  clause_view_look_back (self);
}

void
clause_view_measure (ClauseView *self)
{
  // It is measured here, and need not be asked once more.
  self->text_width = LIKELY_TEXT_WIDTH;
  gtk_text_view_place (self->text_view, LIKELY_TEXT_WIDTH);
  GtkRequisition size;
  gtk_widget_get_preferred_size (GTK_WIDGET (self), &size, NULL);
}

void
clause_view_enable_chat (ClauseView *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->chat_button), TRUE);
}

void
clause_view_focus_text (ClauseView *self)
{
  gtk_widget_grab_focus (GTK_WIDGET (self->text_view));
}

// ---- Decisions ----

// The word "contractor" stands for the other party, also when that is the initiator.
void
clause_view_set_others_decision_to_agree (ClauseView *self)
{
  gtk_label_set_markup (self->decision_status_label,
                        "<span foreground=\"#2b2\">contractor agrees</span>");
}

void
clause_view_set_others_decision_to_disagree (ClauseView *self)
{
  gtk_label_set_markup (self->decision_status_label,
                        "<span foreground=\"#e44\">contractor disagrees</span>");
}

void
clause_view_set_others_revision_decision (ClauseView *self, ClauseRevision *revision,
                                          ClauseRevisionDecision *decision)
{
  if (!clause_view_is_decided_on (self, revision))
    return;
  String own = clause_view_get_window (self)->account.bare_jid;
  if (!is_same_party (decision->author, procedure_get_other_party (self->procedure, own)))
    return;
  clause_view_show_others_decision (self, decision->status);
}

void
clause_view_make_new_decision (ClauseView *self, String author, DecisionStatus status)
{
  assert (self->revision);
  negotiation_decide (clause_view_get_negotiation (self), self->revision, author, status);
  delivery_send (clause_view_get_window (self));
  // The entry may have waited already, for the other decision and with its mark.
  clause_view_show_unsent (self, self->revision);
}

// ---- Comparison ----

void
clause_view_show_diff (ClauseView *self, ClauseRevision *older, ClauseRevision *newer)
{
  // Of comparisons in a row, the first says what was shown before.
  if (self->is_draft)
    self->was_draft_shown = true;
  if (self->aside.text_buffer) {
    clause_view_keep_decisions (self, &self->aside.comparison, self->aside.text_buffer);
    revision_list_show_kept_drafts (&self->revision_list);
  }
  clause_view_drop_aside (self);
  char *older_name = alloc_shown_revision_name (older);
  char *newer_name = alloc_shown_revision_name (newer);
  char *status = g_strconcat (older_name, " > ", newer_name, NULL);
  clause_view_show_comparison_state (self, status);
  g_free (status);
  g_free (newer_name);
  g_free (older_name);
  bool is_older_misleading = is_misleading_address (older->author);
  label_warn_of_address (self->revision_status_label,
                         (is_older_misleading ? older : newer)->author);

  clause_view_look_away (self);
  clause_comparison_show (&self->comparison, older->text, newer->text);
  clause_view_look_back (self);
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
  self->revision = NULL;
  clause_view_replace_draft (self);
  text_history_begin (self->history);
  clause_view_begin_draft (self);
  self->is_text_changed = true;
  clause_view_save_draft (self);
}

// Decides on the run that the tools stand at. A kept run stays as ordinary text; another one goes,
// and where that was the last, what is left is a draft.
static void
clause_view_decide_change (ClauseView *self, bool is_kept)
{
  if (!self->comparison.has_run)
    return;
  clause_view_look_away (self);
  clause_comparison_decide (&self->comparison, is_kept);
  clause_view_look_back (self);
  if (!is_kept && !clause_comparison_has_changes (&self->comparison))
    clause_view_use_as_draft (self);
  clause_view_focus_in_place (self, GTK_WIDGET (self->text_view));
}

static void
clause_view_take_all (ClauseView *self, bool is_newer)
{
  clause_view_look_away (self);
  clause_comparison_take_all (&self->comparison, is_newer);
  clause_view_look_back (self);
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

// Compares two of the clause's revisions, the draft being the newest. Refused, with a text in the
// place of the revision's name, where there is nothing to compare.
static void
clause_view_compare (ClauseView *self, ClauseRevision *revision, ClauseRevision *other_revision)
{
  clause_view_save_draft (self);
  const char *refusal = get_comparison_refusal (revision, other_revision);
  if (refusal) {
    console_log ("Info: %s\n", refusal);
    clause_view_show_refusal (self, refusal);
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
