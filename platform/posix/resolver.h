// resolver.h - the system's resolver, with a limit of time.

#ifndef RESOLVER_H
#define RESOLVER_H

#include <netdb.h>

#include <memory>

struct addrinfo_deleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using addrinfo_ptr = std::unique_ptr<addrinfo, addrinfo_deleter>;

// Like getaddrinfo(), but waits no longer than the port's own limit, and not at all when the port
// is woken: EAI_AGAIN then.
int resolve(const char* host, const char* service, const addrinfo& hints,
            addrinfo_ptr& list) noexcept;

#endif
