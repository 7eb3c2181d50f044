// What the console shows of XML: trees, elements, tokens, and the warnings of a chunk whose tags do not
// match.
//
// Ownership: everything is borrowed.
//
// Threads: any thread. A tree and a warning are whole lines, whoever else writes.
#pragma once

#include "xml.h"

// Writes the node, its descendants and its following siblings to the console, two spaces a level up
// to the 128th; what is deeper stands below that.
void print_xml_tree (XMLElement *node, u32 depth);
// One line: the element's tag and attributes.
void _console_put (String name, XMLElement element);
void _console_put (String name, XMLToken token);

// The elements that a chunk leaves open, from the innermost one outwards.
void warn_unclosed_xml_elements (XMLElement *innermost);
// The closing tags that close nothing of their chunk, as a list of elements.
void warn_unopened_xml_elements (XMLElement *first);
