#include "core/utility/Threads/AppThread.h"

#include <unistd.h>

#include <sstream>

#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/orv_log.h"

namespace orv {
namespace Threads {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Synchronization::AppLock;
using Synchronization::AppMutex;

namespace {
const size_t kMinimumStackSize = 1048576;
}  // namespace

AppThread::AppThread()
    : _started(false),
      _detached(false),
      _joinable(false),
      _thread(),
      _thread_mutex(new AppMutex(false)),
      _entry(nullptr),
      _entry_param(nullptr) {}

AppThread::~AppThread() {
  ORV_LOG_TRACE(
      "[TRACE]-[%s][%s:47]============================================= AppThread::~AppThread() "
      "====================================\n");
  detach();
  delete _entry_param;
  _entry_param = nullptr;
  delete _thread_mutex;
  _thread_mutex = nullptr;
}

void AppThread::threadMain() {
  if (_entry != nullptr) _entry(_entry_param);
  delete _entry_param;
  _entry_param = nullptr;
}

bool AppThread::run(const char* name) {
  AppLock lock(_thread_mutex);
  if (_started) return false;
  _self_strong = _self_weak;

  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) {
    ORV_LOG_FATAL("[FATAL]-[%s][%s:72]Failed init pthread attrs!\n");
    _self_strong.releaseManagedPointer();
    return false;
  }
  size_t stack_size = 0;
  if (pthread_attr_getstacksize(&attr, &stack_size) != 0) {
    ORV_LOG_FATAL("[FATAL]-[%s][%s:79]Failed get stack size!\n");
    _self_strong.releaseManagedPointer();
    pthread_attr_destroy(&attr);
    return false;
  }
  ORV_LOG_TRACE("[TRACE]-[%s][%s:84]Default thread stack size: %ld\n",
                static_cast<long>(stack_size));
  if (stack_size < kMinimumStackSize) {
    ORV_LOG_WARN(
        "[WARN]-[%s][%s:86]Default thread stack is too small, trying to increase size\n");
    int error = pthread_attr_setstacksize(&attr, kMinimumStackSize);
    if (error != 0) {
      ORV_LOG_FATAL("[FATAL]-[%s][%s:89]Failed increase stack size! %d\n", error);
      _self_strong.releaseManagedPointer();
      pthread_attr_destroy(&attr);
      return false;
    }
  }

  int created = pthread_create(&_thread, &attr, &AppThread::threadLauncher, this);
  pthread_attr_destroy(&attr);
  if (created != 0) {
    _self_strong.releaseManagedPointer();
    return false;
  }
  // The creator still holds a strong pointer, so the thread cannot have
  // been detached yet and its handle is valid here.
  if (name != nullptr) pthread_setname_np(_thread, name);
  _joinable = true;
  _started = true;
  return true;
}

void* AppThread::threadLauncher(void* thread) {
  AppThread* self = static_cast<AppThread*>(thread);
  // From here the running thread holds the reference that keeps the object
  // alive; run() no longer touches _self_strong once the thread exists.
  orv_shared_ptr<AppThread> keep(self->_self_strong);
  self->_self_strong.releaseManagedPointer();

  self->threadMain();

  int stack_marker = 0;
  ORV_LOG_TRACE("[TRACE]-[%s][%s:333]<------------------------------ %s exit\n\n",
                "threadLauncher");
  ORV_LOG_TRACE("[TRACE]-[%s][%s:334]Thread end (SP ~ %p, threadID: %s\n\n",
                static_cast<void*>(&stack_marker), getCurrentThreadIdentifier().c_str());
  // May destroy the object, on this thread.
  keep.releaseManagedPointer();
  return nullptr;
}

bool AppThread::detach() {
  AppLock lock(_thread_mutex);
  if (_detached || !_started) return true;
  // A joined thread's handle is stale: never hand it to pthread_detach.
  if (!_joinable) return true;
  if (pthread_detach(_thread) != 0) return false;
  _joinable = false;
  _detached = true;
  return true;
}

void AppThread::join() {
  {
    AppLock lock(_thread_mutex);
    if (!_joinable) return;
    _joinable = false;
  }
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:256]pthread_join + id=%lu\n",
                static_cast<unsigned long>(_thread));
  pthread_join(_thread, nullptr);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:258]pthread_join -\n");
}

bool AppThread::isCurrentThread() { return pthread_equal(pthread_self(), _thread) != 0; }

std::string AppThread::getCurrentThreadIdentifier() {
  std::ostringstream text;
  text << static_cast<unsigned long>(pthread_self());
  return text.str();
}

void AppThread::sleep(int milliseconds) { usleep(static_cast<useconds_t>(1000 * milliseconds)); }

}  // namespace Threads
}  // namespace orv
