// What the daemon answers to an HTTP request.
#pragma once

#include <ztlib/htmldoc/htmldoc.h>

#include <memory>

namespace dashboard {

struct FreeHttp {
    void operator()(htmldoc* document) const { htmldoc_free(document, 1); }
};
using Http = std::unique_ptr<htmldoc, FreeHttp>;

// An empty document. Throws std::bad_alloc.
Http make_http();

struct Answer {
    Http response;
    bool is_live = false;  // the connection goes on as a WebSocket; else it ends
};

//   GET, HEAD /      the page
//   GET /live        a WebSocket, for a page of this server's own: a browser that says that it asks
//                    for another one is refused, and, on a server for this host alone
//                    (`local_only`), one that knows the server under a name that another could have
//                    given it
//
// Everything else gets the error that it is. Throws std::bad_alloc.
Answer answer_to(htmldoc& request, bool local_only);

// The answer to a request that is none (400), or one that is too long (431).
enum class Refusal { malformed, too_long };
Http refuse(Refusal why);

}  // namespace dashboard
