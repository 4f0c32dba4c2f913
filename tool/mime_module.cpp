// The module over GMime and GIO.

#include <gio/gio.h>
#include <gmime/gmime.h>

#include "mime_library.h"
#include "mime_stream.h"
#include "module.h"
#include "problem.h"

namespace tavmail {

namespace {

using text_ptr = std::unique_ptr<char, decltype(&g_free)>;

void add_addresses(InternetAddressList* list, std::vector<std::string>& all) {
  for (int i = 0; i < internet_address_list_length(list); ++i) {
    InternetAddress* const address = internet_address_list_get_address(list, i);
    if (INTERNET_ADDRESS_IS_GROUP(address)) {
      add_addresses(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)), all);
    } else if (const char* bare =
                   internet_address_mailbox_get_idn_addr(INTERNET_ADDRESS_MAILBOX(address))) {
      all.emplace_back(bare);
    }
  }
}

// Composes one mail. Its streams live as long as it does.
class composer {
 public:
  explicit composer(const byte_sink& take) : m_take(take) {}

  void run(const mime_mail& mail) {
    const owned<GMimeMessage> message(g_mime_message_new(FALSE));
    GMimeHeaderList* const header = GMIME_OBJECT(message.get())->headers;
    for (const header_field& field : mail.header) add_as_it_is(header, field);
    for (const header_field& field : mail.own) {
      g_mime_header_list_append(header, field.name.c_str(), field.value.c_str(), "utf-8");
    }
    g_mime_message_set_mime_part(message.get(), whole(mail).get());
    const owned<GMimeStream> out = stream_to(m_take, m_failure);
    const std::unique_ptr<GMimeFormatOptions, decltype(&g_mime_format_options_free)> format(
        g_mime_format_options_new(), g_mime_format_options_free);
    // As the facade writes names of files.
    g_mime_format_options_set_param_encoding_method(format.get(),
                                                    GMIME_PARAM_ENCODING_METHOD_RFC2047);
    const ssize_t written =
        g_mime_object_write_to_stream(GMIME_OBJECT(message.get()), format.get(), out.get());
    if (m_failure) std::rethrow_exception(m_failure);
    if (written < 0) throw problem(EX_SOFTWARE, "the mail cannot be composed");
  }

 private:
  static void add_as_it_is(GMimeHeaderList* header, const header_field& field) {
    g_mime_header_list_append(header, field.name.c_str(), "", nullptr);
    const int last = g_mime_header_list_get_count(header) - 1;
    g_mime_header_set_raw_value(g_mime_header_list_get_header_at(header, last),
                                field.value.c_str());
  }

  owned<GMimeObject> whole(const mime_mail& mail) {
    std::vector<owned<GMimeObject>> parts;
    for (const mime_text& text : mail.texts) parts.push_back(part_of(text));
    if (parts.size() > 1) parts = one(multipart("alternative", std::move(parts)));
    if (mail.files.empty()) return std::move(parts.front());
    for (const mime_file& file : mail.files) parts.push_back(part_of(file));
    owned<GMimeObject> all = multipart("mixed", std::move(parts));
    // Said at the top as well (RFC 2045 6.4).
    g_mime_object_set_header(all.get(), "Content-Transfer-Encoding", "8bit", nullptr);
    return all;
  }

  static std::vector<owned<GMimeObject>> one(owned<GMimeObject> part) {
    std::vector<owned<GMimeObject>> parts;
    parts.push_back(std::move(part));
    return parts;
  }

  static owned<GMimeObject> multipart(const char* subtype, std::vector<owned<GMimeObject>> parts) {
    GMimeMultipart* const all = g_mime_multipart_new_with_subtype(subtype);
    for (const owned<GMimeObject>& part : parts) g_mime_multipart_add(all, part.get());
    return owned<GMimeObject>(GMIME_OBJECT(all));
  }

  owned<GMimeObject> part_of(const mime_text& text) {
    const owned<GMimeStream> bytes(
        g_mime_stream_mem_new_with_buffer(text.bytes.data(), text.bytes.size()));
    return new_part("text/" + text.subtype, text.char_set, bytes.get(), true);
  }

  owned<GMimeObject> part_of(const mime_file& file) {
    const owned<GMimeStream> bytes = stream_from(file.read, m_failure);
    owned<GMimeObject> part = new_part(file.media_type, file.char_set, bytes.get(), file.is_base64);
    g_mime_object_set_disposition(part.get(), GMIME_DISPOSITION_ATTACHMENT);
    g_mime_part_set_filename(GMIME_PART(part.get()), file.name.c_str());
    if (file.is_fax_ignored) {
      g_mime_object_set_header(part.get(), "Content-X-CIAJWNETFAX", "IGNORE", nullptr);
    }
    return part;
  }

  static owned<GMimeObject> new_part(const std::string& type, const std::string& char_set,
                                     GMimeStream* bytes, bool is_base64) {
    const size_t slash = type.find('/');
    GMimePart* const part =
        g_mime_part_new_with_type(type.substr(0, slash).c_str(), type.substr(slash + 1).c_str());
    if (!char_set.empty()) {
      g_mime_object_set_content_type_parameter(GMIME_OBJECT(part), "charset", char_set.c_str());
    }
    const owned<GMimeDataWrapper> content(
        g_mime_data_wrapper_new_with_stream(bytes, GMIME_CONTENT_ENCODING_DEFAULT));
    g_mime_part_set_content(part, content.get());
    g_mime_part_set_content_encoding(
        part, is_base64 ? GMIME_CONTENT_ENCODING_BASE64 : GMIME_CONTENT_ENCODING_8BIT);
    return owned<GMimeObject>(GMIME_OBJECT(part));
  }

  const byte_sink& m_take;
  std::exception_ptr m_failure;
};

class gmime_library : public mime_library {
 public:
  gmime_library() { g_mime_init(); }

  std::string media_type(const std::string& file_name) const override {
    const text_ptr type(g_content_type_guess(file_name.c_str(), nullptr, 0, nullptr), g_free);
    const text_ptr media(g_content_type_get_mime_type(type.get()), g_free);
    return media ? media.get() : "application/octet-stream";
  }

  std::vector<std::string> addresses(const std::string& value) const override {
    std::vector<std::string> all;
    const owned<InternetAddressList> list(internet_address_list_parse(nullptr, value.c_str()));
    if (list) add_addresses(list.get(), all);
    return all;
  }

  void compose(const mime_mail& mail, const byte_sink& take) const override {
    composer(take).run(mail);
  }
};

}  // namespace

}  // namespace tavmail

const void* tavmail_module() {
  static const tavmail::gmime_library library;
  return static_cast<const tavmail::mime_library*>(&library);
}
