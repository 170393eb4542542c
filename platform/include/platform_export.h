// Symbol visibility of the platform stand-ins (library elem-platform).

#ifndef PLATFORM_INCLUDE_PLATFORM_EXPORT_H_
#define PLATFORM_INCLUDE_PLATFORM_EXPORT_H_

// Marks a declaration as part of elem-platform's binary interface.
#define ELEM_PLATFORM_EXPORT __attribute__((visibility("default")))

#endif  // PLATFORM_INCLUDE_PLATFORM_EXPORT_H_
