// The three passes of the field computation over the cells of one block, as the per-block stage calls
// them: on the device (FieldPasses.cu) or on the host's cores (FieldPassesHost.cpp), with the same per-cell
// functions (FieldComputation.h). The stage lends what the passes read and keep in a FieldPassViews.
#pragma once

#include <string>

#include "common/CellRecords.h"
#include "common/Parameters.h"
#include "common/PointRecords.h"
#include "common/UninitialisedArray.h"
#include "field/HostFieldWalks.h"

namespace SurfaceReconstruction {

// What the passes of a block work with, owned by the stage and lent for the call.
struct FieldPassViews {
    const DeviceParameters& params;       // host memory
    const DeviceParameters* params_dev;   // the kernels' copy in device memory
    RawPointWithHash*& block_points_dev;  // the block's sorted points where kernels read them; null once given up
    UninitialisedArray<VoxelFieldCenter>& centres;  // the host passes' working arrays, kept from block to block
    PointColumns& columns;
    std::string& last_error;  // the text of a failure
};

// The passes on the device, with the cells and relations copied there and back where device memory is not
// host memory: 0, 65797 after a device failure (reported where it happened), 66049 when memory runs out,
// 1 otherwise.
int computeFieldOnDevice(CellNodeAndRelations& cells, FieldPassViews views);

// The passes over host memory on the host's cores: all three for a cell in one iteration, over the block's
// points as columns where the processor has the vector walks. With `points_may_go`, the block's points are
// given up once the walks have them as columns: from there on only the columns are read, and the block is
// not held twice. 0, or 66049 when the working array cannot be had.
int computeFieldOnHost(const PointCloudBlock& block, CellNodeAndRelations& cells, FieldPassViews views,
                       bool points_may_go = false);

}  // namespace SurfaceReconstruction
