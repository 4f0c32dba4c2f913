// utl_export.h - marks what the platform libraries export.

#ifndef UTL_EXPORT_H
#define UTL_EXPORT_H

#define UTL_API __attribute__((visibility("default")))

#endif
