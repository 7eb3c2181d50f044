#include "procedure_view.h"

#include "app_window.h"
#include "clause_chat_page.h"
#include "clause_view.h"
#include "delivery_notice.h"
#include "morvane.h"
#include "shown_text.h"

// The first clauses of a page, which are mapped with it as any widget is.
static const u32 MAPPED_CLAUSES = 16;

// How long the clauses out of sight may be laid out at a stretch, in microseconds.
static const s64 AHEAD_MAX = 10000;

// The box of the clauses, made for hundreds of them. Of those behind the first only the ones in
// sight, or nearly so, are mapped and placed with all that is in them: each has a dozen windows of
// the toolkit's own. The others only have a height, which is that of their text at the width of the
// box once it was laid out ahead, bit by bit. And a child's path in the tree of styles is that of a
// child of any container: a box tells of each child all of its siblings, at a cost for each that
// grows with their number, and nothing in the looks of a clause depends on where it stands.
struct ClausesBox {
  GtkBox parent_instance;
  u32 children_count;
  int ahead_width;  // that the clauses are laid out ahead for, in pixels
  u32 ahead_count;  // how many, from the first on, have been
  bool is_laying_out_ahead;
  double page_value;  // where the page stood last, and how high it was then, in pixels
  double page_upper;
};

struct ClausesBoxClass {
  GtkBoxClass parent_class;
};

static void procedure_view_look_for_note (ProcedureView *self);

G_DEFINE_TYPE (ClausesBox, clauses_box, GTK_TYPE_BOX)

// The children but for a deleted one, which is hidden. Freed with `g_list_free`.
static GList *
clauses_box_list_shown (ClausesBox *self)
{
  GList *children = gtk_container_get_children (GTK_CONTAINER (self));
  for (GList *link = g_list_last (children); link; link = link->prev) {
    if (!gtk_widget_get_visible (GTK_WIDGET (link->data)))
      return g_list_delete_link (children, link);
  }
  return children;
}

static bool
has_place (gpointer child)
{
  return gtk_widget_get_allocated_width (GTK_WIDGET (child)) > 1;
}

// Lays out all that is in a child which so far may only have a place. A clause has no margin, which
// would be taken from its place once more.
static void
clauses_box_lay_out_child (GtkWidget *child)
{
  GtkAllocation place;
  gtk_widget_get_allocation (child, &place);
  // Or it would be taken for one that was laid out there before.
  GtkAllocation other = {place.x, place.y, place.width + 1, place.height};
  gtk_widget_set_allocation (child, &other);
  gtk_widget_size_allocate (child, &place);
}

// Goes on for a while. A child without a place was added just now: its turn comes when it has one.
static gboolean
clauses_box_lay_out_ahead (gpointer box)
{
  ClausesBox *self = (ClausesBox *) box;
  s64 end = g_get_monotonic_time () + AHEAD_MAX;
  GList *children = clauses_box_list_shown (self);
  GList *link = g_list_nth (children, self->ahead_count);
  for (; link && has_place (link->data) && g_get_monotonic_time () < end; link = link->next) {
    GtkWidget *child = GTK_WIDGET (link->data);
    if (!gtk_widget_get_child_visible (child))
      clauses_box_lay_out_child (child);
    self->ahead_count++;
  }
  self->is_laying_out_ahead = link && has_place (link->data);
  g_list_free (children);
  return self->is_laying_out_ahead ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

static void
clauses_box_begin_laying_out_ahead (ClausesBox *self, int width)
{
  if (self->ahead_width != width) {
    self->ahead_width = width;
    self->ahead_count = 0;
  }
  if (self->is_laying_out_ahead || self->ahead_count == self->children_count)
    return;
  self->is_laying_out_ahead = true;
  gdk_threads_add_idle_full (G_PRIORITY_DEFAULT_IDLE, clauses_box_lay_out_ahead,
                             g_object_ref (self), g_object_unref);
}

static void
clauses_box_map_child (GtkWidget *child)
{
  if (!has_place (child) || gtk_widget_get_child_visible (child))
    return;
  clauses_box_lay_out_child (child);
  gtk_widget_set_child_visible (child, TRUE);
}

// Maps what is within a page of what is in sight. What was mapped once stays so, for it may have the
// focus. Without a place of its own nothing is in sight.
static void
clauses_box_map_near (ClausesBox *self)
{
  GtkAdjustment *vadjustment = procedure_view_get_page (GTK_WIDGET (self));
  if (!vadjustment)
    return;
  double page_size = gtk_adjustment_get_page_size (vadjustment);
  double start = gtk_adjustment_get_value (vadjustment) - page_size;
  double end = start + 3 * page_size;
  GList *children = clauses_box_list_shown (self);
  for (GList *link = children; link; link = link->next) {
    GtkWidget *child = GTK_WIDGET (link->data);
    GtkAllocation place;
    gtk_widget_get_allocation (child, &place);
    if (place.y < end && place.y + place.height > start)
      clauses_box_map_child (child);
  }
  g_list_free (children);
}

// Whenever the page moves or is laid out, as it is when a clause has something to say.
static void
clauses_box_look_for_note (ClausesBox *self)
{
  GtkWidget *view = gtk_widget_get_ancestor (GTK_WIDGET (self), procedure_view_get_type ());
  if (view)
    procedure_view_look_for_note (MORVANE_PROCEDURE_VIEW (view));
}

// A page that became less high moves by itself when it stood at its end. That is no place that
// anybody chose.
static void
clauses_box_page_moved_handle (ClausesBox *self, GtkAdjustment *page)
{
  if (gtk_adjustment_get_upper (page) == self->page_upper)
    self->page_value = gtk_adjustment_get_value (page);
  clauses_box_map_near (self);
  clauses_box_look_for_note (self);
}

// The clause whose place in sight is kept when others change. None without a page. What the user does
// in the clause with the focus leaves that one in its place; a revision that arrives there is not the
// user's doing. Else it is the first in sight that keeps its height or, where none does, the first that
// begins in sight, or the one that fills the page. `heights` are those that the children get.
static GtkWidget *
clauses_box_find_anchor (ClausesBox *self, GList *children, const GtkRequestedSize *heights,
                         GtkAdjustment *page)
{
  if (!page)
    return NULL;
  double start = self->page_value;
  double end = start + gtk_adjustment_get_page_size (page);
  GtkWidget *focus = gtk_container_get_focus_child (GTK_CONTAINER (self));
  GtkWidget *found = NULL;
  int found_rank = 0;
  for (GList *link = children; link; link = link->next, heights++) {
    GtkWidget *child = GTK_WIDGET (link->data);
    GtkAllocation place;
    gtk_widget_get_allocation (child, &place);
    if (!has_place (child) || place.y >= end || place.y + place.height <= start)
      continue;
    bool is_changing = heights->minimum_size != place.height;
    if (child == focus && !(is_changing && clause_view_is_as_arrived (MORVANE_CLAUSE_VIEW (child))))
      return child;
    int rank = !is_changing ? 3 : place.y >= start ? 2 : 1;
    if (rank > found_rank) {
      found = child;
      found_rank = rank;
    }
  }
  return found;
}

// Moves the page by as much as the anchor has moved.
static void
clauses_box_keep_in_sight (ClausesBox *self, GtkWidget *anchor, int y, GtkAdjustment *page)
{
  double value = self->page_value;
  if (anchor) {
    GtkAllocation place;
    gtk_widget_get_allocation (anchor, &place);
    value += place.y - y;
  }
  self->page_upper = gtk_adjustment_get_upper (page);
  gtk_adjustment_set_value (page, value);
  self->page_value = gtk_adjustment_get_value (page);
}

static void
clauses_box_add (GtkContainer *container, GtkWidget *child)
{
  ClausesBox *self = (ClausesBox *) container;
  self->children_count++;
  if (self->children_count > MAPPED_CLAUSES)
    gtk_widget_set_child_visible (child, FALSE);
  GTK_CONTAINER_CLASS (clauses_box_parent_class)->add (container, child);
}

static void
clauses_box_remove (GtkContainer *container, GtkWidget *child)
{
  ClausesBox *self = (ClausesBox *) container;
  GTK_CONTAINER_CLASS (clauses_box_parent_class)->remove (container, child);
  self->children_count--;
  self->ahead_count = 0;
}

// The focus only goes to what is mapped: next come the clauses beside the one that has it or, from
// outside, the last, for the first always is.
static gboolean
clauses_box_focus (GtkWidget *widget, GtkDirectionType direction)
{
  GtkWidget *focus = gtk_container_get_focus_child (GTK_CONTAINER (widget));
  GList *children = clauses_box_list_shown ((ClausesBox *) widget);
  GList *link = focus ? g_list_find (children, focus) : g_list_last (children);
  GList *next[] = {link ? link->prev : NULL, link, link ? link->next : NULL};
  for (GList *near : next) {
    if (near)
      clauses_box_map_child (GTK_WIDGET (near->data));
  }
  g_list_free (children);
  return GTK_WIDGET_CLASS (clauses_box_parent_class)->focus (widget, direction);
}

static GtkWidgetPath *
clauses_box_get_path_for_child (GtkContainer *container, GtkWidget *child)
{
  gpointer container_class = g_type_class_peek (GTK_TYPE_CONTAINER);
  return GTK_CONTAINER_CLASS (container_class)->get_path_for_child (container, child);
}

// The heights of children, in `minimum_size`, that are one below the other in a box of this size,
// shared out as in any box. Freed with `g_free`.
static GtkRequestedSize *
clauses_box_alloc_heights (ClausesBox *self, GList *children, GtkAllocation allocation)
{
  u32 count = g_list_length (children);
  GtkRequestedSize *heights = g_new (GtkRequestedSize, count);
  int rest = allocation.height;
  for (u32 i = 0; i < count; i++, children = children->next) {
    GtkRequestedSize *height = &heights[i];
    height->data = children->data;
    gtk_widget_get_preferred_height_for_width (GTK_WIDGET (children->data), allocation.width,
                                               &height->minimum_size, &height->natural_size);
    rest -= height->minimum_size + (i > 0 ? gtk_box_get_spacing (GTK_BOX (self)) : 0);
  }
  gtk_distribute_natural_allocation (MAX (0, rest), count, heights);
  return heights;
}

static void
clauses_box_size_allocate (GtkWidget *widget, GtkAllocation *allocation)
{
  ClausesBox *self = (ClausesBox *) widget;
  gtk_widget_set_allocation (widget, allocation);
  GtkAdjustment *page = procedure_view_get_page (widget);
  GList *children = clauses_box_list_shown (self);
  GtkRequestedSize *heights = clauses_box_alloc_heights (self, children, *allocation);
  GtkWidget *anchor = clauses_box_find_anchor (self, children, heights, page);
  GtkAllocation anchor_place = {};
  if (anchor)
    gtk_widget_get_allocation (anchor, &anchor_place);
  GtkAllocation place = *allocation;
  GtkRequestedSize *height = heights;
  for (GList *link = children; link; link = link->next, height++) {
    GtkWidget *child = GTK_WIDGET (link->data);
    place.height = height->minimum_size;
    if (gtk_widget_get_child_visible (child)) {
      gtk_widget_size_allocate (child, &place);
    } else {
      gtk_widget_set_allocation (child, &place);
    }
    place.y += place.height + gtk_box_get_spacing (GTK_BOX (self));
  }
  g_free (heights);
  g_list_free (children);
  if (page)
    clauses_box_keep_in_sight (self, anchor, anchor_place.y, page);
  clauses_box_map_near (self);
  clauses_box_begin_laying_out_ahead (self, allocation->width);
  clauses_box_look_for_note (self);
}

static void
clauses_box_class_init (ClausesBoxClass *box_class)
{
  GTK_CONTAINER_CLASS (box_class)->add = clauses_box_add;
  GTK_CONTAINER_CLASS (box_class)->remove = clauses_box_remove;
  GTK_WIDGET_CLASS (box_class)->focus = clauses_box_focus;
  GTK_CONTAINER_CLASS (box_class)->get_path_for_child = clauses_box_get_path_for_child;
  GTK_WIDGET_CLASS (box_class)->size_allocate = clauses_box_size_allocate;
  // A box paints its background too, at a place that it has found out itself.
  gpointer container_class = g_type_class_peek (GTK_TYPE_CONTAINER);
  GTK_WIDGET_CLASS (box_class)->draw = GTK_WIDGET_CLASS (container_class)->draw;
}

static void
clauses_box_init (ClausesBox *)
{
}

struct _ProcedureView {
  GtkBox parent_instance;
  Procedure *procedure;  // borrowed
  // Template children.
  GtkStack *stack;
  GtkBox *main_box;
  GtkButton *delete_button;
  GtkLabel *title_label;
  GtkBox *clauses_box;
  GtkButton *add_clause_button;
  GtkLabel *unseen_note_label;
  guint note_source;  // looks for a note that is out of sight; 0 for none
};

G_DEFINE_TYPE (ProcedureView, procedure_view, GTK_TYPE_BOX)

// ---- What a clause says above what is in sight of it ----

// The clause that begins above the page and reaches into it; NULL for none.
static ClauseView *
procedure_view_find_clause_at_top (ProcedureView *self)
{
  double start =
    gtk_adjustment_get_value (procedure_view_get_page (GTK_WIDGET (self->clauses_box)));
  ClauseView *found = NULL;
  GList *children = clauses_box_list_shown ((ClausesBox *) self->clauses_box);
  for (GList *link = children; link && !found; link = link->next) {
    GtkAllocation place;
    gtk_widget_get_allocation (GTK_WIDGET (link->data), &place);
    if (place.y < start && place.y + place.height > start)
      found = MORVANE_CLAUSE_VIEW (link->data);
  }
  g_list_free (children);
  return found;
}

// At the page's edge it can be read wherever in a long text the user is.
static gboolean
procedure_view_show_unseen_note (gpointer data)
{
  ProcedureView *self = MORVANE_PROCEDURE_VIEW (data);
  self->note_source = 0;
  ClauseView *clause_view = procedure_view_find_clause_at_top (self);
  const char *note = clause_view ? clause_view_get_unseen_note (clause_view) : NULL;
  if (note)
    gtk_label_set_text (self->unseen_note_label, note);
  gtk_widget_set_visible (GTK_WIDGET (self->unseen_note_label), note != NULL);
  return G_SOURCE_REMOVE;
}

// Later, when the page is laid out. A page that nobody sees is looked at when it is shown.
static void
procedure_view_look_for_note (ProcedureView *self)
{
  if (!self->note_source && gtk_widget_get_mapped (GTK_WIDGET (self->main_box)))
    self->note_source = gdk_threads_add_idle (procedure_view_show_unseen_note, self);
}

// ---- Clauses that are added ----

// Behind the layout, which has to be over before the page is moved.
static gboolean
procedure_view_scroll_to_clause (gpointer clause_view)
{
  GtkAdjustment *page = procedure_view_get_page (GTK_WIDGET (clause_view));
  GtkAllocation place;
  gtk_widget_get_allocation (GTK_WIDGET (clause_view), &place);
  if (page)
    gtk_adjustment_clamp_page (page, place.y, place.y + place.height);
  return G_SOURCE_REMOVE;
}

// A new clause has its place now: it comes into sight with its buttons.
static void
procedure_view_new_clause_size_allocate_handle (GtkWidget *clause_view, GdkRectangle *, gpointer)
{
  g_signal_handlers_disconnect_by_func (clause_view,
                                        (gpointer) procedure_view_new_clause_size_allocate_handle,
                                        NULL);
  gdk_threads_add_idle_full (G_PRIORITY_DEFAULT_IDLE, procedure_view_scroll_to_clause,
                             g_object_ref (clause_view), g_object_unref);
}

// Nothing is sent: the other party learns of a clause with its first committed revision.
static void
procedure_view_add_clause_button_handle (GtkButton *, ProcedureView *self)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  Clause *clause = negotiation_add_clause (app_window_get_negotiation (window), self->procedure);
  procedure_view_add_clause (self, clause);
  procedure_view_order_clause (self, clause);
  ClauseView *view = clause->view;
  clause_view_set_draft_mode (view);
  clause_view_focus_text (view);
  g_signal_connect_after (view, "size-allocate",
                          G_CALLBACK (procedure_view_new_clause_size_allocate_handle), NULL);
}

// The view is gone when the window has removed its procedure.
static void
procedure_view_delete_button_handle (GtkButton *, ProcedureView *self)
{
  app_window_remove_procedure (MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self))),
                               self->procedure);
}

static void
procedure_view_dispose (GObject *object)
{
  ProcedureView *self = MORVANE_PROCEDURE_VIEW (object);
  if (self->note_source)
    g_source_remove (self->note_source);
  self->note_source = 0;
  G_OBJECT_CLASS (procedure_view_parent_class)->dispose (object);
}

static void
procedure_view_class_init (ProcedureViewClass *view_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (view_class);
  // The template names it.
  g_type_ensure (clauses_box_get_type ());
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/procedure_view.ui");
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, stack);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, main_box);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, delete_button);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, title_label);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, clauses_box);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, add_clause_button);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, unseen_note_label);
  G_OBJECT_CLASS (view_class)->dispose = procedure_view_dispose;
}

// What gets the focus comes into sight. A text keeps its place: it may be higher than the page, and
// sees to its cursor by itself.
static void
procedure_view_set_focus_child_handle (GtkContainer *viewport, GtkWidget *child, ProcedureView *)
{
  GtkWidget *focus = child;
  while (GTK_IS_CONTAINER (focus) && gtk_container_get_focus_child (GTK_CONTAINER (focus))) {
    focus = gtk_container_get_focus_child (GTK_CONTAINER (focus));
  }
  int y = 0;
  if (!focus || GTK_IS_TEXT_VIEW (focus) ||
      !gtk_widget_translate_coordinates (focus, child, 0, 0, NULL, &y))
    return;
  GtkAdjustment *vadjustment = gtk_scrollable_get_vadjustment (GTK_SCROLLABLE (viewport));
  gtk_adjustment_clamp_page (vadjustment, y, y + gtk_widget_get_allocated_height (focus));
}

// `delete_button` stands above the clauses and is the last that the focus comes to. Whoever begins a
// procedure and presses Return once too often must not delete it.
static void
procedure_view_order_focus (ProcedureView *self)
{
  GtkWidget *header = gtk_widget_get_parent (GTK_WIDGET (self->delete_button));
  GList *chain = gtk_container_get_children (GTK_CONTAINER (self->main_box));
  chain = g_list_append (g_list_remove (chain, header), header);
  // Deprecated for what GTK 4 has in its place; GTK 3 has nothing else.
  G_GNUC_BEGIN_IGNORE_DEPRECATIONS
  gtk_container_set_focus_chain (GTK_CONTAINER (self->main_box), chain);
  G_GNUC_END_IGNORE_DEPRECATIONS
  g_list_free (chain);
}

static void
procedure_view_init (ProcedureView *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  procedure_view_order_focus (self);
  ClausesBox *clauses_box = (ClausesBox *) self->clauses_box;
  g_signal_connect_object (procedure_view_get_page (GTK_WIDGET (clauses_box)), "value-changed",
                           G_CALLBACK (clauses_box_page_moved_handle), clauses_box,
                           G_CONNECT_SWAPPED);
  GtkWidget *viewport = gtk_widget_get_ancestor (GTK_WIDGET (clauses_box), GTK_TYPE_VIEWPORT);
  gtk_container_set_focus_vadjustment (GTK_CONTAINER (viewport), NULL);
  g_signal_connect (viewport, "set-focus-child", G_CALLBACK (procedure_view_set_focus_child_handle),
                    self);
  g_signal_connect_swapped (self->main_box, "map", G_CALLBACK (procedure_view_look_for_note), self);
  g_signal_connect (self->delete_button, "clicked",
                    G_CALLBACK (procedure_view_delete_button_handle), self);
  g_signal_connect (self->add_clause_button, "clicked",
                    G_CALLBACK (procedure_view_add_clause_button_handle), self);
}

GtkWidget *
procedure_view_new_empty (Procedure *procedure)
{
  ProcedureView *self = MORVANE_PROCEDURE_VIEW (g_object_new (procedure_view_get_type (), NULL));
  self->procedure = procedure;
  label_show_text (self->title_label, procedure->title);
  return GTK_WIDGET (self);
}

void
procedure_view_fill (ProcedureView *self, String own)
{
  Procedure *procedure = self->procedure;
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    Clause *clause = procedure->clauses[i];
    procedure_view_add_clause (self, clause);
    if (clause->revisions_count) {
      clause_view_show_revision (clause->view, clause->revisions[clause->revisions_count - 1], own);
    } else {
      clause_view_set_draft_mode (clause->view);
    }
    if (!pause_long_work ())
      return;
  }
  // Now that they have their styles, which a pause gives them.
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    clause_view_measure (procedure->clauses[i]->view);
    if (!pause_long_work ())
      return;
  }
}

GtkWidget *
procedure_view_new (Procedure *procedure, String own)
{
  GtkWidget *view = procedure_view_new_empty (procedure);
  procedure_view_fill (MORVANE_PROCEDURE_VIEW (view), own);
  return view;
}

// ---- Clauses ----

void
procedure_view_add_clause (ProcedureView *self, Clause *clause)
{
  GtkWidget *view = clause_view_new (self->procedure, clause);
  GtkWidget *chat_page = clause_chat_page_new (self->procedure, clause);
  clause->view = MORVANE_CLAUSE_VIEW (view);
  clause->chat_page = MORVANE_CLAUSE_CHAT_PAGE (chat_page);
  gtk_widget_show (view);
  gtk_widget_show (chat_page);
  gtk_container_add (GTK_CONTAINER (self->clauses_box), view);
  gtk_container_add (GTK_CONTAINER (self->stack), chat_page);
}

void
procedure_view_order_clause (ProcedureView *self, Clause *clause)
{
  ClausesBox *box = (ClausesBox *) self->clauses_box;
  s64 index = procedure_get_clause_index_reversed (self->procedure, clause);
  gtk_box_reorder_child (GTK_BOX (box), GTK_WIDGET (clause->view), (gint) index);
  // Those from here on are laid out ahead once more.
  box->ahead_count = MIN (box->ahead_count, (u32) index);
}

void
procedure_view_put_clause_away (ProcedureView *self, Clause *clause)
{
  ClausesBox *box = (ClausesBox *) self->clauses_box;
  gtk_widget_hide (GTK_WIDGET (clause->view));
  gtk_widget_hide (GTK_WIDGET (clause->chat_page));
  // Behind all others, each of which has its index in the procedure as its place.
  gtk_box_reorder_child (GTK_BOX (box), GTK_WIDGET (clause->view), -1);
  box->ahead_count = 0;
}

void
procedure_view_put_clause_back (ProcedureView *self, Clause *clause)
{
  procedure_view_order_clause (self, clause);
  gtk_widget_show (GTK_WIDGET (clause->view));
  gtk_widget_show (GTK_WIDGET (clause->chat_page));
}

void
procedure_view_focus_add_clause_button (ProcedureView *self)
{
  gtk_widget_grab_focus (GTK_WIDGET (self->add_clause_button));
}

// ---- Pages ----

GtkAdjustment *
procedure_view_get_page (GtkWidget *widget)
{
  GtkWidget *viewport = gtk_widget_get_ancestor (widget, GTK_TYPE_VIEWPORT);
  return viewport ? gtk_scrollable_get_vadjustment (GTK_SCROLLABLE (viewport)) : NULL;
}

void
procedure_view_show_clause (ProcedureView *self)
{
  gtk_stack_set_visible_child (self->stack, GTK_WIDGET (self->main_box));
}

void
procedure_view_show_clause_chat_page (ProcedureView *self, ClauseChatPage *chat_page)
{
  gtk_stack_set_visible_child (self->stack, GTK_WIDGET (chat_page));
}

void
procedure_view_tell_undelivered (ProcedureView *self, String to, const char *kind, String text,
                                 String reason)
{
  delivery_notice_show (GTK_BOX (gtk_stack_get_visible_child (self->stack)), to, kind, text,
                        reason);
}
