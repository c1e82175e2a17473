// LxApi.h - LX_API, the mark on every class and function the shared library exports.
//
// The shipped library is compiled with hidden visibility (LORVEX_HIDE_INTERNALS): only what is
// marked LX_API is in its dynamic symbol table. That is what a host uses, and the interface the
// filter plug-in (qlm13_dshow) is built on. Everything else stays inside liblorvex, so a host or a
// plug-in that reaches an internal fails to link instead of coming to depend on it.
#ifndef LX_API_H
#define LX_API_H

#if defined(__GNUC__) || defined(__clang__)
#define LX_API __attribute__((visibility("default")))
#else
#define LX_API
#endif

#endif  // LX_API_H
