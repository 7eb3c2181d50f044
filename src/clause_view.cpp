#include "clause_view.h"

#include <assert.h>

#include "clause_chat_page.h"
#include "clause_revision_list_item.h"
#include "clause_view_comparison.h"
#include "clause_view_drafts.h"
#include "clause_view_parts.h"
#include "deletion.h"
#include "delivery.h"
#include "morvane.h"
#include "procedure_view.h"
#include "shown_text.h"
#include "unsent_mark.h"

G_DEFINE_TYPE (ClauseView, clause_view, GTK_TYPE_BOX)

// ---- Helpers ----

AppWindow *
clause_view_get_window (ClauseView *self)
{
  return MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
}

Negotiation *
clause_view_get_negotiation (ClauseView *self)
{
  return app_window_get_negotiation (clause_view_get_window (self));
}

void
clause_view_set_edit_buttons_sensitive (ClauseView *self, gboolean commit, gboolean cancel)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->commit_button), commit);
  gtk_widget_set_sensitive (GTK_WIDGET (self->cancel_button), cancel);
}

// A draft that nobody sees is forgotten easily.
void
clause_view_show_waiting_draft (ClauseView *self)
{
  revision_list_show_waiting_draft (&self->revision_list,
                                    self->clause->draft && !self->is_on_draft);
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
  clause_view_save_soon (self);
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

void
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

// ---- Handlers: the text's menu ----

void
clause_view_append_menu_item (ClauseView *self, GtkWidget *menu, const char *label,
                              bool is_sensitive, void (*handler) (ClauseView *))
{
  GtkWidget *item = gtk_menu_item_new_with_label (label);
  gtk_widget_set_sensitive (item, is_sensitive);
  g_signal_connect_swapped (item, "activate", G_CALLBACK (handler), self);
  gtk_widget_show (item);
  gtk_menu_shell_append (GTK_MENU_SHELL (menu), item);
}

static void
clause_view_populate_popup_handle (GtkTextView *, GtkWidget *popup, ClauseView *self)
{
  if (!GTK_IS_MENU (popup))
    return;
  revision_list_fill_menu (&self->revision_list, GTK_MENU_SHELL (popup));
  clause_view_add_ways_back (self, popup);
  clause_view_add_comparison_items (self, popup);
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

// A comparison can look like any text, so it gives way to the revision that is decided on.
static void
clause_view_leave_diff_for_decision (ClauseView *self)
{
  if (self->comparison.is_shown)
    clause_view_go_to_revision (self, self->revision,
                                clause_view_get_window (self)->account.bare_jid);
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
  if (decision_buttons_are_hasty (&self->decision_buttons))
    return;
  clause_view_leave_diff_for_decision (self);
  clause_view_make_new_decision (self, clause_view_get_window (self)->account.bare_jid,
                                 DECISION_AGREE);
  decision_buttons_set_sensitive (&self->decision_buttons, FALSE, TRUE);
  clause_view_focus_revisions_button (self);
}

static void
clause_view_disagree_button_handle (GtkButton *, ClauseView *self)
{
  assert (self->revision);
  if (decision_buttons_are_hasty (&self->decision_buttons))
    return;
  clause_view_leave_diff_for_decision (self);
  clause_view_make_new_decision (self, clause_view_get_window (self)->account.bare_jid,
                                 DECISION_DISAGREE);
  decision_buttons_set_sensitive (&self->decision_buttons, TRUE, FALSE);
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
  String text = clause_text_alloc (&self->text);
  if (is_blank (text)) {
    dealloc_string (text);
    clause_status_show_refusal (&self->status, "A text of blanks can't be committed.");
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
  clause_status_finalize (&self->status);
  clause_text_finalize (&self->text);
  clause_comparison_finalize (&self->comparison);
  G_OBJECT_CLASS (clause_view_parent_class)->finalize (object);
}

static void
clause_view_class_init (ClauseViewClass *view_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (view_class);
  G_OBJECT_CLASS (view_class)->dispose = clause_view_dispose;
  G_OBJECT_CLASS (view_class)->finalize = clause_view_finalize;
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

static void
clause_view_init (ClauseView *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  clause_comparison_init (&self->comparison, self->text_view, GTK_WIDGET (self->diff_overlay_tools),
                          GTK_WIDGET (self->diff_add_button), GTK_WIDGET (self->diff_del_button));
  clause_text_init (&self->text, self->text_view);
  g_signal_connect (self->chat_button, "clicked", G_CALLBACK (clause_view_chat_button_handle),
                    self);
  clause_status_init (&self->status, GTK_BOX (self), self->revision_status_label);
  decision_buttons_init (&self->decision_buttons, self->agree_button, self->disagree_button);
  decision_buttons_set_sensitive (&self->decision_buttons, FALSE, FALSE);
  clause_view_set_edit_buttons_sensitive (self, FALSE, FALSE);
}

static void
clause_view_connect_handlers (ClauseView *self)
{
  self->text.owner = self;
  self->text.changed_handler = G_CALLBACK (clause_view_text_changed_handle);
  self->text.cursor_handler = G_CALLBACK (clause_view_cursor_position_handle);
  clause_text_follow (&self->text);
  clause_view_connect_drafts (self);
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
  g_signal_connect (self->text_view, "motion-notify-event",
                    G_CALLBACK (clause_view_text_view_motion_notify_handle), self);
  g_signal_connect (self->text_view, "populate-popup",
                    G_CALLBACK (clause_view_populate_popup_handle), self);
  g_signal_connect (self->revision_list.list_box, "row-activated",
                    G_CALLBACK (clause_view_revision_select_list_box_row_activate_handle), self);
  clause_view_connect_comparison (self);
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
    decision_buttons_set_sensitive (&self->decision_buttons, TRUE, TRUE);
  } else if (decision->status == DECISION_AGREE) {
    decision_buttons_set_sensitive (&self->decision_buttons, FALSE, TRUE);
  } else if (decision->status == DECISION_DISAGREE) {
    decision_buttons_set_sensitive (&self->decision_buttons, TRUE, FALSE);
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

static void
clause_view_show_revision_status (ClauseView *self, ClauseRevision *revision)
{
  char *status = alloc_shown_revision_name (revision);
  clause_status_set (&self->status, status);
  g_free (status);
  label_warn_of_address (self->revision_status_label, revision->author);
}

void
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
  decision_buttons_show_unsent (&self->decision_buttons,
                                is_owed && decision->status == DECISION_AGREE,
                                is_owed && decision->status == DECISION_DISAGREE);
}

void
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
  decision_buttons_show_revision (&self->decision_buttons, revision);
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

const char *
clause_view_get_unseen_note (ClauseView *self)
{
  return clause_status_get_unseen (&self->status);
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

void
clause_view_show_draft (ClauseView *self)
{
  clause_view_leave_text (self);
  assert (self->clause->draft);
  clause_comparison_end (&self->comparison);
  clause_view_set_text (self, self->clause->draft->text);
  self->is_on_draft = true;
  self->was_draft_left = false;
  text_history_go_on (self->text.history);
  clause_text_place_cursor (&self->text, self->draft_cursor);
  clause_view_set_draft_mode (self);
}

void
clause_view_set_draft_mode (ClauseView *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_comparison_end (&self->comparison);
  self->is_draft = true;
  self->was_draft_shown = false;
  clause_status_set (&self->status, "draft");
  label_warn_of_address (self->revision_status_label, {});
  gtk_label_set_text (self->decision_status_label, " ");
  decision_buttons_set_sensitive (&self->decision_buttons, FALSE, FALSE);
  unsent_mark_show (GTK_WIDGET (self->revision_status_label), false);
  decision_buttons_show_unsent (&self->decision_buttons, false, false);
  decision_buttons_show_revision (&self->decision_buttons, NULL);
  clause_view_set_edit_buttons_sensitive (self, gtk_text_buffer_get_char_count (text_buffer) != 0,
                                          TRUE);
  clause_status_hide_note (&self->status);
  clause_view_show_waiting_draft (self);
}

void
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
  String text = clause_text_alloc (&self->text);
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
  clause_text_set (&self->text, text);
}

void
clause_view_measure (ClauseView *self)
{
  clause_text_place (&self->text);
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
    // Unless it speaks of a text that was left later.
    if (!self->is_draft_newer)
      clause_status_hide_note (&self->status);
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

  clause_text_look_away (&self->text);
  clause_comparison_show (&self->comparison, older->text, newer->text);
  clause_text_look_back (&self->text);
}
