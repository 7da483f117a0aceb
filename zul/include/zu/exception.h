// Exceptions of the runtime: a formatted error text, set with setError.
#pragma once

#include <exception>

#include "zu/export.h"
#include "zu/string.h"

namespace zu {

class ZUL_API Exception : public std::exception {
public:
    Exception() = default;
    // The error text, formatted with printf rules.
    explicit Exception(const char* format, ...) ZU_PRINTF(2, 3);
    ~Exception() override;

    void setError(const char* format, ...) ZU_PRINTF(2, 3);
    void setErrorV(const char* format, va_list args);
    const char* getError() const { return m_error.c_str(); }
    const char* what() const noexcept override { return m_error.c_str(); }

private:
    InplaceString<256> m_error;
};

// Declares an exception class derived from `Base` with the same constructors as Exception.
// Pair with ZU_DEFINE_EXCEPTION in one source file. `API` is the export macro of its library.
#define ZU_DECLARE_EXCEPTION(API, Name, Base)                   \
    class API Name : public Base {                              \
    public:                                                     \
        Name() = default;                                       \
        explicit Name(const char* format, ...) ZU_PRINTF(2, 3); \
        ~Name() override;                                       \
    }

#define ZU_DEFINE_EXCEPTION(Name)         \
    Name::Name(const char* format, ...) { \
        va_list args;                     \
        va_start(args, format);           \
        setErrorV(format, args);          \
        va_end(args);                     \
    }                                     \
    Name::~Name() = default

// allocateMemory could not satisfy a request.
ZU_DECLARE_EXCEPTION(ZUL_API, OutOfMemoryException, Exception);
// File errors: opening, reading past the end, writing, malformed stream contents.
ZU_DECLARE_EXCEPTION(ZUL_API, FileException, Exception);
ZU_DECLARE_EXCEPTION(ZUL_API, FileException_FileOpenFailed, FileException);
ZU_DECLARE_EXCEPTION(ZUL_API, FileException_ReadFailed, FileException);
ZU_DECLARE_EXCEPTION(ZUL_API, FileException_WriteFailed, FileException);

}  // namespace zu
