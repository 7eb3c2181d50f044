// The judge of a stream: expat's elements, what they ask for, and whether that is what came.
#include "stream_judge.h"

#include <expat.h>
#include <string.h>

#include "xml.h"

typedef std::string Text;

// ---- Elements ----

// An element, or with an empty name a run of text.
struct Node {
  Text name;
  std::vector<std::pair<Text, Text>> attributes;  // values as they stand between the quotes
  Text text;                                      // what expat reads, without spaces at the front
  bool has_reference;                             // a character reference stands in the text
  std::vector<Node> children;
};

struct Reader {
  XML_Parser parser;
  const Text *source;
  long offset;             // bytes of the stream's header, which the source follows
  std::vector<Node> open;  // the elements that are open, the stream's first
  Text run;                // what expat read since the last tag
  size_t run_begin;        // where that begins
  size_t stanza_begin;     // of the stanza that is open
  size_t last_end;         // of the stanza before it
  bool is_refused;  // the program's reader does not know something of the stanza that is open
  bool has_section_ahead;  // a comment or a section of character data since the last stanza
  size_t tree_size;        // bytes that the program needs for this stanza's tree
  size_t half_size;
  size_t room_size;
  JudgedStream result;
};

static size_t
get_place (Reader *reader, bool is_behind)
{
  long place = XML_GetCurrentByteIndex (reader->parser) - reader->offset;
  place += is_behind ? XML_GetCurrentByteCount (reader->parser) : 0;
  return place > 0 ? (size_t) place : 0;
}

static bool
is_space (char c)
{
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

static bool
is_plain_name (const Text &name)
{
  static const char LETTERS[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  Text others = Text (LETTERS) + "0123456789:-";
  return Text (LETTERS).find (name[0]) != Text::npos &&
         name.find_first_not_of (others) == Text::npos;
}

// Moves `place` over white space. False when there was another one than a space.
static bool
pass_spaces (const Text &tag, size_t *place)
{
  bool is_plain = true;
  for (; *place < tag.size () && is_space (tag[*place]); ++*place)
    is_plain = is_plain && tag[*place] == ' ';
  return is_plain;
}

static Text
take_name (const Text &tag, size_t *place)
{
  size_t begin = *place;
  while (*place < tag.size () && !is_space (tag[*place]) && !strchr ("=/>", tag[*place]))
    ++*place;
  return tag.substr (begin, *place - begin);
}

// Reads a tag that expat has found well-formed, as it is written. False when the program's reader does
// not know something in it.
static bool
read_tag (const Text &tag, Node *node)
{
  size_t place = tag[1] == '/' ? 2 : 1;
  node->name = take_name (tag, &place);
  bool is_plain = is_plain_name (node->name);
  for (;;) {
    is_plain = pass_spaces (tag, &place) && is_plain;
    if (place >= tag.size () || tag[place] == '/' || tag[place] == '>')
      return is_plain;
    Text name = take_name (tag, &place);
    is_plain = is_plain_name (name) && is_plain;
    is_plain = pass_spaces (tag, &place) && is_plain;
    ++place;
    is_plain = pass_spaces (tag, &place) && is_plain;
    size_t end = tag.find (tag[place], place + 1);
    CHECK (end != Text::npos);
    node->attributes.push_back ({name, tag.substr (place + 1, end - place - 1)});
    place = end + 1;
  }
}

// Ends the run of text in front of the place where expat is.
static void
end_run (Reader *reader)
{
  size_t end = get_place (reader, false);
  if (reader->open.size () > 1 && end > reader->run_begin) {
    Text raw = reader->source->substr (reader->run_begin, end - reader->run_begin);
    size_t begin = raw.find_first_not_of (' ');
    if (begin != Text::npos) {
      Node node = {};
      node.has_reference = raw.find ("&#") != Text::npos;
      if (!node.has_reference && !reader->is_refused)
        node.text = reader->run.substr (begin);
      reader->open.back ().children.push_back (node);
      reader->tree_size += sizeof (XMLElement) + sizeof (XMLToken);
    }
  }
  reader->run.clear ();
}

static void
cut (Reader *reader)
{
  reader->result.is_cut = true;
  XML_StopParser (reader->parser, XML_FALSE);
}

static bool
is_cut (void *data)
{
  return ((Reader *) data)->result.is_cut;
}

static void XMLCALL
handle_start (void *data, const XML_Char *name, const XML_Char **attributes)
{
  Reader *reader = (Reader *) data;
  if (is_cut (data))
    return;
  Node node = {};
  if (reader->open.empty ()) {
    reader->open.push_back (node);
    return;
  }
  bool is_stanza = reader->open.size () == 1;
  if (is_stanza && Text (name) == "stream:stream") {
    cut (reader);
    return;
  }
  end_run (reader);
  if (is_stanza) {
    reader->stanza_begin = get_place (reader, false);
    reader->is_refused = false;
    reader->tree_size = 0;
  }
  size_t begin = get_place (reader, false);
  Text tag = reader->source->substr (begin, get_place (reader, true) - begin);
  reader->is_refused = !read_tag (tag, &node) || reader->is_refused;
  // The judge of the judge: expat reads the same where there is nothing to resolve.
  CHECK (node.name == name);
  for (size_t index = 0; attributes[index]; index += 2) {
    CHECK (index / 2 < node.attributes.size ());
    CHECK (node.attributes[index / 2].first == attributes[index]);
    const Text &value = node.attributes[index / 2].second;
    CHECK (value.find_first_of ("&\t\r\n") != Text::npos || value == attributes[index + 1]);
  }
  reader->tree_size += sizeof (XMLElement) + 6 * sizeof (XMLToken);
  reader->tree_size += node.attributes.size () * (sizeof (XMLAttribute) + 3 * sizeof (XMLToken));
  reader->open.push_back (node);
  reader->run_begin = get_place (reader, true);
}

static void judge_stanza (const Node *stanza, JudgedStanza *judged);

static void
end_stanza (Reader *reader, const Node *stanza)
{
  size_t end = get_place (reader, true);
  JudgedStanza judged = {};
  if (!reader->is_refused) {
    judge_stanza (stanza, &judged);
    judged.is_needed = end - reader->last_end <= reader->half_size &&
                       reader->tree_size <= reader->room_size && !reader->has_section_ahead;
  }
  reader->result.stanzas.push_back (judged);
  reader->last_end = end;
  reader->has_section_ahead = false;
}

static void XMLCALL
handle_end (void *data, const XML_Char *)
{
  Reader *reader = (Reader *) data;
  if (is_cut (data))
    return;
  if (reader->open.size () == 1) {
    cut (reader);
    return;
  }
  end_run (reader);
  size_t begin = get_place (reader, false);
  // Of an element without content there is no such tag.
  Text tag = reader->source->substr (begin, get_place (reader, true) - begin);
  Node unused = {};
  if (tag.size () > 1 && tag[1] == '/')
    reader->is_refused = !read_tag (tag, &unused) || reader->is_refused;
  Node node = reader->open.back ();
  reader->open.pop_back ();
  if (reader->open.size () == 1)
    end_stanza (reader, &node);
  else
    reader->open.back ().children.push_back (node);
  reader->run_begin = get_place (reader, true);
}

static void XMLCALL
handle_text (void *data, const XML_Char *text, int size)
{
  ((Reader *) data)->run.append (text, (size_t) size);
}

static void XMLCALL
handle_section (void *data)
{
  Reader *reader = (Reader *) data;
  if (reader->open.size () > 1)
    reader->is_refused = true;
  else
    reader->has_section_ahead = true;
}

static void XMLCALL
handle_comment (void *data, const XML_Char *)
{
  handle_section (data);
}

static void XMLCALL
handle_instruction (void *data, const XML_Char *, const XML_Char *)
{
  if (!is_cut (data))
    cut ((Reader *) data);
}

JudgedStream
judge_stream (const Text &text, size_t half_size, size_t room_size)
{
  const Text header = "<stream:stream>";
  Reader reader = {};
  reader.parser = XML_ParserCreate ("UTF-8");
  reader.source = &text;
  reader.offset = (long) header.size ();
  reader.half_size = half_size;
  reader.room_size = room_size;
  XML_SetUserData (reader.parser, &reader);
  XML_SetElementHandler (reader.parser, handle_start, handle_end);
  XML_SetCharacterDataHandler (reader.parser, handle_text);
  XML_SetCommentHandler (reader.parser, handle_comment);
  XML_SetCdataSectionHandler (reader.parser, handle_section, NULL);
  XML_SetProcessingInstructionHandler (reader.parser, handle_instruction);
  XML_Parse (reader.parser, header.data (), (int) header.size (), XML_FALSE);
  if (XML_Parse (reader.parser, text.data (), (int) text.size (), XML_FALSE) != XML_STATUS_OK)
    reader.result.is_cut = true;
  XML_ParserFree (reader.parser);
  return reader.result;
}

// ---- What a stanza asks for ----

static String
view (const Text &text)
{
  return {(u8 *) text.data (), text.size ()};
}

// Line ends as expat reads them.
static Text
normalise_lines (String text)
{
  Text result;
  for (u64 index = 0; index < text.size; ++index) {
    bool is_return = text.data[index] == '\r';
    if (is_return && index + 1 < text.size && text.data[index + 1] == '\n')
      continue;
    result += is_return ? '\n' : (char) text.data[index];
  }
  return result;
}

static void
append_field (Text *text, String field)
{
  text->append (std::to_string (field.size) + ":");
  text->append ((const char *) field.data, field.size);
}

Text
describe_record (const FuzzRecord *record)
{
  Text text = record->kind;
  append_field (&text, record->from);
  Text lines = normalise_lines (record->text);
  append_field (&text, view (lines));
  Text words = normalise_lines (record->words);
  append_field (&text, view (words));
  for (u32 index = 0; index < 4; ++index) {
    append_field (&text, record->authors[index]);
    text += std::to_string (record->times[index]) + ";";
  }
  return text + std::to_string (record->id);
}

static void
ask_for (JudgedStanza *judged, FuzzRecord record)
{
  judged->records.push_back (describe_record (&record));
}

static Text
get_attribute (const Node *node, const char *name)
{
  for (const std::pair<Text, Text> &attribute : node->attributes) {
    if (attribute.first == name)
      return attribute.second;
  }
  return {};
}

static const Node *
get_child (const Node *node, const char *name)
{
  for (const Node &child : node->children) {
    if (child.name == name)
      return &child;
  }
  return NULL;
}

// The text at the front of an element; none when there is an element or nothing.
static const Node *
get_first_text (const Node *node)
{
  return node->children.size () && node->children[0].name.empty () ? &node->children[0] : NULL;
}

static bool
has_only_digits (const Text &text)
{
  return text.find_first_not_of ("0123456789") == Text::npos;
}

static u64
get_number (const Text &digits)
{
  u64 number = 0;
  for (char c : digits)
    number = number * 10 + (u64) (c - '0');
  return number;
}

static Text
get_bare (const Text &jid)
{
  return jid.substr (0, jid.find ('/'));
}

struct Kind {
  const char *element_name;
  const char *record_name;
  const char *pair_names[4];
};
static const Kind KINDS[] = {
  {"x-procedure", "procedure", {"procedure"}},
  {"x-clause", "clause", {"procedure", "clause"}},
  {"x-revision", "revision", {"procedure", "clause", "revision"}},
  {"x-clause-message", "clause message", {"procedure", "clause", "message"}},
  {"x-clause-decision", "decision", {"procedure", "clause", "revision", "decision"}},
};

struct Pairs {
  Text authors[4];
  s64 times[4];
  u32 count;
  bool is_malformed;  // the program stops at it
  bool is_unkept;     // a name or a time that can't be stored
};

static Pairs
read_pairs (const Node *node, const Kind *kind)
{
  Pairs pairs = {};
  for (; pairs.count < 4 && kind->pair_names[pairs.count]; ++pairs.count) {
    Text pair = get_attribute (node, kind->pair_names[pairs.count]);
    size_t colon = pair.find (':');
    Text author = pair.substr (0, colon);
    Text time = colon == Text::npos ? Text () : pair.substr (colon + 1);
    if (author.empty () || time.empty () || !has_only_digits (time))
      pairs.is_malformed = true;
    if (author.size () > 2047 || author.find ('\'') != Text::npos || time.size () > 12)
      pairs.is_unkept = true;
    pairs.authors[pairs.count] = author;
    pairs.times[pairs.count] = pairs.is_malformed ? 0 : (s64) get_number (time);
  }
  return pairs;
}

// Nobody speaks in another's name: the author is the sender's account, or in a clause's chat the user
// name of it. A procedure may be passed on.
static bool
is_said_by (const Text &author, const Text &kind_name, const Text &from)
{
  Text sender = get_bare (from);
  size_t at = sender.find ('@');
  bool is_user =
    kind_name == "clause message" && at != Text::npos && author == sender.substr (0, at);
  return kind_name == "procedure" || author == sender || is_user;
}

static void
judge_negotiation (const Node *node, const Kind *kind, const Text &from, JudgedStanza *judged)
{
  Pairs pairs = read_pairs (node, kind);
  Text name = kind->record_name;
  if (!pairs.is_malformed && !is_said_by (pairs.authors[pairs.count - 1], name, from))
    return;
  const Node *content = get_first_text (node);
  Text text = content && name != "clause" ? content->text : Text ();
  if (name == "procedure" && !content)
    return;
  if (name == "decision" && text != "AGREE" && text != "DISAGREE")
    return;
  if (pairs.is_malformed) {
    judged->stops = true;
    return;
  }
  if (pairs.is_unkept || (content && content->has_reference && name != "clause"))
    return;
  FuzzRecord record = {};
  record.kind = kind->record_name;
  record.text = view (text);
  for (u32 index = 0; index < pairs.count; ++index) {
    record.authors[index] = view (pairs.authors[index]);
    record.times[index] = pairs.times[index];
  }
  ask_for (judged, record);
}

static void
judge_error (const Node *error, const Text &from, const Text &id, JudgedStanza *judged)
{
  FuzzRecord record = {};
  record.kind = "error";
  record.from = view (from);
  record.id = has_only_digits (id) ? get_number (id) : 0;
  Text condition;
  for (const Node &child : error->children) {
    if (condition.empty () && child.name != "text")
      condition = child.name;
  }
  record.text = view (condition);
  const Node *words = get_child (error, "text");
  const Node *content = words ? get_first_text (words) : NULL;
  if (content && !content->has_reference)
    record.words = view (content->text);
  ask_for (judged, record);
}

static void
judge_body_child (const Node *child, const Text &from, JudgedStanza *judged)
{
  if (child->name.empty () && !child->has_reference)
    ask_for (judged, {"message", view (from), view (child->text), {}, {}, {}, 0});
  for (const Kind &kind : KINDS) {
    if (child->name == kind.element_name)
      judge_negotiation (child, &kind, from, judged);
  }
}

static void
judge_message (const Node *message, const Text &from, JudgedStanza *judged)
{
  const Node *error = get_child (message, "error");
  const Node *body = get_child (message, "body");
  if (from.empty ())
    return;
  if (error) {
    judge_error (error, from, get_attribute (message, "id"), judged);
  } else if (body && body->children.empty ()) {
    ask_for (judged, {"message", view (from), {}, {}, {}, {}, 0});
  } else if (body) {
    for (const Node &child : body->children) {
      if (!judged->stops)
        judge_body_child (&child, from, judged);
    }
  }
}

static void
judge_presence (const Node *presence, const Text &from, JudgedStanza *judged)
{
  Text type = get_attribute (presence, "type");
  Text to = get_attribute (presence, "to");
  bool is_ours = get_bare (to) == "anna@alpha.test";
  const char *kind = NULL;
  if (type.empty () && to.empty () && from == "anna@alpha.test/desk")
    kind = "confirm";
  else if (type.empty () && is_ours)
    kind = "available";
  else if (type == "unavailable" && is_ours)
    kind = "unavailable";
  else if (type == "subscribed" && is_ours)
    kind = "subscribed";
  else if (type == "subscribe")
    kind = "subscribe";
  if (kind && from.size ())
    ask_for (judged, {kind, view (from), {}, {}, {}, {}, 0});
}

static void
judge_vcard (const Node *vcard, const Text &from, const Text &id, JudgedStanza *judged)
{
  if (id.empty () || !has_only_digits (id))
    return;
  if (get_attribute (vcard, "xmlns") != "urn:ietf:params:xml:ns:vcard-4.0")
    return;
  for (const Node &property : vcard->children) {
    judged->stops = judged->stops || property.name.empty ();
  }
  if (!judged->stops)
    ask_for (judged, {"vcard", view (from), {}, {}, {}, {}, get_number (id)});
}

static void
judge_iq (const Node *iq, const Text &from, JudgedStanza *judged)
{
  Text id = get_attribute (iq, "id");
  if (get_attribute (iq, "type") == "error") {
    judged->stops = !has_only_digits (id);
    if (id.size () && !judged->stops)
      ask_for (judged, {"iq error", {}, {}, {}, {}, {}, get_number (id)});
  } else if (iq->children.size ()) {
    judged->stops = iq->children.size () > 1 || iq->children[0].name.empty ();
    if (!judged->stops && iq->children[0].name == "vcard")
      judge_vcard (&iq->children[0], from, id, judged);
  }
}

static void
judge_stanza (const Node *stanza, JudgedStanza *judged)
{
  Text from = get_attribute (stanza, "from");
  if (stanza->name == "message")
    judge_message (stanza, from, judged);
  else if (stanza->name == "presence")
    judge_presence (stanza, from, judged);
  else if (stanza->name == "iq")
    judge_iq (stanza, from, judged);
}

// ---- What came ----

// Whether the stanza's records stand among those that came, from this one on.
static bool
stands_at (const JudgedStanza *stanza, const std::vector<Text> &records, size_t index)
{
  if (records.size () - index < stanza->records.size ())
    return false;
  for (const Text &record : stanza->records) {
    if (record != records[index])
      return false;
    ++index;
  }
  return true;
}

bool
is_judged_right (const JudgedStream &stream, const std::vector<Text> &records, bool has_stopped)
{
  // Of each number of records: whether the stanzas so far may have become so many of them.
  std::vector<bool> may_be (records.size () + 1, false);
  may_be[0] = true;
  for (const JudgedStanza &stanza : stream.stanzas) {
    std::vector<bool> may_be_next (records.size () + 1, false);
    for (size_t index = 0; index <= records.size (); ++index) {
      if (!may_be[index])
        continue;
      bool stands = stands_at (&stanza, records, index);
      size_t index_next = index + stanza.records.size ();
      if (stands && stanza.stops && has_stopped && index_next == records.size ())
        return true;
      if (stands && !stanza.stops)
        may_be_next[index_next] = true;
      if (!stanza.is_needed && (stanza.stops || stanza.records.size ()))
        may_be_next[index] = true;
    }
    may_be = may_be_next;
  }
  if (!stream.is_cut)
    return !has_stopped && may_be[records.size ()];
  for (bool may : may_be) {
    if (may)
      return true;
  }
  return false;
}
