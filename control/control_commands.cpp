#include <iostream>

#include "app/commands.h"
#include "control/filter_message.h"

int sendControlRequest(std::wstring path, const ControlRequest& request) {
  if (request.operation > ControlOperation::QueryProgress) {
    std::wcout << L"Invalid operation" << std::endl;
    return 1;
  }
  if (request.operation == ControlOperation::StartAggressiveRestore &&
      request.strategy.kind != RestoreStrategyKind::simple) {
    std::wcout << L"Invalid restore strategy" << std::endl;
    return 1;
  }
  return sendToFilter(path, request);
}

int queryProgress(std::wstring path, ProgressInfo& progress) {
  // The filter may write only a part of the reply. The rest is 0.
  progress = {};
  return sendToFilter(path, {ControlOperation::QueryProgress, {}}, &progress);
}
