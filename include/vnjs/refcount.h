#pragma once

#include <vnjs/export.h>

#include <atomic>
#include <cstdint>

namespace vnjs {

/// An atomic signed count. Both operations are sequentially consistent and return the new value.
class VNJS_API VRefCounter {
 public:
  /// Begins with that count.
  explicit VRefCounter(int initial) : m_count(initial) {}
  VRefCounter(const VRefCounter&) = delete;
  VRefCounter& operator=(const VRefCounter&) = delete;
  virtual ~VRefCounter();

  /// @{ One more, one less, each with the new value; and the value at this moment.
  int operator++() { return m_count.fetch_add(1) + 1; }
  int operator--() { return m_count.fetch_sub(1) - 1; }
  int count() const { return m_count; }
  /// @}

 private:
  std::atomic<int32_t> m_count;
};

/// Base of every object that threads share. Made with `new`, count 0; the first VRefCountedPointer that takes
/// it raises the count to 1, and the last one that lets go deletes it, on whatever thread that happens.
class VNJS_API VRefCountedObject {
 public:
  VRefCountedObject() : m_references(0) {}
  VRefCountedObject(const VRefCountedObject&) = delete;
  VRefCountedObject& operator=(const VRefCountedObject&) = delete;
  virtual ~VRefCountedObject();

  /// Deletes the object; called once, when the count has fallen to 0.
  virtual void Release();

  /// One reference more.
  void AddRef() { ++m_references; }

  /// How many references there are at this moment.
  int References() const { return m_references.count(); }

  /// Returns the new count; at 0 the object is gone.
  int ReleaseRef() {
    const int count = --m_references;
    if (count == 0) Release();
    return count;
  }

 private:
  VRefCounter m_references;
};

/// Holds one reference to a VRefCountedObject, or null. Pointers to one object may be copied and dropped on
/// any threads; one pointer variable belongs to one thread at a time.
template <typename T>
class VRefCountedPointer {
 public:
  VRefCountedPointer() = default;
  /// @{ Takes a reference of its own to what `object` or `other` points to.
  VRefCountedPointer(T* object) { copy(object); }  // NOLINT(google-explicit-constructor)
  VRefCountedPointer(const VRefCountedPointer& other) { copy(other.m_object); }
  /// @}
  ~VRefCountedPointer() {
    if (m_object != nullptr) m_object->ReleaseRef();
  }

  /// @{ Takes the new reference, then drops the one held before.
  // cppcheck-suppress operatorEqVarError; copy() assigns it
  VRefCountedPointer& operator=(T* object) {
    copy(object);
    return *this;
  }
  // cppcheck-suppress operatorEqVarError; copy() assigns it
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): copy() takes the new reference first
  VRefCountedPointer& operator=(const VRefCountedPointer& other) {
    copy(other.m_object);
    return *this;
  }
  /// @}

  /// @{ The object, which stays this pointer's; null when it is empty.
  T* get_ptr() const { return m_object; }
  T* operator->() const { return m_object; }
  /// @}

  /// Whether it holds nothing.
  bool is_empty() const { return m_object == nullptr; }

 private:
  /// Takes the new reference before it drops the old one: assigning a pointer to itself keeps the object.
  void copy(T* object) {
    T* const old = m_object;
    m_object = object;
    if (object != nullptr) object->AddRef();
    if (old != nullptr) old->ReleaseRef();
  }

  T* m_object = nullptr;
};

}  // namespace vnjs
