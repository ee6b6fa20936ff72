// Reconstructor: life cycle, memory guard and the frame of the mesh run.
#include "Reconstructor.h"

#include <cstdio>

#include "HashOctree.h"
#include "HostMemory.h"
#include "MarchingCubes.h"

namespace SurfaceReconstruction {

bool reconstructorMemoryGuard() {
    HostMemoryInfo info;
    if (!readHostMemory(info)) return false;
    const double left = static_cast<double>(info.available_bytes + info.swap_free_bytes);
    return static_cast<float>(left) * (1.0f / (1024.0f * 1024.0f * 1024.0f)) >= RECONSTRUCTOR_MIN_FREE_GIB;
}

Reconstructor::~Reconstructor() {
    if (m_inited) deInit();
}

int Reconstructor::setPortionerParameters(const std::shared_ptr<PortionerParameters>& params) {
    m_portioner_params = params;
    return 0;
}

int Reconstructor::setDeviceParameters(const std::shared_ptr<DeviceParameters>& params) {
    m_device_params = params;
    return 0;
}

int Reconstructor::init() {
    m_inited = true;
    return 0;
}

int Reconstructor::setResolution(const float& resolution) {
    m_resolution = resolution;
    return 0;
}

int Reconstructor::setHashOctree(const std::shared_ptr<HashOctree>& octree) {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    m_hash_octree = octree;
    return 0;
}

int Reconstructor::setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool) {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    m_field_data_pool = pool;
    return 0;
}

int Reconstructor::process(std::shared_ptr<MultiMeshData>& mesh) {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    if (!m_hash_octree || !m_field_data_pool) {
        m_last_error = "[Reconstructor] process error , m_hash_octree == nullptr || m_field_data_pool == nullptr !";
        return 1;
    }
    mesh = std::make_shared<MultiMeshData>();
    std::shared_ptr<HashRootCellList> roots;
    if (m_hash_octree->getHashCellList(roots) != 0) {
        m_last_error = "Reconstructor getHashCellList failed!";
        return 1;
    }
    // The contouring walk over the root blocks joins here; until then the mesh stays empty.
    if (!reconstructorMemoryGuard()) {
        std::printf("is_ok = false!\n");
        return TESSALINE_OUT_OF_MEMORY;
    }
    mesh->xyz.shrink_to_fit();
    mesh->w.shrink_to_fit();
    return 0;
}

int Reconstructor::deInit() {
    m_hash_octree.reset();
    m_field_data_pool.reset();
    m_inited = false;
    return 0;
}

}  // namespace SurfaceReconstruction
