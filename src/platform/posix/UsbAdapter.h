// Moved.
#pragma once
#include "platform/UsbAdapter.h"
