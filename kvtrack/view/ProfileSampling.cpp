#include "kvtrack/view/ProfileSampling.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace kvtrack {

std::vector<size_t> extremeSamples(std::span<const double> values, size_t runs) {
  std::vector<size_t> finite;
  for (size_t i = 0; i < values.size(); ++i) {
    if (std::isfinite(values[i])) finite.push_back(i);
  }
  if (runs == 0 || finite.size() <= 2 * runs) return finite;

  std::vector<size_t> chosen;
  chosen.reserve(2 * runs);
  for (size_t run = 0; run < runs; ++run) {
    // Runs over the finite values, so gaps do not leave runs empty.
    const size_t begin = run * finite.size() / runs;
    const size_t end = (run + 1) * finite.size() / runs;
    if (begin == end) continue;
    size_t lowest = finite[begin], highest = finite[begin];
    for (size_t k = begin + 1; k < end; ++k) {
      const size_t i = finite[k];
      if (values[i] < values[lowest]) lowest = i;
      if (values[i] > values[highest]) highest = i;
    }
    chosen.push_back(std::min(lowest, highest));
    if (lowest != highest) chosen.push_back(std::max(lowest, highest));
  }
  return chosen;
}

std::vector<size_t> mergeSamples(const std::vector<std::vector<size_t>>& lists) {
  std::vector<size_t> merged;
  for (const auto& list : lists) {
    std::vector<size_t> next;
    next.reserve(merged.size() + list.size());
    std::set_union(merged.begin(), merged.end(), list.begin(), list.end(), std::back_inserter(next));
    merged = std::move(next);
  }
  return merged;
}

}  // namespace kvtrack
