// Export macro of the zul runtime library. Everything not marked ZUL_API stays hidden.
#pragma once

#if defined(_WIN32)
#if defined(ZUL_BUILDING_LIBRARY)
#define ZUL_API __declspec(dllexport)
#else
#define ZUL_API __declspec(dllimport)
#endif
#else
#define ZUL_API __attribute__((visibility("default")))
#endif

#if defined(__GNUC__) || defined(__clang__)
// Lets the compiler check printf-style format strings (fmt is the 1-based argument index).
#define ZU_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define ZU_PRINTF(fmt, args)
#endif
