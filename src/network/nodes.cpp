// SPDX-License-Identifier: LGPL-2.1-or-later
// Which nodes there are: the named "node" elements of the service's introspection data. The text is parsed twice, once
// to count the names and once to copy them into an array of just that size. Expat bounds what entities may expand to.
#include "network/connection.hpp"

#include <expat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace bdbus
{

namespace
{

constexpr service network_introspection = {
    .name = "com.brisemont.Network.Host1",
    .path = "/com/brisemont/network",
    .interface = "org.freedesktop.DBus.Introspectable",
};

/** The name that an element gives to a node, or null. Attributes come as pairs of name and value, closed by a null. */
const char *node_name(const char *element, const char **attributes)
{
    if (strcmp(element, "node") != 0) {
        return nullptr;
    }
    for (; attributes[0] != nullptr; attributes += 2) {
        if (strcmp(attributes[0], "name") == 0) {
            return attributes[1];
        }
    }
    return nullptr;
}

void XMLCALL count_node(void *list, const char *element, const char **attributes)
{
    if (node_name(element, attributes) != nullptr) {
        static_cast<bnetwork_node_list *>(list)->count++;
    }
}

/** Where the second pass is. */
struct copied_nodes {
    bnetwork_node_list *list;
    uint32_t index;
};

/** The slots are zero, so that a cut name is terminated. */
void XMLCALL copy_node(void *context, const char *element, const char **attributes)
{
    auto *copied = static_cast<copied_nodes *>(context);
    const char *name = node_name(element, attributes);
    if (name != nullptr && copied->index < copied->list->count) {
        char *slot = copied->list->names[copied->index++];
        memcpy(slot, name, strnlen(name, BDBUS_NETWORK_NAME_BYTES - 1));
    }
}

/** One pass over the text, which counts as unfinished: a document that breaks off is no error. */
bool parse(XML_Parser parser, const char *xml, XML_StartElementHandler start_element, void *context)
{
    const size_t length = strlen(xml);
    XML_SetUserData(parser, context);
    XML_SetElementHandler(parser, start_element, nullptr);
    return length <= INT_MAX && XML_Parse(parser, xml, static_cast<int>(length), XML_FALSE) != XML_STATUS_ERROR;
}

/** Count the names, make room and copy them. The list is empty at first; what is allocated stays after a failure. */
bool list_nodes(XML_Parser parser, const char *xml, bnetwork_node_list &list)
{
    if (!parse(parser, xml, count_node, &list)) {
        return false;
    }
    if (list.count == 0) {
        return true;
    }
    list.names = static_cast<char(*)[BDBUS_NETWORK_NAME_BYTES]>(calloc(list.count, sizeof(*list.names)));
    copied_nodes copied = {.list = &list, .index = 0};
    return list.names != nullptr && XML_ParserReset(parser, nullptr) == XML_TRUE &&
           parse(parser, xml, copy_node, &copied);
}

int32_t parse_introspection(const char *xml, bnetwork_node_list &list)
{
    XML_Parser parser = XML_ParserCreate(nullptr);
    const bool listed = parser != nullptr && list_nodes(parser, xml, list);
    XML_ParserFree(parser);
    if (!listed) {
        free(list.names);
        list = {};
        return BDBUS_NETWORK_NO_LIST;
    }
    return BDBUS_NETWORK_OK;
}

} // namespace

} // namespace bdbus

int32_t bnetwork_nodes_list_get(bnetwork_node_list *list)
{
    if (list == nullptr) {
        return bdbus::network_status(-EINVAL);
    }
    *list = {};
    bdbus::network_call call(bdbus::network_introspection);
    call.invoke<"">("Introspect");
    call.release();
    const char *xml = nullptr;
    call.read<"s">(&xml);
    return call.failed() ? call.status() : bdbus::parse_introspection(xml, *list);
}
