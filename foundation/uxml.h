// uxml: reading and writing of single XML elements over libxml2, as the
// metadata documents use them: one named child element per value, text
// content, numbers in decimal.
#pragma once

#include <libxml/tree.h>

#include <ctime>
#include <memory>

// RAII holders for libxml2 objects.
struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using XmlDocPtr = std::unique_ptr<xmlDoc, XmlDocFree>;

struct XmlCharFree {
    void operator()(xmlChar* text) const { xmlFree(text); }
};
using XmlCharPtr = std::unique_ptr<xmlChar, XmlCharFree>;

// First direct child element of `node` named `name` (exact compare), or
// nullptr. Text and other non-element nodes are passed over. Logs "Returning
// XML element '%s'" at level 5 when found.
xmlNodePtr uxmlGetChild(xmlNodePtr node, const char* name);

// Count of direct child elements named `name`; -1 when the array cannot be
// allocated. For a count of 1 or more *children is a malloc'ed array of the
// nodes in document order that the caller frees; otherwise it is left alone.
int uxmlGetChildren(xmlNodePtr node, const char* name, xmlNodePtr** children);

// Content of child element `name` as a new malloc'ed string the caller
// frees (an empty element gives ""). 0; -1 if the element is missing or its
// content cannot be read (logged at level 0); -2 when out of memory.
int uxmlGetString(xmlNodePtr node, const char* name, char** text);

// uxmlGetString, then decimal conversion; text that is not a number reads
// as 0. 0, or -1 as uxmlGetString.
int uxmlGetInt(xmlNodePtr node, const char* name, int* out);
int uxmlGetULong(xmlNodePtr node, const char* name, unsigned long* out);
int uxmlGetLong(xmlNodePtr node, const char* name, long* out);
int uxmlGetLongLong(xmlNodePtr node, const char* name, long long* out);

// True (1) when the content starts with t, T, y, Y or 1, else 0. 0/-1.
int uxmlGetBool(xmlNodePtr node, const char* name, int* out);

// Add a new child element `name` under `parent` holding the value as text
// (escaped by libxml2). 0, or -1 when the node cannot be made.
int uxmlAddString(xmlNodePtr parent, const char* name, const char* text);
int uxmlAddTime(xmlNodePtr parent, const char* name, time_t value);
int uxmlAddULong(xmlNodePtr parent, const char* name, unsigned long value);
int uxmlAddInt(xmlNodePtr parent, const char* name, int value);
int uxmlAddLongLong(xmlNodePtr parent, const char* name, long long value);
// "true" or "false".
int uxmlAddBool(xmlNodePtr parent, const char* name, int value);
