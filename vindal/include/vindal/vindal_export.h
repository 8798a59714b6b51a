#ifndef VINDAL_EXPORT_H
#define VINDAL_EXPORT_H

#if defined(_WIN32)
#  if defined(VINDAL_BUILDING_LIBRARY)
#    define VINDAL_EXPORT __declspec(dllexport)
#  else
#    define VINDAL_EXPORT __declspec(dllimport)
#  endif
#else
#  define VINDAL_EXPORT __attribute__((visibility("default")))
#endif

#endif // VINDAL_EXPORT_H
