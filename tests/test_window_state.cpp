#include "window_state.h"

#include <sys/stat.h>

#include "morvane.h"
#include "widget_test.h"

// A file for the looks of a window, in a directory that is not there yet.
struct TestFile {
  std::string directory;
  std::string path;
  TestFile ();
  ~TestFile ();
};

TestFile::TestFile ()
{
  char name[] = "/tmp/morvane-looks-XXXXXX";
  directory = mkdtemp (name);
  path = directory + "/state/looks.ini";
}

TestFile::~TestFile ()
{
  unlink (path.c_str ());
  rmdir ((directory + "/state").c_str ());
  rmdir (directory.c_str ());
}

static void
put (TestFile *file, const char *text)
{
  EXPECT_EQ (mkdir ((file->directory + "/state").c_str (), 0700), 0);
  EXPECT_TRUE (g_file_set_contents (file->path.c_str (), text, -1, NULL));
}

static std::string
get (const std::string &path)
{
  char *text = NULL;
  if (!g_file_get_contents (path.c_str (), &text, NULL, NULL))
    return "";
  std::string contents = text;
  g_free (text);
  return contents;
}

static bool
is_same (WindowState a, WindowState b)
{
  return a.width == b.width && a.height == b.height && a.is_maximized == b.is_maximized &&
         a.pane == b.pane;
}

static const WindowState STATE = {800, 700, true, 250};

// How many lines of the console warn.
static u32
count_warnings (const std::string &console)
{
  u32 count = 0;
  for (size_t at = 0; (at = console.find ("Warning: ", at)) != std::string::npos; at++)
    count++;
  return count;
}

// ---- The file ----

TEST (read_window_state, changes_nothing_without_a_file)
{
  TestFile file;
  WindowState state = STATE;
  testing::internal::CaptureStdout ();
  EXPECT_FALSE (read_window_state (file.path.c_str (), &state));
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
  EXPECT_TRUE (is_same (state, STATE));
}

TEST (read_window_state, reads_what_a_person_wrote)
{
  TestFile file;
  put (&file, "# mine\n[Window]\nWidth=900\nHeight=500\nMaximized=false\nLists=210\n");
  WindowState state = STATE;
  EXPECT_TRUE (read_window_state (file.path.c_str (), &state));
  EXPECT_TRUE (is_same (state, {900, 500, false, 210}));
}

TEST (read_window_state, warns_once_of_a_broken_file_and_changes_nothing)
{
  const char *broken[] = {
    "Width=900\n",
    "[Window\nWidth=900\n",
    "\xff\xfe\x00",
    "[Window]\nWidth=wide\nHeight=500\nMaximized=false\nLists=210\n",
    "[Window]\nWidth=900\nHeight=\nMaximized=false\nLists=x\n",
    "[Window]\nWidth=99999999999\nHeight=500\nMaximized=false\nLists=210\n",
    "[Window]\nWidth=900\nHeight=500\nMaximized=perhaps\nLists=210\n",
    "[Window]\nWidth=900\n",
  };
  for (const char *text : broken) {
    TestFile file;
    put (&file, text);
    WindowState state = STATE;
    testing::internal::CaptureStdout ();
    EXPECT_FALSE (read_window_state (file.path.c_str (), &state)) << text;
    std::string console = testing::internal::GetCapturedStdout ();
    EXPECT_EQ (count_warnings (console), 1u) << text << console;
    EXPECT_EQ (console.back (), '\n');
    EXPECT_TRUE (is_same (state, STATE)) << text;
  }
}

TEST (write_window_state, can_be_read_again_and_is_nobody_elses)
{
  TestFile file;
  write_window_state (file.path.c_str (), STATE);
  WindowState state = {};
  EXPECT_TRUE (read_window_state (file.path.c_str (), &state));
  EXPECT_TRUE (is_same (state, STATE));
  EXPECT_NE (get (file.path).find ("Width=800\nHeight=700\n"), std::string::npos);
  struct stat directory;
  EXPECT_EQ (stat ((file.directory + "/state").c_str (), &directory), 0);
  EXPECT_EQ (directory.st_mode & 0777, 0700u);
}

TEST (write_window_state, keeps_what_else_is_in_the_file)
{
  TestFile file;
  put (&file, "# mine\n[Other]\nSeen=12\n[Window]\nWidth=1\nColour=green\n");
  write_window_state (file.path.c_str (), STATE);
  std::string text = get (file.path);
  for (const char *part : {"# mine\n", "[Other]\nSeen=12\n", "Width=800\n", "Colour=green\n"})
    EXPECT_NE (text.find (part), std::string::npos) << text;
}

TEST (write_window_state, warns_once_where_nothing_can_be_kept)
{
  TestFile file;
  EXPECT_TRUE (g_file_set_contents ((file.directory + "/state").c_str (), "", -1, NULL));
  testing::internal::CaptureStdout ();
  write_window_state (file.path.c_str (), STATE);
  EXPECT_EQ (count_warnings (testing::internal::GetCapturedStdout ()), 1u);
  unlink ((file.directory + "/state").c_str ());
}

TEST (write_window_state, warns_once_where_a_directory_has_the_files_name)
{
  TestFile file;
  put (&file, "");
  unlink (file.path.c_str ());
  EXPECT_EQ (mkdir (file.path.c_str (), 0700), 0);
  testing::internal::CaptureStdout ();
  WindowState state = STATE;
  EXPECT_FALSE (read_window_state (file.path.c_str (), &state));
  EXPECT_EQ (count_warnings (testing::internal::GetCapturedStdout ()), 1u);
  testing::internal::CaptureStdout ();
  write_window_state (file.path.c_str (), STATE);
  EXPECT_EQ (count_warnings (testing::internal::GetCapturedStdout ()), 1u);
  rmdir (file.path.c_str ());
}

// ---- Sizes that no screen has ----

TEST (clamp_window_state, keeps_what_fits)
{
  EXPECT_TRUE (
    is_same (clamp_window_state ({800, 700, false, 250}, 1920, 1080), {800, 700, false, 250}));
  EXPECT_TRUE (
    is_same (clamp_window_state ({1920, 1080, false, 250}, 1920, 1080), {1920, 1080, false, 250}));
}

TEST (clamp_window_state, takes_back_what_does_not)
{
  EXPECT_TRUE (is_same (clamp_window_state ({4000, 3000, false, 3900}, 1920, 1080),
                        {1920, 1080, false, 1920}));
  EXPECT_TRUE (is_same (clamp_window_state ({0, -5, true, -1}, 1920, 1080), {200, 200, true, 80}));
  EXPECT_TRUE (is_same (clamp_window_state ({G_MININT, G_MAXINT, false, G_MININT}, 1920, 1080),
                        {200, 1080, false, 80}));
  EXPECT_TRUE (
    is_same (clamp_window_state ({640, 640, true, 1500}, 1920, 1080), {640, 640, true, 1500}));
}

// ---- Windows ----

struct WantedLooks {
  GtkWindow *window;
  int width;
  int height;
  bool is_maximized;
};

static bool
has_looks (void *data)
{
  WantedLooks *wanted = (WantedLooks *) data;
  int width = 0;
  int height = 0;
  gtk_window_get_size (wanted->window, &width, &height);
  bool has_size = wanted->is_maximized || (width == wanted->width && height == wanted->height);
  return has_size && (bool) gtk_window_is_maximized (wanted->window) == wanted->is_maximized;
}

static void
expect_looks (AppWindow *window, int width, int height, bool is_maximized)
{
  WantedLooks wanted = {GTK_WINDOW (window), width, height, is_maximized};
  EXPECT_TRUE (pump_until (has_looks, &wanted)) << width << " " << height << " " << is_maximized;
}

static bool
are_looks_kept (void *line)
{
  char *path = alloc_window_state_path ();
  std::string text = get (path);
  g_free (path);
  return text.find ((const char *) line) != std::string::npos;
}

// Another window in the same directory, as after a restart; belongs to the caller.
static AppWindow *
open_again (TestWindow *test)
{
  GtkApplication *application = gtk_window_get_application (GTK_WINDOW (test->window));
  AppWindow *window = app_window_new ((App *) application, NULL, test->db, test->console);
  g_object_ref (window);
  gtk_window_present (GTK_WINDOW (window));
  pump ();
  return window;
}

static void
end (AppWindow *window)
{
  gtk_widget_destroy (GTK_WIDGET (window));
  g_object_unref (window);
  pump ();
}

static void
remove_looks ()
{
  char *path = alloc_window_state_path ();
  unlink (path);
  g_free (path);
}

TEST (window_state_follow, leaves_the_first_window_as_it_is)
{
  TestWindow test;
  expect_looks (test.window, 640, 640, false);
  EXPECT_EQ (gtk_paned_get_position (test.window->main_page), 190);
  close_window (&test);
  EXPECT_FALSE (are_looks_kept ((void *) "Window"));
}

TEST (window_state_follow, keeps_size_and_lists_over_a_restart)
{
  TestWindow test;
  gtk_window_resize (GTK_WINDOW (test.window), 900, 500);
  expect_looks (test.window, 900, 500, false);
  gtk_paned_set_position (test.window->main_page, 240);
  close_window (&test);
  AppWindow *again = open_again (&test);
  expect_looks (again, 900, 500, false);
  EXPECT_EQ (gtk_paned_get_position (again->main_page), 240);
  end (again);
  remove_looks ();
}

// As when the program is killed.
TEST (window_state_follow, keeps_what_changed_before_the_window_goes)
{
  TestWindow test;
  gtk_window_resize (GTK_WINDOW (test.window), 900, 500);
  EXPECT_TRUE (pump_until (are_looks_kept, (void *) "Width=900\nHeight=500\n"));
  gtk_paned_set_position (test.window->main_page, 240);
  EXPECT_TRUE (pump_until (are_looks_kept, (void *) "Lists=240\n"));
  gtk_window_maximize (GTK_WINDOW (test.window));
  EXPECT_TRUE (pump_until (are_looks_kept, (void *) "Maximized=true\n"));
  EXPECT_TRUE (are_looks_kept ((void *) "Width=900\nHeight=500\n"));
  close_window (&test);
  remove_looks ();
}

TEST (window_state_follow, keeps_maximized_and_the_size_to_go_back_to)
{
  TestWindow test;
  gtk_window_resize (GTK_WINDOW (test.window), 900, 500);
  expect_looks (test.window, 900, 500, false);
  EXPECT_TRUE (pump_until (are_looks_kept, (void *) "Width=900\nHeight=500\n"));
  gtk_window_maximize (GTK_WINDOW (test.window));
  expect_looks (test.window, 0, 0, true);
  close_window (&test);
  AppWindow *again = open_again (&test);
  expect_looks (again, 0, 0, true);
  gtk_window_unmaximize (GTK_WINDOW (again));
  expect_looks (again, 900, 500, false);
  end (again);
  remove_looks ();
}

TEST (window_state_follow, takes_no_window_that_the_screen_does_not_hold)
{
  TestWindow test;
  char *path = alloc_window_state_path ();
  write_window_state (path, {30000, 20000, false, 29000});
  g_free (path);
  AppWindow *window = open_again (&test);
  int width = 0;
  int height = 0;
  gtk_window_get_size (GTK_WINDOW (window), &width, &height);
  EXPECT_LE (width, 1400);
  EXPECT_LE (height, 1000);
  end (window);
  close_window (&test);
  remove_looks ();
}

TEST (window_state_follow, opens_as_at_first_after_a_broken_file)
{
  TestWindow test;
  gtk_window_resize (GTK_WINDOW (test.window), 900, 500);
  expect_looks (test.window, 900, 500, false);
  close_window (&test);
  char *path = alloc_window_state_path ();
  EXPECT_TRUE (g_file_set_contents (path, "[Window]\nWidth=\x01\n", -1, NULL));
  g_free (path);
  testing::internal::CaptureStdout ();
  AppWindow *again = open_again (&test);
  EXPECT_EQ (count_warnings (testing::internal::GetCapturedStdout ()), 1u);
  expect_looks (again, 640, 640, false);
  end (again);
  remove_looks ();
}

// Each directory has a store of its own, and windows of its own.
TEST (alloc_window_state_path, is_another_for_another_directory)
{
  char *here = alloc_window_state_path ();
  EXPECT_TRUE (g_str_has_prefix (here, getenv ("XDG_STATE_HOME"))) << here;
  EXPECT_EQ (chdir ("/"), 0);
  char *root = alloc_window_state_path ();
  // printf / | sha256sum
  std::string expected =
    std::string (getenv ("XDG_STATE_HOME")) +
    "/morvane/8a5edab282632443219e051e4ade2d1d5bbc671c781051bf1437897cbdfea0f1.ini";
  EXPECT_EQ (std::string (root), expected);
  EXPECT_STRNE (here, root);
  g_free (root);
  g_free (here);
}
