#include <vnjs/error.h>
#include <vnjs/host.h>
#include <vnjs/value.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "bridge/memory_budget.h"
#include "bridge/native.h"

namespace vnjs {

namespace {

/// One element of an Array of bytes. A getter can answer differently, or throw, each time it is asked.
int32_t ReadElement(v8::Isolate* isolate, v8::Local<v8::Array> array, uint32_t index) {
  const v8::TryCatch caught(isolate);
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Value> element;
  if (!array->Get(context, index).ToLocal(&element) || !(element->IsInt32() || element->IsUint32())) {
    throw VornException("Element is not a number");
  }
  const int32_t value = element->Int32Value(context).FromMaybe(-1);
  if (value < 0 || value > 255) throw VornException("Element value out of range");
  return value;
}

unsigned int CheckedSize(size_t size) {
  if (size > std::numeric_limits<unsigned int>::max()) throw VornException("Value has too many bytes");
  return static_cast<unsigned int>(size);
}

using Budget = std::shared_ptr<MemoryBudget>;

/// On whatever thread the engine frees buffers.
void FreeCopy(void* data, size_t size, void* counted) {
  const std::unique_ptr<Budget> budget(static_cast<Budget*>(counted));
  (*budget)->Give(size);
  free(data);
}

}  // namespace

ByteArray::ByteArray(const ByteArray& other) { Copy(other.m_data, other.m_size); }

ByteArray::ByteArray(unsigned int size) {
  Allocate(size, "malloc(m_size)");
  if (m_data != nullptr) memset(m_data, 0, m_size);
}

ByteArray::ByteArray(const unsigned char* data, unsigned int length) {
  if (data != nullptr) Copy(data, length);
}

ByteArray::ByteArray(v8::Local<v8::Value> value) {
  if (value.IsEmpty()) return;
  v8::Isolate* const isolate = v8::Isolate::GetCurrent();
  const ConversionContext context(isolate);
  if (value->IsArray() && !context.IsEmpty()) {
    const v8::Local<v8::Array> array = value.As<v8::Array>();
    const uint32_t length = array->Length();
    // Twice, so that refused input, however long, costs no memory.
    for (uint32_t i = 0; i < length; ++i) ReadElement(isolate, array, i);
    ByteArray bytes;
    bytes.Allocate(length, "malloc(length)");
    for (uint32_t i = 0; i < bytes.m_size; ++i) {
      bytes.m_data[i] = static_cast<unsigned char>(ReadElement(isolate, array, i));
    }
    std::swap(m_size, bytes.m_size);
    std::swap(m_data, bytes.m_data);
  } else if (value->IsString() || value->IsStringObject()) {
    const v8::Local<v8::String> text =
        value->IsString() ? value.As<v8::String>() : value.As<v8::StringObject>()->ValueOf();
    if (!text->IsOneByte()) throw VornException("String encoding is not one-byte");
    Allocate(static_cast<unsigned int>(text->Length()), "malloc(m_size)");
    text->WriteOneByte(isolate, m_data, 0, static_cast<int>(m_size), v8::String::NO_NULL_TERMINATION);
  } else if (value->IsArrayBuffer()) {
    const std::shared_ptr<v8::BackingStore> store = value.As<v8::ArrayBuffer>()->GetBackingStore();
    Copy(store->Data(), store->ByteLength());
  } else if (value->IsArrayBufferView()) {
    const v8::Local<v8::ArrayBufferView> view = value.As<v8::ArrayBufferView>();
    Allocate(CheckedSize(view->ByteLength()), "malloc(m_size)");
    view->CopyContents(m_data, m_size);
  }
}

ByteArray::~ByteArray() {
  m_size = 0;
  free(m_data);
}

ByteArray& ByteArray::operator=(const ByteArray& other) {
  if (this != &other) Copy(other.m_data, other.m_size);
  return *this;
}

v8::Local<v8::Value> ByteArray::toJS(v8::Isolate* isolate, const unsigned char* data, unsigned int size) {
  if (data == nullptr) return v8::Null(isolate);
  if (size == 0) return v8::ArrayBuffer::New(isolate, 0);
  // Not by the isolate's allocator, which refuses what the scripts' limit does not allow: the engine ends the process
  // then. What a host gives is counted, and never refused.
  auto counted = std::make_unique<Budget>(GetMemoryBudget(GetEnvironment(isolate)));
  void* const copy = malloc(size);
  if (copy == nullptr) throw std::bad_alloc();
  memcpy(copy, data, size);
  (*counted)->Add(size);
  return v8::ArrayBuffer::New(isolate,
                              v8::ArrayBuffer::NewBackingStore(copy, size, FreeCopy, counted.release()));
}

v8::Local<v8::Value> ByteArray::toJS(v8::Isolate* isolate) const { return toJS(isolate, m_data, m_size); }

bool ByteArray::canBeArray(v8::Local<v8::Value> value) {
  return value.IsEmpty() || value->IsNull() || value->IsArray() || value->IsString() ||
         value->IsStringObject() || value->IsArrayBuffer() || value->IsArrayBufferView();
}

void ByteArray::Allocate(unsigned int size, const char* text) {
  free(m_data);
  m_data = nullptr;
  m_size = size;
  if (size > 0) m_data = static_cast<unsigned char*>(_vassert(malloc(size), text));
  // A host may choose to go on without the memory; then there are no bytes either.
  if (m_data == nullptr) m_size = 0;
}

void ByteArray::Copy(const void* data, size_t size) {
  Allocate(CheckedSize(size), "malloc(m_size)");
  if (m_data != nullptr) memcpy(m_data, data, m_size);
}

}  // namespace vnjs
