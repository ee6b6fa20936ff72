// A scan file read by its extension, and the formats no Debian library reads refused with what to do.
#include "ScanFormats.h"

#include <cctype>
#include <fstream>
#include <stdexcept>

#include "PlyReader.h"
#include "PointCloudIO.h"

namespace tessaline_tools {

namespace {

std::string extensionOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    const std::size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::string();
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

}  // namespace

ScanFormat scanFormatOf(const std::string& path, bool in_folder) {
    const std::string ext = extensionOf(path);
    if (ext == "ply") return ScanFormat::Ply;
    if (ext == "ptx") return ScanFormat::Ptx;
    if (ext == "pts" || ext == "xyz" || (ext == "txt" && !in_folder)) return ScanFormat::PointText;
    if (ext == "pcd") return ScanFormat::Pcd;
    if (ext == "las") return ScanFormat::Las;
    if (ext == "laz") return ScanFormat::Laz;
    if (ext == "e57") return ScanFormat::E57;
    return ScanFormat::Unknown;
}

namespace {

// A file of no known extension is read as PLY when it starts as one, as the program always read it.
bool startsAsPly(const std::string& path) {
    char magic[4] = {};
    std::ifstream(path, std::ios::binary).read(magic, 3);
    return std::string(magic) == "ply";
}

}  // namespace

void readScanFile(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes) {
    refuseIrregularFile(path);  // a device or a pipe could feed a reader without end
    ScanFormat format = scanFormatOf(path);
    if (format == ScanFormat::Unknown && startsAsPly(path)) format = ScanFormat::Ply;
    switch (format) {
        case ScanFormat::Ply: {
            PointCloudReadInfo info;
            FrameExtras extras;
            auto frame = readPlyPointCloud(path, options.scale, options.scale_code, info, &extras);
            notes.dropped += info.dropped;
            notes.faces += info.faces;
            const Origin& o = options.origin;
            if (o[0] != 0.0 || o[1] != 0.0 || o[2] != 0.0) {  // the frames of a geo-referenced run share its origin
                for (auto& p : frame->xyz)
                    for (int k = 0; k < 3; ++k) p[k] = static_cast<float>(static_cast<double>(p[k]) - o[k]);
                for (int k = 0; k < 3; ++k) extras.sensor_position[k] -= o[k];
            }
            out.add(std::move(frame), std::move(extras));
            return;
        }
        case ScanFormat::Ptx:
            return readPtx(path, options, out, notes);
        case ScanFormat::PointText:
            return readPointText(path, options, out, notes);
        case ScanFormat::Pcd:
            return readPcd(path, options, out, notes);
        case ScanFormat::Las:
            return readLas(path, options, out, notes);
        case ScanFormat::Laz:
            throw std::runtime_error(path +
                                     ": LAZ files are compressed LAS, which no Debian library reads; convert it with "
                                     "laszip or PDAL (pdal translate in.laz out.las), then read the .las");
        case ScanFormat::E57:
            throw std::runtime_error(path +
                                     ": E57 files are not read (no Debian library reads them); convert it with PDAL "
                                     "(pdal translate in.e57 out.las) or CloudCompare (to .ptx, .pcd or .ply), then "
                                     "read that");
        default:
            throw std::runtime_error(path +
                                     ": unknown point format (read: .ply, .ptx, .pts, .xyz, .txt, .pcd, .las, and "
                                     ".conf scan lists)");
    }
}

}  // namespace tessaline_tools
