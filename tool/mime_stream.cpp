#include "mime_stream.h"

namespace {

struct function_stream {
  GMimeStream parent;
  const tavmail::byte_source* source;
  const tavmail::byte_sink* sink;
  std::exception_ptr* failure;
  gboolean has_ended;
};

struct function_stream_class {
  GMimeStreamClass parent;
};

function_stream* own(GMimeStream* stream) { return reinterpret_cast<function_stream*>(stream); }

ssize_t read_bytes(GMimeStream* stream, char* bytes, size_t size) {
  function_stream* const self = own(stream);
  try {
    const size_t count = (*self->source)(bytes, size);
    self->has_ended = count == 0 ? TRUE : FALSE;
    stream->position += static_cast<gint64>(count);
    return static_cast<ssize_t>(count);
  } catch (...) {
    *self->failure = std::current_exception();
    self->has_ended = TRUE;
    return -1;
  }
}

ssize_t write_bytes(GMimeStream* stream, const char* bytes, size_t size) {
  function_stream* const self = own(stream);
  if (*self->failure != nullptr) return -1;
  try {
    (*self->sink)({bytes, size});
    stream->position += static_cast<gint64>(size);
    return static_cast<ssize_t>(size);
  } catch (...) {
    *self->failure = std::current_exception();
    return -1;
  }
}

int nothing_to_do(GMimeStream*) { return 0; }
gboolean has_ended(GMimeStream* stream) { return own(stream)->has_ended; }
gint64 position(GMimeStream* stream) { return stream->position; }
gint64 no_length(GMimeStream*) { return -1; }

// A stream is read once, from its beginning, so that is where it stands when GMime goes there.
int go_to_begin(GMimeStream* stream) { return stream->position == 0 ? 0 : -1; }

void set_operations(gpointer type, gpointer) {
  auto* const operations = static_cast<GMimeStreamClass*>(type);
  operations->read = read_bytes;
  operations->write = write_bytes;
  operations->flush = nothing_to_do;
  operations->close = nothing_to_do;
  operations->eos = has_ended;
  operations->reset = go_to_begin;
  operations->tell = position;
  operations->length = no_length;
}

GType type_of_stream() {
  static const GType type = g_type_register_static_simple(
      GMIME_TYPE_STREAM, "TavmailStream", sizeof(function_stream_class), set_operations,
      sizeof(function_stream), nullptr, G_TYPE_FLAG_NONE);
  return type;
}

tavmail::owned<GMimeStream> new_stream(const tavmail::byte_source* source,
                                       const tavmail::byte_sink* sink,
                                       std::exception_ptr& failure) {
  auto* const stream = static_cast<GMimeStream*>(g_object_new(type_of_stream(), nullptr));
  g_mime_stream_construct(stream, 0, -1);
  own(stream)->source = source;
  own(stream)->sink = sink;
  own(stream)->failure = &failure;
  return tavmail::owned<GMimeStream>(stream);
}

}  // namespace

namespace tavmail {

owned<GMimeStream> stream_from(const byte_source& source, std::exception_ptr& failure) {
  return new_stream(&source, nullptr, failure);
}

owned<GMimeStream> stream_to(const byte_sink& sink, std::exception_ptr& failure) {
  return new_stream(nullptr, &sink, failure);
}

}  // namespace tavmail
