#pragma once

#include "filter_check/trial.h"

/// One statement of the contract, or one for each of `rows`: their text stands for "{}".
struct statement {
  struct row {
    row(std::int64_t number) : text(std::to_string(number)), value(number) {}
    row(const char* shown, std::int64_t number, std::size_t at = 0)
        : text(shown), value(number), offset(at) {}
    std::string text;
    std::int64_t value;
    std::size_t offset = 0;
  };
  const char* heading;  // on the contract page
  std::string text;
  std::vector<row> rows;
  std::function<void(trial&, const row&)> check;
  bool isVital = false;  // without it nothing else can be tried; `text` tells what there must be
};

/// All that can be seen of the contract from outside, in the order of its page, on a volume
/// with so many instances of the filter. `isOneVolume`: the backing files lie there too.
std::vector<statement> contractStatements(std::ptrdiff_t instances, bool isOneVolume);
