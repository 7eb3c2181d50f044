// The console, its value dumps, the hand-over between threads and the clock.
#include "morvane.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>

#include "os_gnulinux.h"
#include "xml.h"
#include "xml_dump.h"
#include "xmpp_connection.h"

// ---- Helpers ----

// The lock of standard output, which is counted where this thread does not have it yet.
static thread_local u32 stdout_locks_depth;
static thread_local u32 stdout_locks_count;

extern "C" void
flockfile (FILE *file)
{
  static void (*lock) (FILE *) = (void (*) (FILE *)) dlsym (RTLD_NEXT, "flockfile");
  lock (file);
  stdout_locks_count += stdout_locks_depth++ == 0;
}

extern "C" void
funlockfile (FILE *file)
{
  static void (*unlock) (FILE *) = (void (*) (FILE *)) dlsym (RTLD_NEXT, "funlockfile");
  stdout_locks_depth--;
  unlock (file);
}

// The clock of this test program, which can be made to fail.
static bool clock_fails = false;

extern "C" time_t
time (time_t *time_out) noexcept
{
  struct timespec now;
  clock_gettime (CLOCK_REALTIME, &now);
  time_t seconds = clock_fails ? (time_t) -1 : now.tv_sec;
  if (time_out != NULL)
    *time_out = seconds;
  return seconds;
}

// Runs every idle callback that waits.
static void
run_idle_callbacks ()
{
  while (g_main_context_iteration (NULL, FALSE))
    continue;
}

static std::string
get_pane_text ()
{
  char *text = gtk_text_buffer_get_all_text (_console_text_buffer);
  std::string copy = text;
  g_free (text);
  return copy;
}

// Each test begins without a console text buffer and with nothing under way.
class console : public testing::Test {
protected:
  void SetUp () override
  {
    _console_text_buffer = NULL;
    run_idle_callbacks ();
  }

  void TearDown () override
  {
    run_idle_callbacks ();
    if (_console_text_buffer != NULL)
      g_object_unref (_console_text_buffer);
    _console_text_buffer = NULL;
  }
};

static void
make_pane ()
{
  _console_text_buffer = gtk_text_buffer_new (NULL);
}

static void
begin_output ()
{
  testing::internal::CaptureStdout ();
}

// What was sent to standard output; with a pane, the pane must have got the same.
static std::string
end_output ()
{
  std::string output = testing::internal::GetCapturedStdout ();
  if (_console_text_buffer != NULL) {
    run_idle_callbacks ();
    EXPECT_EQ (output, get_pane_text ());
  }
  return output;
}

static String
make_string (const char *data, u64 size)
{
  String string = {(u8 *) data, size};
  return string;
}

// ---- Hand-over between threads ----

struct Parcel {
  u32 runs_count;
  pthread_t sender;
  pthread_t runner;
};

static gboolean
parcel_handle (gpointer data)
{
  Parcel *parcel = (Parcel *) accept_hand_over (data);
  ++parcel->runs_count;
  parcel->runner = pthread_self ();
  return G_SOURCE_REMOVE;
}

static void *
send_parcel (void *data)
{
  Parcel *parcel = (Parcel *) data;
  parcel->sender = pthread_self ();
  hand_over (parcel_handle, parcel);
  return NULL;
}

TEST (hand_over, runs_the_handler_once_with_the_record)
{
  Parcel parcel = {};
  hand_over (parcel_handle, &parcel);
  EXPECT_EQ (0u, parcel.runs_count);
  run_idle_callbacks ();
  EXPECT_EQ (1u, parcel.runs_count);
}

TEST (hand_over, from_another_thread_runs_the_handler_on_the_interface_thread)
{
  Parcel parcel = {};
  pthread_t sender;
  ASSERT_EQ (0, pthread_create (&sender, NULL, send_parcel, &parcel));
  // Waits for the handler itself, so that only the hand-over orders the two threads.
  while (parcel.runner == 0)
    g_main_context_iteration (NULL, TRUE);
  EXPECT_TRUE (pthread_equal (pthread_self (), parcel.runner));
  EXPECT_TRUE (pthread_equal (sender, parcel.sender));
  EXPECT_EQ (1u, parcel.runs_count);
  pthread_join (sender, NULL);
}

// ---- Long work ----

static gboolean
note_event (gpointer data)
{
  *(std::string *) data += "event ";
  return G_SOURCE_REMOVE;
}

static gboolean
note_hand_over (gpointer data)
{
  *(std::string *) accept_hand_over (data) += "handed over ";
  return G_SOURCE_REMOVE;
}

// One event and one record wait; then comes what takes longer than a piece may.
static void
do_long_work (std::string *seen)
{
  g_idle_add_full (GDK_PRIORITY_EVENTS, note_event, seen, NULL);
  hand_over (note_hand_over, seen);
  for (s64 start = g_get_monotonic_time (); g_get_monotonic_time () < start + 60000;)
    continue;
  pause_long_work ();
  *seen += "work ";
}

TEST (pause_long_work, handles_events_and_leaves_what_was_handed_over)
{
  std::string seen;
  begin_long_work ();
  do_long_work (&seen);
  end_long_work ();
  run_idle_callbacks ();
  EXPECT_EQ ("event work handed over ", seen);
}

TEST (pause_long_work, does_nothing_outside_of_long_work)
{
  std::string seen;
  begin_long_work ();
  end_long_work ();
  do_long_work (&seen);
  run_idle_callbacks ();
  EXPECT_EQ ("work event handed over ", seen);
}

TEST (give_up_long_work, holds_until_other_work_begins)
{
  begin_long_work ();
  EXPECT_TRUE (pause_long_work ());
  give_up_long_work ();
  EXPECT_FALSE (pause_long_work ());
  begin_long_work ();
  EXPECT_FALSE (pause_long_work ());
  end_long_work ();
  end_long_work ();
  EXPECT_TRUE (pause_long_work ());
  begin_long_work ();
  EXPECT_TRUE (pause_long_work ());
  end_long_work ();
}

TEST (pause_long_work, leaves_short_pieces_alone)
{
  std::string seen;
  begin_long_work ();
  g_idle_add_full (GDK_PRIORITY_EVENTS, note_event, &seen, NULL);
  pause_long_work ();
  EXPECT_EQ ("", seen);
  end_long_work ();
  run_idle_callbacks ();
  EXPECT_EQ ("event ", seen);
}

static gboolean
note_pane (gpointer lines_count)
{
  *(int *) lines_count = gtk_text_buffer_get_line_count (_console_text_buffer) - 1;
  return G_SOURCE_REMOVE;
}

// The user does something when the first line is shown, and each line takes its time.
static void
take_time (GtkTextBuffer *text_buffer, int *lines_count)
{
  if (gtk_text_buffer_get_line_count (text_buffer) == 2)
    g_idle_add_full (GDK_PRIORITY_EVENTS, note_pane, lines_count, NULL);
  g_usleep (5000);
}

TEST_F (console, answers_the_user_before_all_of_many_lines_are_shown)
{
  make_pane ();
  int lines_count = 0;
  g_signal_connect (_console_text_buffer, "changed", G_CALLBACK (take_time), &lines_count);
  begin_output ();
  for (int i = 0; i < 50; i++) {
    console_put ("line\n");
  }
  end_output ();
  run_idle_callbacks ();
  EXPECT_GT (lines_count, 0);
  EXPECT_LT (lines_count, 50);
  EXPECT_EQ (51, gtk_text_buffer_get_line_count (_console_text_buffer));
}

// ---- Order ----

static gboolean
append_letter (gpointer data)
{
  std::string *letters = (std::string *) accept_hand_over (data);
  *letters += (char) ('a' + letters->size ());
  return G_SOURCE_REMOVE;
}

static gboolean
append_dash (gpointer data)
{
  std::string *letters = (std::string *) accept_hand_over (data);
  *letters += '-';
  return G_SOURCE_REMOVE;
}

TEST (hand_over, keeps_the_order)
{
  std::string letters;
  hand_over (append_letter, &letters);
  hand_over (append_dash, &letters);
  hand_over (append_letter, &letters);
  run_idle_callbacks ();
  EXPECT_EQ ("a-c", letters);
}

TEST (accept_hand_over, returns_the_record)
{
  int record = 0;
  EXPECT_EQ (&record, accept_hand_over (&record));
}

// ---- Console ----

TEST_F (console, takes_over_what_underscore_put_gets)
{
  make_pane ();
  begin_output ();
  _console_put (alloc_string ("abc"));
  EXPECT_EQ ("abc", end_output ());
}

TEST_F (console, copies_a_string)
{
  make_pane ();
  begin_output ();
  char text[] = "abc";
  console_put (to_string (text));
  memset (text, 'x', 3);
  EXPECT_EQ ("abc", end_output ());
}

TEST_F (console, copies_a_terminated_text)
{
  make_pane ();
  begin_output ();
  char text[] = "abc";
  console_put (text);
  memset (text, 'x', 3);
  EXPECT_EQ ("abc", end_output ());
}

TEST_F (console, puts_one_byte)
{
  make_pane ();
  begin_output ();
  console_put ('x');
  EXPECT_EQ ("x", end_output ());
}

TEST_F (console, puts_an_empty_string)
{
  make_pane ();
  begin_output ();
  String none = {};
  console_put (none);
  console_put ("");
  _console_put (none);
  EXPECT_EQ ("", end_output ());
}

TEST_F (console, repeats_a_string)
{
  make_pane ();
  begin_output ();
  console_put_repeat (to_string ("ab"), 3);
  EXPECT_EQ ("ababab", end_output ());
}

TEST_F (console, repeats_a_terminated_text)
{
  make_pane ();
  begin_output ();
  console_put_repeat ("  ", 2);
  EXPECT_EQ ("    ", end_output ());
}

TEST_F (console, repeated_no_times_is_an_empty_string)
{
  make_pane ();
  begin_output ();
  console_put_repeat (to_string ("ab"), 0);
  EXPECT_EQ ("", end_output ());
  begin_output ();
  console_put_repeat ("ab", 0);
  EXPECT_EQ ("", end_output ());
}

TEST_F (console, writes_to_standard_output_before_the_idle_callback_runs)
{
  make_pane ();
  testing::internal::CaptureStdout ();
  console_put ("abc");
  EXPECT_EQ ("abc", testing::internal::GetCapturedStdout ());
  EXPECT_EQ ("", get_pane_text ());
  run_idle_callbacks ();
  EXPECT_EQ ("abc", get_pane_text ());
}

TEST_F (console, keeps_the_order_in_both_places)
{
  make_pane ();
  begin_output ();
  console_put ("one ");
  console_put (to_string ("two "));
  console_log ("%d ", 3);
  console_put_repeat ("!", 2);
  console_put ('\n');
  EXPECT_EQ ("one two 3 !!\n", end_output ());
}

TEST_F (console, text_from_before_the_pane_reaches_standard_output_only)
{
  testing::internal::CaptureStdout ();
  console_put ("early\n");
  console_log ("%s\n", "early too");
  // The pane is made before the idle callbacks of the early texts have run.
  make_pane ();
  console_put ("late\n");
  EXPECT_EQ ("early\nearly too\nlate\n", testing::internal::GetCapturedStdout ());
  run_idle_callbacks ();
  EXPECT_EQ ("late\n", get_pane_text ());
}

TEST_F (console, without_a_pane_writes_to_standard_output)
{
  begin_output ();
  console_put ("abc");
  EXPECT_EQ ("abc", end_output ());
  run_idle_callbacks ();
  EXPECT_EQ (nullptr, _console_text_buffer);
}

TEST_F (console, that_lost_its_pane_drops_what_was_meant_for_it)
{
  make_pane ();
  testing::internal::CaptureStdout ();
  console_put ("abc");
  EXPECT_EQ ("abc", testing::internal::GetCapturedStdout ());
  g_object_unref (_console_text_buffer);
  _console_text_buffer = NULL;
  run_idle_callbacks ();
  EXPECT_FALSE (g_main_context_pending (NULL));
}

TEST_F (console, appends_at_the_cursor)
{
  make_pane ();
  gtk_text_buffer_set_text (_console_text_buffer, "<>", -1);
  GtkTextIter iter;
  gtk_text_buffer_get_iter_at_offset (_console_text_buffer, &iter, 1);
  gtk_text_buffer_place_cursor (_console_text_buffer, &iter);
  testing::internal::CaptureStdout ();
  console_put ("abc");
  testing::internal::GetCapturedStdout ();
  run_idle_callbacks ();
  EXPECT_EQ ("<abc>", get_pane_text ());
}

TEST_F (console, shows_valid_text_unchanged)
{
  make_pane ();
  begin_output ();
  console_put ("\xC3\xA4\xE2\x8F\x8E\xF0\x9F\x98\x80\r\n\t<&>");
  EXPECT_EQ ("\xC3\xA4\xE2\x8F\x8E\xF0\x9F\x98\x80\r\n\t<&>", end_output ());
}

TEST_F (console, writes_bytes_unchanged_and_shows_them_as_valid_text)
{
  make_pane ();
  testing::internal::CaptureStdout ();
  console_put ("a\xFFz");
  EXPECT_EQ ("a\xFFz", testing::internal::GetCapturedStdout ());
  run_idle_callbacks ();
  EXPECT_EQ ("a\xEF\xBF\xBDz", get_pane_text ());
}

TEST_F (console, ends_at_0_bytes_and_shows_what_follows_them)
{
  make_pane ();
  testing::internal::CaptureStdout ();
  console_put (make_string ("a\0z", 3));
  console_put ("\n");
  EXPECT_EQ ("a\n", testing::internal::GetCapturedStdout ());
  run_idle_callbacks ();
  EXPECT_EQ ("a\xEF\xBF\xBDz\n", get_pane_text ());
}

TEST_F (console, shows_a_character_that_was_cut_as_replaced)
{
  make_pane ();
  testing::internal::CaptureStdout ();
  console_put ("a\xC3");
  EXPECT_EQ ("a\xC3", testing::internal::GetCapturedStdout ());
  run_idle_callbacks ();
  EXPECT_EQ ("a\xEF\xBF\xBD", get_pane_text ());
}

TEST_F (console, log_formats_with_the_programs_own_formatter)
{
  make_pane ();
  // Not a constant, or the compiler would refuse it.
  const char *volatile null_text = NULL;
  begin_output ();
  console_log ("%d %s %%x %s\n", -5, "two", null_text);
  EXPECT_EQ ("-5 two %x (null)\n", end_output ());
}

TEST_F (console, log_of_nothing_is_nothing)
{
  make_pane ();
  begin_output ();
  console_log ("%s", "");
  EXPECT_EQ ("", end_output ());
}

// The texts that standard output and standard error get from one line of `size` letters.
static void
log_letters (u64 size, std::string *output, std::string *error)
{
  std::string text (size, 'x');
  testing::internal::CaptureStderr ();
  testing::internal::CaptureStdout ();
  console_log ("%s", text.c_str ());
  *output = testing::internal::GetCapturedStdout ();
  *error = testing::internal::GetCapturedStderr ();
  run_idle_callbacks ();
}

TEST_F (console, log_of_8191_bytes_is_whole_and_does_not_warn)
{
  make_pane ();
  std::string output;
  std::string error;
  log_letters (8191, &output, &error);
  EXPECT_EQ (std::string (8191, 'x'), output);
  EXPECT_EQ ("", error);
  EXPECT_EQ (output, get_pane_text ());
}

TEST_F (console, log_of_8192_bytes_is_whole_and_warns)
{
  make_pane ();
  std::string output;
  std::string error;
  log_letters (8192, &output, &error);
  EXPECT_EQ (std::string (8192, 'x'), output);
  EXPECT_EQ ("\nWarning: Print buffer probably has exceeded.\n", error);
  EXPECT_EQ (output, get_pane_text ());
}

TEST_F (console, log_of_more_is_cut_to_8192_bytes_and_warns)
{
  make_pane ();
  std::string output;
  std::string error;
  log_letters (9000, &output, &error);
  EXPECT_EQ (std::string (8192, 'x'), output);
  EXPECT_EQ ("\nWarning: Print buffer probably has exceeded.\n", error);
  EXPECT_EQ (output, get_pane_text ());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' allocators do not tell what is in use.
TEST_F (console, log_gives_back_what_its_line_does_not_need)
{
  testing::internal::CaptureStdout ();
  u64 before = mallinfo2 ().uordblks;
  for (u32 index = 0; index < 1000; ++index)
    console_log ("short\n");
  u64 waiting = mallinfo2 ().uordblks - before;
  testing::internal::GetCapturedStdout ();
  EXPECT_LT (waiting, 1000 * 1024u);
  run_idle_callbacks ();
}
#endif

static void *
write_lines (void *data)
{
  for (u32 index = 0; index < 200; ++index)
    console_log ("%s %u\n", (const char *) data, index);
  return NULL;
}

TEST_F (console, keeps_the_order_of_every_thread)
{
  make_pane ();
  const char *names[] = {"red", "green", "blue"};
  pthread_t threads[3];
  testing::internal::CaptureStdout ();
  for (u32 index = 0; index < 3; ++index)
    ASSERT_EQ (0, pthread_create (&threads[index], NULL, write_lines, (void *) names[index]));
  while (gtk_text_buffer_get_line_count (_console_text_buffer) < 3 * 200 + 1)
    g_main_context_iteration (NULL, TRUE);
  for (u32 index = 0; index < 3; ++index)
    pthread_join (threads[index], NULL);
  std::string output = testing::internal::GetCapturedStdout ();
  for (const std::string &text : {output, get_pane_text ()}) {
    size_t size_found = 0;
    for (const char *name : names) {
      size_t place = 0;
      for (u32 index = 0; index < 200; ++index) {
        std::string line = std::string (name) + " " + std::to_string (index) + "\n";
        place = text.find (line, place);
        ASSERT_NE (std::string::npos, place) << line;
        size_found += line.size ();
      }
    }
    EXPECT_EQ (text.size (), size_found);
  }
}

// ---- Value dumps ----

TEST_F (console, dumps_a_string)
{
  make_pane ();
  begin_output ();
  String x = to_string ("abc");
  CONSOLE_DUMP (x);
  EXPECT_EQ ("x: \"abc\" (String)\n", end_output ());
}

TEST_F (console, dumps_a_string_of_any_size_whole)
{
  make_pane ();
  static std::string text = std::string (20000, 'x') + '\n';
  begin_output ();
  String request = make_string (text.data (), text.size ());
  CONSOLE_DUMP (request);
  EXPECT_EQ ("request: \"" + text + "\" (String)\n", end_output ());
}

TEST_F (console, dumps_a_terminated_text)
{
  make_pane ();
  begin_output ();
  const char *text = "abc";
  CONSOLE_DUMP (text);
  EXPECT_EQ ("text: \"abc\" (char *)\n", end_output ());
}

TEST_F (console, dumps_a_text_that_may_be_written_to_as_a_text)
{
  make_pane ();
  begin_output ();
  char text[] = "abc";
  CONSOLE_DUMP (text);
  EXPECT_EQ ("text: \"abc\" (char *)\n", end_output ());
}

TEST_F (console, dumps_a_null_text)
{
  make_pane ();
  begin_output ();
  const char *text = NULL;
  CONSOLE_DUMP (text);
  EXPECT_EQ ("text: \"(null)\" (char *)\n", end_output ());
}

TEST_F (console, dumps_pointers)
{
  make_pane ();
  begin_output ();
  void *pointer = (void *) 255;
  CONSOLE_DUMP (pointer);
  const void *none = NULL;
  CONSOLE_DUMP (none);
  Parcel *record = (Parcel *) 16;
  CONSOLE_DUMP (record);
  EXPECT_EQ ("pointer: 0xff (void *)\nnone: (nil) (void *)\nrecord: 0x10 (void *)\n",
             end_output ());
}

TEST_F (console, dumps_a_char_as_a_signed_number)
{
  make_pane ();
  begin_output ();
  char letter = 'a';
  CONSOLE_DUMP (letter);
  char high = '\xFF';
  CONSOLE_DUMP (high);
  EXPECT_EQ ("letter: 97 (char)\nhigh: -1 (char)\n", end_output ());
}

TEST_F (console, dumps_floating_numbers)
{
  make_pane ();
  begin_output ();
  r32 single = 1.5f;
  CONSOLE_DUMP (single);
  r64 wide = -2.25;
  CONSOLE_DUMP (wide);
  EXPECT_EQ ("single: 1.500000 (r32)\nwide: -2.250000 (r64)\n", end_output ());
}

TEST_F (console, dumps_unsigned_numbers)
{
  make_pane ();
  begin_output ();
  u8 a = UINT8_MAX;
  CONSOLE_DUMP (a);
  u16 b = UINT16_MAX;
  CONSOLE_DUMP (b);
  u32 c = UINT32_MAX;
  CONSOLE_DUMP (c);
  u64 d = UINT64_MAX;
  CONSOLE_DUMP (d);
  EXPECT_EQ ("a: 255 (u8)\nb: 65535 (u16)\nc: 4294967295 (u32)\n"
             "d: 18446744073709551615 (u64)\n",
             end_output ());
}

TEST_F (console, dumps_signed_numbers)
{
  make_pane ();
  begin_output ();
  s8 a = INT8_MIN;
  CONSOLE_DUMP (a);
  s16 b = INT16_MIN;
  CONSOLE_DUMP (b);
  s32 c = INT32_MIN;
  CONSOLE_DUMP (c);
  s64 d = INT64_MIN;
  CONSOLE_DUMP (d);
  EXPECT_EQ ("a: -128 (s8)\nb: -32768 (s16)\nc: -2147483648 (s32)\n"
             "d: -9223372036854775808 (s64)\n",
             end_output ());
}

TEST_F (console, dumps_an_expression_under_its_source_text)
{
  make_pane ();
  begin_output ();
  CONSOLE_DUMP (strlen ("abc"));
  EXPECT_EQ ("strlen (\"abc\"): 3 (u64)\n", end_output ());
}

// ---- Clock and text buffers ----

// What one thread dumps, over and over, and what the console must show of it.
struct DumpedLine {
  void (*dump) ();
  const char *shown;
};

static const u32 DUMPS_COUNT = 200;

static void
dump_string ()
{
  String request = to_string ("<message/>");
  CONSOLE_DUMP (request);
}

static void
dump_cstr ()
{
  const char *sql = "SELECT 1;";
  CONSOLE_DUMP (sql);
}

static void
dump_number ()
{
  s64 size = -12;
  CONSOLE_DUMP (size);
}

static void
dump_tree ()
{
  u8 block[16384];
  XMLElement *unclosed;
  XMLElement *unopened;
  String text = to_string ("<a b='c'><d>e</d></a>");
  print_xml_tree (parse_xml_tree ({block, sizeof (block)}, text, &unclosed, &unopened), 0);
}

#define DEFINE_DUMP(name, type, number)                                                            \
  static void dump_##name ()                                                                       \
  {                                                                                                \
    type name##_value = (type) (number);                                                           \
    CONSOLE_DUMP (name##_value);                                                                   \
  }
DEFINE_DUMP (pointer, void *, 255)
DEFINE_DUMP (char, char, 'a')
DEFINE_DUMP (r32, r32, 1.5)
DEFINE_DUMP (r64, r64, 2.5)
DEFINE_DUMP (u8, u8, 1)
DEFINE_DUMP (u16, u16, 2)
DEFINE_DUMP (u32, u32, 3)
DEFINE_DUMP (u64, u64, 4)
DEFINE_DUMP (s8, s8, 5)
DEFINE_DUMP (s16, s16, 6)
DEFINE_DUMP (s32, s32, 7)

static void
dump_address ()
{
  struct addrinfo address = {};
  address.ai_family = AF_INET6;
  address.ai_socktype = SOCK_STREAM;
  address.ai_protocol = IPPROTO_TCP;
  os_print_address_info_list (&address);
}

static void
refuse_account ()
{
  alloc_xmpp_account (to_string ("anna"), to_string ("secret"), to_string ("desk"));
}

static void
put_in_pieces ()
{
  console_begin_line ();
  console_put ("One ");
  console_begin_line ();
  console_put ("line");
  console_end_line ();
  console_put ('.');
  console_put ("\n");
  console_end_line ();
}

static void
put_line ()
{
  console_put ("Whole\n");
}

static const DumpedLine DUMPED_LINES[] = {
  {dump_string, "request: \"<message/>\" (String)\n"},
  {dump_cstr, "sql: \"SELECT 1;\" (char *)\n"},
  {dump_number, "size: -12 (s64)\n"},
  {dump_tree, "<a b='c'>\n  <d>\n    e\n  </d>\n</a>\n"},
  {put_in_pieces, "One line.\n"},
  {put_line, "Whole\n"},
  {dump_pointer, "pointer_value: 0xff (void *)\n"},
  {dump_char, "char_value: 97 (char)\n"},
  {dump_r32, "r32_value: 1.500000 (r32)\n"},
  {dump_r64, "r64_value: 2.500000 (r64)\n"},
  {dump_u8, "u8_value: 1 (u8)\n"},
  {dump_u16, "u16_value: 2 (u16)\n"},
  {dump_u32, "u32_value: 3 (u32)\n"},
  {dump_u64, "u64_value: 4 (u64)\n"},
  {dump_s8, "s8_value: 5 (s8)\n"},
  {dump_s16, "s16_value: 6 (s16)\n"},
  {dump_s32, "s32_value: 7 (s32)\n"},
  {dump_address, "canonname: (null)\nfamily: AF_INET6\nsocktype: SOCK_STREAM\n"
                 "protocol: IPPROTO_TCP\n"},
  {refuse_account, "Error: Login account 'anna' is missing an '@' symbol.\n"},
};

static int
count_lines (const std::string &text)
{
  return (int) std::count (text.begin (), text.end (), '\n');
}

static void *
dump_often (void *data)
{
  for (u32 index = 0; index < DUMPS_COUNT; ++index)
    ((const DumpedLine *) data)->dump ();
  return NULL;
}

// Takes the lines one by one from the front; what none of them begins is torn.
static void
expect_whole_lines (const std::string &text)
{
  u32 counts[G_N_ELEMENTS (DUMPED_LINES)] = {};
  for (size_t place = 0; place < text.size ();) {
    size_t found = 0;
    while (found < G_N_ELEMENTS (DUMPED_LINES) &&
           text.compare (place, strlen (DUMPED_LINES[found].shown), DUMPED_LINES[found].shown))
      ++found;
    ASSERT_LT (found, G_N_ELEMENTS (DUMPED_LINES)) << text.substr (place, 200);
    place += strlen (DUMPED_LINES[found].shown);
    ++counts[found];
  }
  for (u32 index = 0; index < G_N_ELEMENTS (counts); ++index)
    EXPECT_EQ ((index == 2 ? 2 : 1) * DUMPS_COUNT, counts[index]) << index;
}

TEST_F (console, tears_no_line_of_one_thread_by_those_of_others)
{
  make_pane ();
  pthread_t threads[G_N_ELEMENTS (DUMPED_LINES)];
  testing::internal::CaptureStdout ();
  for (u32 index = 0; index < G_N_ELEMENTS (threads); ++index)
    ASSERT_EQ (0,
               pthread_create (&threads[index], NULL, dump_often, (void *) &DUMPED_LINES[index]));
  // The interface thread writes beside them, and shows what they wrote.
  for (u32 index = 0; index < DUMPS_COUNT; ++index) {
    dump_number ();
    g_main_context_iteration (NULL, FALSE);
  }
  int lines_count = (int) DUMPS_COUNT;
  for (const DumpedLine &line : DUMPED_LINES)
    lines_count += count_lines (line.shown) * (int) DUMPS_COUNT;
  while (gtk_text_buffer_get_line_count (_console_text_buffer) < lines_count + 1)
    g_main_context_iteration (NULL, TRUE);
  for (u32 index = 0; index < G_N_ELEMENTS (threads); ++index)
    pthread_join (threads[index], NULL);
  std::string output = testing::internal::GetCapturedStdout ();
  EXPECT_EQ (output, get_pane_text ());
  expect_whole_lines (output);
}

// More than is handed over in one piece.
static const u32 ELEMENTS_COUNT = 70000;

static void
parse_tags (const char *tag)
{
  static u8 block[24 * 1024 * 1024];
  std::string text;
  for (u32 index = 0; index < ELEMENTS_COUNT; ++index)
    text += tag;
  parse_xml_tree ({block, sizeof (block)}, to_string (text.c_str ()), NULL, NULL);
}

static void
warn_of_unclosed_elements ()
{
  parse_tags ("<a>");
}

static void
warn_of_unopened_elements ()
{
  parse_tags ("</a>");
}

// How often the console is locked anew meanwhile: between two times another thread may write.
static u32
count_locks (void (*dump) ())
{
  begin_output ();
  u32 count = stdout_locks_count;
  dump ();
  count = stdout_locks_count - count;
  end_output ();
  return count;
}

TEST_F (console, is_locked_until_the_line_of_a_dump_ends)
{
  for (const DumpedLine &line : DUMPED_LINES)
    EXPECT_EQ (count_locks (line.dump), 1u) << line.shown;
  EXPECT_EQ (count_locks (warn_of_unclosed_elements), 1u);
  EXPECT_EQ (count_locks (warn_of_unopened_elements), 1u);
}

TEST (get_posix_time, is_the_time_of_the_system)
{
  struct timespec before;
  struct timespec after;
  clock_gettime (CLOCK_REALTIME, &before);
  s64 now = get_posix_time ();
  clock_gettime (CLOCK_REALTIME, &after);
  EXPECT_LE (before.tv_sec, now);
  EXPECT_LE (now, after.tv_sec);
}

TEST (get_posix_time, stops_the_program_without_a_clock)
{
  EXPECT_DEATH (
    {
      clock_fails = true;
      get_posix_time ();
    },
    "src/morvane\\.cpp.*s64 get_posix_time\\(\\).*`posix_time != \\(\\(time_t\\) -1\\)'");
}

TEST (gtk_text_buffer_get_all_text, gives_the_whole_text)
{
  GtkTextBuffer *text_buffer = gtk_text_buffer_new (NULL);
  gtk_text_buffer_set_text (text_buffer, "one\ntwo \xC3\xA4\n", -1);
  char *text = gtk_text_buffer_get_all_text (text_buffer);
  EXPECT_STREQ ("one\ntwo \xC3\xA4\n", text);
  g_free (text);
  g_object_unref (text_buffer);
}

TEST (gtk_text_buffer_get_all_text, of_an_empty_buffer_is_empty)
{
  GtkTextBuffer *text_buffer = gtk_text_buffer_new (NULL);
  char *text = gtk_text_buffer_get_all_text (text_buffer);
  EXPECT_STREQ ("", text);
  g_free (text);
  g_object_unref (text_buffer);
}

TEST (gtk_text_buffer_get_all_text, leaves_out_hidden_characters)
{
  // Without a display nobody has made this type yet, and tags need it.
  G_GNUC_BEGIN_IGNORE_DEPRECATIONS
  g_type_ensure (GDK_TYPE_COLOR);
  G_GNUC_END_IGNORE_DEPRECATIONS
  GtkTextBuffer *text_buffer = gtk_text_buffer_new (NULL);
  gtk_text_buffer_create_tag (text_buffer, "hidden", "invisible", TRUE, NULL);
  GtkTextIter iter;
  gtk_text_buffer_get_end_iter (text_buffer, &iter);
  gtk_text_buffer_insert (text_buffer, &iter, "seen", -1);
  gtk_text_buffer_insert_with_tags_by_name (text_buffer, &iter, "hidden", -1, "hidden", NULL);
  char *text = gtk_text_buffer_get_all_text (text_buffer);
  EXPECT_STREQ ("seen", text);
  g_free (text);
  g_object_unref (text_buffer);
}
