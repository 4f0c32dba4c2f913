#include "wiretap.h"

#include <atomic>
#include <new>

namespace {

std::atomic<tav_wiretap_fn> g_observer{nullptr};
std::atomic<void*> g_context{nullptr};

}  // namespace

void tav_wiretap_set(tav_wiretap_fn observer, void* context) noexcept {
  g_observer = nullptr;
  g_context = context;
  g_observer = observer;
}

bool has_wiretap() { return g_observer.load(std::memory_order_acquire) != nullptr; }

void wiretap(TAV_WIRETAP_EVENT event, std::string_view bytes) noexcept {
  const tav_wiretap_fn observer = g_observer.load(std::memory_order_acquire);
  if (observer == nullptr) return;
  try {
    observer(g_context, event, bytes.data(), bytes.size());
  } catch (const std::bad_alloc&) {
    // The connection does not suffer because there is no room to note what it does.
  }
}
