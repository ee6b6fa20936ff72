// The Reconstructor: the last stage of a run. It walks the root blocks of the octree on the host and
// collects the triangles of all dual cubes into one MultiMeshData.
#pragma once

#include <memory>
#include <string>

#include "Parameters.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

class HashOctree;
class FieldDataPool;

// Commit space the mesh stage keeps free: it stops when less than this is left.
constexpr double RECONSTRUCTOR_MIN_FREE_GIB = 2.5;

// True while the host has at least RECONSTRUCTOR_MIN_FREE_GIB of memory left (available memory plus
// free swap); false when the figure cannot be read.
bool reconstructorMemoryGuard();

class Reconstructor {
public:
    Reconstructor() = default;
    ~Reconstructor();
    Reconstructor(const Reconstructor&) = delete;
    Reconstructor& operator=(const Reconstructor&) = delete;

    int setPortionerParameters(const std::shared_ptr<PortionerParameters>& params);
    int setDeviceParameters(const std::shared_ptr<DeviceParameters>& params);
    int init();
    int setResolution(const float& resolution);
    int setHashOctree(const std::shared_ptr<HashOctree>& octree);
    int setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool);
    int process(std::shared_ptr<MultiMeshData>& mesh);
    std::string getLastError() const { return m_last_error; }
    int deInit();

    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }
    const std::shared_ptr<FieldDataPool>& fieldDataPool() const { return m_field_data_pool; }
    const std::shared_ptr<HashOctree>& hashOctree() const { return m_hash_octree; }

private:
    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::shared_ptr<DeviceParameters> m_device_params;
    std::shared_ptr<PortionerParameters> m_portioner_params;
    std::shared_ptr<HashOctree> m_hash_octree;
    std::shared_ptr<FieldDataPool> m_field_data_pool;
};

}  // namespace SurfaceReconstruction
