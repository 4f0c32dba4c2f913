// tav_eml_export.h - marks what libtaveml exports.

#ifndef TAV_EML_EXPORT_H
#define TAV_EML_EXPORT_H

#define TAVEML_API __attribute__((visibility("default")))
// Hides a private member of an exported class.
#define TAVEML_LOCAL __attribute__((visibility("hidden")))

#endif
