// Receiving: records into stanzas, stanzas into trees, answers to requests.
#include "receive.h"

#include <string.h>

#include "morvane.h"
#include "network.h"
#include "xml_scanner.h"

// ---- Stanzas of a session ----

void
receiver_begin (Receiver *receiver, gnutls_session_t tls_session, Buffer buffer, String kept)
{
  *receiver = {};
  receiver->tls_session = tls_session;
  receiver->buffer = buffer;
  receiver->size = (u64) (buffer_append_string (buffer, kept).data - buffer.data);
}

// Moves what the last `Received` did not hold to the front.
static void
receiver_drop_given (Receiver *receiver)
{
  receiver->size -= receiver->given_size;
  memmove (receiver->buffer.data, receiver->buffer.data + receiver->given_size, receiver->size);
  receiver->given_size = 0;
}

// The next record, behind what is there; empty at the end of the stream.
static String
receiver_take_record (Receiver *receiver)
{
  Buffer room = buffer_advance (receiver->buffer, receiver->size);
  String record = recv_tls_data (receiver->tls_session, room);
  receiver->size += record.size;
  return record;
}

// Passes over the one stanza that `scanner` is inside of. What follows its end is then at the front.
// False when the stream ended before that.
static bool
receiver_skip_stanza (Receiver *receiver, XMLScanner *scanner)
{
  console_put ("Warning: Received a stanza that is too long.\n");
  for (;;) {
    receiver->size = 0;
    String record = receiver_take_record (receiver);
    if (!record.size) {
      return false;
    }
    String rest = xml_scanner_feed_stanza (scanner, record);
    if (scanner->stanzas_count) {
      receiver->given_size = record.size - rest.size;
      receiver_drop_given (receiver);
      *scanner = {};
      xml_scanner_feed (scanner, {receiver->buffer.data, receiver->size});
      return true;
    }
  }
}

Received
make_received (String data, bool is_open, Buffer memory)
{
  Received received = {};
  received.data = data;
  received.is_open = is_open;
  received.memory = memory;
  received.rest = data;
  received.is_whole = true;
  return received;
}

Received
receive_stanzas (Receiver *receiver)
{
  u32 skipped_count = 0;
  XMLScanner scanner = {};
  receiver_drop_given (receiver);
  xml_scanner_feed (&scanner, {receiver->buffer.data, receiver->size});
  bool has_ended = false;
  while (!has_ended && (!receiver->size || !xml_scanner_is_complete (&scanner))) {
    if (receiver->size < receiver->buffer.size / 2) {
      String record = receiver_take_record (receiver);
      xml_scanner_feed (&scanner, record);
      has_ended = !record.size;
    } else if (scanner.stanzas_count) {
      break;
    } else {
      has_ended = !receiver_skip_stanza (receiver, &scanner);
      skipped_count += 1;
    }
  }
  bool is_complete = xml_scanner_is_complete (&scanner);
  receiver->given_size = is_complete || has_ended ? receiver->size : scanner.boundary;
  String data = {receiver->buffer.data, receiver->given_size};
  Received received = make_received (data, has_ended && !is_complete,
                                     buffer_advance (receiver->buffer, receiver->size));
  received.skipped_count = skipped_count;
  return received;
}

// Cuts the first whole stanza off, and the text ahead of it, which is dropped. Empty when there is
// none.
static String
cut_stanza (String *text_p)
{
  XMLScanner scanner = {};
  String rest = xml_scanner_feed_stanza (&scanner, *text_p);
  String stanza = {text_p->data, scanner.stanzas_count ? text_p->size - rest.size : 0};
  *text_p = rest;
  return find_char (stanza, '<');
}

// Whether `text` holds nothing but this one stanza, save for spaces around it: the parser of trees
// would find the same in both.
static bool
is_only_stanza (String text, String stanza)
{
  u64 count = 0;
  for (u64 index = 0; index < text.size; ++index) {
    count += text.data[index] != ' ' &&
             (text.data + index < stanza.data || text.data + index >= stanza.data + stanza.size);
  }
  return count == 0;
}

// Tries all that was received in one piece. True when that decided about it.
static bool
received_try_whole (Received *received, XMLElement **tree_out)
{
  received->is_whole = false;
  *tree_out = parse_xml_tree (received->memory, received->rest, NULL, NULL);
  String rest = received->rest;
  String stanza = cut_stanza (&rest);
  if (!*tree_out && stanza.size && !is_only_stanza (received->rest, stanza)) {
    return false;
  }
  received->is_last_open = *tree_out && received->is_open;
  received->text = find_char (received->rest, '<');
  received->rest = {};
  return true;
}

bool
received_next_tree (Received *received, XMLElement **tree_out)
{
  *tree_out = NULL;
  bool is_tried =
    received->rest.size && received->is_whole && received_try_whole (received, tree_out);
  if (!is_tried) {
    String stanza = cut_stanza (&received->rest);
    if (!stanza.size) {
      return false;
    }
    received->text = stanza;
    *tree_out = parse_xml_tree (received->memory, stanza, NULL, NULL);
  }
  if (!*tree_out) {
    console_log ("Warning: Received non-XML data.\n");
  }
  return true;
}

// ---- Looking ahead ----

// Whether `text` begins with an opening tag of this name.
static bool
begins_with_tag (String text, const char *name)
{
  String name_end = string_advance (text, 1 + to_string (name).size);
  String begin = {text.data, text.size - name_end.size};
  return name_end.size && begin.data[0] == '<' && string_advance (begin, 1) == name &&
         !is_xml_name_char (name_end.data[0]);
}

bool
begins_with_stanza (String text)
{
  return begins_with_tag (text, "message") || begins_with_tag (text, "presence") ||
         begins_with_tag (text, "iq");
}

bool
can_wait_for_session (String rest)
{
  XMLScanner scanner = {};
  for (;;) {
    while (rest.size && is_xml_space (rest.data[0])) {
      rest = string_advance (rest, 1);
    }
    u64 count = scanner.stanzas_count;
    String next = xml_scanner_feed_stanza (&scanner, rest);
    if (scanner.stanzas_count == count)
      return !rest.size || rest.data[0] == '<';
    if (!begins_with_tag (rest, "message") && !begins_with_tag (rest, "presence"))
      return false;
    rest = next;
  }
}

// ---- Answers to a request ----

// How long an answer that has begun may pause before what is there is judged, in milliseconds.
static const int ANSWER_PAUSE_MAX = 3000;

// A server may send an answer in several pieces; this tells when what was received since `scanner`
// was zeroed holds a whole one. The header of a stream alone is none: its features follow.
static bool
is_answer_complete (const XMLScanner *scanner)
{
  return scanner->stanzas_count && xml_scanner_is_complete (scanner);
}

// What an answer comes over: TLS, or the socket below it as long as there is no session.
struct AnswerSource {
  SocketDescriptor socket;
  gnutls_session_t tls_session;  // NULL in clear text
};

static String
receive_piece (AnswerSource source, Buffer buffer)
{
  return source.tls_session ? recv_tls_data (source.tls_session, buffer)
                            : os_recv (source.socket, buffer);
}

static bool
wait_for_piece (AnswerSource source)
{
  bool is_pending = source.tls_session && gnutls_record_check_pending (source.tls_session);
  return is_pending || os_wait_readable (source.socket, ANSWER_PAUSE_MAX);
}

// Receives until the answer is complete, or, for `is_one`, its first stanza.
static String
receive_answer (AnswerSource source, Buffer buffer, bool is_one)
{
  XMLScanner scanner = {};
  String answer = {buffer.data, 0};
  do {
    String data = receive_piece (source, buffer_advance (buffer, answer.size));
    if (!data.size) {
      break;
    }
    answer.size += data.size;
    xml_scanner_feed (&scanner, data);
  } while (!is_answer_complete (&scanner) && !(is_one && scanner.stanzas_count) &&
           answer.size < buffer.size / 2 && wait_for_piece (source));
  return answer;
}

String
receive_clear_answer (SocketDescriptor socket, Buffer buffer)
{
  return receive_answer ({socket, NULL}, buffer, false);
}

String
receive_tls_answer (gnutls_session_t tls_session, Buffer buffer)
{
  return receive_answer ({gnutls_transport_get_int (tls_session), tls_session}, buffer, false);
}

String
receive_tls_stanza (gnutls_session_t tls_session, Buffer buffer, String *rest_out)
{
  AnswerSource source = {gnutls_transport_get_int (tls_session), tls_session};
  String answer = receive_answer (source, buffer, true);
  XMLScanner scanner = {};
  *rest_out = xml_scanner_feed_stanza (&scanner, answer);
  answer.size -= rest_out->size;
  return answer;
}
