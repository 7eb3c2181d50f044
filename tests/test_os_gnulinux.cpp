// Whole files, the configuration file, locks between processes and TCP sockets on the loopback.

// `read` and `fstat` are replaced below, which the checked variants of the headers do not allow.
#undef _FORTIFY_SOURCE

#include "os_gnulinux.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "morvane.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

// ---- The operating system, made to fail ----

// What the replaced functions do to a regular file instead of their work.
enum Fault {
  FAULT_NONE,
  FAULT_STAT_FAILS,
  FAULT_SIZE_IS_NEGATIVE,
  FAULT_READ_FAILS,
  FAULT_READ_IS_SHORT,
  FAULT_READ_IS_NEGATIVE,
};

static thread_local Fault fault = FAULT_NONE;

extern "C" int
fstat (int file, struct stat *file_stat) noexcept
{
  typedef int (*Function) (int, struct stat *);
  static Function next = (Function) dlsym (RTLD_NEXT, "fstat");
  if (fault == FAULT_STAT_FAILS) {
    errno = EIO;
    return -1;
  }
  int result = next (file, file_stat);
  if (fault == FAULT_SIZE_IS_NEGATIVE)
    file_stat->st_size = -1;
  return result;
}

static ssize_t
read_with_fault (int file, void *data, size_t size)
{
  typedef ssize_t (*Function) (int, void *, size_t);
  static Function next = (Function) dlsym (RTLD_NEXT, "read");
  switch (fault) {
  case FAULT_READ_FAILS:
    errno = EIO;
    return -1;
  case FAULT_READ_IS_SHORT:
    return next (file, data, size / 2);
  case FAULT_READ_IS_NEGATIVE:
    return -2;
  default:
    return next (file, data, size);
  }
}

extern "C" ssize_t
read (int file, void *data, size_t size)
{
  return read_with_fault (file, data, size);
}

// What a hardened build calls.
extern "C" ssize_t
__read_chk (int file, void *data, size_t size, size_t)
{
  return read_with_fault (file, data, size);
}

// What the resolver was asked for last, and how many of its lists are not given back.
static struct addrinfo asked_hints;
static int lists_count = 0;
static bool resolver_finds_nothing = false;

extern "C" int
getaddrinfo (const char *host, const char *port, const struct addrinfo *hints,
             struct addrinfo **list_out)
{
  typedef int (*Function) (const char *, const char *, const struct addrinfo *, struct addrinfo **);
  static Function next = (Function) dlsym (RTLD_NEXT, "getaddrinfo");
  asked_hints = *hints;
  if (resolver_finds_nothing)
    return 0;
  int error = next (host, port, hints, list_out);
  lists_count += error == 0;
  return error;
}

extern "C" void
freeaddrinfo (struct addrinfo *list) noexcept
{
  typedef void (*Function) (struct addrinfo *);
  static Function next = (Function) dlsym (RTLD_NEXT, "freeaddrinfo");
  --lists_count;
  next (list);
}

// ---- Helpers ----

static std::string
to_std (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static void
begin_output ()
{
  testing::internal::CaptureStdout ();
}

static std::string
end_output ()
{
  return testing::internal::GetCapturedStdout ();
}

// Lets the console free what it wrote: there is no main loop here.
class os : public testing::Test {
protected:
  void TearDown () override
  {
    fault = FAULT_NONE;
    while (g_main_context_iteration (NULL, FALSE))
      continue;
  }
};

class os_files : public os {
protected:
  std::string folder;
  std::string path;

  void SetUp () override
  {
    char name[] = "/tmp/morvane_files_XXXXXX";
    ASSERT_NE (nullptr, mkdtemp (name));
    folder = name;
    path = folder + "/file";
  }

  void TearDown () override
  {
    os::TearDown ();
    unlink (path.c_str ());
    rmdir (folder.c_str ());
  }

  void write_file (const std::string &text)
  {
    FILE *file = fopen (path.c_str (), "w");
    ASSERT_NE (nullptr, file);
    ASSERT_EQ (text.size (), fwrite (text.data (), 1, text.size (), file));
    fclose (file);
  }

  // Reads with a fault; the console must get `line`, where "%" stands for the path.
  char *read_expecting (Fault expected_fault, std::string line)
  {
    size_t place = line.find ('%');
    if (place != std::string::npos)
      line.replace (place, 1, path);
    begin_output ();
    fault = expected_fault;
    char *text = os_alloc_read_file_as_cstr (path.c_str ());
    fault = FAULT_NONE;
    EXPECT_EQ (line, end_output ());
    return text;
  }
};

static u32
count_open_descriptors ()
{
  u32 count = 0;
  for (int descriptor = 0; descriptor < 256; ++descriptor)
    count += fcntl (descriptor, F_GETFD) != -1;
  return count;
}

// ---- Files ----

TEST_F (os_files, reads_a_whole_file_as_terminated_text)
{
  write_file ("one\ntwo");
  char *text = read_expecting (FAULT_NONE, "");
  EXPECT_STREQ ("one\ntwo", text);
  dealloc_cstr (text);
}

TEST_F (os_files, reads_a_large_file)
{
  std::string large (300000, 'x');
  write_file (large);
  char *text = read_expecting (FAULT_NONE, "");
  EXPECT_EQ (large, text);
  dealloc_cstr (text);
}

TEST_F (os_files, closes_what_it_has_read)
{
  write_file ("one");
  u32 count = count_open_descriptors ();
  dealloc_cstr (os_alloc_read_file_as_cstr (path.c_str ()));
  EXPECT_EQ (count, count_open_descriptors ());
}

TEST_F (os_files, a_missing_file_is_an_error_of_open)
{
  EXPECT_EQ (nullptr, read_expecting (FAULT_NONE, "Error: open: %: No such file or directory\n"));
}

TEST_F (os_files, an_empty_file_counts_as_absent_without_an_error)
{
  write_file ("");
  u32 count = count_open_descriptors ();
  EXPECT_EQ (nullptr, read_expecting (FAULT_NONE, ""));
  EXPECT_EQ (count, count_open_descriptors ());
}

TEST_F (os_files, a_failed_stat_is_an_error_and_leaves_the_file_open)
{
  write_file ("one");
  u32 count = count_open_descriptors ();
  EXPECT_EQ (nullptr, read_expecting (FAULT_STAT_FAILS, "Error: fstat: %: Input/output error\n"));
  EXPECT_EQ (count + 1, count_open_descriptors ());
}

TEST_F (os_files, a_failed_read_is_an_error)
{
  write_file ("one");
  u32 count = count_open_descriptors ();
  EXPECT_EQ (nullptr, read_expecting (FAULT_READ_FAILS, "Error: read: %: Input/output error\n"));
  EXPECT_EQ (count, count_open_descriptors ());
}

TEST_F (os_files, a_directory_cannot_be_read)
{
  write_file ("one");
  begin_output ();
  char *text = os_alloc_read_file_as_cstr (folder.c_str ());
  EXPECT_EQ ("Error: read: " + folder + ": Is a directory\n", end_output ());
  EXPECT_EQ (nullptr, text);
}

TEST_F (os_files, a_short_read_is_told_and_kept)
{
  write_file ("onetwo");
  char *text =
    read_expecting (FAULT_READ_IS_SHORT, "Error: %: file size doesn't match read size\n");
  EXPECT_STREQ ("one", text);
  dealloc_cstr (text);
}

TEST_F (os_files, a_negative_size_stops_the_program)
{
  write_file ("one");
  EXPECT_DEATH (read_expecting (FAULT_SIZE_IS_NEGATIVE, ""),
                "src/os_gnulinux\\.cpp.*`file_stat\\.st_size >= 0'");
}

TEST_F (os_files, a_negative_count_stops_the_program)
{
  write_file ("one");
  EXPECT_DEATH (read_expecting (FAULT_READ_IS_NEGATIVE, ""),
                "src/os_gnulinux\\.cpp.*`bytes_read >= 0'");
}

// ---- The configuration file ----

struct ConfigCase {
  const char *text;
  const char *bare_jid;
  const char *password;
};

class os_config : public os_files, public testing::WithParamInterface<ConfigCase> {};

// The texts of configuration files stay allocated for the life of the process, on purpose.
static Config
read_config (const std::string &path)
{
#ifdef __SANITIZE_ADDRESS__
  __lsan_disable ();
#endif
  Config config = read_config_file (path.c_str ());
#ifdef __SANITIZE_ADDRESS__
  __lsan_enable ();
#endif
  return config;
}

TEST_P (os_config, gives_its_values)
{
  write_file (GetParam ().text);
  begin_output ();
  Config config = read_config (path);
  EXPECT_EQ ("", end_output ());
  EXPECT_EQ (GetParam ().bare_jid, to_std (config.bare_jid));
  EXPECT_EQ (GetParam ().password, to_std (config.password));
}

INSTANTIATE_TEST_SUITE_P (
  table, os_config,
  testing::Values (
    ConfigCase{"bare_jid = ann@one.test\npassword = secret\n", "ann@one.test", "secret"},
    ConfigCase{"bare_jid=ann@one.test\npassword=secret\n", "ann@one.test", "secret"},
    ConfigCase{"bare_jid ann@one.test\npassword  ==  secret", "ann@one.test", "secret"},
    ConfigCase{"password = secret\nbare_jid = ann@one.test\n", "ann@one.test", "secret"},
    ConfigCase{"bare_jid = ann@one.test\n", "ann@one.test", ""},
    ConfigCase{"password = secret\n", "", "secret"},
    // A later value of the same key counts; other keys mean nothing.
    ConfigCase{"bare_jid = one\nbare_jid = two\n", "two", ""},
    ConfigCase{"colour = red\nbare_jid = one\nBARE_JID = two\nbare_jids = three\n", "one", ""},
    // A value ends at a space, a "=" or a line feed; what follows is the next key.
    ConfigCase{"password = two words\n", "", "two"}, ConfigCase{"password = a=b\n", "", "a"},
    ConfigCase{"password = bare_jid bare_jid = one\n", "one", "bare_jid"},
    // A line feed before a key becomes a part of it.
    ConfigCase{"\nbare_jid = one\npassword = two\n", "", "two"},
    ConfigCase{"bare_jid = one\n\npassword = two\n", "one", ""},
    ConfigCase{"bare_jid = one \npassword = two\n", "one", ""},
    // A key without a value ends the reading.
    ConfigCase{"bare_jid = one\npassword", "one", ""},
    ConfigCase{"bare_jid = one\npassword =\n", "one", ""},
    ConfigCase{"bare_jid = one bare_jid", "one", ""},
    // But a value may stand on the next line.
    ConfigCase{"bare_jid =\none\n", "one", ""}, ConfigCase{"bare_jid", "", ""},
    ConfigCase{" = ", "", ""}, ConfigCase{"\n", "", ""},
    // A carriage return is a byte like any other.
    ConfigCase{"bare_jid = one\r\n", "one\r", ""}));

TEST_F (os_files, a_missing_configuration_is_told_and_empty)
{
  begin_output ();
  Config config = read_config (path);
  EXPECT_EQ ("Error: open: " + path + ": No such file or directory\n", end_output ());
  EXPECT_EQ (0u, config.bare_jid.size);
  EXPECT_EQ (0u, config.password.size);
}

TEST_F (os_files, an_empty_configuration_is_empty)
{
  write_file ("");
  begin_output ();
  Config config = read_config (path);
  EXPECT_EQ ("", end_output ());
  EXPECT_EQ (0u, config.bare_jid.size);
  EXPECT_EQ (0u, config.password.size);
}

// ---- Locks ----

// Takes and gives back the number.
static bool
can_lock (const std::string &path, u64 number)
{
  s32 lock = -1;
  bool is_locked = os_lock_directory (path.c_str (), number, &lock);
  EXPECT_EQ (is_locked, lock != -1);
  os_unlock_directory (lock);
  return is_locked;
}

TEST_F (os_files, a_lock_keeps_others_from_its_number_until_it_is_given_back)
{
  s32 lock = -1;
  EXPECT_TRUE (os_lock_directory (folder.c_str (), 5, &lock));
  EXPECT_NE (-1, lock);
  EXPECT_FALSE (can_lock (folder, 5));
  EXPECT_FALSE (can_lock (folder, 5));
  EXPECT_TRUE (can_lock (folder, 4));
  EXPECT_TRUE (can_lock (folder, 6));
  os_unlock_directory (lock);
  EXPECT_TRUE (can_lock (folder, 5));
}

TEST_F (os_files, a_lock_stays_when_the_directory_is_opened_and_closed)
{
  s32 lock = -1;
  EXPECT_TRUE (os_lock_directory (folder.c_str (), 0, &lock));
  close (open (folder.c_str (), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_FALSE (can_lock (folder, 0));
  os_unlock_directory (lock);
}

TEST_F (os_files, a_lock_ends_with_a_process_that_is_killed)
{
  const u64 NUMBER = (1ull << 60) - 1;
  int ends[2];
  ASSERT_EQ (0, pipe (ends));
  pid_t child = fork ();
  if (!child) {
    s32 lock = -1;
    os_lock_directory (folder.c_str (), NUMBER, &lock);
    if (write (ends[1], "", 1) == 1)
      pause ();
    _exit (1);
  }
  char byte = 1;
  EXPECT_EQ (1, read (ends[0], &byte, 1));
  EXPECT_FALSE (can_lock (folder, NUMBER));
  kill (child, SIGKILL);
  waitpid (child, NULL, 0);
  EXPECT_TRUE (can_lock (folder, NUMBER));
  close (ends[0]);
  close (ends[1]);
}

// What the processes of the next test share.
struct LockRace {
  std::atomic<int> holders_count;
  std::atomic<int> collisions_count;
  std::atomic<int> locks_count;
};

static void
race_for_lock (const char *path, LockRace *race)
{
  for (int i = 0; i < 2000; ++i) {
    s32 lock = -1;
    if (!os_lock_directory (path, 7, &lock))
      continue;
    race->collisions_count += race->holders_count.fetch_add (1) != 0;
    ++race->locks_count;
    --race->holders_count;
    os_unlock_directory (lock);
  }
}

TEST_F (os_files, a_lock_is_never_given_to_two_processes_at_once)
{
  void *memory =
    mmap (NULL, sizeof (LockRace), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE (MAP_FAILED, memory);
  LockRace *race = new (memory) LockRace ();
  pid_t children[3];
  for (pid_t &child : children) {
    child = fork ();
    if (!child) {
      race_for_lock (folder.c_str (), race);
      _exit (0);
    }
  }
  for (pid_t child : children)
    waitpid (child, NULL, 0);
  EXPECT_EQ (0, race->collisions_count);
  EXPECT_LT (0, race->locks_count);
  munmap (memory, sizeof (LockRace));
}

// Nobody is kept from an account because of a system that gives no locks.
TEST_F (os_files, a_lock_that_the_system_does_not_give_costs_a_warning)
{
  s32 lock = 0;
  begin_output ();
  EXPECT_TRUE (os_lock_directory (path.c_str (), 1, &lock));
  EXPECT_EQ ("Warning: Can't lock: open: " + path + ": No such file or directory\n", end_output ());
  EXPECT_EQ (-1, lock);
  u32 descriptors_count = count_open_descriptors ();
  lock = 0;
  begin_output ();
  // No place in a file is negative.
  EXPECT_TRUE (os_lock_directory (folder.c_str (), 1ull << 63, &lock));
  EXPECT_EQ ("Warning: Can't lock: fcntl: " + folder + ": Invalid argument\n", end_output ());
  EXPECT_EQ (-1, lock);
  EXPECT_EQ (descriptors_count, count_open_descriptors ());
  os_unlock_directory (lock);
}

// ---- Sockets: helpers ----

// A socket bound to a port of its own on the loopback. It accepts only when it listens, and refuses
// otherwise, with nobody else able to take the port.
struct Place {
  int descriptor;
  struct sockaddr_in address;
  std::string port;
};

static Place
open_place (bool listens)
{
  Place place = {};
  place.descriptor = socket (AF_INET, SOCK_STREAM, 0);
  place.address.sin_family = AF_INET;
  place.address.sin_addr.s_addr = htonl (INADDR_LOOPBACK);
  struct sockaddr *address = (struct sockaddr *) &place.address;
  socklen_t size = sizeof (place.address);
  EXPECT_EQ (0, bind (place.descriptor, address, size));
  EXPECT_EQ (0, getsockname (place.descriptor, address, &size));
  if (listens) {
    EXPECT_EQ (0, listen (place.descriptor, 5));
  }
  place.port = std::to_string (ntohs (place.address.sin_port));
  return place;
}

static struct addrinfo
make_entry (Place *place, struct addrinfo *next)
{
  struct addrinfo entry = {};
  entry.ai_family = AF_INET;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_protocol = IPPROTO_TCP;
  entry.ai_addr = (struct sockaddr *) &place->address;
  entry.ai_addrlen = sizeof (place->address);
  entry.ai_next = next;
  return entry;
}

// Whether somebody has connected to a listening place.
static bool
has_visitor (Place *place)
{
  struct pollfd entry = {place->descriptor, POLLIN, 0};
  return poll (&entry, 1, 0) == 1;
}

// Two connected ends of a TCP stream.
class os_stream : public os {
protected:
  SocketDescriptor near = -1;
  SocketDescriptor far = -1;

  void SetUp () override
  {
    Place place = open_place (true);
    begin_output ();
    int result = os_connect (to_string ("127.0.0.1"), place.port.c_str (), &near);
    ASSERT_EQ ("", end_output ());
    ASSERT_EQ (0, result);
    far = accept (place.descriptor, NULL, NULL);
    ASSERT_NE (-1, far);
    close (place.descriptor);
  }

  void TearDown () override
  {
    os::TearDown ();
    if (near != -1)
      close (near);
    if (far != -1)
      close (far);
  }

  void close_far ()
  {
    close (far);
    far = -1;
  }

  // Closes so that the near end gets a reset instead of an end.
  void reset_far ()
  {
    struct linger linger = {1, 0};
    setsockopt (far, SOL_SOCKET, SO_LINGER, &linger, sizeof (linger));
    close_far ();
  }
};

// ---- Sockets: connecting ----

TEST_F (os, connect_gives_a_connected_socket)
{
  Place place = open_place (true);
  SocketDescriptor descriptor = -1;
  begin_output ();
  EXPECT_EQ (0, os_connect (to_string ("127.0.0.1"), place.port.c_str (), &descriptor));
  EXPECT_EQ ("", end_output ());
  EXPECT_NE (-1, descriptor);
  EXPECT_TRUE (has_visitor (&place));
  os_close_connection (descriptor);
  close (place.descriptor);
}

TEST_F (os, connect_asks_for_streams_of_either_family)
{
  SocketDescriptor descriptor = -1;
  begin_output ();
  os_connect (to_string ("255.255.255.255"), "5222", &descriptor);
  end_output ();
  EXPECT_EQ (AF_UNSPEC, asked_hints.ai_family);
  EXPECT_EQ (SOCK_STREAM, asked_hints.ai_socktype);
  EXPECT_EQ (IPPROTO_TCP, asked_hints.ai_protocol);
  EXPECT_EQ (0, asked_hints.ai_flags);
}

TEST_F (os, connect_gives_the_resolvers_list_back_on_every_path)
{
  Place accepting = open_place (true);
  Place refusing = open_place (false);
  lists_count = 0;
  SocketDescriptor descriptor = -1;
  begin_output ();
  EXPECT_EQ (0, os_connect (to_string ("127.0.0.1"), accepting.port.c_str (), &descriptor));
  EXPECT_EQ (-1, os_connect (to_string ("127.0.0.1"), refusing.port.c_str (), &descriptor));
  EXPECT_EQ (-1, os_connect (to_string ("255.255.255.255"), "5222", &descriptor));
  EXPECT_EQ (-1, os_connect (to_string ("127.0.0.1"), "no such port", &descriptor));
  end_output ();
  EXPECT_EQ (0, lists_count);
  os_close_connection (descriptor);
  close (accepting.descriptor);
  close (refusing.descriptor);
}

TEST_F (os, connect_stops_the_program_when_the_resolver_finds_nothing)
{
  SocketDescriptor descriptor = -1;
  EXPECT_DEATH (
    {
      resolver_finds_nothing = true;
      os_connect (to_string ("127.0.0.1"), "5222", &descriptor);
    },
    "src/os_gnulinux\\.cpp.*`address_info_list'");
}

TEST_F (os, connect_reads_no_further_than_the_host)
{
  Place place = open_place (true);
  String host = {(u8 *) "127.0.0.1234", 9};
  SocketDescriptor descriptor = -1;
  begin_output ();
  EXPECT_EQ (0, os_connect (host, place.port.c_str (), &descriptor));
  EXPECT_EQ ("", end_output ());
  EXPECT_TRUE (has_visitor (&place));
  os_close_connection (descriptor);
  close (place.descriptor);
}

TEST_F (os, connect_reaches_the_other_family_where_the_machine_has_it)
{
  int listener = socket (AF_INET6, SOCK_STREAM, 0);
  struct sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  socklen_t size = sizeof (address);
  bool is_present = bind (listener, (struct sockaddr *) &address, size) == 0 &&
                    listen (listener, 5) == 0 &&
                    getsockname (listener, (struct sockaddr *) &address, &size) == 0;
  std::string port = is_present ? std::to_string (ntohs (address.sin6_port)) : "9";
  SocketDescriptor descriptor = -1;
  begin_output ();
  EXPECT_EQ (is_present ? 0 : -1, os_connect (to_string ("::1"), port.c_str (), &descriptor));
  EXPECT_EQ (is_present, end_output ().empty ());
  EXPECT_EQ (is_present, descriptor != -1);
  if (descriptor != -1)
    close (descriptor);
  if (listener != -1)
    close (listener);
}

TEST_F (os, connect_tells_a_host_that_does_not_resolve)
{
  // No name may have a part as long as this, so that no server is asked.
  std::string host (70, 'a');
  SocketDescriptor descriptor = 77;
  begin_output ();
  EXPECT_EQ (-1, os_connect (to_string (host.c_str ()), "5222", &descriptor));
  std::string output = end_output ();
  EXPECT_EQ (0u, output.find ("Error: getaddrinfo: " + host + ": ")) << output;
  EXPECT_EQ (output.size () - 1, output.find ('\n')) << output;
  EXPECT_EQ (77, descriptor);
}

TEST_F (os, connect_tells_what_the_resolver_said)
{
  SocketDescriptor descriptor = 77;
  begin_output ();
  EXPECT_EQ (-1, os_connect (to_string ("127.0.0.1"), "no such port", &descriptor));
  EXPECT_EQ ("Error: getaddrinfo: 127.0.0.1: " + std::string (gai_strerror (EAI_SERVICE)) + "\n",
             end_output ());
  EXPECT_EQ (77, descriptor);
}

TEST_F (os, connect_takes_a_host_of_any_size)
{
  for (u64 size : {(u64) NI_MAXHOST - 1, (u64) NI_MAXHOST, (u64) NI_MAXHOST + 1}) {
    std::string host (size, 'a');
    SocketDescriptor descriptor = 77;
    begin_output ();
    EXPECT_EQ (-1, os_connect (to_string (host.c_str ()), "5222", &descriptor));
    EXPECT_EQ (0u, end_output ().find ("Error: getaddrinfo: " + host + ": ")) << size;
    EXPECT_EQ (77, descriptor);
  }
}

TEST_F (os, connect_takes_a_host_larger_than_the_stack)
{
  String host = {(u8 *) malloc (64 << 20), 64 << 20};
  memset (host.data, 'a', host.size);
  SocketDescriptor descriptor = 77;
  testing::internal::CaptureStderr ();
  begin_output ();
  EXPECT_EQ (-1, os_connect (host, "5222", &descriptor));
  EXPECT_EQ (8192u, end_output ().size ());
  EXPECT_EQ ("\nWarning: Print buffer probably has exceeded.\n",
             testing::internal::GetCapturedStderr ());
  EXPECT_EQ (77, descriptor);
  dealloc_string (host);
}

TEST_F (os, connect_tells_a_refusal_and_that_no_address_was_left)
{
  Place place = open_place (false);
  u32 count = count_open_descriptors ();
  SocketDescriptor descriptor = 77;
  begin_output ();
  EXPECT_EQ (-1, os_connect (to_string ("127.0.0.1"), place.port.c_str (), &descriptor));
  EXPECT_EQ ("Error: connect: 127.0.0.1: Connection refused\n"
             "Error: Can't connect to host: 127.0.0.1\n",
             end_output ());
  EXPECT_EQ (77, descriptor);
  EXPECT_EQ (count, count_open_descriptors ());
  close (place.descriptor);
}

TEST_F (os, connect_gives_up_at_once_on_an_unreachable_address)
{
  u32 count = count_open_descriptors ();
  SocketDescriptor descriptor = 77;
  begin_output ();
  // No stream goes to a broadcast address; the system says so without sending anything.
  EXPECT_EQ (-1, os_connect (to_string ("255.255.255.255"), "5222", &descriptor));
  EXPECT_EQ ("Error: connect: 255.255.255.255: Network is unreachable\n", end_output ());
  EXPECT_EQ (77, descriptor);
  EXPECT_EQ (count, count_open_descriptors ());
}

TEST_F (os, connect_goes_on_after_a_refusal)
{
  Place refusing = open_place (false);
  Place accepting = open_place (true);
  struct addrinfo second = make_entry (&accepting, NULL);
  struct addrinfo first = make_entry (&refusing, &second);
  u32 count = count_open_descriptors ();
  SocketDescriptor descriptor = -1;
  begin_output ();
  EXPECT_EQ (0, os_connect_addresses (to_string ("host"), &first, 0, &descriptor));
  EXPECT_EQ ("Error: connect: host: Connection refused\n", end_output ());
  EXPECT_TRUE (has_visitor (&accepting));
  EXPECT_EQ (count + 1, count_open_descriptors ());
  close (descriptor);
  close (refusing.descriptor);
  close (accepting.descriptor);
}

TEST_F (os, connect_stops_at_the_first_address_that_accepts)
{
  Place first_place = open_place (true);
  Place second_place = open_place (true);
  struct addrinfo second = make_entry (&second_place, NULL);
  struct addrinfo first = make_entry (&first_place, &second);
  SocketDescriptor descriptor = -1;
  begin_output ();
  EXPECT_EQ (0, os_connect_addresses (to_string ("host"), &first, 0, &descriptor));
  EXPECT_EQ ("", end_output ());
  EXPECT_TRUE (has_visitor (&first_place));
  EXPECT_FALSE (has_visitor (&second_place));
  close (descriptor);
  close (first_place.descriptor);
  close (second_place.descriptor);
}

TEST_F (os, connect_fails_when_every_address_refuses)
{
  Place place = open_place (false);
  struct addrinfo second = make_entry (&place, NULL);
  struct addrinfo first = make_entry (&place, &second);
  SocketDescriptor descriptor = 77;
  begin_output ();
  EXPECT_EQ (-1, os_connect_addresses (to_string ("host"), &first, 0, &descriptor));
  EXPECT_EQ ("Error: connect: host: Connection refused\n"
             "Error: connect: host: Connection refused\n"
             "Error: Can't connect to host: host\n",
             end_output ());
  EXPECT_EQ (77, descriptor);
  close (place.descriptor);
}

TEST_F (os, connect_does_not_go_on_after_another_error)
{
  Place accepting = open_place (true);
  Place other = open_place (false);
  struct addrinfo second = make_entry (&accepting, NULL);
  struct addrinfo first = make_entry (&other, &second);
  other.address.sin_family = AF_UNIX;
  u32 count = count_open_descriptors ();
  SocketDescriptor descriptor = 77;
  begin_output ();
  EXPECT_EQ (-1, os_connect_addresses (to_string ("host"), &first, 0, &descriptor));
  EXPECT_EQ ("Error: connect: host: Address family not supported by protocol\n", end_output ());
  EXPECT_FALSE (has_visitor (&accepting));
  EXPECT_EQ (77, descriptor);
  EXPECT_EQ (count, count_open_descriptors ());
  close (accepting.descriptor);
  close (other.descriptor);
}

TEST_F (os, connect_does_not_go_on_without_a_socket)
{
  Place accepting = open_place (true);
  struct addrinfo second = make_entry (&accepting, NULL);
  struct addrinfo first = make_entry (&accepting, &second);
  first.ai_family = 9999;
  SocketDescriptor descriptor = 77;
  begin_output ();
  EXPECT_EQ (-1, os_connect_addresses (to_string ("host"), &first, 0, &descriptor));
  // The text is the resolver's for its own result.
  EXPECT_EQ ("Error: socket: host: " + std::string (gai_strerror (0)) + "\n", end_output ());
  EXPECT_FALSE (has_visitor (&accepting));
  EXPECT_EQ (77, descriptor);
  close (accepting.descriptor);
}

TEST_F (os, connect_without_an_address_stops_the_program)
{
  SocketDescriptor descriptor = 77;
  EXPECT_DEATH (os_connect_addresses (to_string ("host"), NULL, 0, &descriptor),
                "src/os_gnulinux\\.cpp.*`address_info_list'");
}

// ---- Sockets: sending and receiving ----

TEST_F (os_stream, send_gives_the_bytes_that_were_taken)
{
  begin_output ();
  EXPECT_EQ (5u, os_send (near, to_string ("hello")));
  EXPECT_EQ ("", end_output ());
  char received[5];
  EXPECT_EQ (5, recv (far, received, sizeof (received), MSG_WAITALL));
  EXPECT_EQ ("hello", std::string (received, 5));
}

TEST_F (os_stream, send_does_not_try_again_what_was_not_taken)
{
  fcntl (near, F_SETFL, O_NONBLOCK);
  String data = {(u8 *) calloc (1, 64 << 20), 64 << 20};
  begin_output ();
  u64 sent_size = os_send (near, data);
  EXPECT_EQ ("", end_output ());
  EXPECT_GT (sent_size, 0u);
  EXPECT_LT (sent_size, data.size);
  dealloc_string (data);
}

TEST_F (os_stream, send_of_nothing_is_no_error)
{
  begin_output ();
  EXPECT_EQ (0u, os_send (near, to_string ("")));
  EXPECT_EQ ("", end_output ());
}

TEST_F (os, send_tells_an_error)
{
  begin_output ();
  EXPECT_EQ (0u, os_send (-1, to_string ("hello")));
  EXPECT_EQ ("Error: send: Bad file descriptor\n", end_output ());
}

TEST_F (os_stream, send_all_waits_for_room_until_everything_is_taken)
{
  const u64 size = 8 << 20;  // more than a socket takes at once
  std::thread reader ([this] {
    std::string received;
    char bytes[65536];
    for (ssize_t count = 1; count > 0 && received.size () < size; received.append (bytes, count)) {
      count = recv (far, bytes, sizeof (bytes), 0);
    }
    EXPECT_EQ (std::string (size, 'x'), received);
  });
  std::string text (size, 'x');
  begin_output ();
  EXPECT_TRUE (os_send_all (near, {(u8 *) text.data (), size}));
  EXPECT_EQ ("", end_output ());
  reader.join ();
}

TEST_F (os, send_all_is_silent_about_an_error)
{
  begin_output ();
  EXPECT_FALSE (os_send_all (-1, to_string ("hello")));
  EXPECT_EQ (EBADF, errno);
  EXPECT_EQ ("", end_output ());
}

TEST_F (os_stream, send_all_to_a_closed_peer_raises_no_signal)
{
  close (far);
  far = -1;
  begin_output ();
  // The first may still be taken.
  os_send_all (near, to_string ("hello"));
  EXPECT_FALSE (os_send_all (near, to_string ("hello")));
  EXPECT_EQ (EPIPE, errno);
  EXPECT_EQ ("", end_output ());
}

TEST_F (os_stream, recv_views_the_filled_front_of_the_buffer)
{
  u8 bytes[10];
  Buffer buffer = {bytes, sizeof (bytes)};
  ASSERT_EQ (5, send (far, "hello", 5, 0));
  begin_output ();
  String received = os_recv (near, buffer);
  EXPECT_EQ ("", end_output ());
  EXPECT_EQ (bytes, received.data);
  EXPECT_EQ ("hello", to_std (received));
}

TEST_F (os_stream, recv_takes_no_more_than_fits)
{
  u8 bytes[10] = {};
  Buffer buffer = {bytes, 3};
  ASSERT_EQ (5, send (far, "hello", 5, 0));
  EXPECT_EQ ("hel", to_std (os_recv (near, buffer)));
  EXPECT_EQ (0, bytes[3]);
  EXPECT_EQ ("lo", to_std (os_recv (near, buffer)));
}

TEST_F (os_stream, recv_from_a_closed_peer_is_empty_over_the_buffer)
{
  u8 bytes[10];
  Buffer buffer = {bytes, sizeof (bytes)};
  close_far ();
  begin_output ();
  String received = os_recv (near, buffer);
  EXPECT_EQ ("", end_output ());
  EXPECT_EQ (bytes, received.data);
  EXPECT_EQ (0u, received.size);
}

TEST_F (os_stream, recv_tells_an_error_and_gives_no_pointer)
{
  u8 bytes[10];
  Buffer buffer = {bytes, sizeof (bytes)};
  reset_far ();
  begin_output ();
  String received = os_recv (near, buffer);
  EXPECT_EQ ("Error: recv: Connection reset by peer\n", end_output ());
  EXPECT_EQ (nullptr, received.data);
  EXPECT_EQ (0u, received.size);
}

TEST_F (os, recv_without_a_socket_tells_an_error)
{
  u8 bytes[10];
  Buffer buffer = {bytes, sizeof (bytes)};
  begin_output ();
  EXPECT_EQ (nullptr, os_recv (-1, buffer).data);
  EXPECT_EQ ("Error: recv: Bad file descriptor\n", end_output ());
}

// ---- Sockets: waiting ----

TEST_F (os_stream, wait_readable_is_false_while_nothing_comes)
{
  EXPECT_FALSE (os_wait_readable (near, 0));
  EXPECT_FALSE (os_wait_readable (near, 20));
}

TEST_F (os_stream, wait_readable_is_true_when_there_is_data)
{
  ASSERT_EQ (1, send (far, "x", 1, 0));
  EXPECT_TRUE (os_wait_readable (near, 10000));
  EXPECT_TRUE (os_wait_readable (near, 0));
}

TEST_F (os_stream, wait_readable_is_true_when_the_peer_has_closed)
{
  close_far ();
  EXPECT_TRUE (os_wait_readable (near, 10000));
}

TEST_F (os_stream, wait_readable_is_true_when_the_peer_has_reset)
{
  reset_far ();
  EXPECT_TRUE (os_wait_readable (near, 10000));
}

TEST_F (os, wait_readable_without_a_socket_is_false)
{
  EXPECT_FALSE (os_wait_readable (-1, 0));
}

// Another thread may look at it.
static std::atomic<int> alarms_count = 0;
static volatile sig_atomic_t alarms_before_data = 0;
static int alarm_socket = -1;

static void
alarm_handle (int)
{
  int error = errno;
  if (++alarms_count == alarms_before_data)
    send (alarm_socket, "x", 1, 0);
  errno = error;
}

// Interrupts whatever waits, every 5 ms, and sends a byte with the alarm of the number given.
static void
start_alarms (int descriptor, int before_data)
{
  alarms_count = 0;
  alarms_before_data = before_data;
  alarm_socket = descriptor;
  struct sigaction action = {};
  action.sa_handler = alarm_handle;
  sigaction (SIGALRM, &action, NULL);
  struct itimerval interval = {{0, 5000}, {0, 5000}};
  setitimer (ITIMER_REAL, &interval, NULL);
}

static void
stop_alarms ()
{
  struct itimerval none = {};
  setitimer (ITIMER_REAL, &none, NULL);
  // One may still be on its way.
  signal (SIGALRM, SIG_IGN);
}

static s64
get_elapsed_ms (struct timespec since)
{
  struct timespec now;
  clock_gettime (CLOCK_MONOTONIC, &now);
  return (now.tv_sec - since.tv_sec) * 1000 + (now.tv_nsec - since.tv_nsec) / 1000000;
}

// An interruption neither ends the wait early nor lets it begin anew, which would never end here.
TEST_F (os_stream, wait_readable_waits_its_time_out_when_interrupted)
{
  struct timespec start;
  clock_gettime (CLOCK_MONOTONIC, &start);
  start_alarms (-1, 0);
  EXPECT_FALSE (os_wait_readable (near, 100));
  stop_alarms ();
  EXPECT_GE (get_elapsed_ms (start), 98);
  EXPECT_GT (alarms_count, 0);
}

// The first lasts, and the second comes with data when nothing else ends the wait.
static void
lasting_alarm_handle (int number)
{
  alarm_handle (number);
  struct itimerval second = {{}, {5, 0}};
  struct timespec duration = {0, 50000000};
  if (alarms_count == 1) {
    setitimer (ITIMER_REAL, &second, NULL);
    nanosleep (&duration, NULL);
  }
}

TEST_F (os_stream, wait_readable_ends_behind_an_interruption_that_lasts_longer)
{
  alarms_count = 0;
  alarms_before_data = 2;
  alarm_socket = far;
  struct sigaction action = {};
  action.sa_handler = lasting_alarm_handle;
  sigaction (SIGALRM, &action, NULL);
  struct itimerval first = {{}, {0, 5000}};
  setitimer (ITIMER_REAL, &first, NULL);
  EXPECT_FALSE (os_wait_readable (near, 30));
  stop_alarms ();
}

TEST_F (os_stream, wait_readable_sees_data_that_comes_after_interruptions)
{
  start_alarms (far, 3);
  EXPECT_TRUE (os_wait_readable (near, 60000));
  stop_alarms ();
  EXPECT_GE (alarms_count, 3);
}

TEST_F (os_stream, wait_readable_without_a_limit_waits_on_through_interruptions)
{
  start_alarms (far, 3);
  EXPECT_TRUE (os_wait_readable (near, -1));
  stop_alarms ();
  EXPECT_GE (alarms_count, 3);
}

// Reads nothing before three alarms have interrupted the sender, then everything up to the end.
static void *
read_after_alarms (void *data)
{
  u64 *size_out = (u64 *) data;
  while (alarms_count < 3) {
    sched_yield ();
  }
  u8 block[4096];
  ssize_t size = 0;
  while ((size = read (alarm_socket, block, sizeof (block))) > 0) {
    *size_out += (u64) size;
  }
  return NULL;
}

TEST_F (os_stream, send_all_goes_on_through_interruptions)
{
  const u64 size = 16 * 1024 * 1024;
  std::string text (size, 'x');
  u64 received_size = 0;
  sigset_t alarms;
  sigemptyset (&alarms);
  sigaddset (&alarms, SIGALRM);
  // The reader inherits the mask: only the sender is interrupted.
  pthread_sigmask (SIG_BLOCK, &alarms, NULL);
  start_alarms (far, 0);
  pthread_t reader;
  ASSERT_EQ (pthread_create (&reader, NULL, read_after_alarms, &received_size), 0);
  pthread_sigmask (SIG_UNBLOCK, &alarms, NULL);
  EXPECT_TRUE (os_send_all (near, {(u8 *) text.data (), size}));
  shutdown (near, SHUT_WR);
  pthread_join (reader, NULL);
  stop_alarms ();
  EXPECT_EQ (received_size, size);
}

// ---- Sockets: closing ----

static void *
receive_once (void *data)
{
  SocketDescriptor *descriptor = (SocketDescriptor *) data;
  u8 bytes[10];
  Buffer buffer = {bytes, sizeof (bytes)};
  String received = os_recv (*descriptor, buffer);
  return received.data == bytes && received.size == 0 ? data : NULL;
}

TEST (os_has_peer_ended, tells_the_end_ahead_of_what_is_unread)
{
  int pair[2];
  ASSERT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, pair), 0);
  EXPECT_FALSE (os_has_peer_ended (pair[0]));
  ASSERT_EQ (send (pair[1], "x", 1, 0), 1);
  EXPECT_FALSE (os_has_peer_ended (pair[0]));
  shutdown (pair[1], SHUT_WR);
  EXPECT_TRUE (os_has_peer_ended (pair[0]));
  close (pair[0]);
  close (pair[1]);
}

TEST (os_is_writable, says_so_while_the_peer_takes_what_is_sent)
{
  int pair[2];
  ASSERT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, pair), 0);
  EXPECT_TRUE (os_is_writable (pair[0]));
  std::string block (4096, 'x');
  while (send (pair[0], block.data (), block.size (), MSG_DONTWAIT) > 0) {
  }
  EXPECT_FALSE (os_is_writable (pair[0]));
  close (pair[0]);
  close (pair[1]);
}

TEST_F (os_stream, send_now_takes_what_there_is_room_for)
{
  std::string block (1024 * 1024, 'x');
  String data = {(u8 *) block.data (), block.size ()};
  s64 taken_size = 0;
  s64 size = os_send_now (near, data);
  while (size > 0) {
    taken_size += size;
    size = os_send_now (near, data);
  }
  EXPECT_EQ (size, 0);
  EXPECT_GT (taken_size, 0);
  EXPECT_FALSE (os_wait_writable (near, 0));
  while (taken_size > 0) {
    ssize_t received_size = recv (far, &block[0], block.size (), 0);
    ASSERT_GT (received_size, 0);
    taken_size -= received_size;
  }
  EXPECT_TRUE (os_wait_writable (near, 10000));
  EXPECT_FALSE (os_wait_readable_or_writable (near));
  ASSERT_EQ (send (far, "a", 1, 0), 1);
  ASSERT_TRUE (os_wait_readable (near, 10000));
  EXPECT_TRUE (os_wait_readable_or_writable (near));
}

TEST_F (os_stream, what_the_other_side_has_not_taken_is_unconfirmed)
{
  std::string block (1 << 16, 'x');
  s64 taken_size = 0;
  s64 size = os_send_now (near, {(u8 *) &block[0], block.size ()});
  for (; size > 0; size = os_send_now (near, {(u8 *) &block[0], block.size ()}))
    taken_size += size;
  EXPECT_GT (os_get_unconfirmed_size (near), 0u);
  EXPECT_LE (os_get_unconfirmed_size (near), (u64) taken_size);
  while (taken_size > 0) {
    ssize_t received_size = recv (far, &block[0], block.size (), 0);
    ASSERT_GT (received_size, 0);
    taken_size -= received_size;
  }
  // The last confirmation may be late.
  s64 end = g_get_monotonic_time () + 10000000;
  while (os_get_unconfirmed_size (near) && g_get_monotonic_time () < end)
    g_usleep (1000);
  EXPECT_EQ (os_get_unconfirmed_size (near), 0u);
  EXPECT_EQ (os_get_unconfirmed_size (-1), 0u);
}

TEST_F (os_stream, send_now_tells_of_a_lost_connection)
{
  os_shutdown_connection (near);
  begin_output ();
  EXPECT_EQ (os_send_now (near, to_string ("hello")), -1);
  EXPECT_EQ (errno, EPIPE);
  EXPECT_EQ ("", end_output ());
}

TEST_F (os_stream, recv_now_takes_what_has_come)
{
  char bytes[4] = {};
  Buffer buffer = {(u8 *) bytes, 3};
  begin_output ();
  EXPECT_EQ (os_recv_now (near, buffer), -1);
  EXPECT_EQ (errno, EAGAIN);
  ASSERT_EQ (send (far, "hello", 5, 0), 5);
  ASSERT_TRUE (os_wait_readable (near, 10000));
  EXPECT_EQ (os_recv_now (near, buffer), 3);
  EXPECT_STREQ (bytes, "hel");
  EXPECT_EQ (os_recv_now (near, buffer), 2);
  ASSERT_EQ (shutdown (far, SHUT_WR), 0);
  ASSERT_TRUE (os_wait_readable (near, 10000));
  EXPECT_EQ (os_recv_now (near, buffer), 0);
  EXPECT_EQ (os_recv_now (-1, buffer), -1);
  EXPECT_EQ (errno, EBADF);
  EXPECT_EQ ("", end_output ());
}

TEST_F (os_stream, shutdown_wakes_a_reader_in_another_thread)
{
  pthread_t reader;
  ASSERT_EQ (0, pthread_create (&reader, NULL, receive_once, &near));
  begin_output ();
  os_shutdown_connection (near);
  void *result = NULL;
  pthread_join (reader, &result);
  EXPECT_EQ ("", end_output ());
  EXPECT_EQ (&near, result);
}

TEST_F (os_stream, shutdown_ends_both_directions_and_does_not_close)
{
  os_shutdown_connection (near);
  EXPECT_NE (-1, fcntl (near, F_GETFD));
  char byte;
  EXPECT_EQ (0, recv (far, &byte, 1, 0));
  EXPECT_EQ (0, recv (near, &byte, 1, 0));
  begin_output ();
  os_shutdown_connection (near);
  EXPECT_EQ ("", end_output ());
}

TEST_F (os, shutdown_of_a_socket_that_is_not_connected_does_nothing)
{
  int descriptor = socket (AF_INET, SOCK_STREAM, 0);
  begin_output ();
  os_shutdown_connection (descriptor);
  EXPECT_EQ ("", end_output ());
  close (descriptor);
}

TEST_F (os, shutdown_without_a_socket_tells_an_error)
{
  begin_output ();
  os_shutdown_connection (-1);
  EXPECT_EQ ("Error: shutdown: Bad file descriptor\n", end_output ());
}

TEST_F (os_stream, close_connection_closes)
{
  begin_output ();
  os_close_connection (near);
  EXPECT_EQ ("", end_output ());
  EXPECT_EQ (-1, fcntl (near, F_GETFD));
  near = -1;
}

TEST_F (os, close_connection_tells_an_error)
{
  begin_output ();
  os_close_connection (-1);
  EXPECT_EQ ("Error: close: Bad file descriptor\n", end_output ());
}

// ---- Sockets: the rest ----

TEST_F (os, network_needs_no_start_and_no_stop)
{
  u32 count = count_open_descriptors ();
  begin_output ();
  os_init_network ();
  os_deinit_network ();
  EXPECT_EQ ("", end_output ());
  EXPECT_EQ (count, count_open_descriptors ());
}

static std::string
print_list (struct addrinfo *list)
{
  begin_output ();
  os_print_address_info_list (list);
  return end_output ();
}

TEST_F (os, print_address_info_list_tells_an_address_of_the_fourth_version)
{
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl (0xC0A80201);
  address.sin_port = htons (5222);
  struct addrinfo entry = {};
  entry.ai_family = AF_INET;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_protocol = IPPROTO_TCP;
  entry.ai_addr = (struct sockaddr *) &address;
  entry.ai_canonname = (char *) "one.test";
  EXPECT_EQ ("canonname: one.test\nfamily: AF_INET\n  addr: 192.168.2.1\n  port: 5222\n"
             "socktype: SOCK_STREAM\nprotocol: IPPROTO_TCP\n",
             print_list (&entry));
}

TEST_F (os, print_address_info_list_tells_every_entry_in_order)
{
  struct addrinfo second = {};
  second.ai_family = AF_INET6;
  second.ai_socktype = SOCK_STREAM;
  second.ai_protocol = IPPROTO_TCP;
  struct addrinfo first = {};
  first.ai_family = AF_INET6;
  first.ai_socktype = SOCK_DGRAM;
  first.ai_protocol = IPPROTO_UDP;
  first.ai_next = &second;
  EXPECT_EQ ("canonname: (null)\nfamily: AF_INET6\nsocktype: SOCK_DGRAM\nprotocol: IPPROTO_UDP\n"
             "canonname: (null)\nfamily: AF_INET6\nsocktype: SOCK_STREAM\nprotocol: IPPROTO_TCP\n",
             print_list (&first));
}

TEST_F (os, print_address_info_list_of_nothing_tells_nothing)
{
  EXPECT_EQ ("", print_list (NULL));
}

struct SocketTypeCase {
  int socket_type;
  const char *line;
};

class os_socket_type : public os, public testing::WithParamInterface<SocketTypeCase> {};

TEST_P (os_socket_type, is_printed_by_name)
{
  struct addrinfo entry = {};
  entry.ai_family = AF_INET6;
  entry.ai_socktype = GetParam ().socket_type;
  entry.ai_protocol = IPPROTO_TCP;
  EXPECT_EQ ("canonname: (null)\nfamily: AF_INET6\nsocktype: " + std::string (GetParam ().line) +
               "protocol: IPPROTO_TCP\n",
             print_list (&entry));
}

INSTANTIATE_TEST_SUITE_P (
  table, os_socket_type,
  testing::Values (SocketTypeCase{SOCK_STREAM, "SOCK_STREAM\n"},
                   SocketTypeCase{SOCK_DGRAM, "SOCK_DGRAM\n"},
                   SocketTypeCase{SOCK_RAW, "SOCK_RAW\n"}, SocketTypeCase{SOCK_RDM, "SOCK_RDM\n"},
                   SocketTypeCase{SOCK_SEQPACKET, "SOCK_SEQPACKET\n"},
                   // The console's formatter shows a directive that it does not have.
                   SocketTypeCase{77, "%x\n"}));

TEST_F (os, print_address_info_list_shows_unknown_numbers_as_the_console_formats_them)
{
  struct addrinfo entry = {};
  entry.ai_family = 77;
  entry.ai_socktype = 77;
  entry.ai_protocol = 77;
  EXPECT_EQ ("canonname: (null)\nfamily: %x\nsocktype: %x\nprotocol: %x\n", print_list (&entry));
}

TEST (flip_u16, swaps_the_two_bytes)
{
  EXPECT_EQ (0x6614, _flip_u16 (0x1466));
  EXPECT_EQ (0x00FF, _flip_u16 (0xFF00));
  EXPECT_EQ (0xFF00, _flip_u16 (0x00FF));
}

TEST (flip_u16, is_what_the_network_order_needs_and_undoes_itself)
{
  for (u32 value = 0; value <= 0xFFFF; ++value) {
    EXPECT_EQ (htons ((u16) value), _flip_u16 ((u16) value));
    EXPECT_EQ (value, _flip_u16 (_flip_u16 ((u16) value)));
  }
}
