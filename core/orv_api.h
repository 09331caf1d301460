/// @file
/// Export marker of liborv. The library is built with hidden visibility: only
/// declarations marked ORV_API are part of its binary interface.
///
/// Threading: a compile-time marker only; it has no run-time behaviour.
#ifndef ORV_CORE_ORV_API_H
#define ORV_CORE_ORV_API_H

#define ORV_API __attribute__((visibility("default")))

#endif  // ORV_CORE_ORV_API_H
