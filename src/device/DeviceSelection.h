// Device selection: pick the fastest usable device and make it current for the calling thread.
#pragma once

#include <string>

namespace SurfaceReconstruction {

// CUDA cores of one multiprocessor for a compute capability; an unknown one is rated 64 with a note
// on standard output.
int MapSMtoCores(int major, int minor);

// Index of the device with the largest multiprocessors x clock x cores, or -1 with `error` set.
int gpuGetMaxGflopsDeviceId(std::string& error);

// Makes `device` current for the calling thread; false with `error` set when it cannot be used.
bool gpuDeviceInit(int device, std::string& error);

}  // namespace SurfaceReconstruction
