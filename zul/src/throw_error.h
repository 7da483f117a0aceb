// Throwing runtime exceptions with a formatted text. The exception classes inherit their
// printf-style constructor, and GCC cannot pass arguments through an inherited ellipsis, so
// the text is set on a default-constructed exception instead.
#pragma once

#include <cstdarg>

#include "zu/exception.h"

namespace zu {
namespace detail {

template <typename ExceptionType>
[[noreturn]] ZU_PRINTF(1, 2) void throwError(const char* format, ...) {
    ExceptionType error;
    va_list args;
    va_start(args, format);
    error.setErrorV(format, args);
    va_end(args);
    throw error;
}

}  // namespace detail
}  // namespace zu
