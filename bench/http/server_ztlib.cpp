// server_ztlib PORT WORKERS process|read: the HTTP server of tests/support as a program. It answers
// until it is killed, requests on the thread that the last argument names.

#include <tests/support/http_server.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

int main(int count, char** arguments) {
    using zt_test::HttpServer;
    if (count != 4) {
        fprintf(stderr, "usage: %s PORT WORKERS process|read\n", arguments[0]);
        return 2;
    }
    const bool reads = arguments[3] == std::string_view("read");
    const HttpServer server(
        static_cast<uint16_t>(atoi(arguments[1])), atoi(arguments[2]),
        reads ? HttpServer::Answers::on_read_thread : HttpServer::Answers::on_process_thread);
    for (;;) pause();
}
