#pragma once

// Symbol visibility for the two shared libraries. Everything is hidden by
// default; public classes and functions are marked with the macro of the
// library that defines them.
#if defined(_WIN32)
#  define QG_DECL_EXPORT __declspec(dllexport)
#  define QG_DECL_IMPORT __declspec(dllimport)
#else
#  define QG_DECL_EXPORT __attribute__((visibility("default")))
#  define QG_DECL_IMPORT __attribute__((visibility("default")))
#endif

#if defined(QUARRYMATH_BUILDING)
#  define QUARRYMATH_API QG_DECL_EXPORT
#else
#  define QUARRYMATH_API QG_DECL_IMPORT
#endif

#if defined(QUARRYGEOM_BUILDING)
#  define QUARRYGEOM_API QG_DECL_EXPORT
#else
#  define QUARRYGEOM_API QG_DECL_IMPORT
#endif
