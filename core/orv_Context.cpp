#include "core/orv_Context.h"

#include "core/orv_EventManager.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/orv_log.h"

namespace orv {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Memory::orv_weak_ptr;
using Threads::ASRDispatchTaskWithResPointer;
using Threads::DispatchQueue;

Context::Context() : m_queue(DispatchQueue::alloc(1)), m_postedCount(0) {}

Context::~Context() {
  if (m_queue.getPTR() != nullptr) m_queue->cancel();
  m_queue.releaseManagedPointer();
}

orv_shared_ptr<Context> Context::newContext() {
  orv_shared_ptr<Context> context(new Context());
  context->m_self = context;
  return context;
}

void Context::post(orv_weak_ptr<EventManager>& /*from*/, orv_weak_ptr<EventManager>& to,
                   orv_shared_ptr<Message>& message, unsigned char /*priority*/) {
  orv_shared_ptr<Task> delivery(new Task());
  delivery->m_target = to;
  delivery->m_message = message;
  orv_shared_ptr<Context> self(m_self);
  m_queue->runTaskAsync(
      new ASRDispatchTaskWithResPointer<Context>(self, &Context::run, delivery.getRefPtr()), "run");
  m_postedCount.fetch_add(1, std::memory_order_relaxed);
}

void Context::run(orv_shared_ptr_base* task) {
  if (task == nullptr) return;
  orv_shared_ptr<Task> delivery(*task);
  if (delivery.getPTR() == nullptr) return;
  orv_shared_ptr<EventManager> target(delivery->m_target);
  if (target.getPTR() != nullptr) target->send(delivery->m_message);
}

void Context::release_instance() {
  if (m_queue.getPTR() == nullptr) return;
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:91][Context::release_instance] cancel ctxQueue\n");
  m_queue->cancel_sync();
}

}  // namespace orv
