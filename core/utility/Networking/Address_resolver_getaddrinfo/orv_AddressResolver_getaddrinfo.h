/// @file
/// Address resolver: turns a URL whose host is a name into the same URL with
/// the host replaced by a numeric address, with a time-out and cancellation,
/// so that a caller is never stuck in a blocking name lookup.
///
/// The lookup (getaddrinfo) runs on a GlobalThreadPool thread; the caller waits
/// until the lookup, a one-shot Timer (the time-out) or cancelResolution() ends
/// the wait, and the first of them decides the result. An IPv6 address is
/// preferred; an IPv4 address is put in square brackets exactly like an IPv6
/// one ("http://[127.0.0.1]/path"), on purpose. Parsing splits a port off the
/// host only when a '/' follows it; a URL with a port and no path keeps the
/// port in the host (whose lookup then fails), also on purpose.
///
/// Result codes of resolveAddressFromHost: 0 done (the URL with the address, or
/// unchanged when the lookup failed), 1 timed out, 3 the pool refused the
/// lookup, 5 no host in the URL, 7 cancelled.
///
/// Thread safety: every field is guarded by the resolver's condition mutex;
/// cancelResolution() may be called from any thread. One resolution at a time
/// per resolver; a resolver may be reused. The pool task and the timer keep the
/// resolver alive, so the caller may drop it while they are pending.
#ifndef ORV_CORE_UTILITY_NETWORKING_ADDRESS_RESOLVER_GETADDRINFO_ORV_ADDRESSRESOLVER_GETADDRINFO_H
#define ORV_CORE_UTILITY_NETWORKING_ADDRESS_RESOLVER_GETADDRINFO_ORV_ADDRESSRESOLVER_GETADDRINFO_H

#include <stdint.h>

#include <string>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"

namespace orv {
namespace Networking {

class ORV_API orv_address_resolver {
 public:
  static Memory::orv_shared_ptr<orv_address_resolver> allocate();

  /// result and host may be null; host receives the parsed host text (before
  /// any lookup). timeoutMs <= 0 waits for the lookup however long it takes.
  virtual int resolveAddressFromHost(const char* url, Memory::orv_shared_ptr<char>* result,
                                     int timeoutMs, std::string* host) = 0;
  /// Ends a waiting resolution with 7.
  virtual void cancelResolution() = 0;
  virtual ~orv_address_resolver();

  Memory::orv_weak_ptr<orv_address_resolver> _self;
};

class ORV_API orv_address_resolver_imp : public orv_address_resolver {
 public:
  orv_address_resolver_imp();
  ~orv_address_resolver_imp() override;

  int resolveAddressFromHost(const char* url, Memory::orv_shared_ptr<char>* result, int timeoutMs,
                             std::string* host) override;
  void cancelResolution() override;

  /// Splits url into protocol (with "://"), host and path; empty parts are null.
  void parseComponents(const char* url);
  /// Task bodies (their resource is this resolver).
  void resolveThreadMain(Memory::orv_shared_ptr_base* unused);
  void resolutionTimeOut(Memory::orv_shared_ptr_base* unused);

  int32_t _timed_out;
  Threads::Synchronization::AppConditionMutex* _lock;
  char* _protocol;
  char* _path;
  char* _host;
  int32_t _cancelled;
};

}  // namespace Networking
}  // namespace orv

#endif  // ORV_CORE_UTILITY_NETWORKING_ADDRESS_RESOLVER_GETADDRINFO_ORV_ADDRESSRESOLVER_GETADDRINFO_H
