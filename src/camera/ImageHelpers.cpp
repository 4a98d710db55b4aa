// What of the camera's state the pixel rooms are given: gamma tables, Bayer pattern, time mark.
#include <cstdint>
#include <optional>

#include "camera/CCameraBase.h"
#include "imaging/Bayer.h"
#include "imaging/Gamma.h"
#include "imaging/Kernels.h"
#include "imaging/Tables.h"
#include "imaging/TimeMark.h"
#include "platform/Platform.h"

bool CCameraBase::SetGamma(int value)
{
    if (m_iGamma < 1)
        m_iGamma = 1;
    // QUIRK: the upper limit is tested on the stored value. A value above 100 is kept once, and the next call, whatever
    // it asks for, makes it 100.
    const int gamma = m_iGamma > 100 ? 100 : value;
    m_iGamma = gamma;
    const int hundredths = gamma <= 50 ? static_cast<int>(200u - 2u * static_cast<unsigned>(gamma)) : 150 - gamma;
    imaging::FillGamma8(m_Gamma8, hundredths);
    m_gammaExponent = hundredths;
    return true;
}

void CCameraBase::FillGamma16()
{
    // A setter may choose another exponent meanwhile.
    while (m_gamma16Exponent != m_gammaExponent) {
        const int32_t hundredths = m_gammaExponent;
        imaging::FillGamma16(m_pGamma16, hundredths);
        m_gamma16Exponent = hundredths;
    }
}

int CCameraBase::GetGamma() { return m_iGamma; }

void CCameraBase::Bayer2RGB24(uint8_t* src, uint8_t* dst, int width, int height)
{
    const auto phase = imaging::PhaseAfterFlips(m_ColorBayer, m_bFlipRow, m_bFlipColumn);
    if (!phase)
        return;
    const imaging::Gains gains = imaging::SnapshotGains();
    imaging::Demosaic({ src, width, height, *phase, &gains }, 0, height, dst);
}

// The time is that of the delivery, not of the exposure. 16-bit images are never marked.
void CCameraBase::AddTimeMark(uint8_t* image, int width, IMAGE_TYPE type)
{
    if (type == IMAGE_8BIT || type == IMAGE_RGB24)
        imaging::DrawTimeMark(image, width, m_iHeight, type == IMAGE_RGB24 ? 3 : 1, platform::LocalNow());
}
