// The host twin of the Portioner's device steps (PortionerPasses.cu): the partition on the host's cores.
// Where device memory is host memory, the second pass goes straight from the waiting frames onto their
// blocks' lists (counted first, so that each list is allocated once), or a batch at a time.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <new>

#include "common/HostMemory.h"
#include "common/RunStop.h"
#include "portion/PlainRuns.h"
#include "portion/PortionerPasses.h"

namespace SurfaceReconstruction {

namespace {

// What the tables of the frame shares may take beyond those of one share a thread.
constexpr std::uint64_t FRAME_SHARE_TABLE_BYTES = std::uint64_t{16} << 20;

// The frames still to be partitioned in shares of about equal points, each a run of consecutive frames:
// share s holds frames [first[s], first[s + 1]).
std::vector<std::size_t> frameShares(const std::deque<std::shared_ptr<FrameDataWithInfo>>& frames, int shares) {
    std::uint64_t total = 0;
    for (const auto& frame : frames) total += frame->xyz.size();
    std::vector<std::size_t> first(static_cast<std::size_t>(shares) + 1, frames.size());
    first[0] = 0;
    std::uint64_t seen = 0;
    int s = 1;
    for (std::size_t f = 0; f < frames.size() && s < shares; ++f) {
        seen += frames[f]->xyz.size();
        while (s < shares && seen * static_cast<std::uint64_t>(shares) >= total * static_cast<std::uint64_t>(s))
            first[static_cast<std::size_t>(s++)] = f + 1;
    }
    return first;
}

// The partition of one frame as the batches run it: its positions, nothing else read.
PartitionPoint framePartition(const FrameDataWithInfo& frame, const BlockSlot* entries, std::uint64_t mask,
                              float block_res, float half_ext) {
    return PartitionPoint{reinterpret_cast<const float*>(frame.xyz.data()), nullptr,   nullptr,  nullptr, nullptr,
                          static_cast<std::int64_t>(frame.xyz.size()),      block_res, half_ext, entries, mask};
}

// The table entries of the 27 blocks around one block key, in the order the partition rule visits its
// neighbours (dx, then dy, then dz, from -1 to 1); -1 for a neighbour without a block or one the run
// does not compute. The block's own slot (13) is the entry as found, whether computed or not.
class EntriesAround {
public:
    EntriesAround(const BlockSlot* entries, std::uint32_t mask) : entries(entries), mask(mask) {}

    const std::int32_t* around(std::int32_t x, std::int32_t y, std::int32_t z) {
        if (filled && x == key[0] && y == key[1] && z == key[2]) return slots;
        int s = 0;
        for (int dx = -1; dx <= 1; ++dx)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dz = -1; dz <= 1; ++dz, ++s) {
                    const std::int32_t e = findGridKeySlot(entries, mask, x + dx, y + dy, z + dz);
                    slots[s] = s == 13 || (e >= 0 && entries[e].value.skipped == 0) ? e : -1;
                }
        key[0] = x;
        key[1] = y;
        key[2] = z;
        filled = true;
        return slots;
    }

private:
    const BlockSlot* entries;
    std::uint32_t mask;
    bool filled = false;
    std::int32_t key[3] = {0, 0, 0};
    std::int32_t slots[27];
};

// Calls record(entry, first, count) for the points of a frame in point order, as the partition rule gives
// them records: a run of points that lie in one block and in no neighbour's margin as one call, every other
// point with a call a record. With the vector units the points are looked at eight at a time and the
// table entries come from the blocks around the last key met; the records are the rule's, in its order.
template <class Record>
void forEachFrameRecord(const FrameDataWithInfo& frame, const PartitionPoint& partition, bool vector_units,
                        Record&& record) {
    const std::size_t n = frame.xyz.size();
    const float* xyz = reinterpret_cast<const float*>(frame.xyz.data());
    const std::uint32_t mask = static_cast<std::uint32_t>(partition.hash_mask);
    const auto byRule = [&](std::size_t i) {
        partition.forEachRecord(i, [&](std::int32_t e) { record(e, i, std::size_t{1}); });
    };
    EntriesAround cache(partition.hash_entries, mask);
    EightBlocks eight;
    for (std::size_t i = 0; i < n;) {
        if (!vector_units || i + 8 > n) {
            byRule(i++);
            continue;
        }
        std::int32_t key[3];
        const std::size_t run = plainRunLength(xyz, i, n, partition.block_res, partition.half_ext, key);
        if (run != 0) {
            const std::int32_t e = cache.around(key[0], key[1], key[2])[13];
            if (e >= 0 && partition.hash_entries[e].value.skipped == 0) record(e, i, run);
            i += run;
            continue;
        }
        describeEight(xyz, i, partition.block_res, partition.half_ext, eight);
        for (int l = 0; l < 8; ++l, ++i) {
            const std::uint32_t bits = eight.bits[l];
            if ((bits & EightBlocks::NULL_POINT) != 0) continue;
            if ((bits & EightBlocks::TOO_FAR) != 0) {
                byRule(i);
                continue;
            }
            const std::int32_t* slots = cache.around(eight.key[0][l], eight.key[1][l], eight.key[2][l]);
            const std::int32_t own = slots[13];
            if (own < 0) continue;  // a point outside every block makes no record
            if (partition.hash_entries[own].value.skipped == 0) record(own, i, std::size_t{1});
            if ((bits & 0b101101101u) == 0) continue;  // within no neighbour's margin on any axis
            int s = 0;
            for (int dx = 0; dx < 3; ++dx)
                for (int dy = 0; dy < 3; ++dy)
                    for (int dz = 0; dz < 3; ++dz, ++s) {
                        if (s == 13 || ((bits >> dx) & (bits >> (3 + dy)) & (bits >> (6 + dz)) & 1u) == 0) continue;
                        if (slots[s] >= 0) record(slots[s], i, std::size_t{1});
                    }
        }
    }
}

// The records each table entry will receive from each share of the frames still to be partitioned,
// counted on the host's cores with the partition's own rule: counts[s * entry_count + e].
void countBlockRecords(const std::deque<std::shared_ptr<FrameDataWithInfo>>& frames,
                       const std::vector<std::size_t>& shares, const BlockSlot* entries, std::uint64_t entry_count,
                       std::uint64_t mask, float block_res, float half_ext, std::vector<std::int64_t>& counts) {
    const std::size_t table = static_cast<std::size_t>(entry_count);
    const std::int64_t share_count = static_cast<std::int64_t>(shares.size()) - 1;
    counts.assign(static_cast<std::size_t>(share_count) * table, 0);
    const std::atomic<bool>* stop = runStopFlag();
    const bool vector_units = plainRunsAvailable();
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t s = 0; s < share_count; ++s) {
        std::int64_t* mine = counts.data() + static_cast<std::size_t>(s) * table;
        for (std::size_t f = shares[static_cast<std::size_t>(s)];
             f < shares[static_cast<std::size_t>(s) + 1] && !stopAsked(stop); ++f) {
            const FrameDataWithInfo& frame = *frames[f];
            const PartitionPoint partition = framePartition(frame, entries, mask, block_res, half_ext);
            forEachFrameRecord(frame, partition, vector_units, [mine](std::int32_t e, std::size_t, std::size_t count) {
                mine[e] += static_cast<std::int64_t>(count);
            });
        }
    }
    stopPoint();  // the counts of a stopped run are incomplete: it ends here
}

}  // namespace

#if !defined(TESSALINE_CUDA)
void partitionBatchOnHost(const PartitionPoint& partition, BlockSlot* entries, std::int64_t entry_count,
                          std::vector<std::shared_ptr<PointCloudBlock>>& blocks,
                          std::vector<std::vector<RawPointWithHash>>& thread_records) {
    const std::int64_t n = partition.n;
    const int team = std::max(1, omp_get_max_threads());
    if (thread_records.size() < static_cast<std::size_t>(team)) thread_records.resize(static_cast<std::size_t>(team));
    const std::size_t table = static_cast<std::size_t>(entry_count);
    std::vector<std::int64_t> places(static_cast<std::size_t>(team) * table, 0);
    std::vector<std::int32_t> words(static_cast<std::size_t>(team) * table, 0);  // OR of the records' words
    std::vector<RawPointWithHash*> lists(table, nullptr);
    bool failed = false;
#pragma omp parallel num_threads(team)
    {
        const int t = omp_get_thread_num(), threads = omp_get_num_threads();
        std::vector<RawPointWithHash>& records = thread_records[static_cast<std::size_t>(t)];
        std::int64_t* mine = places.data() + static_cast<std::size_t>(t) * table;
        std::int32_t* my_words = words.data() + static_cast<std::size_t>(t) * table;
        records.clear();
        try {
            for (std::int64_t i = n * t / threads; i < n * (t + 1) / threads; ++i) {
                RawPointWithHash point = partition.recordPoint(static_cast<std::size_t>(i));
                partition.forEachRecord(
                    static_cast<std::size_t>(i),
                    [&](std::int32_t e) {
                        point.hash = e;
                        records.push_back(point);
                        ++mine[e];
                        my_words[e] |= point.w;
                    },
                    true);
            }
        } catch (...) {
#pragma omp atomic write
            failed = true;
        }
#pragma omp barrier
#pragma omp for schedule(dynamic, 1024)
        for (std::int64_t e = 0; e < entry_count; ++e) {
            // The entry's shares, thread by thread, after what its block's list already holds.
            std::int64_t total = 0;
            std::int32_t word = 0;
            for (int u = 0; u < threads; ++u) {
                total += places[static_cast<std::size_t>(u) * table + static_cast<std::size_t>(e)];
                word |= words[static_cast<std::size_t>(u) * table + static_cast<std::size_t>(e)];
            }
            if (total == 0) continue;
            BlockTally& entry = entries[e].value;
            entry.flags |= word;
            PointCloudBlock& block = *blocks[static_cast<std::size_t>(entry.id)];
            PointList& list = *block.points;
            std::int64_t at = static_cast<std::int64_t>(list.size());
            try {
                list.resize(list.size() + static_cast<std::size_t>(total));
            } catch (...) {
#pragma omp atomic write
                failed = true;
                continue;
            }
            block.flags |= entry.flags;
            lists[static_cast<std::size_t>(e)] = list.data();
            for (int u = 0; u < threads; ++u) {
                std::int64_t& share = places[static_cast<std::size_t>(u) * table + static_cast<std::size_t>(e)];
                const std::int64_t here = share;
                share = at;
                at += here;
            }
        }
        if (!failed) {
            for (const RawPointWithHash& record : records)
                lists[static_cast<std::size_t>(record.hash)][mine[record.hash]++] = record;
        }
    }
    if (failed) throw std::bad_alloc();
}
#endif

// ---- block lists -----------------------------------------------------------------------------------

void Portioner::reserveBlockPoints(const BlockSlot* entries, std::uint64_t entry_count, std::uint64_t mask,
                                   float block_res, float ext_res) {
    m_share_counts.clear();
    m_frame_shares.clear();
    if (m_waiting_frames.empty()) return;
    try {
        // Frames of the same points differ in what they cost (the margins, the pages they fault in): up to
        // eight shares a thread, handed out as the threads come free, keep one from ending long after the
        // other. A share's counts, places and words take 20 bytes a table slot: more shares than one a
        // thread only while those stay within FRAME_SHARE_TABLE_BYTES.
        const std::uint64_t threads = static_cast<std::uint64_t>(std::max(1, omp_get_max_threads()));
        const std::uint64_t affordable = FRAME_SHARE_TABLE_BYTES / (std::max<std::uint64_t>(1, entry_count) * 20);
        m_frame_shares =
            frameShares(m_waiting_frames, static_cast<int>(std::max(threads, std::min(8 * threads, affordable))));
        countBlockRecords(m_waiting_frames, m_frame_shares, entries, entry_count, mask, block_res,
                          block_res * 0.5f + ext_res, m_share_counts);
        const std::size_t table = static_cast<std::size_t>(entry_count);
        for (std::size_t e = 0; e < table; ++e) {
            std::int64_t total = 0;
            for (std::size_t s = 0; s + 1 < m_frame_shares.size(); ++s) total += m_share_counts[s * table + e];
            if (total == 0 || entries[e].value.id < 0) continue;
            const std::size_t block = static_cast<std::size_t>(entries[e].value.id);
            if (block < m_point_cloud_blocks.size())
                m_point_cloud_blocks[block]->points->reserve(static_cast<std::size_t>(total));
        }
    } catch (const std::bad_alloc&) {
        // Without the room made ahead the lists grow as the batches come: slower, nothing lost.
        m_share_counts.clear();
        m_frame_shares.clear();
    }
}

int Portioner::partitionWaitingFramesOnHost(float block_res, float ext_res) {
    const BlockSlot* entries = m_block_table_dev;
    const std::size_t table = static_cast<std::size_t>(m_hash_entry_size);
    const std::size_t share_count = m_frame_shares.size() - 1;
    const float half_ext = block_res * 0.5f + ext_res;
    // Each share's records of an entry go after those of the shares before it: the lists hold their
    // records in frame and point order, as batch after batch puts them.
    std::vector<PointList*> lists(table, nullptr);
    std::vector<std::int64_t> places(m_share_counts.size()), totals(table, 0);
    for (std::size_t e = 0; e < table; ++e) {
        std::int64_t& total = totals[e];
        for (std::size_t s = 0; s < share_count; ++s) {
            places[s * table + e] = total;
            total += m_share_counts[s * table + e];
        }
        if (total == 0) continue;
        const std::int32_t id = entries[e].value.id;
        if (id < 0 || static_cast<std::size_t>(id) >= m_point_cloud_blocks.size()) return 1;  // counted, but no block
        PointList& list = *m_point_cloud_blocks[static_cast<std::size_t>(id)]->points;
        if (!list.empty() || list.capacity() < static_cast<std::size_t>(total)) return 1;
        lists[e] = &list;
    }
    // Every list has its room: from here on nothing is allocated and nothing fails.
    for (std::size_t e = 0; e < table; ++e)
        if (lists[e] != nullptr) lists[e]->resize(static_cast<std::size_t>(totals[e]));
    std::vector<std::int32_t> words(m_share_counts.size(), 0);  // OR of the records' words
    const std::int64_t shares = static_cast<std::int64_t>(share_count);
    const std::atomic<bool>* stop = runStopFlag();
    const bool vector_units = plainRunsAvailable();
    // Each frame is let go once its points are on the lists, and the heap gives what the frames held back
    // to the system every PORTIONER_FRAME_BYTES_TRIMMED bytes: as the lists fill, the frames leave, and
    // the pass holds about the larger of the two instead of both (where nobody else holds the frames).
    std::atomic<std::uint64_t> let_go{0};
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t s = 0; s < shares; ++s) {
        std::int64_t* place = places.data() + static_cast<std::size_t>(s) * table;
        std::int32_t* word = words.data() + static_cast<std::size_t>(s) * table;
        for (std::size_t f = m_frame_shares[static_cast<std::size_t>(s)];
             f < m_frame_shares[static_cast<std::size_t>(s) + 1] && !stopAsked(stop); ++f) {
            const FrameDataWithInfo& frame = *m_waiting_frames[f];
            const PartitionPoint partition = framePartition(frame, entries, m_hash_mask, block_res, half_ext);
            // A laser id outside 0 to 7 is read as 0, as the batch's copy of the frame's information has it.
            const std::int32_t laser_id = frame.frame_info.laser_id;
            const std::uint8_t laser = static_cast<std::uint8_t>(laser_id < 0 || laser_id >= 8 ? 0 : laser_id);
            forEachFrameRecord(
                frame, partition, vector_units, [&](std::int32_t e, std::size_t first, std::size_t count) {
                    RawPointWithHash* to = lists[static_cast<std::size_t>(e)]->data() + place[e];
                    place[e] += static_cast<std::int64_t>(count);
                    std::int32_t words = 0;
                    for (std::size_t i = first; i < first + count; ++i) {
                        RawPointWithHash point =
                            PartitionPoint::record(frame.xyz[i].data(), frame.nor[i].data(), frame.w[i], laser);
                        point.hash = e;
                        *to++ = point;
                        words |= point.w;
                    }
                    word[e] |= words;
                });
            const std::uint64_t bytes = frame.xyz.size() * (sizeof(Vec3f) * 2 + sizeof(std::int32_t));
            m_waiting_frames[f].reset();
            const std::uint64_t before = let_go.fetch_add(bytes);
            if ((before + bytes) / PORTIONER_FRAME_BYTES_TRIMMED != before / PORTIONER_FRAME_BYTES_TRIMMED)
                giveFreedHeapBack();
        }
    }
    stopPoint();
    for (std::size_t e = 0; e < table; ++e) {
        if (lists[e] == nullptr) continue;
        std::int32_t word = 0;
        for (std::size_t s = 0; s < share_count; ++s) word |= words[s * table + e];
        m_point_cloud_blocks[static_cast<std::size_t>(entries[e].value.id)]->flags |= word;
    }
    return 0;
}

}  // namespace SurfaceReconstruction
