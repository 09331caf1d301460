/// @file
/// EventManager: the base of every module object. A module implements send()
/// to handle the messages delivered to it and posts messages to other event
/// managers with post().
///
/// Routing: a message to an event manager whose m_useOwnQueue is non-zero goes
/// onto that receiver's own serial queue (post_message); any other message goes
/// through the sender's context, whose queue delivers in posting order. A
/// message whose receiver or context is gone is dropped silently. send() always
/// runs on a pool thread, never on the poster's thread.
///
/// The owner sets m_self right after wrapping the new object in an
/// orv_shared_ptr (own-queue deliveries need it), and sets m_useOwnQueue before
/// the event manager is shared. Any thread may post.
#ifndef ORV_CORE_ORV_EVENTMANAGER_H
#define ORV_CORE_ORV_EVENTMANAGER_H

#include "core/orv_Context.h"
#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/DispatchQueue.h"

namespace orv {

class ORV_API EventManager {
 public:
  /// Keeps the context reference, makes the own queue, clears the flag.
  explicit EventManager(Memory::orv_weak_ptr<Context>& context);
  virtual ~EventManager();

  /// Handles one delivered message (on a pool thread).
  virtual void send(Memory::orv_shared_ptr<Message>& message) = 0;
  /// Queues a delivery of message to this event manager on its own queue.
  virtual void post_message(Memory::orv_shared_ptr<Message>& message);
  /// The queued form: calls send() with the message (an orv_shared_ptr<Message>).
  virtual void send_message(Memory::orv_shared_ptr_base* message);
  /// Hook for a module to release what it holds before it is dropped.
  virtual void release_instance();

  /// Routes message from this event manager to `to`.
  void post(Memory::orv_weak_ptr<EventManager>& to, Memory::orv_shared_ptr<Message>& message,
            unsigned char priority);

  Memory::orv_weak_ptr<Context> m_context;
  Memory::orv_weak_ptr<EventManager> m_self;
  Memory::orv_shared_ptr<Threads::DispatchQueue> m_queue;
  int m_useOwnQueue;
};

}  // namespace orv

#endif  // ORV_CORE_ORV_EVENTMANAGER_H
