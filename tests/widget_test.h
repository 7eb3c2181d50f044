// What the tests of widgets share: a real main window over a store of its own, found, pressed and
// read as a user would, and a real TLS session whose other end notes what the window sends.
//
// The main function is here too. It fails the test in which GTK or a library below it warns.
//
// Ownership: a `TestWindow` ends everything it made.
// Threads: the main thread is the interface thread; each session has a thread that receives.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "app_window.h"

struct TestPeer;

// A window of the program in a working directory of its own, on the screen.
struct TestWindow {
  TestWindow ();
  // `config` is the text of the configuration file that the window finds.
  explicit TestWindow (const char *config);
  ~TestWindow ();
  TestWindow (const TestWindow &) = delete;
  TestWindow &operator= (const TestWindow &) = delete;

  std::string directory;
  sqlite3 *db;
  GtkTextBuffer *console;
  AppWindow *window;
  TestPeer *peer;  // none before `log_in`
};

// ---- Session ----

// Gives the window a session without a server: an account, a TLS session to a peer inside this
// process, and the account's state loaded from the store.
void log_in (TestWindow *test, const char *bare_jid = "alice@alpha.test");
// Everything sent since the last call, whole.
std::string take_sent (TestWindow *test);
// The rows of a statement: columns joined by "|", each row ended by "\n".
std::string query (TestWindow *test, const char *sql);
// Ends the window as its close button does.
void close_window (TestWindow *test);

// ---- Other processes ----

// Locks every account of the window's store, as if another process had them, until the result is
// closed.
int lock_all_accounts (TestWindow *test);
// Whether this process keeps others from any account of the window's store.
bool is_account_locked (TestWindow *test);

// ---- Main loop ----

// Handles everything that waits, drawing included.
void pump ();
// Runs the main loop until `is_done (data)`; false when that takes longer than ten seconds, or as many
// times ten as MORVANE_SLOW says.
bool pump_until (bool (*is_done) (void *data), void *data);

// ---- Widgets ----

// The first widget below `root` with this name in its template, NULL when there is none.
GtkWidget *find_widget (gpointer root, const char *name);
// The number of the line at the top of what a text view in a scrolled window shows.
int get_first_line_in_sight (gpointer root, const char *name);
// The same for an accessible name, as assistive technology finds it.
GtkWidget *find_accessible (gpointer root, const char *name);
bool is_sensitive (gpointer root, const char *name);
// Clicks a button that is sensitive; anything else fails the test.
void press (gpointer root, const char *name);
// Replaces the text of an entry or of a text view, as typing does.
void type (gpointer root, const char *name, const char *text);
// What a label, an entry, a button or a text view shows.
std::string get_text (gpointer root, const char *name);
// The name of the icon that an image shows.
std::string get_icon (gpointer root, const char *name);
// Delivers a key to the window, as the focus has it. Returns when it was handled.
void press_key (TestWindow *test, guint keyval, GdkModifierType state = (GdkModifierType) 0);
// The page that a stack shows, by its name in the template or its type.
std::string get_page (gpointer root, const char *stack_name);
// Every icon button and every entry below `root` that assistive technology could not name.
std::string list_unnamed_widgets (gpointer root);
// A toplevel window around a widget that stands alone.
GtkWidget *show_alone (GtkWidget *widget);

std::string to_std_string (String string);
