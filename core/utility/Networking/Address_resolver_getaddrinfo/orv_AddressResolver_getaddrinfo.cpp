#include "core/utility/Networking/Address_resolver_getaddrinfo/orv_AddressResolver_getaddrinfo.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/orv_Timer.h"
#include "core/utility/orv_log.h"

namespace orv {
namespace Networking {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Memory::Singleton;
using Threads::ASRDispatchTaskBase;
using Threads::ASRDispatchTaskWithResPointer;
using Threads::GlobalThreadPool;
using Threads::Timer;

orv_address_resolver::~orv_address_resolver() {}

orv_shared_ptr<orv_address_resolver> orv_address_resolver::allocate() {
  orv_shared_ptr<orv_address_resolver> resolver(new orv_address_resolver_imp());
  resolver->_self = resolver;
  return resolver;
}

orv_address_resolver_imp::orv_address_resolver_imp()
    : _timed_out(0),
      _lock(new Threads::Synchronization::AppConditionMutex(0)),
      _protocol(nullptr),
      _path(nullptr),
      _host(nullptr),
      _cancelled(0) {}

orv_address_resolver_imp::~orv_address_resolver_imp() {
  delete[] _protocol;
  delete[] _path;
  delete[] _host;
  delete _lock;
}

// A fresh NUL-terminated copy of [begin, begin + length), or null when empty.
static char* copy_part(const char* begin, size_t length) {
  if (length == 0) return nullptr;
  char* part = new char[length + 1];
  memcpy(part, begin, length);
  part[length] = '\0';
  return part;
}

void orv_address_resolver_imp::parseComponents(const char* url) {
  const char* scheme_end = strstr(url, "://");
  const char* host_start = scheme_end != nullptr ? scheme_end + 3 : url;
  const char* slash = strchr(host_start, '/');
  const char* colon = strchr(host_start, ':');
  const char* host_end;
  if (slash != nullptr && colon != nullptr && colon < slash) {
    host_end = colon;
  } else if (slash != nullptr) {
    host_end = slash;
  } else {
    host_end = host_start + strlen(host_start);
  }
  delete[] _protocol;
  delete[] _host;
  delete[] _path;
  _protocol = copy_part(url, static_cast<size_t>(host_start - url));
  _host = copy_part(host_start, static_cast<size_t>(host_end - host_start));
  _path = copy_part(host_end, strlen(host_end));
}

static size_t length_of(const char* s) { return s != nullptr ? strlen(s) : 0; }

int orv_address_resolver_imp::resolveAddressFromHost(const char* url, orv_shared_ptr<char>* result,
                                                     int timeoutMs, std::string* host) {
  _lock->Lock();
  _cancelled = 0;
  _timed_out = 0;
  parseComponents(url != nullptr ? url : "");
  bool has_host = _host != nullptr;
  if (has_host && host != nullptr) *host = _host;
  ORV_LOG_TRACE("[TRACE]-[%s][%s:194]PROTO: %s HOST: %s PATH: %s\n\n",
                _protocol != nullptr ? _protocol : "(null)", has_host ? _host : "(null)",
                _path != nullptr ? _path : "(null)");
  _lock->Unlock();
  if (!has_host) return 5;

  _lock->Lock();
  if (_cancelled != 0) {
    _lock->Unlock();
    return 7;
  }
  orv_shared_ptr<orv_address_resolver_imp> self(_self);
  orv_shared_ptr<ASRDispatchTaskBase> lookup(new ASRDispatchTaskWithResPointer<orv_address_resolver_imp>(
      self, &orv_address_resolver_imp::resolveThreadMain, nullptr));
  if (!Singleton<GlobalThreadPool>::instance()->runTaskAsync(lookup, "resolveThreadMain")) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:205]Failed to start thread for address resolution\n");
    _lock->Unlock();
    return 3;
  }
  orv_shared_ptr<Timer> timer;
  if (timeoutMs > 0) {
    orv_shared_ptr<ASRDispatchTaskBase> timeout(
        new ASRDispatchTaskWithResPointer<orv_address_resolver_imp>(
            self, &orv_address_resolver_imp::resolutionTimeOut, nullptr));
    timer = Timer::createTimerWithTask(timeout, timeoutMs, false);
  }
  _lock->unlockWithCondition(1);
  _lock->lockWhenCondition(0);
  if (timer.getPTR() != nullptr) timer->cancel();

  if (_cancelled != 0) {
    _lock->Unlock();
    return 7;
  }
  if (_timed_out != 0) {
    _lock->Unlock();
    return 1;
  }
  if (result != nullptr) {
    size_t length = length_of(_protocol) + length_of(_host) + length_of(_path) + 1;
    char* text = new char[length];
    memset(text, 0, length);
    if (_protocol != nullptr) strcat(text, _protocol);
    strcat(text, _host);
    if (_path != nullptr) strcat(text, _path);
    *result = orv_shared_ptr<char>(text, orv_shared_ptr<char>::arrayDestructor);
  }
  _lock->Unlock();
  return 0;
}

void orv_address_resolver_imp::cancelResolution() {
  _lock->Lock();
  _cancelled = 1;
  _lock->unlockWithCondition(0);
}

void orv_address_resolver_imp::resolveThreadMain(orv_shared_ptr_base* /*unused*/) {
  _lock->Lock();
  bool cancelled = _cancelled != 0;
  std::string name = _host != nullptr ? _host : "";
  _lock->Unlock();
  if (cancelled) return;

  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  struct addrinfo* list = nullptr;
  int error = getaddrinfo(name.c_str(), nullptr, &hints, &list);

  _lock->Lock();
  if (_cancelled != 0 || _lock->_condition != 1) {
    _lock->Unlock();
    if (list != nullptr) freeaddrinfo(list);
    return;
  }
  if (error != 0) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:118]getaddrinfo failed with error %d\n", error);
    _lock->unlockWithCondition(0);
    return;
  }
  char ipv6[92] = "";
  char ipv4[92] = "";
  for (struct addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET6 && ipv6[0] == '\0') {
      inet_ntop(AF_INET6, &reinterpret_cast<struct sockaddr_in6*>(entry->ai_addr)->sin6_addr, ipv6,
                sizeof(ipv6));
    } else if (entry->ai_family == AF_INET && ipv4[0] == '\0') {
      inet_ntop(AF_INET, &reinterpret_cast<struct sockaddr_in*>(entry->ai_addr)->sin_addr, ipv4,
                sizeof(ipv4));
    }
  }
  const char* chosen = ipv6[0] != '\0' ? ipv6 : (ipv4[0] != '\0' ? ipv4 : nullptr);
  if (chosen != nullptr) {
    size_t length = strlen(chosen) + 3;
    char* bracketed = new char[length];
    snprintf(bracketed, length, "[%s]", chosen);
    delete[] _host;
    _host = bracketed;
    if (chosen == ipv6) {
      ORV_LOG_TRACE("[TRACE]-[%s][%s:160]Resolved address as IPv6: %s\n", ipv6);
    } else {
      ORV_LOG_TRACE("[TRACE]-[%s][%s:164]Resolved address as IPv4: %s\n", ipv4);
    }
  } else {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:146]getaddrinfo didn't give any valid data\n");
  }
  _timed_out = 0;
  _lock->unlockWithCondition(0);
  freeaddrinfo(list);
}

void orv_address_resolver_imp::resolutionTimeOut(orv_shared_ptr_base* /*unused*/) {
  _lock->Lock();
  if (_cancelled == 0 && _lock->_condition == 1) {
    _timed_out = 1;
    _lock->unlockWithCondition(0);
  } else {
    _lock->Unlock();
  }
}

}  // namespace Networking
}  // namespace orv
