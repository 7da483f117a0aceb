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

// allocateMemory could not satisfy a request.
class ZUL_API OutOfMemoryException : public Exception {
public:
    using Exception::Exception;
    ~OutOfMemoryException() override;
};

// File errors: opening, reading past the end, writing, malformed stream contents.
class ZUL_API FileException : public Exception {
public:
    using Exception::Exception;
    ~FileException() override;
};

class ZUL_API FileException_FileOpenFailed : public FileException {
public:
    using FileException::FileException;
    ~FileException_FileOpenFailed() override;
};

class ZUL_API FileException_ReadFailed : public FileException {
public:
    using FileException::FileException;
    ~FileException_ReadFailed() override;
};

class ZUL_API FileException_WriteFailed : public FileException {
public:
    using FileException::FileException;
    ~FileException_WriteFailed() override;
};

}  // namespace zu
