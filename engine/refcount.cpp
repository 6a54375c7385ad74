#include <vnjs/refcount.h>

namespace vnjs {

VRefCounter::~VRefCounter() = default;

VRefCountedObject::~VRefCountedObject() = default;

void VRefCountedObject::Release() { delete this; }

}  // namespace vnjs
