// Texts and labels whose content never sets the width of their window. GtkTextView asks for the width
// that its lines were laid out with last, so that a window could grow and never shrink again, and a row
// of tabs, which does not wrap, made it as wide as all the tabs. A label asks for the width of the
// longest piece that does not wrap, as many pictures joined into one are. These two take the width of
// their place instead. The templates name them "WrappedText" and "WrappedLabel"; in all else they are a
// GtkTextView and a GtkLabel, but for this:
// - a line of a text that wraps at words holds about 90 characters at most, and a margin takes the rest
//   of a wide place;
// - where there is a word of thousands of letters, all wraps at any letter: the time that GTK takes to
//   find where to wrap a word grows with the square of its length.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

struct WrappedText {
  GtkTextView parent_instance;
  // Private.
  bool has_long_word;
};

struct WrappedTextClass {
  GtkTextViewClass parent_class;
};

struct WrappedLabel {
  GtkLabel parent_instance;
};

struct WrappedLabelClass {
  GtkLabelClass parent_class;
};

// Templates name them, and need them registered: AppWindow does that for the whole program.
GType wrapped_text_get_type ();
GType wrapped_label_get_type ();
