// The Morton codes of the bins of a block's points, eight points at a time on the host's vector units: the
// codes binCodeOf gives each point, from the same subtraction, division and truncation.
#pragma once

#include <cstdint>

#include "common/PointRecords.h"

namespace SurfaceReconstruction {

// Whether the vector path can run here (AVX2).
bool binCodesOnVectorUnits();

// Writes into each point's `hash` the Morton code of its bin, bins of edge `bin_size` from `origin`, on all
// cores. Only where binCodesOnVectorUnits().
void writeBinCodes(RawPointWithHash* points, std::int64_t n, const float origin[3], float bin_size);

}  // namespace SurfaceReconstruction
