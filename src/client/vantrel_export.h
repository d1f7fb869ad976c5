#pragma once
/*
 * Marks the functions of the library's C interface. The library is built
 * with hidden visibility, so only what carries VANTREL_API is exported from
 * libvantrel.so; everything else stays inside it.
 *
 * VANTREL_EXTENSION lets the records keep their unnamed unions and flexible
 * arrays under -pedantic in C99 and C++.
 */
#if defined(__GNUC__)
#define VANTREL_API __attribute__((visibility("default")))
#define VANTREL_EXTENSION __extension__
#else
#define VANTREL_API
#define VANTREL_EXTENSION
#endif
