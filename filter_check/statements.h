#pragma once

#include "filter_check/trial.h"

/// Statements of the contract that one function checks, one per row. The row's text replaces "{}"
/// in `text`.
struct statement {
  struct row {
    row(std::int64_t number) : row(std::to_string(number), static_cast<std::size_t>(number)) {}
    row(std::string shown, std::size_t number, std::size_t at = 0)
        : text(std::move(shown)), value(number), offset(at) {}
    std::string text;
    std::size_t value;
    std::size_t offset;
  };
  const char* heading;  // on the contract page
  std::string text;
  std::vector<row> rows;
  std::function<void(trial&, const row&)> check;
  bool isVital = false;  // if it fails, nothing else can be tried
};

/// The statements of the contract that instances, messages and file contents can show, in the order
/// of its page. `instances`: how many the filter has on the volume. `isOneVolume`: whether the
/// backing files are on the same volume.
std::vector<statement> contractStatements(std::ptrdiff_t instances, bool isOneVolume);
