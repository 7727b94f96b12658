#include <iostream>

#include "app/commands.h"

namespace {

int notAvailable() {
  std::cerr << "zan_restore: filter control is not part of this version" << std::endl;
  return 1;
}

}  // namespace

int sendControlRequest(std::wstring, const ControlRequest&) { return notAvailable(); }

int queryProgress(std::wstring, ProgressInfo&) { return notAvailable(); }
