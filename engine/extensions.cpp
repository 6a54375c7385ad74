#include "engine/extensions.h"

#include "modules/console/console.h"
#include "modules/core/core.h"
#include "modules/fs/file_system.h"
#include "modules/system/system.h"
#include "modules/timers/timers.h"
#include "modules/xml/xml.h"

namespace vnjs {

namespace {

/// Every extension, in the order in which the engine learns of them.
constexpr void (*kExtensions[])() = {
    &Core::Register,       &Timers::Register, &System::Register,
    &FileSystem::Register, &Xml::Register,    &Console::Register,
};

}  // namespace

void RegisterExtensions() {
  for (const auto registerExtension : kExtensions) registerExtension();
}

}  // namespace vnjs
