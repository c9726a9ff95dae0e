// The library's server: each connection is a node of the net thread pool that speaks the simple XML
// protocol. The main thread accepts and does nothing else.

#include "listener.h"

#include <ztlib/pools/threadpool/protocols/simple_xml.h>

#include <cstring>
#include <initializer_list>

#include <unistd.h>

namespace {

// Appends <name>value</name>.
void add_field(xmldoc_node* parent, const char* name, const char* value) {
    xmldoc_node* field = xmldoc_node_create(name);
    if (!field) return;
    field->value = strdup(value ? value : "");
    xmldoc_node_add_child(parent, field);
}

xmldoc* build_answer(const xmldoc_node* request) {
    xmldoc* answer = xmldoc_create_def("answer");
    if (!answer) return nullptr;
    for (const char* name : {"id", "kind"}) {
        xmldoc_node_attr_addval(answer->root, name, xmldoc_node_attr_get_value(request, name));
    }
    add_field(answer->root, "status", "done");
    for (const char* name : {"from", "to", "amount"}) {
        add_field(answer->root, name, xmldoc_node_get_value(request, name));
    }
    return answer;
}

int answer(void* context, xmldoc* request) {
    auto* connection = static_cast<simple_xml_proto*>(context);
    if (!request->root || strcmp(request->root->name, "request") != 0) return 0;
    xmldoc* document = build_answer(request->root);
    simple_xml_proto_send(connection, document);
    xmldoc_free(document, 1);
    return 0;
}

void release(void* user_pointer) {
    auto* connection = static_cast<simple_xml_proto*>(user_pointer);
    close(connection->socket);
    simple_xml_proto_destroy(connection);
    free(connection);
}

void serve(netthreadpool* pool, int socket) {
    netthreadpool_node* node = netthreadpool_get_node(pool);
    if (!node) load::give_up("netthreadpool_get_node");
    simple_xml_proto* connection = simple_xml_proto_create(node, nullptr, socket, answer);
    if (!connection) load::give_up("simple_xml_proto_create");
    connection->user_context = connection;
    node->release_routine = release;
    if (netthreadpool_invite_read(node) != 0) load::give_up("netthreadpool_invite_read");
}

}  // namespace

int main() {
    netthreadpool* pool = netthreadpool_create();
    if (!pool || netthreadpool_start(pool) != 0) load::give_up("netthreadpool_start");
    const int listener = load::listen_and_announce();
    for (;;) serve(pool, load::accept_client(listener));
}
