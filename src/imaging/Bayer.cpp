#include "imaging/Bayer.h"

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
