// The capacity is what the growth rule counts with; what a failed growth or a text that did not fit
// makes of capacity and length is part of the contract, so the array behind them follows a rule of
// its own:
//
//     it always holds `capacity` characters, and always the text and its terminator
//
// A count that wrapped around 0 is told from others in wide_count.hpp.

#include <ztlib/buffers/wbuffer.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>
#include <ztlib/utils/converters.h>
#include <ztlib/buffers/format_estimate.hpp>
#include <ztlib/buffers/wide_count.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>

namespace {

using zt::has_wrapped;
using zt::text_length;

constexpr const char* kModule = "./buffers/wbuffer";

uint64_t with_sign(int n) { return static_cast<uint64_t>(int64_t{n}); }

void terminate(wbuffer& b) { b.data[text_length(b)] = L'\0'; }

bool has_room(const wbuffer& b, int n) {
    return b.data && !has_wrapped(b.length) && !has_wrapped(b.capacity) &&
           b.length + with_sign(n) < b.capacity;
}

// False, with errno set and the array as it was, for none, too many and when memory is out. The
// text of a first array is made of zeros.
bool reallocate(wbuffer& b, uint64_t characters) {
    if (characters == 0 || has_wrapped(characters)) {
        errno = ENOMEM;
        return false;
    }
    void* const data = realloc(b.data, characters * sizeof(wchar_t));
    if (!data) return false;
    const bool is_first = !b.data;
    b.data = static_cast<wchar_t*>(data);
    if (is_first) wmemset(b.data, L'\0', b.length + 1);
    return true;
}

// Leaves the capacity that a failed growth leaves. Only a negative `more` can bring it above what
// it was; then the array follows, or the capacity stays.
void undo_growth(wbuffer& b, uint64_t grown, uint64_t more) {
    const uint64_t undone = (grown >> 1) - more - 1;
    if (b.data && undone > b.capacity && !has_wrapped(undone) && !reallocate(b, undone)) return;
    b.capacity = undone;
}

// Prints behind the text, into at most `limit` characters with the terminator. -1 when the text
// does not fit or cannot be printed.
int print(wbuffer& b, uint64_t limit, const wchar_t* format, va_list arguments) {
    va_list copy;
    va_copy(copy, arguments);
    const int length = vswprintf(b.data + b.length, limit, format, copy);
    va_end(copy);
    return length;
}

// The documented bound of a formatted text is the whole capacity, counted from the end of the text
// in hand. Nearly every text fits the room that is left; only for one that does not the array
// becomes as long as that bound says. False when memory is out.
bool append_formatted(wbuffer& b, const wchar_t* format, va_list arguments) {
    const uint64_t left = b.capacity > b.length ? b.capacity - b.length : 0;
    int printed = print(b, left, format, arguments);
    if (printed < 0 && left < b.capacity) {
        if (!reallocate(b, b.length + b.capacity)) {
            terminate(b);
            return false;
        }
        printed = print(b, b.capacity, format, arguments);
    }
    b.length += with_sign(printed);
    terminate(b);
    return true;
}

// Makes room for an estimate and prints. False, with errno set, when memory is out.
bool append_estimated(wbuffer& b, const wchar_t* format, va_list arguments) {
    const size_t estimate = zt::estimate_conversions(format, arguments);
    if (estimate > INT_MAX) {
        errno = ENOMEM;
        return false;
    }
    return wbuffer_expand(&b, static_cast<int>(estimate)) == 0 &&
           append_formatted(b, format, arguments);
}

int refuse_null(zt::Site site) {
    zt::report(site, LOGGER_ERROR, "empty input buffer");
    return -1;
}

}  // namespace

extern "C" wbuffer* wbuffer_create() {
    const zt::Site here{kModule, __func__};

    zt::Owned<wbuffer> b(zt::allocate_zeroed<wbuffer>());
    if (!b) {
        zt::report_call(here, "calloc", LOGGER_ERROR);
        return nullptr;
    }
    if (wbuffer_init(b.get()) != 0) {
        zt::report_call(here, "wbufffer_init", LOGGER_ERROR);
        return nullptr;
    }
    return b.release();
}

extern "C" int wbuffer_init(wbuffer* b) {
    if (!b) return -1;
    *b = {};
    return 0;
}

extern "C" void wbuffer_free(wbuffer* b, int free_record) {
    if (!b) return;
    free(b->data);
    b->data = nullptr;
    if (free_record) free(b);
}

extern "C" int wbuffer_expand(wbuffer* b, int n) {
    const zt::Site here{kModule, __func__};
    if (!b) return refuse_null(here);
    if (has_room(*b, n)) return 0;

    b->length = text_length(*b);
    if (has_wrapped(b->capacity)) b->capacity = b->length;
    const uint64_t more = with_sign(n);
    const uint64_t grown = more + 2 * b->capacity + 1;
    const uint64_t needed = b->length + with_sign(std::max(n, 0)) + 1;
    if (!reallocate(*b, grown == 0 ? 0 : std::max(grown, needed))) {
        zt::report_call(here, "realloc", LOGGER_ERROR);
        undo_growth(*b, grown, more);
        return -2;
    }
    b->capacity = grown;
    return 0;
}

extern "C" int wbuffer_append(wbuffer* b, const wchar_t* s, int n) {
    const zt::Site here{kModule, __func__};
    if (!b) return refuse_null(here);
    if (!s && n != 0) return -1;

    if (n < 0) errno = ENOMEM;
    if (n < 0 || wbuffer_expand(b, n) != 0) {
        zt::report_call(here, "wbuffer_expand", LOGGER_ERROR);
        return -2;
    }
    if (n > 0) wmemcpy(b->data + b->length, s, static_cast<size_t>(n));
    b->length += with_sign(n);
    terminate(*b);
    return 0;
}

extern "C" int wbuffer_cappend(wbuffer* b, const char* s, unsigned /*n*/) {
    const int count = str2wchr(s, nullptr);
    if (count < 0) return -1;

    if (wbuffer_expand(b, count) != 0) {
        zt::report_call({kModule, __func__}, "wbuffer_expand", LOGGER_ERROR);
        return -1;
    }
    wchar_t* end = b->data + b->length;
    const int converted = str2wchr(s, &end);
    b->length += with_sign(std::max(converted, 0));
    terminate(*b);
    return converted < 0 ? -1 : 0;
}

extern "C" int wbuffer_vappend(wbuffer* b, const wchar_t* format, ...) {
    const zt::Site here{kModule, __func__};
    if (!b) return refuse_null(here);
    if (!format) return -1;

    va_list arguments;
    va_start(arguments, format);
    const bool appended = append_estimated(*b, format, arguments);
    va_end(arguments);
    if (!appended) zt::report_call(here, "wbuffer_expand", LOGGER_ERROR);
    return appended ? 0 : -2;
}

extern "C" int wbuffer_remove(wbuffer* b, int n) {
    const zt::Site here{kModule, __func__};
    if (!b) return refuse_null(here);
    const uint64_t length = text_length(*b);
    const uint64_t gone = with_sign(n);
    if (gone == length) return wbuffer_init(b);
    if (gone > length || !b->data) return -3;

    const uint64_t rest = length - gone;
    const uint64_t room = has_wrapped(b->capacity) ? 0 : b->capacity;
    auto* array = zt::allocate<wchar_t>(std::max(room, rest + 1));
    if (!array) {
        zt::report_call(here, "malloc", LOGGER_ERROR);
        return -3;
    }
    wmemcpy(array, b->data + gone, rest);
    free(b->data);
    b->data = array;
    b->length = rest;
    terminate(*b);
    return 0;
}
