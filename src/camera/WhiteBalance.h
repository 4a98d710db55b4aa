// Auto white balance of a camera.
#pragma once
#include "automation/WhiteBalance.h"

class CCameraBase;

// Sets the balance that follows from the present one and from what was measured; see automation::NextBalance.
void StepWhiteBalance(CCameraBase& cam, const WBBlocks& blocks, bool block0IfFlat);
