/// @file
/// Message routing between the modules of one context.
///
/// A Message is what modules post: a name, a target, a shared parameter map
/// and a byte buffer; the library routes and destroys messages and never reads
/// them. A Context owns a serial dispatch queue through which it delivers
/// messages to its event managers: every delivery of one context runs on a pool
/// thread, one at a time, in posting order (the priority is accepted and not
/// used). A Task is one queued delivery; it holds its receiver weakly, so a
/// receiver destroyed before delivery gets nothing.
///
/// Thread safety: any thread may post. release_instance() cancels the queue
/// and waits for the running delivery, so it must not be called from a
/// delivery of the same context (it would wait for itself); afterwards the
/// context delivers nothing more.
#ifndef ORV_CORE_ORV_CONTEXT_H
#define ORV_CORE_ORV_CONTEXT_H

#include <stdint.h>

#include <atomic>
#include <string>

#include "core/orv_api.h"
#include "core/orv_param.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/DispatchQueue.h"

namespace orv {

class EventManager;

struct ORV_API Message {
  std::string m_name;    ///< command or callback name
  std::string m_target;  ///< receiver's name, where a module uses one
  Memory::orv_shared_ptr<ParamMap> m_params;
  Memory::orv_shared_ptr<char> m_data;
  int m_dataLength = 0;
};

struct ORV_API Task {
  Memory::orv_weak_ptr<EventManager> m_target;
  Memory::orv_shared_ptr<Message> m_message;
};

class ORV_API Context {
 public:
  /// A context with a new serial queue and its self reference set.
  static Memory::orv_shared_ptr<Context> newContext();

  virtual ~Context();
  /// Delivers one Task (an orv_shared_ptr<Task>); runs on the context queue.
  virtual void run(Memory::orv_shared_ptr_base* task);

  /// Queues the delivery of message to `to`. `from` and `priority` are not
  /// used: deliveries keep posting order.
  void post(Memory::orv_weak_ptr<EventManager>& from, Memory::orv_weak_ptr<EventManager>& to,
            Memory::orv_shared_ptr<Message>& message, unsigned char priority);
  /// Cancels the queue (pending deliveries dropped, later posts refused) and
  /// waits until the running delivery ends.
  void release_instance();

  Memory::orv_shared_ptr<Threads::DispatchQueue> m_queue;
  Memory::orv_weak_ptr<Context> m_self;
  std::atomic<int32_t> m_postedCount;

 protected:
  Context();
};

}  // namespace orv

#endif  // ORV_CORE_ORV_CONTEXT_H
