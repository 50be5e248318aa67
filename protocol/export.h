// Symbol visibility for the plug-in. The library is built with hidden
// visibility; only what is marked LD_EXPORT is part of its binary interface.
#pragma once

#if defined(_WIN32)
#define LD_EXPORT __declspec(dllexport)
#else
#define LD_EXPORT __attribute__((visibility("default")))
#endif

// The plug-in entry points have C linkage so that hosts find them by their
// plain names with dlsym.
#define LD_C_EXPORT extern "C" LD_EXPORT
