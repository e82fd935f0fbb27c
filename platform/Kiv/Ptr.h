#pragma once
// Counted pointers for framework objects.
//
// Every entity, state machine, helper and task derives from Kiv::PtrInterface and is held through
// Kiv::Ptr<T>. The count lives in the object (intrusive), so a raw `this` can always be turned back
// into a Ptr. The framework runs on one thread: counts are plain integers, not atomics.
//
//   Kiv::Ptr<Foo> foo = new Foo(...);   // count 1
//   Kiv::Ptr<Foo const> view = foo;     // count 2
//   foo = nullptr;                      // count 1; the object goes when `view` goes

#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Kiv {

class PtrInterface {
 public:
  PtrInterface() = default;
  // A copy is a new object: it starts with no references of its own.
  PtrInterface(const PtrInterface&) : refs_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }
  virtual ~PtrInterface() = default;

  void newRef() const { ++refs_; }
  void deleteRef() const {
    if (--refs_ == 0) delete this;
  }
  std::uint32_t references() const { return refs_; }

 private:
  mutable std::uint32_t refs_ = 0;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { ref(); }
  Ptr(const Ptr& o) : p_(o.p_) { ref(); }
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) : p_(o.ptr()) {
    ref();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { unref(); }

  Ptr& operator=(const Ptr& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) {
    Ptr(p).swap(*this);
    return *this;
  }
  // The pointer is cleared before the object may go, so its destructor never sees it through
  // here.
  Ptr& operator=(std::nullptr_t) {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const { return p_; }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }

  // Hands the reference over to the caller; the Ptr becomes null.
  T* release() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(const Ptr<U>& o) const {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const { return p_ == nullptr; }
  template <class U>
  bool operator<(const Ptr<U>& o) const {
    return std::less<const void*>()(p_, o.ptr());
  }

 private:
  void ref() const {
    if (p_) p_->newRef();
  }
  void unref() const {
    if (p_) p_->deleteRef();
  }
  T* p_ = nullptr;
};

template <class T, class U>
Ptr<T> ptr_cast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Kiv

template <class T>
struct std::hash<Kiv::Ptr<T>> {
  std::size_t operator()(const Kiv::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
