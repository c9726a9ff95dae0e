// The library's conventions for saying that something failed, each written once.
#pragma once

#include <ztlib/base/site.h>
#include <ztlib/logger.h>

namespace zt {

// One log record with this text, already complete or with its printf arguments.
void report(Site site, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// A system or library call failed: logs "<call>(): <text of errno>". Modules spell the call's name
// as they always have, parentheses included or not.
void report_call(Site site, const char* call, int level = LOGGER_WARNING);

// A lock could not be made, taken or released. Prints
//     <module>:<function>: <call>(): <text of errno> (<code>)
// on standard error and ends the process with exit(-1). The text is errno's as it stands, the
// number is the code that the call returned.
[[noreturn]] void fatal_call(Site site, const char* call, int code);

// As fatal_call(), with errno itself as the number.
[[noreturn]] void fatal_call_errno(Site site, const char* call, int code);

// A lock could not be destroyed: the same line as fatal_call() prints, and the caller goes on.
void print_call(Site site, const char* call, int code);

}  // namespace zt
