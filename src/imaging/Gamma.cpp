#include "imaging/Gamma.h"

#include <algorithm>
#include <cmath>

#include "core/CCameraBase.h"

namespace {

// Entry i is cut(min((i / last) ^ e * last, last)), each step in single precision.
template <class T>
void FillGamma(std::atomic<T>* table, int last, int hundredths)
{
    const float exponent = static_cast<float>(hundredths) / 100.0f, top = static_cast<float>(last);
    for (int i = 0; i <= last; ++i) {
        const float v = std::pow(static_cast<float>(i) / top, exponent) * top;
        table[i].store(static_cast<T>(std::min(v, top)), std::memory_order_relaxed);
    }
}

}  // namespace

namespace imaging {

ByteTable SnapshotGamma8(const CCameraBase& camera)
{
    ByteTable lut;
    for (size_t i = 0; i < lut.size(); ++i)
        lut[i] = camera.m_Gamma8[i].load(std::memory_order_relaxed);
    return lut;
}

}  // namespace imaging

bool CCameraBase::SetGamma(int value)
{
    if (m_iGamma < 1)
        m_iGamma = 1;
    // QUIRK: the upper limit is tested on the stored value. A value above 100 is kept once, and the next call, whatever
    // it asks for, makes it 100.
    const int gamma = m_iGamma > 100 ? 100 : value;
    m_iGamma = gamma;
    const int hundredths = gamma <= 50 ? static_cast<int>(200u - 2u * static_cast<unsigned>(gamma)) : 150 - gamma;
    FillGamma(m_Gamma8, 255, hundredths);
    m_iGammaExponent = hundredths;
    return true;
}

void CCameraBase::FillGamma16()
{
    // A setter may choose another exponent meanwhile.
    while (m_iGamma16Exponent != m_iGammaExponent) {
        const int32_t hundredths = m_iGammaExponent;
        FillGamma(m_pGamma16, 65535, hundredths);
        m_iGamma16Exponent = hundredths;
    }
}

int CCameraBase::GetGamma()
{
    return m_iGamma;
}
