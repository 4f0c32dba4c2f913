#include "common/guard.h"

#include "utl_os.h"

namespace quorvelmida {

namespace {

const char* text_of(const tav_eml_mlutl_mail_exception& exception) {
  return exception.m_pMessage != nullptr ? exception.m_pMessage : "";
}

}  // namespace

// Not in the template, which would repeat it in every operation.
void log_exception(const char* operation) noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]out of memory\n", operation);
  } catch (tav_eml_mlutl_mail_exception* thrown) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]%s\n", operation, text_of(*thrown));
    delete thrown;
  }
}

void log_mail_exception(const char* prefix, tav_eml_mlutl_mail_exception* thrown) noexcept {
  TAV_EML_LOG_ERROR("%s %s\n", prefix, text_of(*thrown));
  delete thrown;
}

void* allocate_block(const char* operation, size_t size) noexcept {
  return reallocate_block(operation, nullptr, size);
}

void* reallocate_block(const char* operation, void* block, size_t size) noexcept {
  void* const none = nullptr;
  return guarded(operation, none, [&] {
    return block == nullptr ? UtlOS::MemAllocate(size) : UtlOS::MemReallocate(block, size);
  });
}

}  // namespace quorvelmida
