// Gamma of a frame, in place, through the tables of the camera. Host threads; SetGamma may rewrite the tables meanwhile,
// and then a frame may be mapped partly with old values.
#pragma once
#include <cstdint>

class CCameraBase;

namespace imaging {

// n elements. The caller tests m_iGamma: at 50 the tables are not to be applied.
void ApplyGamma8(const CCameraBase& camera, uint8_t* buf, int n);
void ApplyGamma16(const CCameraBase& camera, uint16_t* buf, int n);

}  // namespace imaging
