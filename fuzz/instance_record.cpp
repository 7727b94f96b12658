// Any bytes as a record of the Filter Manager.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fsfilter/filter_instances.h"
#include "platform/scripted/attached_machine.h"
#include "platform/scripted/machine.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using scripted::now;
  now = scripted::attachedMachine();
  now.instances[0].assign(reinterpret_cast<const char*>(data), size);
  const auto found = zan::fsfilter::findFilterInstances(L"zan_restore_filter");
  if (found.size() != 3 || !now.open.empty() || !now.traces.empty()) std::abort();
  return 0;
}
