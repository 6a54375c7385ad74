#include "engine/extensions.h"

#include "modules/core/core.h"
#include "modules/timers/timers.h"

namespace vnjs {

namespace {

/// Every extension, in the order in which the engine learns of them.
constexpr void (*kExtensions[])() = {
    &Core::Register,
    &Timers::Register,
};

}  // namespace

void RegisterExtensions() {
  for (const auto registerExtension : kExtensions) registerExtension();
}

}  // namespace vnjs
