// HashOctree: the cell pool, the root list, and the octree itself: life cycle, roots and descents.
#include "volume/HashOctree.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <type_traits>

#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/GridHash.h"
#include "common/SpinLock.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

// ---- CellNodePool ----------------------------------------------------------------------------------

bool CellNodePool::addBlock() {
    // Storage only: a cell is made where it is handed out, so that memory follows the cells in use.
    CellNode* block = static_cast<CellNode*>(std::malloc(sizeof(CellNode) * m_hash_params->CELL_POOL_BLOCK_SIZE));
    if (block == nullptr) return false;
    m_blocks.push_back(block);
    m_growth.blockAdded();
    return true;
}

bool CellNodePool::addChildrenBlock() {
    CellChildren* block =
        static_cast<CellChildren*>(std::malloc(sizeof(CellChildren) * m_hash_params->CELL_POOL_BLOCK_SIZE));
    if (block == nullptr) return false;
    m_children_blocks.push_back(block);
    m_children_growth.blockAdded();
    return true;
}

int CellNodePool::init(const std::shared_ptr<HashParameters>& params) {
    deInit();
    m_hash_params = params;
    m_growth.setBlockSize(static_cast<std::int64_t>(params->CELL_POOL_BLOCK_SIZE));
    m_children_growth.setBlockSize(static_cast<std::int64_t>(params->CELL_POOL_BLOCK_SIZE));
    m_blocks.reserve(params->CELL_POOL_MAX_BLOCKS);
    m_children_blocks.reserve(params->CELL_POOL_MAX_BLOCKS);
    for (std::uint64_t i = 0; i < params->CELL_POOL_INIT_BLOCKS; ++i) {
        if (!addBlock()) {
            deInit();
            return TESSALINE_OUT_OF_MEMORY;
        }
    }
    // A tree has fewer cells with children than cells: the slots start with one block.
    if (!addChildrenBlock()) {
        deInit();
        return TESSALINE_OUT_OF_MEMORY;
    }
    m_inited = true;
    return 0;
}

int CellNodePool::deInit() {
    for (CellNode* block : m_blocks) std::free(block);  // cells are trivially destructible
    for (CellChildren* block : m_children_blocks) std::free(block);
    m_blocks.clear();
    m_children_blocks.clear();
    m_growth.clear();
    m_children_growth.clear();
    m_inited = false;
    return 0;
}

int CellNodePool::allocDataIndex(std::int32_t& index) {
    return m_growth.reserve(1, index,
                            [this] { return m_blocks.size() < m_hash_params->CELL_POOL_MAX_BLOCKS && addBlock(); });
}

CellNode* CellNodePool::cellAt(std::int32_t index) const {
    const std::int64_t block_size = static_cast<std::int64_t>(m_hash_params->CELL_POOL_BLOCK_SIZE);
    return &m_blocks[static_cast<std::size_t>(index / block_size)][index % block_size];
}

int CellNodePool::allocChildrenIndex(std::int32_t& index) {
    return m_children_growth.reserve(1, index, [this] {
        return m_children_blocks.size() < m_hash_params->CELL_POOL_MAX_BLOCKS && addChildrenBlock();
    });
}

CellChildren* CellNodePool::childrenAt(std::int32_t index) const {
    const std::int64_t block_size = static_cast<std::int64_t>(m_hash_params->CELL_POOL_BLOCK_SIZE);
    return &m_children_blocks[static_cast<std::size_t>(index / block_size)][index % block_size];
}

// ---- HashRootCellList ------------------------------------------------------------------------------

std::int32_t HashRootCellList::add(const std::shared_ptr<HashRootCellData>& data) {
    const std::int32_t slot = datas_size.fetch_add(1);
    if (slot < capacity) {
        datas[static_cast<std::size_t>(slot)] = data;
        return slot;
    }
    datas_size.fetch_sub(1);
    return -1;
}

std::shared_ptr<HashRootCellData> HashRootCellList::get(std::int32_t id) const {
    if (id >= datas_size.load() || id < 0) {
        diagnostic("id >= datas_size.load() || id < 0 \n");
        return nullptr;
    }
    return datas[static_cast<std::size_t>(id)];
}

// ---- HashOctree ------------------------------------------------------------------------------------

namespace {
std::uint8_t loadCellType(const CellNode& cell) { return loadAcquire(cell.cell_type); }

// A branch mark never overwrites a leaf: only a cell outside any tree becomes a branch.
void markBranch(CellNode& cell) {
    std::uint8_t expected = 0;
    compareExchangeAcqRel(cell.cell_type, expected, CELL_TYPE_BRANCH);
}

// Child k of a cell that descents may be extending at the same time, or null.
CellNode* loadChild(const CellNode& cell, int k) {
    const CellChildren* slots = loadAcquire(cell.children);
    return slots != nullptr ? loadAcquire(slots->at[k]) : nullptr;
}
}  // namespace

HashOctree::~HashOctree() {
    if (m_inited) deInit();
}

int HashOctree::init(const std::shared_ptr<HashParameters>& params) {
    m_inited = false;
    return runGuarded(m_last_error, {1, "BlockHashOctree: init try cath error!"}, [&]() -> int {
        if (!params) throw std::invalid_argument("no hash parameters");
        // The table's slots are mapped at once (the system gives pages on first touch), the pool's first
        // blocks too: an address-space limit below them fails here.
        const std::uint64_t table_bytes =
            (params->HASH_BUCKET_NUM + params->HASH_EXCESS_LIST_SIZE) * sizeof(RootTable::Slot);
        const std::uint64_t pool_bytes =
            params->CELL_POOL_INIT_BLOCKS * params->CELL_POOL_BLOCK_SIZE * sizeof(CellNode);
        const MemoryStageScope stage("[HashOctree] init (the octree's table and cells)", table_bytes + pool_bytes);
        m_hash_params = params;
        m_hash_table = std::make_shared<RootTable>();
        if (m_hash_table->init(params->HASH_BUCKET_NUM, params->HASH_EXCESS_LIST_SIZE) != 0) {
            m_last_error = memoryFailureText(table_bytes);
            return TESSALINE_OUT_OF_MEMORY;
        }
        m_cell_pool = std::make_shared<CellNodePool>();
        if (m_cell_pool->init(params) != 0) {
            m_last_error = memoryFailureText(pool_bytes);
            return TESSALINE_OUT_OF_MEMORY;
        }
        m_hash_cell_list = std::make_shared<HashRootCellList>();
        m_inited = true;
        return 0;
    });
}

int HashOctree::deInit() {
    return runGuarded(m_last_error, {1, "BlockHashOctree: deInit try cath error!"}, [&]() -> int {
        m_hash_params.reset();
        m_hash_table.reset();
        if (m_cell_pool) {
            const int result = m_cell_pool->deInit();
            if (result != 0) {
                m_last_error = "BlockHashOctree: m_cell_pool deinit failed!";
                return result;
            }
            m_cell_pool.reset();
        }
        m_hash_cell_list.reset();
        m_inited = false;
        return 0;
    });
}

int HashOctree::setResolution(float resolution) {
    m_resolution = resolution;
    return 0;
}

int HashOctree::setBlockSize(std::int32_t block_size) {
    m_block_size = block_size;
    return 0;
}

void HashOctree::setError(const char* text) {
    SpinGuard guard(m_error_lock);
    m_last_error = text;
}

std::string HashOctree::getLastError() const {
    SpinGuard guard(m_error_lock);
    return m_last_error;
}

int HashOctree::insertBlockHash(const float pos[3], std::shared_ptr<HashRootCellData>& root) {
    if (!m_inited) {
        setError("BlockHashOctree: no init!");
        return 1;
    }
    const float r = m_resolution;
    const float S = static_cast<float>(m_block_size) * r;
    std::int32_t key[3];
    float root_center[3];
    for (int k = 0; k < 3; ++k) {
        const float snapped = static_cast<float>(gridIndex(pos[k], r)) * r + r * 0.5f;
        key[k] = gridIndex(snapped, S);
        root_center[k] = static_cast<float>(key[k]) * S + S * 0.5f;
    }
    RootTable::Slot* entry = m_hash_table->findOrInsert(key[0], key[1], key[2]);
    if (entry == nullptr) return 1;
    if (entry->value.dataId() == -1) {
        SpinGuard guard(entry->lock);
        if (entry->value.dataId() == -1) {
            std::int32_t index = -1;
            if (m_cell_pool->allocDataIndex(index) != 0) {
                setError("m_cell_pool alloc failed!");
                return TESSALINE_OUT_OF_MEMORY;
            }
            CellNode* node = new (m_cell_pool->cellAt(index)) CellNode{};
            node->cell_type = CELL_TYPE_BRANCH;
            for (int k = 0; k < 3; ++k) node->center[k] = root_center[k];
            node->half_size = S * 0.5f;
            auto data = std::make_shared<HashRootCellData>();
            data->root_cell = node;
            const std::int32_t slot = m_hash_cell_list->add(data);
            if (slot < 0) {
                setError("m_hash_cell_list alloc failed!");
                return TESSALINE_OUT_OF_MEMORY;
            }
            entry->value.setDataId(slot);
        }
    }
    root = m_hash_cell_list->get(entry->value.dataId());
    return 0;
}

int HashOctree::insertLeafNodeForHashBlock(const HashRootCellData& root, const float pos[3], float target_half,
                                           CellNode*& leaf) {
    DescentPath path;  // no earlier descent: from the root
    return insertLeafNodeAlongPath(root, pos, target_half, path, leaf);
}

int HashOctree::insertLeafNodeAlongPath(const HashRootCellData& root, const float pos[3], float target_half,
                                        DescentPath& path, CellNode*& leaf) {
    if (!m_inited) {
        setError("BlockHashOctree: no init!");
        return 1;
    }
    CellNode* n = root.root_cell;
    for (int k = 0; k < 3; ++k) {
        if (std::fabs(pos[k] - n->center[k]) > n->half_size) return TESSALINE_OUTSIDE_CELL;
    }
    // The descent stops at the first cell below this bound: one of the target size. The margin is
    // absolute for small cells and relative for large ones, where adding 0.0001 no longer changes a float.
    const float upper = std::max(target_half + 0.0001f, target_half * (1.0f + 1.0f / 4096.0f));
    // Along the last path, while the plain descent would take the same steps: the cells there are
    // branches already, and only the last one of the path can have become a leaf since.
    int i = 0;
    if (path.root == &root && path.depth > 0 && path.cells[0] == n) {
        while (i + 1 < path.depth) {
            const CellNode* c = path.cells[i];
            if (c->cell_type == CELL_TYPE_LEAF) break;
            if (upper > c->half_size) break;
            if (loadChild(*c, childIndex(pos, c->center)) != path.cells[i + 1]) break;
            ++i;
        }
        n = path.cells[i];
    } else {
        path.root = &root;
        path.cells[0] = n;
    }
    path.depth = i + 1;
    // From there on, the plain descent.
    while (loadCellType(*n) != CELL_TYPE_LEAF) {
        const float h = n->half_size;
        // At the target size, or already below it when the root itself is no larger: never deeper.
        if (upper > h) break;
        markBranch(*n);
        const int k = childIndex(pos, n->center);
        CellNode* child = loadChild(*n, k);
        if (child == nullptr) {
            SpinGuard guard(n->lock);
            CellChildren* slots = n->children;
            child = slots != nullptr ? slots->at[k] : nullptr;
            if (child == nullptr) {
                if (slots == nullptr) {
                    std::int32_t slots_index = -1;
                    if (m_cell_pool->allocChildrenIndex(slots_index) != 0) {
                        setError("m_cell_pool alloc failed!");
                        return TESSALINE_OUT_OF_MEMORY;
                    }
                    slots = new (m_cell_pool->childrenAt(slots_index)) CellChildren{};
                    storeRelease(n->children, slots);  // empty slots before they are seen
                }
                std::int32_t index = -1;
                if (m_cell_pool->allocDataIndex(index) != 0) {
                    setError("m_cell_pool alloc failed!");
                    return TESSALINE_OUT_OF_MEMORY;
                }
                child = new (m_cell_pool->cellAt(index)) CellNode{};
                child->half_size = h * 0.5f;
                child->cell_type = CELL_TYPE_BRANCH;
                for (int axis = 0; axis < 3; ++axis)
                    child->center[axis] = n->center[axis] + static_cast<float>(CHILD_SIGN[k][axis]) * h * 0.5f;
                child->parent = n;
                storeRelease(slots->at[k], child);  // complete before it is seen
                ++n->child_count;
            }
        }
        n = child;
        if (path.depth < DescentPath::MAX_DEPTH) {
            path.cells[path.depth++] = n;
        } else {
            path.root = nullptr;  // deeper than a path holds: the next descent starts at the root
        }
    }
    storeRelease(n->cell_type, CELL_TYPE_LEAF);
    leaf = n;
    return 0;
}

std::shared_ptr<HashRootCellData> HashOctree::getHashRootCell(const float pos[3]) {
    if (!m_inited) {
        setError("BlockHashOctree: no init!");
        return nullptr;
    }
    const float S = static_cast<float>(m_block_size) * m_resolution;
    const RootTable::Slot* entry = m_hash_table->find(gridIndex(pos[0], S), gridIndex(pos[1], S), gridIndex(pos[2], S));
    if (entry == nullptr) return nullptr;
    const std::int32_t id = entry->value.dataId();
    if (id < 0) return nullptr;
    return m_hash_cell_list->get(id);
}

bool HashOctree::dropTreeSince(std::int32_t mark, std::int32_t children_mark, const float block_center[3]) {
    if (!m_inited || mark < 0 || mark >= m_cell_pool->cellCount()) return false;
    if (children_mark < 0 || children_mark > m_cell_pool->childrenCount()) return false;
    const std::shared_ptr<HashRootCellData> root = getHashRootCell(block_center);
    CellNode* first = m_cell_pool->cellAt(mark);
    if (!root || root->root_cell != first) return false;  // a root of before: other cells may hang below it
    first->children = nullptr;  // its slots were made after the mark, as was every cell below it
    first->child_count = 0;
    first->data_id = -1;
    first->data_state = 0;
    first->field_count = 0;
    m_cell_pool->truncate(mark + 1);
    m_cell_pool->truncateChildren(children_mark);
    return true;
}

int HashOctree::getHashCellList(std::shared_ptr<HashRootCellList>& list) {
    if (!m_inited) {
        setError("BlockHashOctree: no init!");
        return 1;
    }
    list = m_hash_cell_list;
    return 0;
}

}  // namespace SurfaceReconstruction
