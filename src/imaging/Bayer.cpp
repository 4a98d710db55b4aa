#include "imaging/Bayer.h"

#include "core/CCameraBase.h"
#include "imaging/Kernels.h"

namespace imaging {

std::optional<BayerPhase> PhaseAfterFlips(BayerPattern pattern, bool flipRow, bool flipColumn)
{
    static constexpr BayerPhase phases[] = { PHASE_RG, PHASE_BG, PHASE_GR, PHASE_GB };
    const unsigned index = static_cast<unsigned>(pattern);
    if (index >= 4)
        return std::nullopt;
    return BayerPhase{ phases[index].blueX ^ int{ flipRow }, phases[index].blueY ^ int{ flipColumn } };
}

}  // namespace imaging

void CCameraBase::Bayer2RGB24(uint8_t* src, uint8_t* dst, int width, int height)
{
    const auto phase = imaging::PhaseAfterFlips(m_ColorBayer, m_bFlipRow, m_bFlipColumn);
    if (!phase)
        return;
    const imaging::Gains gains = imaging::SnapshotGains();
    imaging::Demosaic({ src, width, height, *phase, &gains }, 0, height, dst);
}
