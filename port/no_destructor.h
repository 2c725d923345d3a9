// Storage for an object that lives until the process ends.
#ifndef KSCDP_PORT_NO_DESTRUCTOR_H_
#define KSCDP_PORT_NO_DESTRUCTOR_H_

#include <new>
#include <utility>

namespace port {

// Holds a T that is constructed with the NoDestructor and never destroyed,
// for process-wide objects that a thread of the library may still use while
// the process exits and static objects are torn down. The memory is the
// NoDestructor's own, so nothing is reported as leaked.
template <typename T>
class NoDestructor {
 public:
  template <typename... Args>
  explicit NoDestructor(Args&&... args) {
    new (m_storage) T(std::forward<Args>(args)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;

  T* get() { return std::launder(reinterpret_cast<T*>(m_storage)); }
  T& operator*() { return *get(); }
  T* operator->() { return get(); }

 private:
  alignas(T) unsigned char m_storage[sizeof(T)];
};

}  // namespace port

#endif  // KSCDP_PORT_NO_DESTRUCTOR_H_
