// uxml: named child elements of a libxml2 tree, read as text, numbers and
// booleans, and written as new text children.
#include "foundation/uxml.h"

#include "foundation/logger.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool isElementNamed(xmlNodePtr node, const char* name)
{
    return node->type == XML_ELEMENT_NODE && node->name != nullptr &&
           strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

const xmlChar* xmlText(const char* text)
{
    return reinterpret_cast<const xmlChar*>(text);
}

// Formats `value` by `fmt` into a buffer of `Size` bytes and adds it; the
// `what` names the type in the internal error.
template <size_t Size, typename T>
int addFormatted(xmlNodePtr parent, const char* name, const char* fmt, T value, const char* what)
{
    char buffer[Size];
    int n = snprintf(buffer, sizeof buffer, fmt, value);
    if (n < 0 || static_cast<size_t>(n) >= sizeof buffer) {
        log_printf(0, "%s:%d: Internal error: buffer too short for %s value", __FILE__, __LINE__, what);
        return -1;
    }
    return uxmlAddString(parent, name, buffer);
}

// Reads child `name` and hands its text to `convert`.
template <typename T, typename Convert>
int getNumber(xmlNodePtr node, const char* name, T* out, Convert convert)
{
    char* text = nullptr;
    if (uxmlGetString(node, name, &text) != 0) {
        return -1;
    }
    *out = static_cast<T>(convert(text));
    free(text);
    return 0;
}

} // namespace

xmlNodePtr uxmlGetChild(xmlNodePtr node, const char* name)
{
    if (node == nullptr || name == nullptr) {
        return nullptr;
    }
    for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
        if (isElementNamed(child, name)) {
            log_printf(5, "%s:%d: Returning XML element '%s'\n", __FILE__, __LINE__, name);
            return child;
        }
    }
    return nullptr;
}

int uxmlGetChildren(xmlNodePtr node, const char* name, xmlNodePtr** children)
{
    if (node == nullptr || name == nullptr || children == nullptr) {
        return 0;
    }
    log_printf(5, "%s:%d: Identifying child nodes of \"%s\" with name \"%s\"\n", __FILE__, __LINE__,
               node->name != nullptr ? reinterpret_cast<const char*>(node->name) : "", name);
    int count = 0;
    for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
        count += isElementNamed(child, name) ? 1 : 0;
    }
    log_printf(5, "%s:%d: Found %d nodes\n", __FILE__, __LINE__, count);
    if (count == 0) {
        return 0;
    }
    auto* array = static_cast<xmlNodePtr*>(malloc(sizeof(xmlNodePtr) * count));
    if (array == nullptr) {
        log_printf(0, "%s:%d: Out of memory for XML node pointer array\n", __FILE__, __LINE__);
        return -1;
    }
    int n = 0;
    for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
        if (isElementNamed(child, name)) {
            array[n++] = child;
        }
    }
    *children = array;
    log_printf(5, "%s:%d: Returning %d nodes\n", __FILE__, __LINE__, n);
    return n;
}

int uxmlGetString(xmlNodePtr node, const char* name, char** text)
{
    xmlNodePtr child = uxmlGetChild(node, name);
    if (child == nullptr) {
        log_printf(0, "%s:%d: XML element <%s> could not be retrieved", __FILE__, __LINE__, name);
        return -1;
    }
    XmlCharPtr content(xmlNodeGetContent(child));
    if (!content) {
        log_printf(0, "%s:%d: XML element <%s> content could not be read", __FILE__, __LINE__, name);
        return -1;
    }
    char* copy = strdup(reinterpret_cast<const char*>(content.get()));
    if (copy == nullptr) {
        log_printf(0, "%s:%d: Out of memory for XML element <%s>", __FILE__, __LINE__, name);
        return -2;
    }
    *text = copy;
    return 0;
}

int uxmlGetInt(xmlNodePtr node, const char* name, int* out)
{
    return getNumber(node, name, out, [](const char* t) { return strtol(t, nullptr, 10); });
}

int uxmlGetULong(xmlNodePtr node, const char* name, unsigned long* out)
{
    return getNumber(node, name, out, [](const char* t) { return strtoul(t, nullptr, 10); });
}

int uxmlGetLong(xmlNodePtr node, const char* name, long* out)
{
    return getNumber(node, name, out, [](const char* t) { return strtol(t, nullptr, 10); });
}

int uxmlGetLongLong(xmlNodePtr node, const char* name, long long* out)
{
    return getNumber(node, name, out, [](const char* t) { return strtoll(t, nullptr, 10); });
}

int uxmlGetBool(xmlNodePtr node, const char* name, int* out)
{
    return getNumber(node, name, out,
                     [](const char* t) { return t[0] != '\0' && strchr("tTyY1", t[0]) != nullptr ? 1 : 0; });
}

int uxmlAddString(xmlNodePtr parent, const char* name, const char* text)
{
    if (parent == nullptr || name == nullptr) {
        return -1;
    }
    // xmlNewTextChild escapes the text, unlike xmlNewChild.
    return xmlNewTextChild(parent, nullptr, xmlText(name), xmlText(text)) != nullptr ? 0 : -1;
}

int uxmlAddTime(xmlNodePtr parent, const char* name, time_t value)
{
    return addFormatted<32>(parent, name, "%ld", static_cast<long>(value), "time_t");
}

int uxmlAddULong(xmlNodePtr parent, const char* name, unsigned long value)
{
    return addFormatted<32>(parent, name, "%lu", value, "unsigned long");
}

int uxmlAddInt(xmlNodePtr parent, const char* name, int value)
{
    return addFormatted<32>(parent, name, "%d", value, "integer");
}

int uxmlAddLongLong(xmlNodePtr parent, const char* name, long long value)
{
    return addFormatted<64>(parent, name, "%lld", value, "long long");
}

int uxmlAddBool(xmlNodePtr parent, const char* name, int value)
{
    return addFormatted<8>(parent, name, "%s", value ? "true" : "false", "boolean");
}
