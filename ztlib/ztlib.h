/* Every facility of the library. A host that wants only some includes their own headers. */
#ifndef ZTLIB_ZTLIB_H
#define ZTLIB_ZTLIB_H

#include <ztlib/logger.h>
#include <ztlib/pthread_utils.h>
#include <ztlib/zt_library.h>

#include <ztlib/hashtable/hashtable.h>
#include <ztlib/lists/circular_list.h>
#include <ztlib/lists/linked_list.h>
#include <ztlib/queue/queue.h>
#include <ztlib/sptrlist/sptrlist.h>

#include <ztlib/buffers/buffer.h>
#include <ztlib/buffers/net_buffer.h>
#include <ztlib/buffers/wbuffer.h>
#include <ztlib/utils/converters.h>
#include <ztlib/utils/network.h>
#include <ztlib/utils/path.h>
#include <ztlib/utils/split.h>
#include <ztlib/utils/uid.h>
#include <ztlib/utils/void_ptr.h>

#include <ztlib/htmldoc/htmldoc.h>
#include <ztlib/htmldoc/http.h>
#include <ztlib/xmldoc/wxmldoc.h>
#include <ztlib/xmldoc/xmldoc.h>

#include <ztlib/network/http_client.h>
#include <ztlib/network/lead4.h>
#include <ztlib/network/protocols/rtp/rtp.h>
#include <ztlib/network/socket_client/socket_client.h>
#include <ztlib/network/socket_listener.h>
#include <ztlib/network/websocket.h>

#include <ztlib/pools/threadpool/netthreadpool.h>
#include <ztlib/pools/threadpool/protocols/simple_xml.h>
#include <ztlib/pools/threadpool/threadpool.h>

#include <ztlib/ipc/async/async_request.h>
#include <ztlib/ipc/async/ipc_async_reader.h>
#include <ztlib/ipc/pipe/named_pipe.h>
#include <ztlib/ipc/sync/requests_processor.h>

#include <ztlib/db/filedb_fixed.h>

#include <ztlib/sutils/aes256.h>
#include <ztlib/sutils/hash.h>
#include <ztlib/sutils/openssl_ca.h>
#include <ztlib/sutils/openssl_rsa.h>

#include <ztlib/scheduler/sched_singlethread.h>
#include <ztlib/scheduler/sched_task.h>

#endif
