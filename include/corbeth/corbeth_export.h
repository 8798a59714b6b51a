#ifndef CORBETH_EXPORT_H
#define CORBETH_EXPORT_H

// The library is built with hidden visibility: only what carries this macro is
// part of its binary interface.
#if defined(_WIN32)
#  if defined(CORBETH_BUILDING_LIBRARY)
#    define CORBETH_EXPORT __declspec(dllexport)
#  else
#    define CORBETH_EXPORT __declspec(dllimport)
#  endif
#else
#  define CORBETH_EXPORT __attribute__((visibility("default")))
#endif

#endif // CORBETH_EXPORT_H
