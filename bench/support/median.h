#pragma once

#include <algorithm>
#include <vector>

namespace vnjs::bench {

/// The middle one of some values, which may not be none.
inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace vnjs::bench
