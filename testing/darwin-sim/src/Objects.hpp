#pragma once

// The simulator's object model: every Apple object is an Object, counted
// while alive and checked at each call that takes one.

#include <atomic>
#include <string>

namespace tarskel::darwinsim {

[[noreturn]] void die(const std::string& rule);

struct Object {
  Object(const char* type, const void* madeAt);
  virtual ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  const char* type;
  const void* madeAt;
  bool immortal = false;  // the runtime's constants: retain and release do nothing
  std::atomic<int> references{1};
};

// `object` as a live T, or an abort naming `call` and the rule broken.
Object* live(const void* object, const char* call);
template <class T>
T* liveAs(const void* object, const char* call) {
  auto* typed = dynamic_cast<T*>(live(object, call));
  if (typed == nullptr) die(std::string(call) + ": an object of another type was passed");
  return typed;
}
void retain(Object* object);
void release(Object* object);

}  // namespace tarskel::darwinsim
