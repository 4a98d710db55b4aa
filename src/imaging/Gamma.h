// The 8-bit gamma table of the camera as it is now. Host threads; SetGamma may rewrite the tables meanwhile, and then a frame
// may be mapped partly with old values.
#pragma once
#include "imaging/Tables.h"

class CCameraBase;

namespace imaging {

ByteTable SnapshotGamma8(const CCameraBase& camera);

}  // namespace imaging
