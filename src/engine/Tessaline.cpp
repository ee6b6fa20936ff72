// The exported handle: forwards each operation to the shared engine and adds nothing.
#include "tessaline/Tessaline.h"

#include "engine/Tessaline_OPT.h"

namespace SurfaceReconstruction {

Tessaline::Tessaline() : m_opt(std::make_shared<Tessaline_OPT>()) {}
Tessaline::Tessaline(const Tessaline& other) = default;
Tessaline::~Tessaline() = default;
Tessaline& Tessaline::operator=(const Tessaline& other) = default;

int Tessaline::init() { return m_opt->init(); }
int Tessaline::deInit() { return m_opt->deInit(); }
void Tessaline::setResolution(float resolution) { m_opt->setResolution(resolution); }
int Tessaline::setRunOrigin(const std::array<double, 3>& origin) { return m_opt->setRunOrigin(origin); }
int Tessaline::clearRunOrigin() { return m_opt->clearRunOrigin(); }
int Tessaline::getRunOrigin(std::array<double, 3>& origin) { return m_opt->getRunOrigin(origin); }
int Tessaline::setBlockSize(std::uint32_t cells) { return m_opt->setBlockSize(cells); }
std::uint32_t Tessaline::getBlockSize() { return m_opt->getBlockSize(); }
int Tessaline::setOwnedBlocks(const std::vector<BlockKey>& blocks) { return m_opt->setOwnedBlocks(blocks); }
int Tessaline::processParts(std::vector<MeshPart>& parts) { return m_opt->processParts(parts); }
int Tessaline::setLaserInfo(const LaserInfo& info) { return m_opt->setLaserInfo(info); }
int Tessaline::setOptimizedMarkers(MarkerInfos& markers) { return m_opt->setOptimizedMarkers(markers); }
int Tessaline::setProcessStepCallBack(std::function<int(ProcessStepInfo&)>& callback) {
    return m_opt->setProcessStepCallBack(callback);
}
int Tessaline::addScanFrame_ALL(const std::shared_ptr<FrameDataWithInfo>& frame) { return m_opt->addScanFrame(frame); }
int Tessaline::addScanFrame_async(const std::shared_ptr<FrameDataWithInfo>& frame) {
    return m_opt->addScanFrame(frame);
}
int Tessaline::process(std::shared_ptr<MultiMeshData>& mesh) { return m_opt->process(mesh); }
int Tessaline::getOptimizedMarkerErrors(std::shared_ptr<std::vector<OptedMarker>>& markers) {
    return m_opt->getOptimizedMarkerErrors(markers);
}
std::string Tessaline::getLastErrorMsg() { return m_opt->getLastErrorMsg(); }
int Tessaline::setDiagnosticSink(DiagnosticSink sink) { return m_opt->setDiagnosticSink(std::move(sink)); }
int Tessaline::requestStop() { return m_opt->requestStop(); }

}  // namespace SurfaceReconstruction
