#include <atomic>
#include <new>

#include "tav_bearer_source.h"

namespace {

std::atomic<tav_bearer_source_fn> g_source{nullptr};
std::atomic<void*> g_context{nullptr};

}  // namespace

void tav_bearer_source_set(tav_bearer_source_fn source, void* context) noexcept {
  g_source = nullptr;
  g_context = context;
  g_source = source;
}

int32_t tav_bearer_get(const tav_bearer_request* request, char* token, int32_t size) noexcept {
  const tav_bearer_source_fn source = g_source.load(std::memory_order_acquire);
  if (source == nullptr) return 0;
  try {
    return source(g_context, request, token, size);
  } catch (const std::bad_alloc&) {
    return 0;
  }
}
