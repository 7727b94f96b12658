#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "filter_check/trial.h"

/// A statement of the contract, and how to check it.
struct statement {
  const char* heading;  // on the contract page
  std::string text;
  std::function<void(trial&)> check;
  const char* advice = nullptr;  // not null: if the statement fails, nothing else can be tried
};

/// The statements of the contract that instances, messages and file contents can show, in the order
/// of its page. `instances`: how many the filter has on the volume. `isOneVolume`: whether the
/// backing files are on the same volume. `skipsReads`: whether the filter does not stand between
/// programs and files, so that what they read and write before a file is whole is not tried.
std::vector<statement> contractStatements(std::ptrdiff_t instances, bool isOneVolume,
                                          bool skipsReads);
