#include "attachment.h"

#include <cstring>
#include <memory>

#include "clb.h"
#include "problem.h"
#include "utl_os.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// A multiple of 48 bytes, so that every base64 line of 64 characters is full.
constexpr size_t kPiece = 48 * 4096;

constexpr struct {
  const char* extension;
  TAV_EML_CONTENT_TYPE type;
} kExtensions[] = {
    {"pdf", TAV_EML_CT_APPLICATION_PDF},   {"ps", TAV_EML_CT_APPLICATION_POSTSCRIPT},
    {"tif", TAV_EML_CT_IMAGE_TIFF},        {"tiff", TAV_EML_CT_IMAGE_TIFF},
    {"jpg", TAV_EML_CT_IMAGE_JPEG},        {"jpeg", TAV_EML_CT_IMAGE_JPEG},
    {"xps", TAV_EML_CT_APPLICATION_XPS},   {"oxps", TAV_EML_CT_APPLICATION_OXPS},
    {"docx", TAV_EML_CT_APPLICATION_DOCX}, {"xlsx", TAV_EML_CT_APPLICATION_XLSX},
    {"pptx", TAV_EML_CT_APPLICATION_PPTX}, {"txt", TAV_EML_CT_TEXT_PLAIN},
    {"html", TAV_EML_CT_TEXT_HTML},        {"htm", TAV_EML_CT_TEXT_HTML},
};

}  // namespace

size_t attachment::read_into(tav_eml_mlutl_mail_part& part) {
  std::unique_ptr<void, decltype(&UtlOS::MemFree)> block(UtlOS::MemAllocate(kPiece + 1),
                                                         UtlOS::MemFree);
  if (!block) throw problem(EX_OSERR, "out of memory");
  char* bytes = static_cast<char*>(block.get());
  const size_t count = m_file.read(bytes, kPiece);
  if (count == 0) return 0;
  bytes[count] = '\0';
  void* data = block.release();
  long length = static_cast<long>(count);
  if (part.set_buffer(data, length) == 0) {
    UtlOS::MemFree(data);
    throw problem(EX_OSERR, "out of memory");
  }
  return count;
}

TAV_EML_CONTENT_TYPE content_type_of(const std::string& path, const std::string& given) {
  if (!given.empty()) {
    const TAV_EML_CONTENT_TYPE type = tav_eml_mlutl_mail_type::test_content_type(given.c_str());
    if (type == TAV_EML_CT_UNKNOWN ||
        (type >= TAV_EML_CT_MULTIPART && type <= TAV_EML_CT_MULTIPART_REPORT)) {
      throw problem(EX_USAGE, "--content-type " + given +
                                  " is not known; one of application/pdf, image/tiff, image/jpeg, "
                                  "text/plain, ...");
    }
    return type;
  }
  const auto dot = path.rfind('.');
  const std::string extension = dot != std::string::npos ? path.substr(dot + 1) : "";
  for (const auto& known : kExtensions) {
    if (extension.size() == std::strlen(known.extension) &&
        clb_CompStrCaseN(extension.c_str(), known.extension, extension.size()) == 0) {
      return known.type;
    }
  }
  throw problem(EX_USAGE, "the content type of " + path +
                              " does not follow from its name; give it with --content-type");
}

}  // namespace tavmail
