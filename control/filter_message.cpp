#include "control/filter_message.h"

#include <iostream>
#include <optional>

#include "control/volume_id.h"
#include "errors/result_exception.h"
#include "fsfilter/filter_instances.h"
#include "fsfilter/filter_port.h"
#include "platform/file_handle.h"

using zan::file_handle;
using zan::fsfilter::filter_port;
using zan::fsfilter::FilterInstanceInfo;
using zan::fsfilter::findFilterInstances;

namespace {

// Looks for an instance on the volume, up to the first.
bool findInstanceOn(const std::wstring& volumeId, bool isPrinting) {
  for (const FilterInstanceInfo& instance : findFilterInstances(RESTORE_FILTER_NAME)) {
    if (isPrinting) {
      std::wcout << L"checking instance for volume: " << instance.volumeId << L" - "
                 << instance.volumeDeviceName << std::endl;
    }
    if (instance.volumeId == volumeId) return true;
  }
  return false;
}

}  // namespace

int sendToFilter(const std::wstring& path, const ControlRequest& request, ProgressInfo* reply) {
  const bool isPrinting = reply == nullptr;
  // Declared before the file, so that the file is always closed first.
  std::optional<filter_port> port;

  const file_handle file(CreateFileW(path.c_str(), GENERIC_READ,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.isOpen()) {
    std::wcout << L"Cannot open local file: path = " << path << std::endl;
    return 1;
  }
  const std::wstring volumeId = getVolumeId(path);
  if (volumeId.empty()) {
    std::wcout << L"Cannot determine volume id: path = " << path << std::endl;
    return 1;
  }
  if (isPrinting) std::wcout << L"volume is: " << volumeId << std::endl;
  if (!findInstanceOn(volumeId, isPrinting)) {
    std::wcout << L"no filter instance found for " << path << std::endl;
    return 1;
  }

  const std::wstring portName = RESTORE_FILTER_PORT_PREFIX + volumeId;
  ControlMessage message{reinterpret_cast<std::uintptr_t>(file.get()), request, 0};
  port.emplace(portName);
  try {
    if (isPrinting) std::wcout << L"sending to instance to port: " << portName << std::endl;
    port->sendMessage(&message, sizeof(message), reply,
                      reply == nullptr ? 0 : DWORD{sizeof(*reply)});
  } catch (zan::except::result_exception& failure) {
    std::wcout << L"message not sent to port: " << portName << std::endl;
    std::cout << boost::diagnostic_information(failure) << std::endl;
    return 1;
  }
  return 0;
}
