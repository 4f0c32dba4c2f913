// mime_stream.h - streams of GMime over functions.

#ifndef MIME_STREAM_H
#define MIME_STREAM_H

#include <gmime/gmime.h>

#include <exception>
#include <memory>

#include "mime_library.h"

namespace tavmail {

struct unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename Object>
using owned = std::unique_ptr<Object, unref>;

// New streams. What a function throws is kept in `failure`, as nothing may pass through C; GMime
// then ends with an error. The functions outlive the stream.
owned<GMimeStream> stream_from(const byte_source& source, std::exception_ptr& failure);
owned<GMimeStream> stream_to(const byte_sink& sink, std::exception_ptr& failure);

}  // namespace tavmail

#endif
