#include "zu/exception.h"

namespace zu {

Exception::Exception(const char* format, ...) {
    va_list args;
    va_start(args, format);
    m_error.formatV(format, args);
    va_end(args);
}

Exception::~Exception() = default;

void Exception::setError(const char* format, ...) {
    va_list args;
    va_start(args, format);
    m_error.formatV(format, args);
    va_end(args);
}

void Exception::setErrorV(const char* format, va_list args) {
    m_error.formatV(format, args);
}

// Out-of-line destructors anchor each class's type information in the library, so that a
// catch in the game matches a throw from inside it.
ZU_DEFINE_EXCEPTION(OutOfMemoryException);
ZU_DEFINE_EXCEPTION(FileException);
ZU_DEFINE_EXCEPTION(FileException_FileOpenFailed);
ZU_DEFINE_EXCEPTION(FileException_ReadFailed);
ZU_DEFINE_EXCEPTION(FileException_WriteFailed);

}  // namespace zu
