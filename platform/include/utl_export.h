// utl_export.h - marks what the platform libraries export.

#ifndef UTL_EXPORT_H
#define UTL_EXPORT_H

#define UTL_API __attribute__((visibility("default")))

// A function in C: no exception may leave it, and callers are built without a way out for one.
#define UTL_C_API UTL_API __attribute__((nothrow))

#endif
