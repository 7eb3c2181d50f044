// The looks of a main window that are kept over a restart: its size, whether it is maximized, and how
// wide the lists beside its page are. They are in a file of the user's state directory, one for each
// directory that the program was started in, because each has a store of its own:
// "$XDG_STATE_HOME/morvane/DIRECTORY.ini", where DIRECTORY is the SHA-256 of the directory's path; the
// path itself is in the file. Groups and keys that are not known are kept. With several windows of one
// directory, the one that is closed last is remembered.
//
// A file that is missing changes nothing. One that cannot be read, or does not say what it should, is
// one warning on the console, and changes nothing either.
//
// Ownership: the caller owns what is returned by `alloc_`.
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

// What a window looks like; sizes in pixels, as an application sees them.
struct WindowState {
  int width;  // of the window that is not maximized
  int height;
  bool is_maximized;
  int pane;  // width of the lists
};

// The file of the current directory. Belongs to the caller (`g_free`).
char *alloc_window_state_path ();
// False, and `state` is as it was, where the file is not there or does not say what it should.
bool read_window_state (const char *path, WindowState *state);
// Makes the directories too. A failure is a warning on the console.
void write_window_state (const char *path, WindowState state);
// The state with each size within a screen of `screen_width` to `screen_height` pixels, and the lists
// within the window.
WindowState clamp_window_state (WindowState state, int screen_width, int screen_height);

// Gives a new window, which is not shown yet, the looks that were kept, and keeps each change of them,
// a moment later. `pane` stands between lists and page, and goes with the window. All that the window
// looks like so far is what it looks like at its first start.
void window_state_follow (GtkWindow *window, GtkPaned *pane);
