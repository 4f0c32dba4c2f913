// tav_eml_export.h - marks what libtaveml exports.

#ifndef TAV_EML_EXPORT_H
#define TAV_EML_EXPORT_H

#define TAVEML_API __attribute__((visibility("default")))
// A private member of an exported class that is nobody else's business.
#define TAVEML_LOCAL __attribute__((visibility("hidden")))

#endif
