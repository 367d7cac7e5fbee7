#pragma once
// Down-sampling a profile (elevation or speed along a track) for drawing
// without hiding anything a reader would look for: the points are cut into
// runs of consecutive points, and each run keeps its lowest and its highest
// value. Peaks, dips and the whole range survive; only the wiggles between
// them, narrower than a pixel at the chart's size, go.

#include <cstddef>
#include <span>
#include <vector>

namespace kvtrack {

/// Runs per profile in a track view: about one per pixel of a wide chart.
inline constexpr size_t kProfileRuns = 600;

/// Indices (ascending, no repeats) of the values to draw. NaN values (no
/// elevation, speed never computed) are never chosen. When there are no more
/// finite values than 2 x runs, all of them are kept; otherwise the values
/// are cut into `runs` runs of (nearly) equal length and each run adds the
/// index of its lowest and of its highest finite value.
std::vector<size_t> extremeSamples(std::span<const double> values, size_t runs);

/// The sorted union of index lists (each ascending).
std::vector<size_t> mergeSamples(const std::vector<std::vector<size_t>>& lists);

}  // namespace kvtrack
