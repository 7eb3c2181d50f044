// The operating system under the program on GNU/Linux: whole files, the configuration file, locks
// between processes, TCP sockets.
#include "os_gnulinux.h"

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "morvane.h"

// The system's text for a value of `errno`, in memory of the calling thread.
static const char *
get_error_text (int error)
{
  // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's has been safe since its version 2.32.
  return strerror (error);
}

// ---- Files ----

// Reads at most `size` bytes in one go; terminated. `NULL` when reading failed.
static char *
alloc_read_descriptor_as_cstr (int file, const char *path, u64 size)
{
  char *text = (char *) malloc (size + 1);
  s64 bytes_read = read (file, text, size);
  if (bytes_read == -1) {
    console_log ("Error: read: %s: %s\n", path, get_error_text (errno));
    free (text);
    return NULL;
  }
  assert (bytes_read >= 0);
  if ((u64) bytes_read != size)
    console_log ("Error: %s: file size doesn't match read size\n", path);
  text[bytes_read] = '\0';
  return text;
}

char *
os_alloc_read_file_as_cstr (const char *path)
{
  int file = open (path, O_RDONLY);
  if (file == -1) {
    console_log ("Error: open: %s: %s\n", path, get_error_text (errno));
    return NULL;
  }

  struct stat file_stat;
  if (fstat (file, &file_stat) == -1) {
    // The descriptor stays open; that is meant.
    console_log ("Error: fstat: %s: %s\n", path, get_error_text (errno));
    return NULL;
  }
  assert (file_stat.st_size >= 0);

  char *text = NULL;
  if (file_stat.st_size > 0)
    text = alloc_read_descriptor_as_cstr (file, path, (u64) file_stat.st_size);
  close (file);
  return text;
}

Config
read_config_file (const char *path)
{
  Config config = {};
  char *text = os_alloc_read_file_as_cstr (path);
  if (text == NULL)
    return config;

  // A key may hold a line feed, and then means nothing: only a value ends at one.
  char *rest = NULL;
  const char *key = strtok_r (text, " =", &rest);
  while (key != NULL) {
    const char *value = strtok_r (NULL, " =\n", &rest);
    if (value == NULL)
      break;
    if (strcmp (key, "bare_jid") == 0)
      config.bare_jid = to_string (value);
    else if (strcmp (key, "password") == 0)
      config.password = to_string (value);
    key = strtok_r (NULL, " =", &rest);
  }
  return config;
}

// ---- Locks ----

// Nobody writes to a directory, so the system lets us set the lock of a reader only, and readers keep
// nobody out. Who has set one asks whether a writer would be let in, which every reader but the own one
// prevents. The lock belongs to the descriptor, not to the process: the one that SQLite opens on the
// directory and closes again takes none away.
bool
os_lock_directory (const char *path, u64 number, s32 *lock_out)
{
  *lock_out = -1;
  int directory = open (path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory == -1) {
    console_log ("Warning: Can't lock: open: %s: %s\n", path, get_error_text (errno));
    return true;
  }
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = (off_t) number;
  lock.l_len = 1;
  struct flock other = lock;
  other.l_type = F_WRLCK;
  if (fcntl (directory, F_OFD_SETLK, &lock) == -1 || fcntl (directory, F_OFD_GETLK, &other) == -1) {
    console_log ("Warning: Can't lock: fcntl: %s: %s\n", path, get_error_text (errno));
    close (directory);
    return true;
  }
  if (other.l_type != F_UNLCK) {
    close (directory);
    return false;
  }
  *lock_out = directory;
  return true;
}

void
os_unlock_directory (s32 lock)
{
  if (lock != -1)
    close (lock);
}

// ---- Sockets ----

// One entry of the resolver's list. Returns the connected socket, or -1 and the reason: 0 when not
// even a socket could be made.
static SocketDescriptor
connect_address (String host, struct addrinfo *address_info, int resolve_error, int *error_out)
{
  *error_out = 0;
  SocketDescriptor descriptor =
    socket (address_info->ai_family, address_info->ai_socktype, address_info->ai_protocol);
  if (descriptor == -1) {
    // The second text is the resolver's, which had no error; that is meant.
    console_log ("Error: socket: %.*s: %s\n", STRING_ARGS (host), gai_strerror (resolve_error));
    return -1;
  }
  if (connect (descriptor, address_info->ai_addr, address_info->ai_addrlen) == -1) {
    *error_out = errno;
    console_log ("Error: connect: %.*s: %s\n", STRING_ARGS (host), get_error_text (*error_out));
    os_close_connection (descriptor);
    return -1;
  }
  return descriptor;
}

int
os_connect_addresses (String host, struct addrinfo *address_info_list, int resolve_error,
                      SocketDescriptor *socket_out)
{
  assert (address_info_list);

  SocketDescriptor descriptor = -1;
  for (struct addrinfo *address_info = address_info_list; address_info != NULL;
       address_info = address_info->ai_next) {
    int error = 0;
    descriptor = connect_address (host, address_info, resolve_error, &error);
    if (descriptor != -1)
      break;
    if (error != ECONNREFUSED)
      return -1;
  }
  if (descriptor == -1) {
    console_log ("Error: Can't connect to host: %.*s\n", STRING_ARGS (host));
    return -1;
  }
  *socket_out = descriptor;
  return 0;
}

int
os_connect (String host, const char *port, SocketDescriptor *socket_out)
{
  // No name that a resolver knows is longer than this, terminator included.
  char host_cstr[NI_MAXHOST];
  struct addrinfo *address_info_list = NULL;
  int error = EAI_NONAME;
  if (host.size < sizeof (host_cstr)) {
    Buffer buffer = {(u8 *) host_cstr, sizeof (host_cstr)};
    buffer_append_char (buffer_append_string (buffer, host), '\0');
    struct addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    error = getaddrinfo (host_cstr, port, &hints, &address_info_list);
  }
  if (error != 0) {
    console_log ("Error: getaddrinfo: %.*s: %s\n", STRING_ARGS (host), gai_strerror (error));
    return -1;
  }

  int result = os_connect_addresses (host, address_info_list, error, socket_out);
  freeaddrinfo (address_info_list);
  return result;
}

u64
os_send (SocketDescriptor socket, String data)
{
  s64 sent_size = send (socket, data.data, data.size, 0);
  if (sent_size == -1) {
    console_log ("Error: send: %s\n", get_error_text (errno));
    return 0;
  }
  return (u64) sent_size;
}

bool
os_send_all (SocketDescriptor socket, String data)
{
  while (data.size) {
    ssize_t sent_size = send (socket, data.data, data.size, MSG_NOSIGNAL);
    if (sent_size == -1 && errno == EINTR)
      continue;
    if (sent_size == -1)
      return false;
    data = string_advance (data, (u64) sent_size);
  }
  return true;
}

s64
os_send_now (SocketDescriptor socket, String data)
{
  for (;;) {
    ssize_t sent_size = send (socket, data.data, data.size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent_size >= 0)
      return sent_size;
    if (errno == EAGAIN || errno == EWOULDBLOCK)
      return 0;
    if (errno != EINTR)
      return -1;
  }
}

u64
os_get_unconfirmed_size (SocketDescriptor socket)
{
  int size = 0;
  return ioctl (socket, SIOCOUTQ, &size) == 0 && size > 0 ? (u64) size : 0;
}

String
os_recv (SocketDescriptor socket, Buffer buffer)
{
  String received = {};
  s64 received_size = recv (socket, buffer.data, buffer.size, 0);
  if (received_size == -1) {
    console_log ("Error: recv: %s\n", get_error_text (errno));
    return received;
  }
  received.data = buffer.data;
  received.size = (u64) received_size;
  return received;
}

s64
os_recv_now (SocketDescriptor socket, Buffer buffer)
{
  return recv (socket, buffer.data, buffer.size, MSG_DONTWAIT);
}

// What happened of `events`, an error or an end; 0 after `timeout_ms`, which may be -1 for ever.
static int
wait_for_events (SocketDescriptor socket, short events, int timeout_ms)
{
  struct pollfd entry = {};
  entry.fd = socket;
  entry.events = events;
  s64 end_ms = g_get_monotonic_time () / 1000 + timeout_ms;
  int ready_count = poll (&entry, 1, timeout_ms);
  while (ready_count == -1 && errno == EINTR) {
    s64 left_ms = end_ms - g_get_monotonic_time () / 1000;
    if (timeout_ms < 0)
      left_ms = timeout_ms;
    else if (left_ms < 0)
      left_ms = 0;
    ready_count = poll (&entry, 1, (int) left_ms);
  }
  return ready_count > 0 ? entry.revents : 0;
}

bool
os_wait_readable (SocketDescriptor socket, int timeout_ms)
{
  return wait_for_events (socket, POLLIN, timeout_ms) != 0;
}

bool
os_wait_writable (SocketDescriptor socket, int timeout_ms)
{
  return wait_for_events (socket, POLLOUT, timeout_ms) != 0;
}

bool
os_wait_readable_or_writable (SocketDescriptor socket)
{
  return wait_for_events (socket, POLLIN | POLLOUT, -1) & POLLIN;
}

bool
os_has_peer_ended (SocketDescriptor socket)
{
  struct pollfd entry = {};
  entry.fd = socket;
  entry.events = POLLRDHUP;
  return poll (&entry, 1, 0) > 0;
}

bool
os_is_writable (SocketDescriptor socket)
{
  struct pollfd entry = {};
  entry.fd = socket;
  entry.events = POLLOUT;
  return poll (&entry, 1, 0) > 0;
}

void
os_shutdown_connection (SocketDescriptor socket)
{
  if (shutdown (socket, SHUT_RDWR) == -1 && errno != ENOTCONN)
    console_log ("Error: shutdown: %s\n", get_error_text (errno));
}

void
os_close_connection (SocketDescriptor socket)
{
  if (close (socket) == -1)
    console_log ("Error: close: %s\n", get_error_text (errno));
}

void
os_init_network ()
{
}

void
os_deinit_network ()
{
}

static void
print_address_family (struct addrinfo *address_info)
{
  console_put ("family: ");
  if (address_info->ai_family == AF_INET) {
    struct sockaddr_in *address = (struct sockaddr_in *) address_info->ai_addr;
    // The address is in network order: its bytes in memory are already the order to show.
    u8 *bytes = (u8 *) &address->sin_addr;
    console_put ("AF_INET\n");
    console_log ("  addr: %u.%u.%u.%u\n", bytes[0], bytes[1], bytes[2], bytes[3]);
    console_log ("  port: %u\n", _flip_u16 (address->sin_port));
  } else if (address_info->ai_family == AF_INET6) {
    console_put ("AF_INET6\n");
  } else {
    // The formatter has no "%x" and shows it as it stands, here and below.
    console_log ("%x\n", (u32) address_info->ai_family);
  }
}

static void
print_address_socket_type (struct addrinfo *address_info)
{
  console_put ("socktype: ");
  switch (address_info->ai_socktype) {
  case SOCK_STREAM:
    console_put ("SOCK_STREAM\n");
    break;
  case SOCK_DGRAM:
    console_put ("SOCK_DGRAM\n");
    break;
  case SOCK_RAW:
    console_put ("SOCK_RAW\n");
    break;
  case SOCK_RDM:
    console_put ("SOCK_RDM\n");
    break;
  case SOCK_SEQPACKET:
    console_put ("SOCK_SEQPACKET\n");
    break;
  default:
    console_log ("%x\n", (u32) address_info->ai_socktype);
  }
}

static void
print_address_protocol (struct addrinfo *address_info)
{
  console_put ("protocol: ");
  switch (address_info->ai_protocol) {
  case IPPROTO_TCP:
    console_put ("IPPROTO_TCP\n");
    break;
  case IPPROTO_UDP:
    console_put ("IPPROTO_UDP\n");
    break;
  default:
    console_log ("%x\n", (u32) address_info->ai_protocol);
  }
}

void
os_print_address_info_list (struct addrinfo *address_info_list)
{
  for (struct addrinfo *address_info = address_info_list; address_info != NULL;
       address_info = address_info->ai_next) {
    console_begin_line ();
    console_log ("canonname: %s\n", address_info->ai_canonname);
    print_address_family (address_info);
    print_address_socket_type (address_info);
    print_address_protocol (address_info);
    console_end_line ();
  }
}

u16
_flip_u16 (u16 value)
{
  return (u16) ((value >> 8) | (value << 8));
}
