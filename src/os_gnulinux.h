// The operating system under the program on GNU/Linux: whole files, the configuration file, locks
// between processes, TCP sockets. The rest of the program calls the socket interface only through here.
//
// Every failure is one console line and a neutral result (none, -1, 0 or an empty string).
//
// Ownership: said at each function; socket descriptors belong to the caller.
// Threads: no shared state. A socket is used by one thread at a time; `os_shutdown_connection` may be
// called by another one.
#pragma once

#include "buffers.h"

struct addrinfo;

// ---- Files ----

// What a configuration file may preset for the login. Both strings are views over the text of the
// file, which stays allocated for the life of the process.
struct Config {
  String bare_jid;  // empty when the file has none
  String password;  // empty when the file has none
};

// The whole file as terminated text, freed by the caller with `dealloc_cstr`; `NULL` when it cannot
// be read and when it is empty.
char *os_alloc_read_file_as_cstr (const char *path);
// Reads lines of key, "=" or spaces, value. A value ends at a space, a "=" or a line feed; a line
// feed before a key becomes a part of that key, which then means nothing. A later key of the same
// name counts. Both fields are empty when there is no text.
Config read_config_file (const char *path);

// ---- Locks ----

// Locks a number below 2^62 on a directory, which other processes of this system may lock on it as
// well. False when one of them has it; of two that ask at the same moment both may be refused. The lock
// is no file, and ends with `os_unlock_directory` or with the process, however that ends. `lock_out` is
// a descriptor of the caller's, or -1 where the system gives no locks: nobody is kept out then.
bool os_lock_directory (const char *path, u64 number, s32 *lock_out);
void os_unlock_directory (s32 lock);  // -1 is no lock

// ---- Sockets ----

// A file descriptor; -1 for no socket.
typedef s32 SocketDescriptor;

// Connects a TCP stream to the first address of `host` that accepts; `port` is decimal text. Blocks
// as long as the system lets it. Returns 0 and the socket, or -1 with `socket_out` untouched.
int os_connect (String host, const char *port, SocketDescriptor *socket_out);
// The part of `os_connect` behind the resolver: tries the addresses in order, moving on only from
// one that refuses. `host` and `resolve_error`, the resolver's result code, serve the messages. The
// list stays with the caller.
int os_connect_addresses (String host, struct addrinfo *address_info_list, int resolve_error,
                          SocketDescriptor *socket_out);
// The bytes that one `send` took, maybe fewer than given; 0 on error.
u64 os_send (SocketDescriptor socket, String data);
// Hands all of `data` to the socket, waiting for room as often as it takes. False on error, with the
// reason in `errno` and nothing on the console; a part may then have been sent.
bool os_send_all (SocketDescriptor socket, String data);
// What the socket takes without waiting: a count of bytes, maybe 0. -1 on error, with the reason in
// `errno` and nothing on the console.
s64 os_send_now (SocketDescriptor socket, String data);
// Bytes that the socket took and that the other side's system has not confirmed to have (TCP's
// acknowledgement); 0 on error. What the other side's program has read of the rest nobody tells.
u64 os_get_unconfirmed_size (SocketDescriptor socket);
// What one `recv` brought, as a view over the front of `buffer`; empty with the buffer's pointer
// when the peer has closed, empty with a null pointer on error.
String os_recv (SocketDescriptor socket, Buffer buffer);
// What has come, without waiting: a count of bytes, 0 when the peer has closed. -1 on error, with the
// reason in `errno`, EAGAIN when nothing has come, and nothing on the console.
s64 os_recv_now (SocketDescriptor socket, Buffer buffer);
// True when a read would not block (there is data, an end or an error) within `timeout_ms`.
bool os_wait_readable (SocketDescriptor socket, int timeout_ms);
// True when a write would not block (there is room or an error) within `timeout_ms`.
bool os_wait_writable (SocketDescriptor socket, int timeout_ms);
// Waits until a read or a write would not block; true when it is the read.
bool os_wait_readable_or_writable (SocketDescriptor socket);
// Whether the peer has ended its side of the connection, or it is broken; what came before that may
// still be there to be received.
bool os_has_peer_ended (SocketDescriptor socket);
// True when a small `os_send` would not block.
bool os_is_writable (SocketDescriptor socket);
// Ends both directions and so wakes a reader in another thread; never closes. Does nothing to a
// socket that is not connected.
void os_shutdown_connection (SocketDescriptor socket);
void os_close_connection (SocketDescriptor socket);
// The place for starting and stopping a network library; nothing to do on this system.
void os_init_network ();
void os_deinit_network ();
// Dumps what the resolver found to the console; a debugging aid.
void os_print_address_info_list (struct addrinfo *address_info_list);
u16 _flip_u16 (u16 value);  // swaps the two bytes
