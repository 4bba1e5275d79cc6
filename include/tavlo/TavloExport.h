// Symbol visibility for the shared library: only what carries TAVLO_EXPORT is exported.
#pragma once

#if defined(TAVLO_BUILDING_LIBRARY)
#define TAVLO_EXPORT __attribute__((visibility("default")))
#else
#define TAVLO_EXPORT
#endif
