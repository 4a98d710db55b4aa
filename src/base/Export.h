// The camera classes are exported for callers that use them directly.
#pragma once

#if defined(_WIN32)
#  if defined(KOVCAMERA2_BUILD)
#    define KOV_CLASS __declspec(dllexport)
#  elif defined(KOVCAMERA2_STATIC)
#    define KOV_CLASS
#  else
#    define KOV_CLASS __declspec(dllimport)
#  endif
#else
#  define KOV_CLASS __attribute__((visibility("default")))
#endif
