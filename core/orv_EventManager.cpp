#include "core/orv_EventManager.h"

#include "core/utility/Threads/AppRunloop.h"

namespace orv {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Memory::orv_weak_ptr;
using Threads::ASRDispatchTaskWithResPointer;
using Threads::DispatchQueue;

EventManager::EventManager(orv_weak_ptr<Context>& context)
    : m_context(context), m_queue(DispatchQueue::alloc(1)), m_useOwnQueue(0) {}

EventManager::~EventManager() {}

void EventManager::send(orv_shared_ptr<Message>& /*message*/) {}

void EventManager::post(orv_weak_ptr<EventManager>& to, orv_shared_ptr<Message>& message,
                        unsigned char priority) {
  orv_shared_ptr<EventManager> target(to);
  if (target.getPTR() != nullptr && target->m_useOwnQueue != 0) {
    target->post_message(message);
    return;
  }
  orv_shared_ptr<Context> context(m_context);
  if (context.getPTR() != nullptr && target.getPTR() != nullptr) {
    context->post(m_self, to, message, priority);
  }
}

void EventManager::post_message(orv_shared_ptr<Message>& message) {
  orv_shared_ptr<EventManager> self(m_self);
  // Without a self reference there is nothing to keep this object alive
  // until delivery: the message is dropped.
  if (self.getPTR() == nullptr) return;
  m_queue->runTaskAsync(new ASRDispatchTaskWithResPointer<EventManager>(
                            self, &EventManager::send_message, message.getRefPtr()),
                        "send_message");
}

void EventManager::send_message(orv_shared_ptr_base* message) {
  if (message == nullptr) return;
  orv_shared_ptr<Message> delivered(*message);
  send(delivered);
}

void EventManager::release_instance() {}

}  // namespace orv
