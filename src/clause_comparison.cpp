#include "clause_comparison.h"

#include "buffers.h"
#include "diff.h"

// Of the words that a tooltip tells.
static const int SHORT_WORDS_CHARS = 40;

// Shown in front of a line break that came or went, which would not be seen by itself.
static const gunichar RETURN_SYMBOL = 0x23ce;

// ---- Making ----

void
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): as the template has them.
clause_comparison_init (ClauseComparison *self, GtkTextView *text_view, GtkWidget *tools,
                        GtkWidget *keep_button, GtkWidget *remove_button)
{
  *self = {};
  self->text_view = text_view;
  self->tools = tools;
  self->keep_button = keep_button;
  self->remove_button = remove_button;
}

void
clause_comparison_finalize (ClauseComparison *self)
{
  g_clear_pointer (&self->return_marks, g_hash_table_destroy);
}

// ---- Showing ----

// The most cells that a comparison may take: a tenth of a second and 100 MB.
static const u64 DIFF_CELLS_MAX = 25000000;

const char *
get_comparison_refusal (ClauseRevision *revision, ClauseRevision *other_revision)
{
  if (!revision || !other_revision || revision == other_revision) {
    return "A revision can't be compared with itself.";
  }
  if (!revision->text.size || !other_revision->text.size) {
    return "An empty text can't be compared.";
  }
  StringsStack words = alloc_split_string_by_words (revision->text);
  StringsStack other_words = alloc_split_string_by_words (other_revision->text);
  u64 cells_count = ((u64) words.count + 1) * ((u64) other_words.count + 1);
  dealloc_strings_stack (words);
  dealloc_strings_stack (other_words);
  return cells_count > DIFF_CELLS_MAX ? "These texts are too long to be compared." : NULL;
}

// What the walk over a comparison appends to.
struct DiffDisplay {
  ClauseComparison *comparison;
  GtkTextBuffer *text_buffer;
  StringsStack older_words;
  StringsStack newer_words;
};

static void
append_diff_word (DiffKind kind, u32 index, void *data)
{
  DiffDisplay *display = (DiffDisplay *) data;
  ClauseComparison *comparison = display->comparison;
  String word =
    kind == DIFF_ADDED ? display->newer_words.strings[index] : display->older_words.strings[index];
  GtkTextIter end;
  gtk_text_buffer_get_end_iter (display->text_buffer, &end);
  if (kind == DIFF_COMMON) {
    gtk_text_buffer_insert (display->text_buffer, &end, (const char *) word.data, (gint) word.size);
    return;
  }
  if (word == "\n") {
    GtkTextMark *mark = gtk_text_buffer_create_mark (display->text_buffer, NULL, &end, TRUE);
    g_hash_table_add (comparison->return_marks, mark);
    word = to_string ("\u23ce\n");
  }
  GtkTextTag *tag = kind == DIFF_ADDED ? comparison->added_tag : comparison->deleted_tag;
  gtk_text_buffer_insert_with_tags (display->text_buffer, &end, (const char *) word.data,
                                    (gint) word.size, tag, NULL);
}

static void
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the older one first, everywhere.
clause_comparison_fill (ClauseComparison *self, String older, String newer)
{
  DiffDisplay display = {};
  display.comparison = self;
  display.text_buffer = gtk_text_view_get_buffer (self->text_view);
  display.older_words = alloc_split_string_by_words (older);
  display.newer_words = alloc_split_string_by_words (newer);
  Diff diff = alloc_diff (display.older_words, display.newer_words);
  diff_walk (diff, append_diff_word, &display);
  dealloc_diff (diff);
  dealloc_strings_stack (display.older_words);
  dealloc_strings_stack (display.newer_words);
}

void
clause_comparison_restore (ClauseComparison *self)
{
  gtk_text_view_set_editable (self->text_view, !clause_comparison_has_changes (self));
  // Room for the tools below the last line; hidden, they themselves have no height.
  int tools_height;
  gtk_widget_get_preferred_height (self->keep_button, NULL, &tools_height);
  gtk_text_view_set_bottom_margin (self->text_view, tools_height);
}

void
clause_comparison_show (ClauseComparison *self, String older, String newer)
{
  clause_comparison_end (self);
  self->is_shown = true;
  self->has_decisions = false;
  self->return_marks = g_hash_table_new (NULL, NULL);
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  self->added_tag = gtk_text_buffer_create_tag (text_buffer, NULL, "background", "#085", NULL);
  self->deleted_tag = gtk_text_buffer_create_tag (text_buffer, NULL, "background", "#c55", NULL);
  clause_comparison_fill (self, older, newer);
  // Not behind the last word, where the filling has moved the cursor.
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (text_buffer, &start);
  gtk_text_buffer_place_cursor (text_buffer, &start);
  clause_comparison_restore (self);
}

void
clause_comparison_end (ClauseComparison *self)
{
  if (!self->is_shown)
    return;
  self->is_shown = false;
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextTagTable *tags = gtk_text_buffer_get_tag_table (text_buffer);
  gtk_text_tag_table_remove (tags, self->added_tag);
  gtk_text_tag_table_remove (tags, self->deleted_tag);
  self->added_tag = NULL;
  self->deleted_tag = NULL;
  GHashTableIter iter;
  gpointer mark;
  g_hash_table_iter_init (&iter, self->return_marks);
  while (g_hash_table_iter_next (&iter, &mark, NULL)) {
    gtk_text_buffer_delete_mark (text_buffer, GTK_TEXT_MARK (mark));
  }
  g_clear_pointer (&self->return_marks, g_hash_table_destroy);
  clause_comparison_hide_tools (self);
  gtk_text_view_set_bottom_margin (self->text_view, 0);
  gtk_text_view_set_editable (self->text_view, TRUE);
}

bool
clause_comparison_has_changes (ClauseComparison *self)
{
  GtkTextIter iter;
  gtk_text_buffer_get_start_iter (gtk_text_view_get_buffer (self->text_view), &iter);
  return gtk_text_iter_toggles_tag (&iter, NULL) ||
         gtk_text_iter_forward_to_tag_toggle (&iter, NULL);
}

// Where the tools stand, or else the cursor.
static GtkTextIter
clause_comparison_get_place (ClauseComparison *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextIter place = self->run_start;
  if (!self->has_run)
    gtk_text_buffer_get_iter_at_mark (text_buffer, &place,
                                      gtk_text_buffer_get_insert (text_buffer));
  return place;
}

// Moves on to the next place where a run begins; false when there is none.
static bool
forward_to_run_start (GtkTextIter *iter)
{
  while (gtk_text_iter_forward_to_tag_toggle (iter, NULL)) {
    if (gtk_text_iter_starts_tag (iter, NULL))
      return true;
  }
  return false;
}

static bool
backward_to_run_start (GtkTextIter *iter)
{
  while (gtk_text_iter_backward_to_tag_toggle (iter, NULL)) {
    if (gtk_text_iter_starts_tag (iter, NULL))
      return true;
  }
  return false;
}

bool
clause_comparison_find_next (ClauseComparison *self, GtkTextIter *start_out)
{
  *start_out = clause_comparison_get_place (self);
  // A run at the cursor is still ahead of the user, who sees no tools there.
  bool is_ahead = !self->has_run && gtk_text_iter_starts_tag (start_out, NULL);
  if (is_ahead || forward_to_run_start (start_out))
    return true;
  gtk_text_buffer_get_start_iter (gtk_text_view_get_buffer (self->text_view), start_out);
  return gtk_text_iter_starts_tag (start_out, NULL) || forward_to_run_start (start_out);
}

bool
clause_comparison_find_previous (ClauseComparison *self, GtkTextIter *start_out)
{
  *start_out = clause_comparison_get_place (self);
  if (backward_to_run_start (start_out))
    return true;
  gtk_text_buffer_get_end_iter (gtk_text_view_get_buffer (self->text_view), start_out);
  return backward_to_run_start (start_out);
}

// ---- Tools ----

// The first words of a run, on one line, as a tooltip can hold them. Belongs to the caller (`g_free`).
static char *
alloc_short_words (GtkTextIter start, GtkTextIter end)
{
  GString *words = g_string_new (NULL);
  gunichar previous = 0;
  int count = 0;
  for (; count < SHORT_WORDS_CHARS && !gtk_text_iter_equal (&start, &end); count++) {
    gunichar c = gtk_text_iter_get_char (&start);
    // A line break has its symbol ahead of it, or is told by one.
    if (c != '\n')
      g_string_append_unichar (words, c);
    else if (previous != RETURN_SYMBOL)
      g_string_append_unichar (words, RETURN_SYMBOL);
    previous = c;
    gtk_text_iter_forward_char (&start);
  }
  if (!gtk_text_iter_equal (&start, &end))
    g_string_append (words, "\u2026");
  return g_string_free (words, FALSE);
}

static void
name_tool (GtkWidget *button, const char *action, const char *side, const char *words)
{
  char *name =
    g_strdup_printf ("%s these words of the %s text: \u201c%s\u201d", action, side, words);
  gtk_widget_set_tooltip_text (button, name);
  atk_object_set_name (gtk_widget_get_accessible (button), name);
  g_free (name);
}

static void
clause_comparison_name_tools (ClauseComparison *self)
{
  const char *side = gtk_text_iter_has_tag (&self->run_start, self->added_tag) ? "newer" : "older";
  char *words = alloc_short_words (self->run_start, self->run_end);
  name_tool (self->keep_button, "Keep", side, words);
  name_tool (self->remove_button, "Remove", side, words);
  g_free (words);
}

// The margin at the side where lines begin, for tools whose middle is `middle` pixels right of the
// overlay's left edge.
static int
clause_comparison_get_tools_margin (ClauseComparison *self, int middle)
{
  int tools_width = gtk_widget_get_allocated_width (self->tools);
  int left = middle - tools_width / 2;
  if (gtk_widget_get_direction (self->tools) != GTK_TEXT_DIR_RTL)
    return MAX (0, left);
  int width = gtk_widget_get_allocated_width (gtk_widget_get_parent (self->tools));
  return MAX (0, width - left - tools_width);
}

void
clause_comparison_show_tools (ClauseComparison *self, GtkTextIter start, GtkTextIter end,
                              GdkRectangle location, int x)
{
  bool is_same_run = self->has_run && gtk_text_iter_equal (&self->run_start, &start);
  self->run_start = start;
  self->run_end = end;
  self->has_run = true;
  if (!is_same_run)
    clause_comparison_name_tools (self);
  int border_width = (int) gtk_container_get_border_width (GTK_CONTAINER (self->text_view));
  gtk_widget_set_margin_start (self->tools,
                               clause_comparison_get_tools_margin (self, x + 2 * border_width));
  gtk_widget_set_margin_top (self->tools, location.y + location.height + border_width);
  gtk_widget_show (self->tools);
}

void
clause_comparison_hide_tools (ClauseComparison *self)
{
  self->has_run = false;
  gtk_widget_hide (self->tools);
}

bool
clause_comparison_has_focus_in_tools (ClauseComparison *self)
{
  return gtk_widget_is_focus (self->keep_button) || gtk_widget_is_focus (self->remove_button);
}

// The tools stand over the text and nowhere else. Of a page that is scrolled, a part is in sight.
bool
clause_comparison_is_at (ClauseComparison *self, int x_root, int y_root)
{
  GdkWindow *gdk_window = gtk_widget_get_window (GTK_WIDGET (self->text_view));
  int x;
  int y;
  gdk_window_get_origin (gdk_window, &x, &y);
  cairo_region_t *region = gdk_window_get_visible_region (gdk_window);
  bool is_inside = cairo_region_contains_point (region, x_root - x, y_root - y);
  cairo_region_destroy (region);
  return is_inside;
}

void
clause_comparison_note_rest (ClauseComparison *self)
{
  GdkDisplay *display = gtk_widget_get_display (GTK_WIDGET (self->text_view));
  GdkDevice *pointer = gdk_seat_get_pointer (gdk_display_get_default_seat (display));
  gdk_device_get_position (pointer, NULL, &self->rest_x, &self->rest_y);
  self->has_rest = true;
}

bool
clause_comparison_is_at_rest (ClauseComparison *self, int x_root, int y_root)
{
  return self->has_rest && x_root == self->rest_x && y_root == self->rest_y;
}

// ---- Deciding ----

// The mark that makes a return symbol of the character at `iter`; NULL when that is text.
static GtkTextMark *
clause_comparison_find_return_mark (ClauseComparison *self, GtkTextIter *iter)
{
  GtkTextMark *found = NULL;
  GSList *marks = gtk_text_iter_get_marks (iter);
  for (GSList *link = marks; link && !found; link = link->next) {
    if (g_hash_table_contains (self->return_marks, link->data))
      found = GTK_TEXT_MARK (link->data);
  }
  g_slist_free (marks);
  return found;
}

char *
clause_comparison_alloc_text (ClauseComparison *self, GtkTextBuffer *text_buffer)
{
  GString *text = g_string_new (NULL);
  GtkTextIter iter;
  gtk_text_buffer_get_start_iter (text_buffer, &iter);
  for (; !gtk_text_iter_is_end (&iter); gtk_text_iter_forward_char (&iter)) {
    if (!clause_comparison_find_return_mark (self, &iter))
      g_string_append_unichar (text, gtk_text_iter_get_char (&iter));
  }
  return g_string_free (text, FALSE);
}

// Takes the return symbols of a run out again, so that its line breaks are alone. The iterators stay
// good.
static void
clause_comparison_remove_return_symbols (ClauseComparison *self, GtkTextIter *start,
                                         GtkTextIter *end)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  int start_offset = gtk_text_iter_get_offset (start);
  int end_offset = gtk_text_iter_get_offset (end);
  // From the end on, so that what is still to be seen stays at its place.
  GtkTextIter iter = *end;
  for (int offset = end_offset; offset > start_offset; offset--) {
    gtk_text_iter_backward_char (&iter);
    GtkTextMark *mark = clause_comparison_find_return_mark (self, &iter);
    if (!mark)
      continue;
    GtkTextIter symbol_end = iter;
    gtk_text_iter_forward_char (&symbol_end);
    gtk_text_buffer_delete (text_buffer, &iter, &symbol_end);
    g_hash_table_remove (self->return_marks, mark);
    gtk_text_buffer_delete_mark (text_buffer, mark);
    end_offset--;
  }
  gtk_text_buffer_get_iter_at_offset (text_buffer, start, start_offset);
  gtk_text_buffer_get_iter_at_offset (text_buffer, end, end_offset);
}

// Makes ordinary text of a run, or takes the run out. Either way none of its marks is left, which
// would come to stand at the text behind the run. `start` is where the run was.
static void
clause_comparison_decide_run (ClauseComparison *self, GtkTextIter *start, GtkTextIter *end,
                              bool is_kept)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_comparison_remove_return_symbols (self, start, end);
  if (is_kept)
    gtk_text_buffer_remove_all_tags (text_buffer, start, end);
  else
    gtk_text_buffer_delete (text_buffer, start, end);
}

void
clause_comparison_decide (ClauseComparison *self, bool is_kept)
{
  GtkTextIter start = self->run_start;
  GtkTextIter end = self->run_end;
  self->has_decisions = true;
  clause_comparison_hide_tools (self);
  clause_comparison_decide_run (self, &start, &end, is_kept);
  gtk_text_view_set_editable (self->text_view, !clause_comparison_has_changes (self));
}

void
clause_comparison_take_all (ClauseComparison *self, bool is_newer)
{
  self->has_decisions = true;
  clause_comparison_hide_tools (self);
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (gtk_text_view_get_buffer (self->text_view), &start);
  bool is_found = gtk_text_iter_starts_tag (&start, NULL) || forward_to_run_start (&start);
  while (is_found) {
    GtkTextIter end = start;
    gtk_text_iter_forward_to_tag_toggle (&end, NULL);
    bool is_added = gtk_text_iter_has_tag (&start, self->added_tag);
    clause_comparison_decide_run (self, &start, &end, is_added == is_newer);
    // What is behind a run that went may be a run again.
    is_found = gtk_text_iter_starts_tag (&start, NULL) || forward_to_run_start (&start);
  }
  gtk_text_view_set_editable (self->text_view, TRUE);
}
