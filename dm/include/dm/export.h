// Export macro of the dm library. Everything not marked DM_API stays hidden.
#pragma once

#if defined(_WIN32)
#if defined(DM_BUILDING_LIBRARY)
#define DM_API __declspec(dllexport)
#else
#define DM_API __declspec(dllimport)
#endif
#else
#define DM_API __attribute__((visibility("default")))
#endif

#if defined(__GNUC__) || defined(__clang__)
#define DM_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define DM_PRINTF(fmt, args)
#endif
