// Where expat, a strict parser, sees the stanzas of a stream begin and end: the judge of the scanner.
//
// Ownership: plain values. Threads: any.
#pragma once

#include <expat.h>

#include <string>
#include <vector>

struct StanzaSpan {
  size_t begin;  // bytes of the text in front of the first byte
  size_t end;    // bytes of the text up to the last byte
};

struct ExpatStanzas {
  std::vector<StanzaSpan> stanzas;   // top-level elements that have ended
  std::vector<StanzaSpan> sections;  // top-level comments, instructions and character data
  bool is_refused;                   // not well-formed, or a stream begins in it
};

struct ExpatReader {
  XML_Parser parser;
  ExpatStanzas result;
  long offset;      // bytes of the stream's header, which the text follows
  int depth;        // elements open, the stream's included
  size_t begin;     // of the top-level element or section that is open
  bool has_stream;  // a stream inside of the stream: not this judge's matter
};

inline size_t
expat_place (ExpatReader *reader, bool is_behind)
{
  long place = XML_GetCurrentByteIndex (reader->parser) - reader->offset;
  return (size_t) (place + (is_behind ? XML_GetCurrentByteCount (reader->parser) : 0));
}

inline void XMLCALL
expat_start (void *data, const XML_Char *name, const XML_Char **)
{
  ExpatReader *reader = (ExpatReader *) data;
  if (reader->depth == 1) {
    reader->begin = expat_place (reader, false);
    if (std::string (name) == "stream:stream") {
      reader->has_stream = true;
      XML_StopParser (reader->parser, XML_FALSE);
    }
  }
  ++reader->depth;
}

inline void XMLCALL
expat_end (void *data, const XML_Char *)
{
  ExpatReader *reader = (ExpatReader *) data;
  --reader->depth;
  if (reader->depth == 1 && !reader->has_stream)
    reader->result.stanzas.push_back ({reader->begin, expat_place (reader, true)});
}

inline void XMLCALL
expat_comment (void *data, const XML_Char *)
{
  ExpatReader *reader = (ExpatReader *) data;
  if (reader->depth == 1)
    reader->result.sections.push_back ({expat_place (reader, false), expat_place (reader, true)});
}

inline void XMLCALL
expat_instruction (void *data, const XML_Char *, const XML_Char *)
{
  expat_comment (data, NULL);
}

inline void XMLCALL
expat_data_start (void *data)
{
  ExpatReader *reader = (ExpatReader *) data;
  if (reader->depth == 1)
    reader->begin = expat_place (reader, false);
}

inline void XMLCALL
expat_data_end (void *data)
{
  ExpatReader *reader = (ExpatReader *) data;
  if (reader->depth == 1)
    reader->result.sections.push_back ({reader->begin, expat_place (reader, true)});
}

inline void XMLCALL
expat_text (void *, const XML_Char *, int)
{
  // Its presence makes expat tell character data by itself, not as something left over.
}

// Reads `text` as what follows the header of a stream. What stands in front of the place where it is
// refused is judged like any other text.
inline ExpatStanzas
read_stanzas_by_expat (const std::string &text)
{
  const std::string header = "<stream:stream>";
  ExpatReader reader = {};
  reader.parser = XML_ParserCreate ("UTF-8");
  reader.offset = (long) header.size ();
  XML_SetUserData (reader.parser, &reader);
  XML_SetElementHandler (reader.parser, expat_start, expat_end);
  XML_SetCommentHandler (reader.parser, expat_comment);
  XML_SetProcessingInstructionHandler (reader.parser, expat_instruction);
  XML_SetCdataSectionHandler (reader.parser, expat_data_start, expat_data_end);
  XML_SetCharacterDataHandler (reader.parser, expat_text);
  XML_Status status = XML_Parse (reader.parser, header.data (), (int) header.size (), XML_FALSE);
  if (status == XML_STATUS_OK)
    status = XML_Parse (reader.parser, text.data (), (int) text.size (), XML_FALSE);
  reader.result.is_refused = status != XML_STATUS_OK || reader.has_stream;
  XML_ParserFree (reader.parser);
  return reader.result;
}

// Whether nothing is open after the first `size` bytes of a text that is well-formed so far.
inline bool
is_between_stanzas (const ExpatStanzas &read, size_t size)
{
  for (const std::vector<StanzaSpan> *spans : {&read.stanzas, &read.sections}) {
    for (const StanzaSpan &span : *spans) {
      if (size > span.begin && size < span.end)
        return false;
    }
  }
  return true;
}
