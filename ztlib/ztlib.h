/* Every facility of the library. A host that wants only some includes their own headers. */
#ifndef ZTLIB_ZTLIB_H
#define ZTLIB_ZTLIB_H

#include <ztlib/logger.h>
#include <ztlib/pthread_utils.h>
#include <ztlib/xmldoc/xmldoc.h>
#include <ztlib/zt_library.h>

#endif
