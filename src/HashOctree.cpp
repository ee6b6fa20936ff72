// HashOctree: life cycle and geometry settings.
#include "HashOctree.h"

namespace SurfaceReconstruction {

HashOctree::~HashOctree() {
    if (m_inited) deInit();
}

int HashOctree::init(const std::shared_ptr<HashParameters>& params) {
    if (!params) {
        m_last_error = "BlockHashOctree: init try cath error!";
        return 1;
    }
    m_hash_params = params;
    m_inited = true;
    return 0;
}

int HashOctree::deInit() {
    m_hash_params.reset();
    m_inited = false;
    return 0;
}

int HashOctree::setResolution(float resolution) {
    m_resolution = resolution;
    return 0;
}

int HashOctree::setBlockSize(std::int32_t block_size) {
    m_block_size = block_size;
    return 0;
}

}  // namespace SurfaceReconstruction
