// From received stanzas to records for the interface: who is meant, by the name of the element, and
// what messages and presences say. RFC 6120 and 6121.
//
// A stanza that is not as it should be costs a "Warning: " line and nothing else; one that no server
// sends stops the program where its parser says so.
//
// Ownership: a record belongs to its handler (`XMPPHandlers`) once it is handed over.
// Threads: the session thread, but for `stop_taking_stanzas`.
#pragma once

#include "receive.h"
#include "xml.h"

typedef struct _AppWindow AppWindow;

// ---- Parsers ----
// Each takes one received top-level element.

void parse_xmpp_message (AppWindow *window, XMLElement *element);
void parse_xmpp_presence (AppWindow *window, XMLElement *element);

// ---- Dispatch ----

// Takes one top-level element to the parser of its name, and counts it.
void dispatch_stanza (AppWindow *window, XMLElement *element);
// Takes all that was received: prints its trees, answers what belongs to stream management, dispatches
// the rest at the pace of the interface. A worker that is to leave takes only what the server
// acknowledges.
void dispatch_received (AppWindow *window, Received received);
// Tells the worker of a session to take no further stanza. When this returns, the records of all that
// it took have been handed over. Interface thread.
void stop_taking_stanzas (AppWindow *window);
